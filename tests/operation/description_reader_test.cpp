#include "operation/description_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

#include "base/rules.h"
#include "dataupdate/error.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::UpdateError;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const fs::path kDescription = "/var/cache/data_update/database_info.json";

// Of a device without databases.
constexpr char kEmptyDescription[] = R"({"db_list": {}})";

std::string RefusalBy(const dataupdate::IOUtils& io, const std::string& path = kDescription) {
  try {
    io.ReadJson(path);
  } catch (const UpdateError& error) {
    return error.what();
  }
  return "";
}

std::string Nested(std::uint64_t levels) {
  return std::string(levels, '[') + std::string(levels, ']');
}

std::string Array(std::uint64_t values) {
  std::string text = "[";
  for (std::uint64_t i = 1; i < values; ++i) {
    text += i == 1 ? "0" : ",0";
  }
  return text + ']';
}

std::string Text(std::uint64_t bytes) {
  return '"' + std::string(bytes - 2, 'x') + '"';
}

struct Bound {
  std::string (*make)(std::uint64_t);
  std::uint64_t most;
  const char* says;
};

class BoundTest : public ::testing::TestWithParam<Bound> {};

TEST_P(BoundTest, IsReadUpToItAndNotBeyond) {
  testing::WriteFile(kDescription, GetParam().make(GetParam().most));
  EXPECT_EQ(RefusalBy(DescriptionReader()), "");
  testing::WriteFile(kDescription, GetParam().make(GetParam().most + 1));
  EXPECT_EQ(RefusalBy(DescriptionReader()), "Fail to decode: " + kDescription.string() +
                                                " (it has " + std::to_string(GetParam().most + 1) +
                                                GetParam().says +
                                                ", 1 more than a description may have)");
  EXPECT_TRUE(fs::exists(kDescription));
}

INSTANTIATE_TEST_SUITE_P(Description, BoundTest,
                         ::testing::Values(Bound{Text, rules::kDescriptionBytes, " bytes"},
                                           Bound{Nested, rules::kDescriptionDepth, " levels"},
                                           Bound{Array, rules::kDescriptionValues, " values"}),
                         [](const ::testing::TestParamInfo<Bound>& row) {
                           return std::string(row.param.says + 1);
                         });

TEST(DescriptionReaderTest, OtherFilesHaveNoBounds) {
  testing::WriteFile("/tmp/other.json", Nested(100));
  EXPECT_EQ(RefusalBy(DescriptionReader(), "/tmp/other.json"), "");
}

TEST(DescriptionReaderTest, MissingOneIsToldByItsCode) {
  try {
    DescriptionKeeper().ReadJson(kDescription);
    FAIL();
  } catch (const UpdateError& error) {
    EXPECT_EQ(error.code(), UpdateError::kFileNotExist);
  }
}

TEST(DescriptionReaderTest, WhatIsNoRegularFileIsNotOpened) {
  fs::create_directories(kDescription.parent_path());
  ASSERT_EQ(mkfifo(kDescription.c_str(), 0600), 0);
  EXPECT_EQ(RefusalBy(DescriptionReader()),
            "Fail to read: " + kDescription.string() + " (it is not a regular file)");
  fs::remove(kDescription);
  testing::WriteFile("/tmp/elsewhere", "{}");
  fs::create_symlink("/tmp/elsewhere", kDescription);
  EXPECT_THAT(RefusalBy(DescriptionReader()), HasSubstr("not a regular file"));
}

TEST(DescriptionKeeperTest, WhatCannotBeParsedIsRemoved) {
  for (const std::string text : {"{", "", "\"x"}) {
    testing::WriteFile(kDescription, text);
    EXPECT_EQ(RefusalBy(DescriptionKeeper()), "Fail to decode: " + kDescription.string());
    EXPECT_FALSE(fs::exists(kDescription)) << text;
  }
  testing::WriteFile(kDescription, Nested(rules::kDescriptionDepth + 1));
  EXPECT_THAT(RefusalBy(DescriptionKeeper()), StartsWith("Fail to decode: "));
  EXPECT_FALSE(fs::exists(kDescription));
}

TEST(DescriptionKeeperTest, OtherFilesStay) {
  testing::WriteFile("/tmp/other.json", "{");
  EXPECT_NE(RefusalBy(DescriptionKeeper(), "/tmp/other.json"), "");
  EXPECT_TRUE(fs::exists("/tmp/other.json"));
}

TEST(DescriptionKeeperTest, OtherDownloadsAreNoDescriptions) {
  testing::HttpServer server;
  testing::WriteFile("/usr/share/data_update/data_update.conf",
                     R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:)" +
                         std::to_string(server.Port()) + R"("}})");
  server.SetBody("/x", "no description");
  DescriptionKeeper().Download("/tmp/other", server.Url("/x"));
  EXPECT_EQ(testing::ReadFile("/tmp/other"), "no description");
  EXPECT_FALSE(fs::exists(kDescription));
}

TEST(DescriptionKeeperTest, WhatIsTooLargeIsRemovedUnreadAndCountsAsOld) {
  testing::WriteFile(kDescription, kEmptyDescription);
  EXPECT_FALSE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  fs::resize_file(kDescription, rules::kDescriptionBytes + 1);
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_FALSE(fs::exists(kDescription));
}

TEST(DescriptionKeeperTest, LinkIsRemovedAndNotWhatItLeadsTo) {
  testing::WriteFile("/tmp/elsewhere", "{}");
  fs::create_directories(kDescription.parent_path());
  fs::create_symlink("/tmp/elsewhere", kDescription);
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_FALSE(fs::is_symlink(kDescription));
  EXPECT_TRUE(fs::exists("/tmp/elsewhere"));
}

TEST(DescriptionKeeperTest, OneOfTheFutureIsRemoved) {
  testing::WriteFile(kDescription, kEmptyDescription);
  fs::last_write_time(kDescription, fs::file_time_type::clock::now() + std::chrono::seconds(30));
  EXPECT_FALSE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  fs::last_write_time(kDescription, fs::file_time_type::clock::now() + std::chrono::minutes(10));
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_FALSE(fs::exists(kDescription));
}

TEST(DescriptionKeeperTest, OldOneCountsAsOldAndStays) {
  testing::WriteFile(kDescription, kEmptyDescription);
  fs::last_write_time(kDescription, fs::file_time_type::clock::now() - std::chrono::hours(2));
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_TRUE(fs::exists(kDescription));
}

}  // namespace
}  // namespace tolm::operation

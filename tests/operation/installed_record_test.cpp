#include "operation/installed_record.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>

#include "tests/support/files.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::WriteFile;

const fs::path kVersionFile = "/var/lib/data_update/oui/version.json";
const fs::path kRecord = "/var/lib/data_update/oui/installed.json";

RecordedFile FileOf(const std::string& name) {
  return {{name, S_IFREG | 0644, 3, 1700000000123456789, 1700000001000000000, 0},
          std::string(96, 'a')};
}

class InstalledRecordTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(kVersionFile, "{}");
    record_.version = 7;
    record_.version_file = VersionFileDigest("oui");
    record_.fingerprint = 0xfedcba9876543210;
  }

  void Add(const RecordedFile& file) { record_.files[file.seen.name] = file; }

  void ExpectReadAsWritten() {
    WriteRecord("oui", record_);
    const std::optional<InstalledRecord> read = ReadRecord("oui");
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->version, record_.version);
    EXPECT_EQ(read->fingerprint, record_.fingerprint);
    ASSERT_EQ(read->files.size(), record_.files.size());
    for (const auto& [name, file] : record_.files) {
      ASSERT_EQ(read->files.count(name), 1u) << name;
      const RecordedFile& other = read->files.at(name);
      EXPECT_EQ(other.seen.mode, file.seen.mode);
      EXPECT_EQ(other.seen.owner, file.seen.owner);
      EXPECT_EQ(other.seen.size, file.seen.size);
      EXPECT_EQ(other.seen.modified_ns, file.seen.modified_ns);
      EXPECT_EQ(other.seen.changed_ns, file.seen.changed_ns);
      EXPECT_EQ(other.sha384, file.sha384);
    }
  }

  InstalledRecord record_;
};

TEST_F(InstalledRecordTest, IsReadAsItWasWritten) {
  Add(FileOf("a.txt"));
  RecordedFile largest = FileOf("sub/b.txt");
  largest.seen = {"sub/b.txt",
                  S_IFLNK | 07777,
                  std::numeric_limits<std::uint64_t>::max(),
                  std::numeric_limits<std::int64_t>::min(),
                  std::numeric_limits<std::int64_t>::max(),
                  std::numeric_limits<uid_t>::max()};
  Add(largest);
  ExpectReadAsWritten();
}

TEST_F(InstalledRecordTest, AnyNameOfAFileIsKept) {
  std::string every_byte;
  for (int byte = 1; byte < 256; ++byte) {
    every_byte += static_cast<char>(byte);
  }
  for (const std::string& name :
       {std::string("\""), std::string("\\u0041"), std::string("\n"), std::string("\xC3\xA9"),
        std::string("\\"), std::string("a\\\"b"), every_byte}) {
    Add(FileOf(name));
  }
  ExpectReadAsWritten();
}

TEST_F(InstalledRecordTest, NoFilesAreARecordToo) {
  ExpectReadAsWritten();
}

TEST_F(InstalledRecordTest, IsJsonThatEverybodyMayRead) {
  Add(FileOf("a\tb"));
  Add(FileOf("c"));
  WriteRecord("oui", record_);
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  const std::string text = ReadFile(kRecord);
  Json::Value value;
  ASSERT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
  EXPECT_EQ(value["version"], 7);
  EXPECT_EQ(value["files"]["a\tb"]["mode"], "100644");
  EXPECT_EQ(value["files"]["c"]["size"], 3);
  struct stat status;
  ASSERT_EQ(stat(kRecord.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(InstalledRecordTest, BelongsToOneVersionFile) {
  Add(FileOf("a"));
  WriteRecord("oui", record_);
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kCurrent);
  EXPECT_EQ(ReadRecordHead("oui").fingerprint, record_.fingerprint);
  WriteFile(kVersionFile, "{ }");
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kOutdated);
  EXPECT_FALSE(ReadRecord("oui").has_value());
  fs::remove(kVersionFile);
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kOutdated);
}

TEST_F(InstalledRecordTest, MissingOneIsNotADamagedOne) {
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kMissing);
  EXPECT_FALSE(ReadRecord("oui").has_value());
}

TEST_F(InstalledRecordTest, OneThatIsCutOffAnywhereIsDamaged) {
  Add(FileOf("a"));
  Add(FileOf("b"));
  WriteRecord("oui", record_);
  const std::string whole = ReadFile(kRecord);
  // The last line's end does not matter.
  for (std::size_t size = 0; size + 1 < whole.size(); ++size) {
    WriteFile(kRecord, whole.substr(0, size));
    EXPECT_FALSE(ReadRecord("oui").has_value()) << size;
    EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kDamaged) << size;
  }
  WriteFile(kRecord, whole.substr(0, whole.size() - 1));
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kCurrent);
}

TEST_F(InstalledRecordTest, OneOfAnotherFormIsDamaged) {
  Add(FileOf("a"));
  WriteRecord("oui", record_);
  const std::string whole = ReadFile(kRecord);
  for (const auto& [text, other] :
       std::map<std::string, std::string>{{"\"format\": 1", "\"format\": 2"},
                                          {"\"version\": 7", "\"version\": \"7\""},
                                          {"\"version\": 7", "\"version\": 7777777777"},
                                          {"\"tree\": \"f", "\"tree\": \"x"},
                                          {"\"files\"", "\"Files\""},
                                          {"\"size\": 3", "\"size\": -3"},
                                          {"\"100644\"", "\"100648\""},
                                          {"aaa\"}", "aaA\"}"},
                                          {"\"a\"", "\"\\x\""},
                                          {"\"a\"", "\"\\u00z1\""}}) {
    std::string changed = whole;
    changed.replace(changed.find(text), text.size(), other);
    WriteFile(kRecord, changed);
    EXPECT_FALSE(ReadRecord("oui").has_value()) << other;
  }
  WriteFile(kRecord, "");
  EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kDamaged);
}

}  // namespace
}  // namespace tolm::operation

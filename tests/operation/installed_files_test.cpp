#include "operation/installed_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>

#include "tests/support/files.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::DatabaseStatus;
using dataupdate::FileStatus;
using ::testing::HasSubstr;
using testing::WriteFile;

constexpr char kDirectory[] = "/tmp/installed";
const fs::path kRecord = "/var/lib/data_update/oui/installed.json";
const std::function<void()> kNoStep = [] {};

std::map<std::string, FileStatus> DigestsOf(const std::vector<std::string>& names) {
  std::map<std::string, FileStatus> digests;
  for (const std::string& name : names) {
    digests.emplace(name, FileStatus(DigestOf(kDirectory, {name, S_IFREG | 0644}, kNoStep)));
  }
  return digests;
}

class InstalledFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile("/var/lib/data_update/oui/version.json", "{}");
    testing::MakeTree(kDirectory, {{"a", "one"}, {"b", "two"}, {"sub/", ""}, {"sub/c", "three"}});
    RecordInstallation("oui", 1, LookAt(kDirectory), DigestsOf({"a", "b", "sub/c"}), std::nullopt);
  }

  static std::string Problem(const std::map<std::string, FileStatus>& listed = {}) {
    return Examine(
        "oui", kDirectory, [&] { return DatabaseStatus(1, 0, listed); }, kNoStep);
  }

  // The same length, and the old time put back.
  static void Alter(const std::string& name) {
    const fs::path file = fs::path(kDirectory) / name;
    const auto time = fs::last_write_time(file);
    std::string content = testing::ReadFile(file);
    content[0] = '?';
    WriteFile(file, content);
    fs::last_write_time(file, time);
  }
};

TEST_F(InstalledFilesTest, WhatWasInstalledIsInOrder) {
  EXPECT_TRUE(GlanceAt("oui", kDirectory).is_as_recorded);
  EXPECT_EQ(Problem(), "");
}

TEST_F(InstalledFilesTest, EveryDifferenceIsFound) {
  const fs::path directory = kDirectory;
  const std::map<std::string, std::function<void()>> damages = {
      {"a is missing", [&] { fs::remove(directory / "a"); }},
      {"a has another size", [&] { WriteFile(directory / "a", "longer"); }},
      {"sub/c has another content", [&] { Alter("sub/c"); }},
      {"b has the mode 4755 in place of 644",
       [&] { ASSERT_EQ(chmod((directory / "b").c_str(), 04755), 0); }},
      {"b is of another type",
       [&] {
         fs::remove(directory / "b");
         fs::create_symlink("a", directory / "b");
       }},
      {"sub/c is missing", [&] { fs::remove_all(directory / "sub"); }},
      {"a is of another type", [&] {
         fs::remove(directory / "a");
         fs::create_directory(directory / "a");
       }}};
  for (const auto& [problem, damage] : damages) {
    fs::remove_all(directory);
    SetUp();
    ASSERT_EQ(Problem(), "");
    damage();
    const std::string expected = problem == "a is of another type" ? "a is missing" : problem;
    EXPECT_EQ(Problem(), expected);
  }
}

TEST_F(InstalledFilesTest, OtherTimesAloneAreNoDamageAndAreRemembered) {
  const fs::path file = fs::path(kDirectory) / "a";
  fs::last_write_time(file, fs::file_time_type::clock::now() + std::chrono::hours(1));
  EXPECT_FALSE(GlanceAt("oui", kDirectory).is_as_recorded);
  EXPECT_EQ(Problem(), "");
  EXPECT_TRUE(GlanceAt("oui", kDirectory).is_as_recorded);
  const std::string refreshed = testing::ReadFile(kRecord);
  EXPECT_EQ(Problem(), "");
  EXPECT_EQ(testing::ReadFile(kRecord), refreshed);
}

TEST_F(InstalledFilesTest, WhatNobodyInstalledIsNoDamage) {
  WriteFile(fs::path(kDirectory) / "notes", "a person's");
  EXPECT_EQ(Problem(), "");
  EXPECT_EQ(ReadRecord("oui")->files.count("notes"), 0u);
}

// Neither is called damaged, and no file is taken for right because nothing were known of it.
TEST_F(InstalledFilesTest, RecordThatCannotBeReadIsAProblem) {
  for (const char* file : {"installed.json", "version.json"}) {
    const fs::path kept = kRecord.parent_path() / "kept";
    fs::rename(kRecord.parent_path() / file, kept);
    fs::create_symlink("/proc/self/mem", kRecord.parent_path() / file);
    Alter("a");
    EXPECT_EQ(ReadRecordHead("oui").state, RecordState::kUnreadable);
    EXPECT_THROW(ReadRecord("oui"), std::exception);
    EXPECT_THAT(Problem(), HasSubstr((kRecord.parent_path() / file).string()));
    EXPECT_THAT(Problem(), HasSubstr(": Input/output error"));
    fs::rename(kept, kRecord.parent_path() / file);
    EXPECT_EQ(Problem(), "a has another content");
    SetUp();
  }
}

TEST_F(InstalledFilesTest, DamagedRecordIsAProblem) {
  WriteFile(kRecord, "{");
  EXPECT_EQ(Problem(), "installed.json is damaged");
}

TEST_F(InstalledFilesTest, WithoutARecordWhatIsThereIsRecorded) {
  fs::remove(kRecord);
  EXPECT_EQ(Problem(DigestsOf({"a"})), "");
  ASSERT_TRUE(ReadRecord("oui").has_value());
  EXPECT_EQ(ReadRecord("oui")->files.size(), 3u);
  Alter("b");
  EXPECT_EQ(Problem(), "b has another content");
}

TEST_F(InstalledFilesTest, WithoutARecordTheVersionFileCounts) {
  fs::remove(kRecord);
  const auto listed = DigestsOf({"a", "sub/c"});
  Alter("a");
  EXPECT_EQ(Problem(listed), "a has another content");
  fs::remove(fs::path(kDirectory) / "a");
  EXPECT_EQ(Problem(listed), "a is missing");
  EXPECT_FALSE(fs::exists(kRecord));
}

TEST_F(InstalledFilesTest, WithoutARecordAnEmptyDirectoryIsAProblem) {
  fs::remove(kRecord);
  fs::remove_all(kDirectory);
  EXPECT_EQ(Problem(), "no file of it is there");
}

TEST_F(InstalledFilesTest, NothingIsExpectedOfWhatWasNeverInstalled) {
  fs::remove(kRecord);
  fs::remove_all(kDirectory);
  EXPECT_EQ(Examine(
                "oui", kDirectory, [] { return DatabaseStatus(); }, kNoStep),
            "");
  EXPECT_FALSE(fs::exists(kRecord));
}

TEST_F(InstalledFilesTest, FileThatAnOperationDidNotTouchIsStillWhatItWas) {
  const std::optional<InstalledRecord> before = ReadRecord("oui");
  Alter("b");
  WriteFile(fs::path(kDirectory) / "a", "new");
  RecordInstallation("oui", 2, LookAt(kDirectory), DigestsOf({"a"}), before);
  EXPECT_FALSE(GlanceAt("oui", kDirectory).is_as_recorded);
  EXPECT_EQ(ReadRecord("oui")->version, 2);
  EXPECT_EQ(Problem(), "b has another content");
}

TEST_F(InstalledFilesTest, FileThatTheLibraryCouldNotOpenIsNotRecorded) {
  WriteFile(fs::path(kDirectory) / "empty", "");
  auto digests = DigestsOf({"a", "b", "empty", "sub/c"});
  RecordInstallation("oui", 2, LookAt(kDirectory), digests, std::nullopt);
  EXPECT_EQ(ReadRecord("oui")->version, 2);
  digests.insert_or_assign("b", digests.at("empty"));
  EXPECT_THROW(RecordInstallation("oui", 3, LookAt(kDirectory), digests, std::nullopt),
               std::runtime_error);
  EXPECT_EQ(ReadRecord("oui")->version, 2);
}

TEST_F(InstalledFilesTest, NamesOfDeltasAreNamesOfFiles) {
  const std::optional<InstalledRecord> before = ReadRecord("oui");
  WriteFile(fs::path(kDirectory) / "sub/c", "new");
  std::map<std::string, FileStatus> digests;
  digests.emplace("//sub/./c", DigestsOf({"sub/c"}).at("sub/c"));
  RecordInstallation("oui", 2, LookAt(kDirectory), digests, before);
  EXPECT_EQ(Problem(), "");
}

TEST_F(InstalledFilesTest, ForcedInstallationRecordsWhatItHasChanged) {
  const std::optional<InstalledRecord> before = ReadRecord("oui");
  const InstalledTree tree_before = LookAt(kDirectory);
  WriteFile(fs::path(kDirectory) / "a", "forced");
  fs::create_symlink("a", fs::path(kDirectory) / "link");
  RecordForcedInstallation("oui", kDirectory, 3, LookAt(kDirectory), tree_before, before);
  EXPECT_EQ(Problem(), "");
  EXPECT_EQ(ReadRecord("oui")->files.size(), 4u);
  EXPECT_EQ(ReadRecord("oui")->files.at("b").sha384, before->files.at("b").sha384);
  fs::remove(fs::path(kDirectory) / "link");
  fs::create_symlink("b", fs::path(kDirectory) / "link");
  EXPECT_EQ(Problem(), "link has another content");
}

TEST_F(InstalledFilesTest, ForcedInstallationMakesNoDamageRight) {
  const std::optional<InstalledRecord> before = ReadRecord("oui");
  Alter("b");
  const InstalledTree tree_before = LookAt(kDirectory);
  WriteFile(fs::path(kDirectory) / "a", "forced");
  RecordForcedInstallation("oui", kDirectory, 3, LookAt(kDirectory), tree_before, before);
  EXPECT_EQ(Problem(), "b has another content");
}

TEST_F(InstalledFilesTest, ForcedInstallationIsAsRecordedUnlessAFileWasAlteredBefore) {
  const auto install = [&](const InstalledTree& tree_before) {
    const std::optional<InstalledRecord> before = ReadRecord("oui");
    WriteFile(fs::path(kDirectory) / "a", "forced");
    RecordForcedInstallation("oui", kDirectory, 3, LookAt(kDirectory), tree_before, before);
    return GlanceAt("oui", kDirectory).is_as_recorded;
  };
  EXPECT_TRUE(install(LookAt(kDirectory)));
  Alter("b");
  EXPECT_FALSE(install(LookAt(kDirectory)));
}

TEST_F(InstalledFilesTest, ForcedInstallationRecordsNoSocket) {
  ASSERT_EQ(mknod((fs::path(kDirectory) / "socket").c_str(), S_IFSOCK | 0644, 0), 0);
  const InstalledTree tree = LookAt(kDirectory);
  RecordForcedInstallation("oui", kDirectory, 3, tree, tree, std::nullopt);
  ASSERT_TRUE(ReadRecord("oui"));
  EXPECT_EQ(ReadRecord("oui")->files.count("socket"), 0u);
  EXPECT_EQ(ReadRecord("oui")->files.size(), 3u);
}

TEST_F(InstalledFilesTest, AnotherModeAloneIsSomebodysChoice) {
  ASSERT_EQ(chmod((fs::path(kDirectory) / "b").c_str(), 0640), 0);
  EXPECT_EQ(Problem(), "");
  EXPECT_EQ(ReadRecord("oui")->files.at("b").seen.mode, S_IFREG | 0640u);
}

TEST_F(InstalledFilesTest, FileOfAnotherAccountIsAProblem) {
  if (chown((fs::path(kDirectory) / "b").c_str(), 1000, 1000) != 0) {
    GTEST_SKIP() << "there is no other account";
  }
  EXPECT_EQ(Problem(), "b belongs to user 1000");
}

TEST_F(InstalledFilesTest, TreeThatIsGoneIsNotAsItWasRecorded) {
  const std::optional<InstalledRecord> before = ReadRecord("oui");
  Alter("b");
  RecordInstallation("oui", 2, LookAt(kDirectory), DigestsOf({"a"}), before);
  fs::remove_all(kDirectory);
  EXPECT_FALSE(GlanceAt("oui", kDirectory).is_as_recorded);
  EXPECT_EQ(Problem(), "a is missing");
}

TEST(PlainNameTest, IsTheShortestOfTheSameFile) {
  for (const auto& [name, plain] : std::map<std::string, std::string>{{"a", "a"},
                                                                      {"sub/c", "sub/c"},
                                                                      {"...", "..."},
                                                                      {"./a", "a"},
                                                                      {"sub/./c", "sub/c"},
                                                                      {"sub//c", "sub/c"},
                                                                      {"sub/../c", "c"},
                                                                      {"//sub/c", "sub/c"},
                                                                      {"/", ""},
                                                                      {"", ""}}) {
    EXPECT_EQ(PlainName(name), plain) << name;
  }
}

}  // namespace
}  // namespace tolm::operation

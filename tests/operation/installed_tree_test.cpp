#include "operation/installed_tree.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <system_error>

#include "tests/support/files.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::MakeTree;
using testing::WriteFile;

constexpr char kDirectory[] = "/tmp/tree";

std::uint64_t Fingerprint(const std::string& directory) {
  const std::uint64_t fingerprint = GlanceAtTree(directory).fingerprint;
  EXPECT_EQ(LookAt(directory).fingerprint, fingerprint);
  return fingerprint;
}

// A change within one tick of the kernel's clock has the time of the one before.
void WaitForTheNextTick() {
  WriteFile("/tmp/tick", "");
  struct stat first;
  struct stat now;
  ASSERT_EQ(stat("/tmp/tick", &first), 0);
  do {
    WriteFile("/tmp/tick", "");
    ASSERT_EQ(stat("/tmp/tick", &now), 0);
  } while (now.st_ctim.tv_sec == first.st_ctim.tv_sec &&
           now.st_ctim.tv_nsec == first.st_ctim.tv_nsec);
}

class InstalledTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeTree(kDirectory, {{"a", "one"}, {"sub/", ""}, {"sub/b", "two"}, {"link -> a", ""}});
    WaitForTheNextTick();
  }
};

TEST_F(InstalledTreeTest, ReadingChangesNothing) {
  const std::uint64_t before = Fingerprint(kDirectory);
  testing::ReadTree(kDirectory);
  EXPECT_EQ(Fingerprint(kDirectory), before);
}

TEST_F(InstalledTreeTest, EveryKindOfChangeIsSeen) {
  const fs::path directory = kDirectory;
  const std::map<std::string, std::function<void()>> changes = {
      {"Rewritten", [&] { WriteFile(directory / "a", "ONE"); }},
      {"RewrittenWithItsOldTime",
       [&] {
         const auto time = fs::last_write_time(directory / "a");
         WriteFile(directory / "a", "0ne");
         fs::last_write_time(directory / "a", time);
       }},
      {"Replaced",
       [&] {
         WriteFile("/tmp/new", "one");
         fs::rename("/tmp/new", directory / "a");
       }},
      {"Deep", [&] { WriteFile(directory / "sub/b", "2"); }},
      {"Added", [&] { WriteFile(directory / "sub/c", ""); }},
      {"Removed", [&] { fs::remove(directory / "link"); }},
      {"Renamed", [&] { fs::rename(directory / "sub/b", directory / "sub/d"); }},
      {"Mode", [&] { fs::permissions(directory / "a", fs::perms::owner_read); }}};
  for (const auto& [name, change] : changes) {
    const std::uint64_t before = Fingerprint(kDirectory);
    change();
    EXPECT_NE(Fingerprint(kDirectory), before) << name;
    WaitForTheNextTick();
  }
}

TEST_F(InstalledTreeTest, FilesAndLinksAreListedByName) {
  WriteFile(fs::path(kDirectory) / "sub.x", "123");
  std::string names;
  for (const TreeFile& file : LookAt(kDirectory).files) {
    names += file.name + (S_ISLNK(file.mode) ? " link " : " ") + std::to_string(file.size) + '\n';
  }
  EXPECT_EQ(names, "a 3\nlink link 1\nsub.x 3\nsub/b 3\n");
}

TEST_F(InstalledTreeTest, WhatOthersMayWriteIsSeen) {
  const fs::path directory = kDirectory;
  EXPECT_FALSE(GlanceAtTree(kDirectory).is_open);
  for (const fs::path& entry : {directory, directory / "sub", directory / "sub/b"}) {
    struct stat status;
    ASSERT_EQ(stat(entry.c_str(), &status), 0);
    ASSERT_EQ(chmod(entry.c_str(), status.st_mode | S_IWGRP), 0);
    EXPECT_TRUE(GlanceAtTree(kDirectory).is_open) << entry;
    ASSERT_EQ(chmod(entry.c_str(), status.st_mode), 0);
  }
  EXPECT_FALSE(GlanceAtTree(kDirectory).is_open);
}

TEST_F(InstalledTreeTest, MissingDirectoryIsAnEmptyOne) {
  fs::create_directory("/tmp/empty");
  EXPECT_EQ(Fingerprint("/tmp/empty"), Fingerprint("/tmp/missing"));
  EXPECT_NE(Fingerprint(kDirectory), Fingerprint("/tmp/missing"));
}

TEST_F(InstalledTreeTest, OtherThanADirectoryIsAnError) {
  EXPECT_THROW(LookAt("/tmp/tree/a"), std::system_error);
}

}  // namespace
}  // namespace tolm::operation

#include "publish/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "package/error.h"
#include "tests/package/expect_code.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace {

std::vector<std::string> synced;

}  // namespace

// Before the C library's, to see what is brought to the disk.
extern "C" int fsync(int file) {
  synced.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)));
  return static_cast<int>(::syscall(SYS_fsync, file));
}

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using ::testing::ElementsAre;

class PublishFilesTest : public ::testing::Test {
 protected:
  TemporaryDirectory directory_;
  const fs::path file_ = directory_.Path() / "file";
  const fs::path staging_ = directory_.Path() / "staging";
};

TEST_F(PublishFilesTest, ReplacedFileHasItsNewContentAndMode) {
  WriteFile(file_, "old and longer");
  WriteFile(staging_, "left behind by somebody, and longer still");
  publish::ReplaceFile(file_, "new", staging_, 0640);
  EXPECT_EQ(ReadFile(file_), "new");
  EXPECT_EQ(fs::status(file_).permissions(), fs::perms(0640));
  EXPECT_FALSE(fs::exists(staging_));
}

TEST_F(PublishFilesTest, ReplacedFileStaysAsItWasForWhoeverHasItOpen) {
  WriteFile(file_, "old");
  std::ifstream reader(file_);
  publish::ReplaceFile(file_, "new", staging_);
  std::string content;
  std::getline(reader, content);
  EXPECT_EQ(content, "old");
}

TEST_F(PublishFilesTest, FailedReplacementLeavesTheFile) {
  WriteFile(file_, "old");
  const ScopedMount small = ScopedMount::Tmpfs(directory_.Path() / "small", 4096);
  EXPECT_EQ(CodeOf([&] {
              publish::ReplaceFile(file_, std::string(100000, 'x'), directory_.Path() / "small/s");
            }),
            Code::kNoSpace);
  EXPECT_EQ(ReadFile(file_), "old");
}

TEST_F(PublishFilesTest, DirectoriesAreMadeWithTheirParents) {
  const fs::path deep = directory_.Path() / "a/b/c";
  publish::MakeDirectories(deep);
  publish::MakeDirectories(deep);
  EXPECT_TRUE(fs::is_directory(deep));
  WriteFile(file_, "x");
  EXPECT_EQ(CodeOf([&] { publish::MakeDirectories(file_ / "below"); }), Code::kWrite);
  EXPECT_EQ(CodeOf([&] { publish::MakeDirectories(file_); }), Code::kWrite);
}

TEST_F(PublishFilesTest, EmptiedDirectoryIsTheSameOne) {
  const fs::path work = directory_.Path() / "work";
  MakeTree(work, {{"a", "1"}, {"d/", ""}, {"d/b", "2"}});
  WriteFile(file_, "x");
  fs::create_symlink(directory_.Path(), work / "link");
  publish::EmptyDirectory(work);
  EXPECT_TRUE(fs::is_empty(work));
  EXPECT_TRUE(fs::exists(file_)) << "links are not followed";
  publish::EmptyDirectory(directory_.Path() / "new");
  EXPECT_TRUE(fs::is_directory(directory_.Path() / "new"));
}

TEST_F(PublishFilesTest, MissingFileIsRemovedAlready) {
  WriteFile(file_, "x");
  publish::RemoveFile(file_);
  publish::RemoveFile(file_);
  EXPECT_FALSE(fs::exists(file_));
  publish::RemoveTree(file_);
}

TEST_F(PublishFilesTest, FileIsMeasured) {
  WriteFile(file_, "abc");
  const publish::FileFacts facts = publish::MeasureFile(file_);
  EXPECT_EQ(facts.size_bytes, 3u);
  const std::string known =
      "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed"
      "8086072ba1e7cc2358baeca134c825a7";
  EXPECT_EQ(facts.sha384, known);
  EXPECT_EQ(publish::Sha384OfText("abc"), known);
  EXPECT_EQ(publish::ReadWholeFile(file_), "abc");
  EXPECT_EQ(CodeOf([&] { publish::MeasureFile(directory_.Path() / "none"); }), Code::kRead);
  EXPECT_EQ(CodeOf([&] { publish::ReadWholeFile(directory_.Path()); }), Code::kRead);
}

TEST_F(PublishFilesTest, LargeFileIsMeasuredInPieces) {
  const std::string content = std::string(300000, 'a') + std::string(300000, 'b');
  WriteFile(file_, content);
  EXPECT_EQ(publish::MeasureFile(file_).size_bytes, content.size());
  EXPECT_EQ(publish::MeasureFile(file_).sha384, Sha384Hex(file_));
  EXPECT_TRUE(publish::ReadWholeFile(file_) == content);
}

TEST_F(PublishFilesTest, FileIsMovedWhateverIsThereAndItsNamesAreInOrder) {
  WriteFile(file_, "new");
  WriteFile(directory_.Path() / "d/to", "old");
  publish::MoveFile(file_, directory_.Path() / "d/to");
  EXPECT_EQ(ReadFile(directory_.Path() / "d/to"), "new");
  EXPECT_FALSE(fs::exists(file_));
  EXPECT_EQ(CodeOf([&] { publish::MoveFile(file_, directory_.Path() / "d/to"); }), Code::kWrite);
  std::vector<std::string> names;
  for (int i = 0; i < 40; ++i) {
    names.push_back("n" + std::to_string(i * 7919 % 100));
    WriteFile(directory_.Path() / "many" / names.back(), "x");
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(publish::NamesIn(directory_.Path() / "many"), names);
}

TEST_F(PublishFilesTest, MadeDirectoriesAreForEverybodyToRead) {
  const mode_t before = ::umask(0);
  publish::MakeDirectories(directory_.Path() / "a/b");
  ::umask(before);
  EXPECT_EQ(fs::status(directory_.Path() / "a").permissions(), fs::perms(0755));
  EXPECT_EQ(fs::status(directory_.Path() / "a/b").permissions(), fs::perms(0755));
}

TEST_F(PublishFilesTest, NamesAreBroughtToTheDiskWhereverOneChanges) {
  const std::string here = directory_.Path();
  const auto synced_by = [](auto action) {
    synced.clear();
    action();
    return synced;
  };
  EXPECT_THAT(synced_by([&] { publish::MakeDirectories(here + "/a/b"); }),
              ElementsAre(here, here + "/a"));
  EXPECT_THAT(synced_by([&] { publish::MakeDirectories(here + "/a/b"); }), ElementsAre());
  EXPECT_THAT(synced_by([&] { publish::ReplaceFile(here + "/a/one", "text", here + "/new"); }),
              ElementsAre(here + "/new", here + "/new", here + "/a", here));
  EXPECT_THAT(synced_by([&] { publish::MoveFile(here + "/a/one", here + "/a/b/two"); }),
              ElementsAre(here + "/a/b", here + "/a"));
  EXPECT_THAT(synced_by([&] { publish::RemoveFile(here + "/a/b/two"); }),
              ElementsAre(here + "/a/b"));
  EXPECT_THAT(synced_by([&] { publish::RemoveFile(here + "/a/b/two"); }), ElementsAre());
}

}  // namespace
}  // namespace tolm::testing

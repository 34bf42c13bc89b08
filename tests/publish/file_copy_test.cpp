#include "publish/file_copy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/package/expect_code.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/noise.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;

class FileCopyTest : public ::testing::Test {
 protected:
  static mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0);
    return status.st_mode;
  }

  TemporaryDirectory directory_;
  const std::string from_ = directory_.Path() / "from";
  const std::string to_ = directory_.Path() / "to";
};

TEST_F(FileCopyTest, CopyHasContentAndModeAndIsAnotherFile) {
  const std::string content = Noise(2500001, 1);
  WriteFile(from_, content);
  ASSERT_EQ(::chmod(from_.c_str(), 04754), 0);
  publish::CopyFile(from_, to_);
  EXPECT_TRUE(ReadFile(to_) == content);
  EXPECT_EQ(ModeOf(to_), mode_t{S_IFREG | 0754}) << "and none of the bits beyond permissions";
  EXPECT_FALSE(fs::equivalent(from_, to_));
}

TEST_F(FileCopyTest, NothingIsReplacedAndOnlyRegularFilesAreCopied) {
  WriteFile(from_, "new");
  WriteFile(to_, "old");
  EXPECT_EQ(CodeOf([&] { publish::CopyFile(from_, to_); }), Code::kWrite);
  EXPECT_EQ(ReadFile(to_), "old");
  const std::string other = directory_.Path() / "other";
  EXPECT_EQ(CodeOf([&] { publish::CopyFile(directory_.Path() / "none", other); }), Code::kRead);
  ASSERT_EQ(::mkfifo((directory_.Path() / "fifo").c_str(), 0600), 0);
  try {
    publish::CopyFile(directory_.Path() / "fifo", other);
    ADD_FAILURE() << "copied";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), Code::kRead);
    EXPECT_EQ(std::string(error.what()),
              (directory_.Path() / "fifo").string() + ": not a regular file");
  }
  EXPECT_FALSE(fs::exists(other));
}

TEST_F(FileCopyTest, SecondNameIsThatOfTheFileBehindALink) {
  WriteFile(from_, "text");
  fs::create_symlink(from_, directory_.Path() / "link");
  publish::LinkOrCopyFile(directory_.Path() / "link", to_);
  EXPECT_TRUE(S_ISREG(ModeOf(to_)));
  EXPECT_TRUE(fs::equivalent(from_, to_));
  EXPECT_EQ(fs::hard_link_count(from_), 2u);
}

TEST_F(FileCopyTest, WhereNoSecondNameCanBeGivenThereIsACopy) {
  WriteFile(from_, "text");
  const ScopedMount elsewhere = ScopedMount::Tmpfs(directory_.Path() / "elsewhere", 64 * 1024);
  publish::LinkOrCopyFile(from_, directory_.Path() / "elsewhere/to");
  EXPECT_EQ(ReadFile(directory_.Path() / "elsewhere/to"), "text");
  EXPECT_EQ(fs::hard_link_count(from_), 1u);
  WriteFile(from_, Noise(100000, 1));
  EXPECT_EQ(CodeOf([&] { publish::CopyFile(from_, directory_.Path() / "elsewhere/large"); }),
            Code::kNoSpace);
}

TEST_F(FileCopyTest, NewFileIsForEverybodyToReadAndReplacesNone) {
  const mode_t before = ::umask(0);
  publish::WriteNewFile(to_, "text");
  ::umask(before);
  EXPECT_EQ(ReadFile(to_), "text");
  EXPECT_EQ(ModeOf(to_), mode_t{S_IFREG | 0644});
  EXPECT_EQ(CodeOf([&] { publish::WriteNewFile(to_, "other"); }), Code::kWrite);
  EXPECT_EQ(ReadFile(to_), "text");
}

}  // namespace
}  // namespace tolm::testing

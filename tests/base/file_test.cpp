#include "base/file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using base::File;
using base::FileError;
using base::Replacement;
using ::testing::HasSubstr;

mode_t ModeOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

template <typename Action>
FileError ErrorOf(const Action& action) {
  try {
    action();
  } catch (const FileError& error) {
    return error;
  }
  ADD_FAILURE() << "nothing was thrown";
  return {0, "", ""};
}

class FileTest : public ::testing::Test {
 protected:
  const TemporaryDirectory directory_;
  const fs::path file_ = directory_.Path() / "file";
};

TEST_F(FileTest, ReadsAndWritesWhatItIsTold) {
  const File file(file_, O_RDWR | O_CREAT);
  file.Write("0123456789");
  file.Sync();
  file.SyncFileSystem();
  EXPECT_EQ(file.Size(), 10);
  EXPECT_EQ(file.Read(2, 3), "234");
  EXPECT_EQ(file.Read(8, 100), "89");
  EXPECT_EQ(file.Read(100, 1), "");
  file.SetMode(0751);
  EXPECT_EQ(ModeOf(file_), 0751);
}

TEST_F(FileTest, IsClosedInProgramsThatAreStarted) {
  const File file(file_, O_RDWR | O_CREAT);
  EXPECT_NE(fcntl(file.Get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(FileTest, ErrorsNameTheActionAndTheFile) {
  const FileError missing = ErrorOf([&] { File(file_, O_RDONLY); });
  EXPECT_THAT(missing.what(), HasSubstr("Fail to open " + file_.string() + ": No such file"));
  EXPECT_EQ(missing.path(), file_);
  EXPECT_EQ(missing.code().value(), ENOENT);
  const File read_only("/dev/null", O_RDONLY);
  EXPECT_THAT(ErrorOf([&] { read_only.Write("x"); }).what(), HasSubstr("Fail to write /dev/null"));
  EXPECT_THAT(ErrorOf([&] { base::SyncDirectory(file_); }).what(), HasSubstr(file_.string()));
}

TEST_F(FileTest, ReplacementIsSeenWhole) {
  WriteFile(file_, "old");
  const File reader(file_, O_RDONLY);
  base::ReplaceFile(file_, "the new content");
  EXPECT_EQ(ReadFile(file_), "the new content");
  EXPECT_EQ(reader.Read(0, 100), "old");
  EXPECT_EQ(ModeOf(file_), 0644);
  EXPECT_FALSE(fs::exists(file_.string() + ".new"));
}

TEST_F(FileTest, ReplacedFileHasNoMoreRightsThanTheUmaskLeaves) {
  const mode_t before = umask(077);
  base::ReplaceFile(file_, "text");
  umask(before);
  EXPECT_EQ(ModeOf(file_), 0600);
}

TEST_F(FileTest, EmptyDirectoryInTheStagingPlaceIsAnObstacleOnce) {
  fs::create_directory(file_.string() + ".new");
  EXPECT_THROW(base::ReplaceFile(file_, "text"), FileError);
  base::ReplaceFile(file_, "text");
  EXPECT_EQ(ReadFile(file_), "text");
}

TEST_F(FileTest, ReplacementMakesMissingDirectories) {
  base::ReplaceFile(directory_.Path() / "a/b/c", "text");
  EXPECT_EQ(ReadFile(directory_.Path() / "a/b/c"), "text");
}

TEST_F(FileTest, ReplacementTakesOverOwnerAndMode) {
  WriteFile(file_, "old");
  fs::permissions(file_, fs::perms(0604));
  Replacement replacement(file_, directory_.Path() / "staging");
  replacement.Write("new", 0600);
  replacement.TakeOverOwnerAndMode();
  replacement.PutInPlace();
  EXPECT_EQ(ModeOf(file_), 0604);
  EXPECT_EQ(ReadFile(file_), "new");
}

TEST_F(FileTest, ReplacementThatFailsLeavesTheOldFileAndNothingElse) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 64 * 1024);
  base::ReplaceFile("/small/file", "old");
  const FileError error =
      ErrorOf([] { base::ReplaceFile("/small/file", std::string(128 * 1024, 'x')); });
  EXPECT_EQ(error.code().value(), ENOSPC);
  EXPECT_EQ(ReadFile("/small/file"), "old");
  EXPECT_FALSE(fs::exists("/small/file.new"));
}

TEST_F(FileTest, ReplacementThatIsNotPutInPlaceGoes) {
  const fs::path staging = directory_.Path() / "staging";
  {
    const Replacement replacement(file_, staging);
    replacement.Write("new", 0600);
    EXPECT_TRUE(fs::exists(staging));
  }
  EXPECT_FALSE(fs::exists(staging));
  EXPECT_FALSE(fs::exists(file_));
}

}  // namespace
}  // namespace tolm::testing

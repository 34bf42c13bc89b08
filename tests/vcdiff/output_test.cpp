#include "vcdiff/output.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"
#include "vcdiff/error.h"

namespace tolm::vcdiff {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::ListTree;
using testing::ReadFile;
using testing::ScopedMount;
using ::testing::StartsWith;
using testing::TemporaryDirectory;
using testing::WriteFile;

class OutputFileTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name = "out") const { return directory_.Path() / name; }
  static void Write(Sink& sink, const std::string& bytes) {
    sink.Write(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::string RefusalOf(const std::string& path) const {
    try {
      OutputFile output(path, 0600, FileAccess::kRead);
    } catch (const Error& error) {
      EXPECT_TRUE(error.Kind() == ErrorKind::kIo);
      return error.what();
    }
    return "accepted";
  }
  TemporaryDirectory directory_;
};

TEST_F(OutputFileTest, AppearsOnlyWhenCommitted) {
  OutputFile output(Path(), 0640, FileAccess::kMap);
  Write(output, "abc");
  EXPECT_FALSE(fs::exists(Path()));
  EXPECT_EQ(fs::path(output.TemporaryPath()).parent_path(), directory_.Path());
  output.Commit();
  EXPECT_EQ(output.TemporaryPath(), "");
  EXPECT_EQ(ReadFile(Path()), "abc");
  EXPECT_THAT(ListTree(directory_.Path()), ElementsAre("out"));
}

TEST_F(OutputFileTest, MayHaveTheNumberOfStandardInput) {
  ASSERT_EQ(::close(STDIN_FILENO), 0);
  OutputFile output(Path(), 0640, FileAccess::kRead);
  Write(output, "abc");
  output.Commit();
  EXPECT_EQ(ReadFile(Path()), "abc");
}

TEST_F(OutputFileTest, HasThePermissionBitsWhateverTheMask) {
  const mode_t before = umask(0077);
  OutputFile output(Path(), 0755, FileAccess::kMap);
  output.Commit();
  umask(before);
  struct stat status;
  ASSERT_EQ(stat(Path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0755U);
}

TEST_F(OutputFileTest, LeavesNothingWhenNotCommitted) {
  { OutputFile output(Path(), 0600, FileAccess::kMap); }
  EXPECT_THAT(ListTree(directory_.Path()), IsEmpty());
}

TEST_F(OutputFileTest, OldFileStaysUntilCommitted) {
  WriteFile(Path(), "old");
  {
    OutputFile output(Path(), 0600, FileAccess::kMap);
    Write(output, "new");
  }
  EXPECT_EQ(ReadFile(Path()), "old");
  OutputFile output(Path(), 0600, FileAccess::kMap);
  Write(output, "new");
  output.Commit();
  EXPECT_EQ(ReadFile(Path()), "new");
  EXPECT_THAT(ListTree(directory_.Path()), ElementsAre("out"));
}

TEST_F(OutputFileTest, SymbolicLinkIsReplacedNotFollowed) {
  WriteFile(Path("target"), "old");
  fs::create_symlink("target", Path());
  OutputFile output(Path(), 0600, FileAccess::kMap);
  Write(output, "new");
  output.Commit();
  EXPECT_EQ(ReadFile(Path("target")), "old");
  EXPECT_FALSE(fs::is_symlink(Path()));
}

TEST_F(OutputFileTest, WhatIsNoFileIsNotReplaced) {
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  for (const std::string& path :
       {directory_.Path().string(), Path("fifo"), std::string("/dev/null")}) {
    EXPECT_EQ(RefusalOf(path), path + ": exists and is not a regular file");
  }
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(OutputFileTest, DirectoryMustBeThere) {
  EXPECT_EQ(RefusalOf(Path("no/out")), Path("no/out") +
                                           ": cannot make a temporary file for it: No such file "
                                           "or directory");
}

TEST_F(OutputFileTest, NameInTheWorkingDirectoryNeedsNoSlash) {
  const fs::path before = fs::current_path();
  fs::current_path(directory_.Path());
  OutputFile output("out", 0600, FileAccess::kMap);
  EXPECT_THAT(output.TemporaryPath(), StartsWith(".vcdiff-"));
  output.Commit();
  fs::current_path(before);
  EXPECT_THAT(ListTree(directory_.Path()), ElementsAre("out"));
}

TEST_F(OutputFileTest, NameOfTheLargestLengthIsPossible) {
  OutputFile output(Path(std::string(255, 'n')), 0600, FileAccess::kMap);
  output.Commit();
  EXPECT_TRUE(fs::exists(Path(std::string(255, 'n'))));
}

TEST_F(OutputFileTest, WhatWasWrittenCanBeRead) {
  for (const FileAccess access : {FileAccess::kRead, FileAccess::kMap}) {
    OutputFile output(Path(), 0600, access);
    Write(output, "abc");
    std::vector<std::uint8_t> buffer;
    EXPECT_EQ(*output.Written().View(1, 2, buffer), 'b');
    const std::string more(100000, 'd');
    Write(output, more);
    output.Settle();
    EXPECT_EQ(output.Written().Size(), 100003U);
    EXPECT_EQ(output.Written().View(3, 100000, buffer)[99999], 'd');
  }
}

TEST_F(OutputFileTest, DescriptorIsNotInherited) {
  const OutputFile output(Path(), 0600, FileAccess::kMap);
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (fs::read_symlink(entry.path(), ignored) == output.TemporaryPath()) {
      EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
      return;
    }
  }
  FAIL() << "no descriptor of the file";
}

TEST_F(OutputFileTest, FullDiskIsAnIoErrorAndLeavesNothing) {
  const ScopedMount small = ScopedMount::Tmpfs(Path("small"), 64U << 10);
  try {
    OutputFile output(Path("small/out"), 0600, FileAccess::kMap);
    const std::string large(1000000, 'x');
    Write(output, large);
    output.Settle();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Error& error) {
    EXPECT_TRUE(error.Kind() == ErrorKind::kIo);
    EXPECT_THAT(error.what(), HasSubstr("cannot write it: No space left on device"));
  }
  EXPECT_THAT(ListTree(Path("small")), IsEmpty());
}

TEST(UnnamedFileTest, HasNoName) {
  const TemporaryDirectory directory;
  ASSERT_EQ(setenv("TMPDIR", directory.Path().c_str(), 1), 0);
  UnnamedFile file(FileAccess::kMap);
  file.Write(reinterpret_cast<const std::uint8_t*>("abc"), 3);
  std::vector<std::uint8_t> buffer;
  EXPECT_EQ(*file.Written().View(2, 1, buffer), 'c');
  EXPECT_THAT(ListTree(directory.Path()), IsEmpty());
  ASSERT_EQ(unsetenv("TMPDIR"), 0);
}

}  // namespace
}  // namespace tolm::vcdiff

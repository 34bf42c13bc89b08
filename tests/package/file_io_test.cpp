#include "package/file_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "base/file.h"
#include "tests/package/expect_code.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using base::Descriptor;
using package::Code;

TEST(FileIoTest, FullDiskIsToldFromOtherWriteFailures) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 64 * 1024);
  const Descriptor file(::open("/small/f", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const std::string data(128 * 1024, 'x');
  EXPECT_EQ(CodeOf([&] { package::WriteAll(file.Get(), data.data(), data.size(), "f"); }),
            Code::kNoSpace);
  EXPECT_EQ(CodeOf([&] { package::WriteAll(-1, data.data(), data.size(), "f"); }), Code::kWrite);
}

TEST(FileIoTest, SmallFilesAreReadUpToTheirBound) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path() / "f";
  WriteFile(path, "12345");
  EXPECT_EQ(package::ReadSmallFile(path, 5, Code::kKeyring), "12345");
  EXPECT_EQ(CodeOf([&] { package::ReadSmallFile(path, 4, Code::kKeyring); }), Code::kKeyring);
  EXPECT_EQ(CodeOf([&] { package::ReadSmallFile(path + "x", 4, Code::kKeyring); }), Code::kKeyring);
  EXPECT_EQ(CodeOf([&] { package::ReadSmallFile("/tmp", 4, Code::kOpen); }), Code::kOpen);
}

TEST(FileIoTest, SmallFilesTakeLittleMemoryHoweverLargeTheirBound) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path() / "f";
  WriteFile(path, "12345");
  EXPECT_LE(package::ReadSmallFile(path, 64 << 20, Code::kKeyring).capacity(), 1U << 20);
  EXPECT_LE(base::File(path, O_RDONLY).Read(0, 64 << 20).capacity(), 1U << 20);
  const std::string long_text(5 << 20, 'x');
  WriteFile(path, long_text + "end");
  EXPECT_EQ(package::ReadSmallFile(path, 64 << 20, Code::kKeyring), long_text + "end");
  EXPECT_EQ(base::File(path, O_RDONLY).Read(long_text.size() - 1, 64 << 20), "xend");
}

TEST(FileIoTest, PartThatCannotBeReadIsToldWithItsFileUnlessReadingWasCancelled) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path() / "f";
  WriteFile(path, "");
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const package::Error failed = package::UnreadPart("payload", file.Get(), EIO);
  EXPECT_EQ(failed.what(), "payload of " + path + ": Input/output error");
  const package::Error cancelled = package::UnreadPart("payload", file.Get(), ECANCELED);
  EXPECT_STREQ(cancelled.what(), "payload: Operation canceled");
}

class ListNamesTest : public ::testing::Test {
 protected:
  ListNamesTest() : directory_(::open(path_.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

  const TemporaryDirectory path_;
  const Descriptor directory_;
  std::vector<std::string> names_;
};

TEST_F(ListNamesTest, WhatIsNoDirectoryHasNone) {
  WriteFile(path_.Path() / "f", "");
  const Descriptor file(::open((path_.Path() / "f").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(package::ListNames(file.Get(), names_));
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_FALSE(package::ListNames(-1, names_));
  EXPECT_EQ(errno, EBADF);
}

TEST_F(ListNamesTest, DirectoryThatWasRemovedIsEmpty) {
  std::filesystem::create_directory(path_.Path() / "d");
  const Descriptor removed(
      ::open((path_.Path() / "d").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  std::filesystem::remove(path_.Path() / "d");
  EXPECT_TRUE(package::ListNames(removed.Get(), names_));
  EXPECT_EQ(names_, std::vector<std::string>());
}

TEST_F(ListNamesTest, TheyAreReadWithoutAStandardInputToo) {
  WriteFile(path_.Path() / "f", "");
  const Descriptor input(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
  ::close(STDIN_FILENO);
  const bool listed = package::ListNames(directory_.Get(), names_);
  ::dup2(input.Get(), STDIN_FILENO);
  EXPECT_TRUE(listed);
  EXPECT_EQ(names_, std::vector<std::string>{"f"});
}

}  // namespace
}  // namespace tolm::testing

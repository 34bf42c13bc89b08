#include "package/descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "tests/package/expect_code.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using package::Code;
using package::Descriptor;

bool IsOpenNumber(int fd) {
  return ::fcntl(fd, F_GETFD) != -1;
}

TEST(DescriptorTest, ClosesWhatItOwnsExactlyOnce) {
  int number = -1;
  {
    Descriptor first(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    number = first.Get();
    Descriptor second(std::move(first));
    EXPECT_FALSE(first.IsOpen());  // NOLINT(bugprone-use-after-move): that is the question.
    EXPECT_TRUE(IsOpenNumber(number));
    EXPECT_EQ(second.Get(), number);
  }
  EXPECT_FALSE(IsOpenNumber(number));
}

TEST(DescriptorTest, AssignmentClosesTheOldOneAtTheEnd) {
  Descriptor first(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const int number = first.Get();
  {
    Descriptor second(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
    first = std::move(second);
  }
  EXPECT_FALSE(IsOpenNumber(number));
  EXPECT_TRUE(first.IsOpen());
  EXPECT_EQ(first.Close(), 0);
  EXPECT_FALSE(first.IsOpen());
}

TEST(DescriptorTest, ReadAtKeepsThePositionAndStopsAtTheEnd) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "f", "0123456789");
  const Descriptor file(::open((directory.Path() / "f").c_str(), O_RDONLY | O_CLOEXEC));
  char buffer[8] = {};
  EXPECT_EQ(package::ReadAt(file.Get(), buffer, 4, 2), 4);
  EXPECT_EQ(std::string(buffer, 4), "2345");
  EXPECT_EQ(package::ReadAt(file.Get(), buffer, 8, 7), 3);
  EXPECT_EQ(package::ReadAt(file.Get(), buffer, 8, 100), 0);
  EXPECT_EQ(package::ReadAt(-1, buffer, 8, 0), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(::lseek(file.Get(), 0, SEEK_CUR), 0);
}

TEST(DescriptorTest, FullDiskIsToldFromOtherWriteFailures) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 64 * 1024);
  const Descriptor file(::open("/small/f", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const std::string data(128 * 1024, 'x');
  EXPECT_EQ(CodeOf([&] { package::WriteAll(file.Get(), data.data(), data.size(), "f"); }),
            Code::kNoSpace);
  EXPECT_EQ(CodeOf([&] { package::WriteAll(-1, data.data(), data.size(), "f"); }), Code::kWrite);
}

TEST(DescriptorTest, SmallFilesAreReadUpToTheirBound) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path() / "f";
  WriteFile(path, "12345");
  EXPECT_EQ(package::ReadSmallFile(path, 5, Code::kKeyring), "12345");
  EXPECT_EQ(CodeOf([&] { package::ReadSmallFile(path, 4, Code::kKeyring); }), Code::kKeyring);
  EXPECT_EQ(CodeOf([&] { package::ReadSmallFile(path + "x", 4, Code::kKeyring); }), Code::kKeyring);
  EXPECT_EQ(CodeOf([&] { package::ReadSmallFile("/tmp", 4, Code::kOpen); }), Code::kOpen);
}

}  // namespace
}  // namespace tolm::testing

#include "base/descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using base::Descriptor;

bool IsOpenNumber(int fd) {
  return ::fcntl(fd, F_GETFD) != -1;
}

TEST(DescriptorTest, ClosesWhatItOwnsExactlyOnce) {
  int number = -1;
  {
    Descriptor first(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    number = first.Get();
    Descriptor second(std::move(first));
    EXPECT_FALSE(first.IsOpen());  // NOLINT: that is the question.
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
  EXPECT_EQ(base::ReadAt(file.Get(), buffer, 4, 2), 4);
  EXPECT_EQ(std::string(buffer, 4), "2345");
  EXPECT_EQ(base::ReadAt(file.Get(), buffer, 8, 7), 3);
  EXPECT_EQ(base::ReadAt(file.Get(), buffer, 8, 100), 0);
  EXPECT_EQ(base::ReadAt(-1, buffer, 8, 0), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(::lseek(file.Get(), 0, SEEK_CUR), 0);
}

}  // namespace
}  // namespace tolm::testing

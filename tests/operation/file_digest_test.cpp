#include "operation/file_digest.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include "tests/support/files.h"
#include "tests/support/mounts.h"

namespace {

std::size_t most_bytes_at_once = SIZE_MAX;  // That the system gives of a file.

}  // namespace

ssize_t read(int fd, void* buffer, std::size_t size) {
  using Call = ssize_t(int, void*, std::size_t);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "read"));
  return real(fd, buffer, std::min(size, most_bytes_at_once));
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using tolm::testing::ScopedMount;
using tolm::testing::Sha384Hex;
using tolm::testing::WriteFile;

const auto kNothing = [] {};

TEST(FileDigestTest, IsTheSha384OfTheContent) {
  constexpr std::size_t kBufferBytes = 1 << 20;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kBufferBytes - 1, kBufferBytes,
                                 kBufferBytes + 1, 3 * kBufferBytes}) {
    WriteFile("/tmp/file", std::string(size, 'x'));
    EXPECT_EQ(FileDigest("/tmp/file", kNothing), Sha384Hex("/tmp/file")) << size;
  }
}

TEST(FileDigestTest, IsThatOfAllContentWhereTheSystemGivesLessThanWasAskedFor) {
  WriteFile("/tmp/file", std::string(300000, 'x') + "end");
  const std::string digest = Sha384Hex("/tmp/file");
  for (const std::size_t bytes : {std::size_t{1000}, std::size_t{300002}}) {
    most_bytes_at_once = bytes;
    EXPECT_EQ(FileDigest("/tmp/file", kNothing), digest) << bytes;
  }
  WriteFile("/tmp/small", "abc");
  most_bytes_at_once = 2;
  const std::string small = FileDigest("/tmp/small", kNothing);
  most_bytes_at_once = SIZE_MAX;
  EXPECT_EQ(small, Sha384Hex("/tmp/small"));
}

TEST(FileDigestTest, SmallFileTakesOneStep) {
  for (const char* content : {"", "content"}) {
    WriteFile("/tmp/file", content);
    int steps = 0;
    FileDigest("/tmp/file", [&steps] { ++steps; });
    EXPECT_EQ(steps, 1) << content;
  }
}

TEST(FileDigestTest, FileThatGrowsOrShrinksMeanwhileIsReadToTheEndThatItHasThen) {
  constexpr std::size_t kBytes = 256 << 10;
  const auto change_at = [](int when, std::uintmax_t size) {
    WriteFile("/tmp/file", std::string(kBytes, 'x'));
    int steps = 0;
    return FileDigest("/tmp/file", [&steps, when, size] {
      if (++steps == when) {
        fs::resize_file("/tmp/file", size);
      }
      if (steps > 10) {
        throw std::runtime_error("it never ends");
      }
    });
  };
  const std::string shrunk = change_at(1, kBytes / 2);
  EXPECT_EQ(shrunk, Sha384Hex("/tmp/file"));
  const std::string grown = change_at(2, kBytes + 100);
  EXPECT_EQ(grown, Sha384Hex("/tmp/file"));
}

TEST(FileDigestTest, LinkIsFollowed) {
  WriteFile("/tmp/file", "content");
  fs::create_symlink("file", "/tmp/link");
  EXPECT_EQ(FileDigest("/tmp/link", kNothing), Sha384Hex("/tmp/file"));
}

TEST(FileDigestTest, FileOnAReadOnlyFileSystemIsRead) {
  WriteFile("/tmp/directory/file", "content");
  const ScopedMount mount = ScopedMount::Bind("/tmp/directory", "/tmp/directory");
  mount.MakeReadOnly();
  EXPECT_EQ(FileDigest("/tmp/directory/file", kNothing), Sha384Hex("/tmp/directory/file"));
}

TEST(FileDigestTest, FifoIsNotWaitedFor) {
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  EXPECT_THROW(FileDigest("/tmp/fifo", kNothing), NotARegularFile);
}

TEST(FileDigestTest, DirectoryIsNoRegularFile) {
  EXPECT_THROW(FileDigest("/tmp", kNothing), NotARegularFile);
}

TEST(FileDigestTest, MissingFileSaysSo) {
  try {
    FileDigest("/tmp/missing", kNothing);
    FAIL() << "nothing was thrown";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
  }
}

TEST(FileDigestTest, FileThatCannotBeReadIsNamed) {
  try {
    FileDigest("/proc/self/mem", kNothing);  // Nothing is at its beginning.
    FAIL();
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::io_error);
    EXPECT_STREQ(error.what(), "/proc/self/mem cannot be read: Input/output error");
  }
}

TEST(FileDigestTest, StepEndsALongReading) {
  WriteFile("/tmp/file", std::string(3 << 20, 'x'));
  int steps = 0;
  const auto step = [&steps] {
    if (++steps == 2) {
      throw std::runtime_error("enough");
    }
  };
  EXPECT_THROW(FileDigest("/tmp/file", step), std::runtime_error);
  EXPECT_EQ(steps, 2);
}

TEST(FileDigestTest, DescriptorsAreClosedAlsoAfterFailures) {
  const auto count = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = count();
  EXPECT_THROW(FileDigest("/tmp", kNothing), NotARegularFile);
  WriteFile("/tmp/file", "content");
  FileDigest("/tmp/file", kNothing);
  EXPECT_EQ(count(), before);
}

}  // namespace
}  // namespace tolm::operation

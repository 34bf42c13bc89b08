#include "vcdiff/input.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"
#include "vcdiff/block_cache.h"
#include "vcdiff/error.h"

namespace tolm::vcdiff {
namespace {

using ::testing::HasSubstr;
using testing::TemporaryDirectory;
using testing::WriteFile;

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 1;
  for (char& c : bytes) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return bytes;
}

template <class Action>
std::string IoError(const Action& action) {
  try {
    action();
  } catch (const Error& error) {
    EXPECT_TRUE(error.Kind() == ErrorKind::kIo);
    return error.what();
  }
  return "nothing was thrown";
}

class FileInputTest : public ::testing::TestWithParam<FileAccess> {
 protected:
  std::string Path(const std::string& name) const { return directory_.Path() / name; }
  TemporaryDirectory directory_;
};

TEST_P(FileInputTest, ReadsAnyRange) {
  const std::string content = Pattern(300000);
  WriteFile(Path("file"), content);
  FileInput input(Path("file"), GetParam());
  EXPECT_EQ(input.Size(), content.size());
  std::vector<std::uint8_t> buffer;
  for (const auto& [offset, size] :
       {std::pair{0, 1}, {0, 300000}, {4095, 2}, {299999, 1}, {70001, 100000}, {300000, 0}}) {
    const std::uint8_t* view =
        input.View(static_cast<std::uint64_t>(offset), static_cast<std::size_t>(size), buffer);
    EXPECT_TRUE(std::string(view, view + size) ==
                content.substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(size)))
        << offset << '+' << size;
  }
}

TEST_P(FileInputTest, KnowsThePermissionBits) {
  WriteFile(Path("file"), "x");
  ASSERT_EQ(chmod(Path("file").c_str(), 04751), 0);
  EXPECT_EQ(FileInput(Path("file"), GetParam()).Permissions(), 0751U);
}

TEST_P(FileInputTest, MissingFileIsAnIoError) {
  EXPECT_EQ(IoError([&] { FileInput input(Path("missing"), GetParam()); }),
            Path("missing") + ": cannot open it: No such file or directory");
}

TEST_P(FileInputTest, OnlyRegularFilesAreTaken) {
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  for (const std::string& path :
       {directory_.Path().string(), Path("fifo"), std::string("/dev/null")}) {
    EXPECT_EQ(IoError([&] { FileInput input(path, GetParam()); }), path + ": not a regular file");
  }
}

TEST_P(FileInputTest, DescriptorIsNotInherited) {
  WriteFile(Path("file"), "x");
  const FileInput input(Path("file"), GetParam());
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (std::filesystem::read_symlink(entry.path(), ignored) == Path("file")) {
      EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
      return;
    }
  }
  FAIL() << "no descriptor of the file";
}

TEST_P(FileInputTest, FileThatGrewIsSeenAfterGrow) {
  WriteFile(Path("file"), "abc");
  const int fd = open(Path("file").c_str(), O_RDWR | O_CLOEXEC);
  FileInput input("file", fd, 3, GetParam());
  std::vector<std::uint8_t> buffer;
  EXPECT_EQ(*input.View(2, 1, buffer), 'c');
  const std::string more = Pattern(10000);
  ASSERT_EQ(pwrite(fd, more.data(), more.size(), 3), 10000);
  input.Grow(10003);
  const std::uint8_t* view = input.View(3, 10000, buffer);
  EXPECT_TRUE(std::string(view, view + 10000) == more);
  close(fd);
}

// None of the file is on the disk.
TEST_P(FileInputTest, ReadsBeyondFourGibibytes) {
  WriteFile(Path("file"), "");
  constexpr std::uint64_t kSize = (std::uint64_t{5} << 30) + 3;
  std::filesystem::resize_file(Path("file"), kSize);
  const int fd = open(Path("file").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(pwrite(fd, "end", 3, static_cast<off_t>(kSize - 3)), 3);
  close(fd);
  FileInput input(Path("file"), GetParam());
  ASSERT_EQ(input.Size(), kSize);
  std::vector<std::uint8_t> buffer;
  const std::uint8_t* view = input.View(kSize - 3, 3, buffer);
  EXPECT_EQ(std::string(view, view + 3), "end");
  view = input.View(1, 1, buffer);
  EXPECT_EQ(*view, 0);
}

INSTANTIATE_TEST_SUITE_P(All, FileInputTest, ::testing::Values(FileAccess::kRead, FileAccess::kMap),
                         [](const auto& row) {
                           return row.param == FileAccess::kRead ? "Read" : "Mapped";
                         });

TEST(ShrinkingFileTest, IsAnIoErrorWhenItIsRead) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path() / "file";
  WriteFile(path, Pattern(100000));
  FileInput input(path, FileAccess::kRead);
  std::filesystem::resize_file(path, 50000);
  std::vector<std::uint8_t> buffer;
  input.View(0, 50000, buffer);
  EXPECT_EQ(IoError([&] { input.View(0, 50001, buffer); }),
            path + ": became shorter while it was read");
}

TEST(ShrinkingFileTest, IsAnIoErrorInTheBlockCache) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path() / "file";
  WriteFile(path, Pattern(100000));
  FileInput input(path, FileAccess::kRead);
  BlockCache cache;
  cache.Attach(input);
  std::uint8_t byte = 0;
  std::filesystem::resize_file(path, 10);
  EXPECT_THAT(IoError([&] { cache.Read(5, &byte, 1); }), HasSubstr("became shorter"));
}

TEST(BlockCacheTest, GivesTheSameBytesAsTheInput) {
  const std::string content = Pattern(3U << 20);
  MemoryInput input("memory", reinterpret_cast<const std::uint8_t*>(content.data()),
                    content.size());
  BlockCache cache;
  cache.Attach(input);
  std::uint64_t random = 99;
  for (int i = 0; i < 20000; ++i) {
    random = random * 6364136223846793005 + 1442695040888963407;
    const auto size = static_cast<std::size_t>((random >> 20) % (i % 100 == 0 ? 100000 : 300));
    const auto offset = static_cast<std::size_t>((random >> 35) % (content.size() - size + 1));
    std::string out(size, '\0');
    cache.Read(offset, reinterpret_cast<std::uint8_t*>(out.data()), size);
    ASSERT_TRUE(content.compare(offset, size, out) == 0) << offset << '+' << size;
  }
}

TEST(BlockCacheTest, ForgetsTheInputBefore) {
  const std::string first = Pattern(100);
  const std::string second(100, 'x');
  MemoryInput one("one", reinterpret_cast<const std::uint8_t*>(first.data()), first.size());
  MemoryInput two("two", reinterpret_cast<const std::uint8_t*>(second.data()), second.size());
  BlockCache cache;
  std::uint8_t byte = 0;
  cache.Attach(one);
  cache.Read(7, &byte, 1);
  cache.Attach(two);
  cache.Read(7, &byte, 1);
  EXPECT_EQ(byte, 'x');
}

}  // namespace
}  // namespace tolm::vcdiff

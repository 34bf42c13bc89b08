#include "file_system.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "tests/support/files.h"
#include "tests/support/mounts.h"

namespace {

/// With which flags copy_file_range(2) was called last.
unsigned range_flags = 0;
/// What copy_file_range(2) does instead of copying; nothing set: the system's own.
std::function<ssize_t(int in, int out, std::size_t length)> copy_range;

ssize_t CopyForReal(int in, int out, std::size_t length) {
  return syscall(SYS_copy_file_range, in, nullptr, out, nullptr, length, 0);
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" ssize_t copy_file_range(int in, off64_t*, int out, off64_t*, size_t length,
                                   unsigned flags) {
  range_flags = flags;
  return copy_range ? copy_range(in, out, length) : CopyForReal(in, out, length);
}
#pragma GCC visibility pop

namespace tolm::dataupdate {
namespace {

using tolm::testing::MakeTree;
using tolm::testing::ReadFile;
using tolm::testing::ReadTree;
using tolm::testing::ScopedMount;
using tolm::testing::Tree;
using tolm::testing::WriteFile;

namespace fs = std::filesystem;

/// The error number of the operation's file-system error, 0 when it throws none.
int ErrnoOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const boost::filesystem::filesystem_error& error) {
    return error.code().value();
  }
  return 0;
}

std::string SomeContent(std::size_t size) {
  std::string content(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    content[i] = static_cast<char>(i * 2654435761U >> 13);
  }
  return content;
}

TEST(JoinPathTest, ExactlyOneSeparatorIsAdded) {
  const struct {
    const char* prefix;
    const char* name;
    const char* joined;
  } rows[] = {
      {"/a", "b", "/a/b"},
      {"/a/", "b", "/a/b"},
      {"/a", "b/c", "/a/b/c"},
      {"a", "b", "a/b"},
      {"/", "b", "/b"},
      {"/a", "b/", "/a/b/"},
      {"/a", ".b", "/a/.b"},
      {"/a", "../b", "/a/../b"},
      {"", "b", "b"},
      {"/a", "", "/a"},
      {"", "", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(JoinPath(row.prefix, row.name), row.joined) << row.prefix << " + " << row.name;
  }
}

TEST(JoinPathTest, NameThatBeginsWithASeparatorKeepsThePrefix) {
  EXPECT_EQ(JoinPath("/a", "/b"), "/a/b");
  EXPECT_EQ(JoinPath("/volume1/@database", "/etc/passwd"), "/volume1/@database/etc/passwd");
  for (const char* name : {"/", "/b", "//b", "/b/c"}) {
    for (const char* prefix : {"/a", "/a/"}) {
      EXPECT_EQ(JoinPath(prefix, name).rfind("/a/", 0), 0U) << prefix << " + " << name;
    }
  }
}

TEST(StaysBelowTest, TellsNamesThatLeaveTheirDirectory) {
  const std::pair<const char*, bool> rows[] = {
      {"a", true},    {"a/b", true},      {"/a", true},      {"./a", true},   {"a/./b", true},
      {"a//b", true}, {"..a", true},      {"a..", true},     {"...", true},   {".a", true},
      {"a/", true},   {"", false},        {".", false},      {"/", false},    {"./.", false},
      {"//", false},  {"..", false},      {"../a", false},   {"a/..", false}, {"a/../b", false},
      {"/..", false}, {"a/../..", false}, {"./../a", false},
  };
  for (const auto& [name, below] : rows) {
    EXPECT_EQ(StaysBelow(name), below) << name;
  }
}

TEST(NormalPathTest, IsTheSameForEverySpellingOfAPath) {
  const std::pair<const char*, const char*> rows[] = {
      {"", ""},         {".", ""},          {"/", ""},         {"//./", ""},     {"a", "/a"},
      {"/a", "/a"},     {"//a", "/a"},      {"/a/", "/a"},     {"/./a/.", "/a"}, {"a//b", "/a/b"},
      {"a/b", "/a/b"},  {"/a/./b", "/a/b"}, {".a", "/.a"},     {"a.", "/a."},    {"...", "/..."},
      {"/a b", "/a b"}, {"../a", "/../a"},  {"a/..", "/a/.."},
  };
  for (const auto& [path, normal] : rows) {
    EXPECT_EQ(NormalPath(path), normal) << path;
  }
}

TEST(LiesInTest, ComparesPathsAndNotTexts) {
  const struct {
    const char* directory;
    const char* path;
    bool lies_in;
  } rows[] = {
      {"/a/b", "/a/b", true},    {"/a/b", "/a/b/c", true},   {"/a/b", "/a/b/c/d", true},
      {"/a/b", "/a/bc", false},  {"/a/b", "/a/b2/c", false}, {"/a/b", "/a", false},
      {"/a/b", "/b/a/b", false}, {"/", "/", true},           {"/", "/a/b", true},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(LiesIn(row.directory, row.path), row.lies_in) << row.directory << ' ' << row.path;
  }
}

class CopyTest : public ::testing::Test {
 protected:
  ~CopyTest() override { copy_range = nullptr; }
};

TEST_F(CopyTest, ContentOfEverySizeIsCopied) {
  for (const std::size_t size : {0U, 1U, 4095U, 4096U, 65537U, 5000000U}) {
    const std::string content = SomeContent(size);
    WriteFile("/tmp/from", content);
    CopyRegularFile("/tmp/from", "/tmp/to");
    EXPECT_EQ(ReadFile("/tmp/to"), content) << size;
    EXPECT_EQ(ReadFile("/tmp/from"), content) << size;
    fs::remove("/tmp/to");
  }
}

// The everyday case: from the volume, where packages are unpacked, to the root file system.
TEST_F(CopyTest, ContentIsCopiedBetweenFileSystems) {
  const std::string content = SomeContent(5000000);
  WriteFile("/volume1/from", content);
  CopyRegularFile("/volume1/from", "/tmp/to");
  EXPECT_EQ(ReadFile("/tmp/to"), content);
  CopyRegularFile("/volume1/from", "/volume2/to");
  EXPECT_EQ(ReadFile("/volume2/to"), content);
  WriteFile("/usr/from", content);
  CopyRegularFile("/usr/from", "/volume2/from usr");
  EXPECT_EQ(ReadFile("/volume2/from usr"), content);
}

TEST_F(CopyTest, LargeSparseFileKeepsItsSize) {
  WriteFile("/volume1/from", "start");
  fs::resize_file("/volume1/from", (1ULL << 30) + (1 << 20));
  std::ofstream("/volume1/from", std::ios::in | std::ios::app) << "end";
  CopyRegularFile("/volume1/from", "/volume1/to");
  EXPECT_EQ(fs::file_size("/volume1/to"), fs::file_size("/volume1/from"));
  std::ifstream copy("/volume1/to");
  copy.seekg(-3, std::ios::end);
  std::string end;
  copy >> end;
  EXPECT_EQ(end, "end");
}

TEST_F(CopyTest, ModeIsKeptWhateverTheMask) {
  umask(077);
  for (const mode_t mode : {0400U, 0644U, 0755U, 0777U, 02755U, 04711U, 0000U}) {
    WriteFile("/tmp/from", "x");
    ASSERT_EQ(chmod("/tmp/from", mode), 0);
    CopyRegularFile("/tmp/from", "/tmp/to");
    struct stat info;
    ASSERT_EQ(stat("/tmp/to", &info), 0);
    EXPECT_EQ(info.st_mode & 07777, mode);
    fs::remove("/tmp/to");
    fs::remove("/tmp/from");
  }
}

TEST_F(CopyTest, RegularFileIsFoundThroughALink) {
  MakeTree("/tmp/t", {{"file", "content"}, {"link -> file", ""}});
  CopyRegularFile("/tmp/t/link", "/tmp/to");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status("/tmp/to")));
  EXPECT_EQ(ReadFile("/tmp/to"), "content");
}

TEST_F(CopyTest, ExistingTargetIsRefusedAndKept) {
  MakeTree("/tmp/t", {{"from", "new"}, {"to", "old"}, {"dangling -> missing", ""}});
  EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/tmp/t/from", "/tmp/t/to"); }), EEXIST);
  EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/tmp/t/from", "/tmp/t/dangling"); }), EEXIST);
  EXPECT_EQ(ReadTree("/tmp/t"),
            (Tree{{"from", "new"}, {"to", "old"}, {"dangling -> missing", ""}}));
}

TEST_F(CopyTest, OnlyRegularFilesAreCopied) {
  MakeTree("/tmp/t", {{"directory/", ""}});
  ASSERT_EQ(mkfifo("/tmp/t/fifo", 0600), 0);
  EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/tmp/t/missing", "/tmp/to"); }), ENOENT);
  EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/tmp/t/directory", "/tmp/to"); }), EISDIR);
  EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/tmp/t/fifo", "/tmp/to"); }), ENOTSUP)
      << "without waiting for a writer";
  EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/dev/zero", "/tmp/to"); }), ENOTSUP);
  EXPECT_FALSE(fs::exists("/tmp/to"));
}

TEST_F(CopyTest, ErrorNamesBothPaths) {
  try {
    CopyRegularFile("/tmp/missing", "/tmp/to");
    FAIL() << "nothing was thrown";
  } catch (const boost::filesystem::filesystem_error& error) {
    EXPECT_EQ(error.path1(), "/tmp/missing");
    EXPECT_EQ(error.path2(), "/tmp/to");
  }
}

TEST_F(CopyTest, FullDiskLeavesNoHalfCopy) {
  const ScopedMount mount = ScopedMount::Tmpfs("/tmp/small", 64 * 1024);
  WriteFile("/tmp/from", SomeContent(1000000));
  EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/tmp/from", "/tmp/small/to"); }), ENOSPC);
  EXPECT_TRUE(fs::is_empty("/tmp/small"));
}

TEST_F(CopyTest, FullDiskInTheSameFileSystemLeavesNoHalfCopy) {
  const ScopedMount mount = ScopedMount::Tmpfs("/tmp/small", 64 * 1024);
  WriteFile("/tmp/small/from", SomeContent(40000));
  EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/tmp/small/from", "/tmp/small/to"); }), ENOSPC);
  EXPECT_FALSE(fs::exists("/tmp/small/to"));
  EXPECT_EQ(ReadFile("/tmp/small/from"), SomeContent(40000));
}

TEST_F(CopyTest, FilesAroundTheSizeThatIsReadAndWrittenArriveWhole) {
  for (const std::size_t size : std::initializer_list<std::size_t>{0, 1, 16383, 16384, 16385}) {
    WriteFile("/tmp/from", SomeContent(size));
    CopyRegularFile("/tmp/from", "/tmp/to");
    EXPECT_EQ(ReadFile("/tmp/to"), SomeContent(size));
    fs::remove("/tmp/to");
  }
}

TEST_F(CopyTest, FileThatTellsAnotherSizeArrivesWhole) {
  CopyRegularFile("/proc/self/mountinfo", "/tmp/to");  // Says 0.
  EXPECT_EQ(ReadFile("/tmp/to"), ReadFile("/proc/self/mountinfo"));
}

TEST_F(CopyTest, FullDiskLeavesNoHalfCopyOfASmallFile) {
  const ScopedMount mount = ScopedMount::Tmpfs("/tmp/small", 4096);
  WriteFile("/tmp/from", SomeContent(16000));
  EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/tmp/from", "/tmp/small/to"); }), ENOSPC);
  EXPECT_TRUE(fs::is_empty("/tmp/small"));
}

TEST_F(CopyTest, NoDescriptorStaysOpen) {
  const auto open_descriptors = [] {
    const fs::directory_iterator entries("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
  };
  WriteFile("/tmp/from", "x");
  const auto before = open_descriptors();
  CopyRegularFile("/tmp/from", "/tmp/to");
  EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/tmp/from", "/tmp/to"); }), EEXIST);
  EXPECT_EQ(open_descriptors(), before);
}

// Kernels and file systems differ in when copy_file_range works.
TEST_F(CopyTest, WholeContentArrivesWhateverBlockSharingDoes) {
  const std::string content = SomeContent(3000000);
  WriteFile("/tmp/from", content);
  int calls = 0;
  const auto fail_with = [](int number) {
    errno = number;
    return ssize_t{-1};
  };
  const struct {
    const char* name;
    std::function<ssize_t(int, int, std::size_t)> behaviour;
  } rows[] = {
      {"other file system", [&](int, int, std::size_t) { return fail_with(EXDEV); }},
      {"not known", [&](int, int, std::size_t) { return fail_with(ENOSYS); }},
      {"not supported", [&](int, int, std::size_t) { return fail_with(EOPNOTSUPP); }},
      {"refused", [&](int, int, std::size_t) { return fail_with(EINVAL); }},
      {"ends at once", [](int, int, std::size_t) { return ssize_t{0}; }},
      {"ends early",
       [&](int in, int out, std::size_t) { return calls++ < 3 ? CopyForReal(in, out, 1000) : 0; }},
      {"fails in the middle",
       [&](int in, int out, std::size_t) {
         return calls++ < 3 ? CopyForReal(in, out, 1000) : fail_with(EXDEV);
       }},
      {"interrupted",
       [&](int in, int out, std::size_t length) {
         return calls++ < 3 ? fail_with(EINTR) : CopyForReal(in, out, length);
       }},
      {"leaves the last byte to another call",
       [&](int in, int out, std::size_t length) {
         return CopyForReal(in, out, calls++ == 0 ? content.size() - 1 : length);
       }},
      {"begins with one byte",
       [&](int in, int out, std::size_t length) {
         return CopyForReal(in, out, calls++ == 0 ? 1 : length);
       }},
      {"is interrupted, then leaves the last byte",
       [&](int in, int out, std::size_t length) {
         ++calls;
         return calls == 1 ? fail_with(EINTR)
                           : CopyForReal(in, out, calls == 2 ? content.size() - 1 : length);
       }},
      {"ends before the last byte",
       [&](int in, int out, std::size_t) {
         return calls++ == 0 ? CopyForReal(in, out, content.size() - 1) : 0;
       }},
      {"ends at once, after an error of something else",
       [](int, int, std::size_t) {
         errno = ENOSPC;
         return ssize_t{0};
       }},
      {"ends at once, after an interruption of something else",
       [](int, int, std::size_t) {
         errno = EINTR;
         return ssize_t{0};
       }},
      {"in small pieces",
       [&](int in, int out, std::size_t) { return CopyForReal(in, out, 100000); }},
  };
  for (const auto& row : rows) {
    calls = 0;
    copy_range = row.behaviour;
    CopyRegularFile("/tmp/from", "/tmp/to");
    EXPECT_EQ(ReadFile("/tmp/to"), content) << row.name;
    EXPECT_EQ(range_flags, 0U) << "there are none";
    fs::remove("/tmp/to");
  }
}

TEST_F(CopyTest, WhereStandardInputIsClosedItsNumberServesAsAnyOther) {
  WriteFile("/tmp/from", "content");
  const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
  close(STDIN_FILENO);
  CopyRegularFile("/tmp/from", "/tmp/to");
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "closed again";
  dup2(input, STDIN_FILENO);
  close(input);
  EXPECT_EQ(ReadFile("/tmp/to"), "content");
}

TEST_F(CopyTest, ErrorOfTheDiskIsNotTriedAgain) {
  WriteFile("/tmp/from", SomeContent(100000));
  for (const int number : {ENOSPC, EDQUOT, EIO, EFBIG}) {
    copy_range = [number](int, int, std::size_t) {
      errno = number;
      return ssize_t{-1};
    };
    EXPECT_EQ(ErrnoOf([] { CopyRegularFile("/tmp/from", "/tmp/to"); }), number);
    EXPECT_FALSE(fs::exists("/tmp/to"));
  }
}

TEST_F(CopyTest, LinkIsCopiedAsALinkAlsoBetweenFileSystems) {
  MakeTree("/volume1/t", {{"file", "content"},
                          {"directory/a", ""},
                          {"to a file -> file", ""},
                          {"to a directory -> directory", ""},
                          {"dangling -> /no/where", ""}});
  fs::create_directory("/volume2/t");
  CopyEntry("/volume1/t/to a file", "/volume2/t/1");
  CopyEntry("/volume1/t/to a directory", "/volume2/t/2");
  CopyEntry("/volume1/t/dangling", "/volume2/t/3");
  EXPECT_EQ(ReadTree("/volume2/t"),
            (Tree{{"1 -> file", ""}, {"2 -> directory", ""}, {"3 -> /no/where", ""}}));
}

TEST_F(CopyTest, DirectoryIsCopiedEmptyAlsoBetweenFileSystems) {
  MakeTree("/volume1/t", {{"d/a", "1"}, {"d/sub/b", "2"}, {"d/link -> a", ""}});
  fs::create_directory("/volume2/t");
  CopyEntry("/volume1/t/d", "/volume1/copy");
  CopyEntry("/volume1/t/d", "/volume2/t/copy");
  EXPECT_TRUE(fs::is_directory("/volume1/copy"));
  EXPECT_TRUE(fs::is_empty("/volume1/copy"));
  EXPECT_EQ(ReadTree("/volume2/t"), (Tree{{"copy/", ""}}));
}

TEST_F(CopyTest, RegularFileIsCopiedByTheSameCall) {
  WriteFile("/volume1/from", "content");
  CopyEntry("/volume1/from", "/volume2/to");
  EXPECT_EQ(ReadFile("/volume2/to"), "content");
}

TEST_F(CopyTest, MissingSourceAndExistingTargetAreErrors) {
  MakeTree("/tmp/t", {{"file", "1"}, {"link -> file", ""}, {"to", "old"}});
  EXPECT_EQ(ErrnoOf([] { CopyEntry("/tmp/t/missing", "/tmp/t/new"); }), ENOENT);
  EXPECT_EQ(ErrnoOf([] { CopyEntry("/tmp/t/file", "/tmp/t/to"); }), EEXIST);
  EXPECT_EQ(ErrnoOf([] { CopyEntry("/tmp/t/link", "/tmp/t/to"); }), EEXIST);
  EXPECT_EQ(ReadFile("/tmp/t/to"), "old");
}

}  // namespace
}  // namespace tolm::dataupdate

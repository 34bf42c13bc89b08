#include "tolm/fs.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/platform/scratch.h"
#include "tolm/err.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// What this program's lchown below was asked for: "path uid gid".
std::vector<std::string> ownership_calls;
int lchown_error = 0;

int MkdirP(const std::string& path) {
  return TOLMFSMkdirP(path.c_str(), 0, 0, -1, -1, -1);
}

unsigned ModeOf(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777U : ~0U;
}

class FsTest : public ::testing::Test {
 protected:
  FsTest() {
    ownership_calls.clear();
    lchown_error = 0;
    umask(022);
  }

  ScratchDirectory scratch_;
};

// ---- Existence ----

TEST_F(FsTest, WhatIsThereExists) {
  WriteFile(scratch_ / "file", "");
  fs::create_symlink("file", scratch_ / "link");
  EXPECT_NE(TLIBCFileExist((scratch_ / "file").c_str()), 0);
  EXPECT_NE(TLIBCFileExist((scratch_ / "link").c_str()), 0);
  EXPECT_NE(TLIBCFileExist((scratch_ / ".").c_str()), 0);
}

TEST_F(FsTest, WhatIsNotThereDoesNotExistAndIsNoError) {
  WriteFile(scratch_ / "file", "");
  fs::create_symlink("nowhere", scratch_ / "dangling");
  TLIBCFileExist(nullptr);
  const int error_before = TLIBCErrGet();
  EXPECT_EQ(TLIBCFileExist((scratch_ / "missing").c_str()), 0);
  EXPECT_EQ(TLIBCFileExist((scratch_ / "file/below").c_str()), 0);
  EXPECT_EQ(TLIBCFileExist((scratch_ / "dangling").c_str()), 0);
  EXPECT_EQ(TLIBCFileExist(""), 0);
  EXPECT_EQ(TLIBCErrGet(), error_before);
}

TEST_F(FsTest, ExistenceThatCannotBeFoundOutIsAnError) {
  fs::create_symlink("loop", scratch_ / "loop");
  EXPECT_EQ(TLIBCFileExist((scratch_ / "loop").c_str()), 0);
  EXPECT_EQ(TLIBCErrGet(), ELOOP);
  EXPECT_EQ(TLIBCFileExist(nullptr), 0);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
}

// ---- Directories ----

struct ChainCase {
  const char* name;
  const char* path;     // below the scratch directory
  const char* created;  // likewise
};

class FsChainTest : public ::testing::TestWithParam<ChainCase> {
 protected:
  ScratchDirectory scratch_;
};

TEST_P(FsChainTest, IsCreated) {
  fs::create_directory(scratch_ / "present");
  fs::create_symlink("present", scratch_ / "link");
  EXPECT_EQ(MkdirP(scratch_ / GetParam().path), 0);
  EXPECT_TRUE(fs::is_directory(scratch_ / GetParam().created));
  EXPECT_EQ(MkdirP(scratch_ / GetParam().path), 0) << "a second time";
}

INSTANTIATE_TEST_SUITE_P(Table, FsChainTest,
                         ::testing::Values(ChainCase{"One", "a", "a"},
                                           ChainCase{"Present", "present", "present"},
                                           ChainCase{"Deep", "a/b/c/d", "a/b/c/d"},
                                           ChainCase{"BelowPresent", "present/b", "present/b"},
                                           ChainCase{"ThroughALink", "link/b/c", "present/b/c"},
                                           ChainCase{"TrailingSlash", "a/b/", "a/b"},
                                           ChainCase{"SlashesInARow", "a///b//", "a/b"},
                                           ChainCase{"Dot", "a/./b/.", "a/b"},
                                           ChainCase{"DotDot", "a/../b", "b"},
                                           ChainCase{"At", "@database/autoupdate", "@database"}),
                         [](const auto& row) { return row.param.name; });

TEST_F(FsTest, RelativePathsStartAtTheWorkingDirectory) {
  ASSERT_EQ(chdir((scratch_ / ".").c_str()), 0);
  EXPECT_EQ(MkdirP("a/b"), 0);
  EXPECT_TRUE(fs::is_directory(scratch_ / "a/b"));
}

TEST_F(FsTest, TheRootIsThere) {
  EXPECT_EQ(MkdirP("/"), 0);
  EXPECT_EQ(MkdirP("//"), 0);
}

struct InTheWayCase {
  const char* name;
  const char* path;
  int error;
};

class FsInTheWayTest : public ::testing::TestWithParam<InTheWayCase> {
 protected:
  ScratchDirectory scratch_;
};

TEST_P(FsInTheWayTest, FailsAndLeavesEverythingAsItIs) {
  WriteFile(scratch_ / "file", "content");
  fs::create_symlink("file", scratch_ / "link-to-file");
  fs::create_symlink("nowhere", scratch_ / "dangling");
  EXPECT_EQ(MkdirP(scratch_ / GetParam().path), -1);
  EXPECT_EQ(TLIBCErrGet(), GetParam().error);
  EXPECT_EQ(ReadFile(scratch_ / "file"), "content");
  EXPECT_FALSE(fs::exists(scratch_ / "nowhere"));
}

INSTANTIATE_TEST_SUITE_P(Table, FsInTheWayTest,
                         ::testing::Values(InTheWayCase{"File", "file", ENOTDIR},
                                           InTheWayCase{"FileAsParent", "file/a", ENOTDIR},
                                           InTheWayCase{"FileWithSlash", "file/", ENOTDIR},
                                           InTheWayCase{"LinkToAFile", "link-to-file", ENOTDIR},
                                           InTheWayCase{"DanglingLink", "dangling", EEXIST},
                                           InTheWayCase{"DanglingAsParent", "dangling/a", EEXIST}),
                         [](const auto& row) { return row.param.name; });

TEST_F(FsTest, InvalidArgumentsFail) {
  EXPECT_EQ(TOLMFSMkdirP(nullptr, 0, 0, -1, -1, -1), -1);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
  EXPECT_EQ(MkdirP(""), -1);
  EXPECT_EQ(TLIBCErrGet(), ENOENT);
  EXPECT_EQ(MkdirP(scratch_ / std::string(256, 'x')), -1);
  EXPECT_EQ(TLIBCErrGet(), ENAMETOOLONG);
  for (const int mode : {-2, 010000, 0100755}) {
    EXPECT_EQ(TOLMFSMkdirP((scratch_ / "a").c_str(), 0, 0, -1, -1, mode), -1) << mode;
    EXPECT_EQ(TLIBCErrGet(), EINVAL);
  }
  EXPECT_EQ(TOLMFSMkdirP((scratch_ / "a").c_str(), 0, 0, -2, -1, -1), -1);
  EXPECT_EQ(TOLMFSMkdirP((scratch_ / "a").c_str(), 0, 0, -1, -2, -1), -1);
  EXPECT_FALSE(fs::exists(scratch_ / "a"));
}

TEST_F(FsTest, AReadOnlyFileSystemRefusesNewDirectoriesOnly) {
  const std::string volume = scratch_ / "volume";
  ASSERT_EQ(MkdirP(volume), 0);
  ASSERT_EQ(mount("tmpfs", volume.c_str(), "tmpfs", 0, nullptr), 0);
  ASSERT_EQ(MkdirP(volume + "/present"), 0);
  ASSERT_EQ(mount(nullptr, volume.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(MkdirP(volume + "/present"), 0);
  EXPECT_EQ(MkdirP(volume + "/present/new"), -1);
  EXPECT_EQ(TLIBCErrGet(), EROFS);
  umount(volume.c_str());
}

TEST_F(FsTest, DefaultsAreTheProcesssOwn) {
  umask(027);
  EXPECT_EQ(MkdirP(scratch_ / "a/b"), 0);
  EXPECT_EQ(ModeOf(scratch_ / "a"), 0750U);
  EXPECT_EQ(ModeOf(scratch_ / "a/b"), 0750U);
  EXPECT_THAT(ownership_calls, IsEmpty());
}

TEST_F(FsTest, ModeIsExactAndForCreatedDirectoriesOnly) {
  umask(077);
  fs::create_directory(scratch_ / "old");
  EXPECT_EQ(TOLMFSMkdirP((scratch_ / "old/a/b").c_str(), 0, 0, -1, -1, 01775), 0);
  EXPECT_EQ(ModeOf(scratch_ / "old"), 0700U);
  EXPECT_EQ(ModeOf(scratch_ / "old/a"), 01775U);
  EXPECT_EQ(ModeOf(scratch_ / "old/a/b"), 01775U);
  EXPECT_EQ(TOLMFSMkdirP((scratch_ / "old/a/b").c_str(), 0, 0, -1, -1, 0700), 0);
  EXPECT_EQ(ModeOf(scratch_ / "old/a/b"), 01775U) << "an existing directory is left as it is";
}

TEST_F(FsTest, OwnersAreForCreatedDirectoriesOnly) {
  fs::create_directory(scratch_ / "old");
  EXPECT_EQ(TOLMFSMkdirP((scratch_ / "old/a/b").c_str(), 0, 0, 5, -1, -1), 0);
  EXPECT_EQ(TOLMFSMkdirP((scratch_ / "old/a/c").c_str(), 0, 0, -1, 6, -1), 0);
  EXPECT_THAT(ownership_calls,
              ElementsAre((scratch_ / "old/a") + " 5 -1", (scratch_ / "old/a/b") + " 5 -1",
                          (scratch_ / "old/a/c") + " -1 6"));
}

TEST_F(FsTest, AnOwnerThatCannotBeSetIsAFailure) {
  lchown_error = EPERM;
  EXPECT_EQ(TOLMFSMkdirP((scratch_ / "a/b").c_str(), 0, 0, 5, 6, -1), -1);
  EXPECT_EQ(TLIBCErrGet(), EPERM);
}

TEST_F(FsTest, TwoProcessesMayCreateTheSameChain) {
  for (int round = 0; round < 50; ++round) {
    std::string path = scratch_ / std::to_string(round);
    for (int depth = 0; depth < 20; ++depth)
      path += "/d";
    int gate[2];
    ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
    std::vector<pid_t> children;
    for (int i = 0; i < 4; ++i) {
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        char c;
        close(gate[1]);
        (void)!read(gate[0], &c, 1);  // the end comes for all at once
        _exit(MkdirP(path) == 0 ? 0 : 1);
      }
      children.push_back(child);
    }
    close(gate[0]);
    close(gate[1]);
    for (const pid_t child : children) {
      int status = -1;
      EXPECT_EQ(waitpid(child, &status, 0), child);
      EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(fs::is_directory(path));
  }
}

}  // namespace
}  // namespace tolm::testing

// Giving files away takes rights that a test run by an ordinary user does not have.
extern "C" __attribute__((visibility("default"))) int lchown(const char* path, uid_t uid,
                                                             gid_t gid) noexcept {
  tolm::testing::ownership_calls.push_back(std::string(path) + " " +
                                           std::to_string(static_cast<int>(uid)) + " " +
                                           std::to_string(static_cast<int>(gid)));
  errno = tolm::testing::lchown_error;
  return errno == 0 ? 0 : -1;
}

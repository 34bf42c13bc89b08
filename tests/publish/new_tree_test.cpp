#include "publish/new_tree.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "package/error.h"
#include "tests/publish/expect_error.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace {

std::vector<std::string> synced;
int no_rename_because = 0;

}  // namespace

// Before the C library's, to see what is brought to the disk.
extern "C" int fsync(int file) {
  synced.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)));
  return static_cast<int>(::syscall(SYS_fsync, file));
}

// File systems differ in what they say of a directory that is not empty.
extern "C" int rename(const char* from, const char* to) noexcept {
  if (no_rename_because != 0) {
    errno = no_rename_because;
    return -1;
  }
  return ::renameat(AT_FDCWD, from, AT_FDCWD, to);
}

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using publish::NewTree;
using ::testing::ElementsAre;
using ::testing::StartsWith;

class NewTreeTest : public ::testing::Test {
 protected:
  std::vector<std::string> Listed() const { return ListTree(directory_.Path()); }
  fs::perms Mode() const { return fs::status(target_).permissions(); }

  TemporaryDirectory directory_;
  const std::string target_ = directory_.Path() / "target";
};

TEST_F(NewTreeTest, TreeIsMadeBesideItsPlaceAndMovedThere) {
  {
    NewTree tree(target_);
    EXPECT_THAT(tree.path(), StartsWith(target_ + "."));
    EXPECT_FALSE(fs::exists(target_));
    WriteFile(tree.path() + "/a", "1");
    synced.clear();
    tree.PutInPlace();
    EXPECT_THAT(synced, ElementsAre(fs::canonical(directory_.Path()).string()));
  }
  EXPECT_THAT(Listed(), ElementsAre("target/", "target/a"));
  EXPECT_EQ(Mode(), fs::perms(0755));
}

TEST_F(NewTreeTest, WhatIsNotMovedIsRemoved) {
  {
    const NewTree tree(target_);
    WriteFile(tree.path() + "/d/a", "1");
  }
  EXPECT_TRUE(fs::is_empty(directory_.Path()));
}

TEST_F(NewTreeTest, EmptyDirectoryIsReplacedAndItsModeKept) {
  fs::create_directory(target_);
  fs::permissions(target_, fs::perms(0710));
  NewTree tree(target_);
  WriteFile(tree.path() + "/a", "1");
  tree.PutInPlace();
  EXPECT_THAT(Listed(), ElementsAre("target/", "target/a"));
  EXPECT_EQ(Mode(), fs::perms(0710));
}

// Before the tree is made, and when it is to be moved.
TEST_F(NewTreeTest, NothingElseIsReplaced) {
  const struct {
    Tree there;
    const char* words;
  } kRows[] = {
      {{{"target/there", "1"}}, ": exists already and is not empty"},
      {{{"target", "1"}}, ": exists already and is not empty"},
      {{{"empty/", ""}, {"target -> empty", ""}},
       ": is a symbolic link; name the directory itself"},
      {{{"target -> nowhere", ""}}, ": is a symbolic link; name the directory itself"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.there.begin()->first);
    std::optional<NewTree> tree(target_);
    MakeTree(directory_.Path(), row.there);
    ExpectError([&] { NewTree another(target_); }, target_ + row.words);
    ExpectError([&] { tree->PutInPlace(); }, target_ + row.words);
    tree.reset();
    EXPECT_EQ(ReadTree(directory_.Path()).count("target/there"), row.there.count("target/there"));
    EXPECT_EQ(Listed().size(), row.there.count("target/there") + row.there.size());
    fs::remove_all(target_);
    fs::remove_all(directory_.Path() / "empty");
  }
}

TEST_F(NewTreeTest, AnyFileSystemsWordForWhatIsInTheWayIsKnown) {
  for (const int reason : std::initializer_list<int>{ENOTEMPTY, EEXIST, ENOTDIR}) {
    NewTree tree(target_);
    no_rename_because = reason;
    ExpectError([&] { tree.PutInPlace(); }, target_ + ": exists already and is not empty");
    no_rename_because = 0;
  }
}

TEST_F(NewTreeTest, FailureNamesTheTarget) {
  const auto expect_failure = [](const std::string& target, int reason, auto action) {
    try {
      action();
      ADD_FAILURE() << "nothing was thrown";
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), package::Code::kWrite);
      EXPECT_EQ(error.errno_value(), reason);
      EXPECT_THAT(error.what(), StartsWith(target + ": "));
    }
  };
  const std::string nowhere = directory_.Path() / "none/target";
  expect_failure(nowhere, ENOENT, [&] { NewTree tree(nowhere); });
  NewTree tree(target_);
  no_rename_because = EIO;
  expect_failure(target_, EIO, [&] { tree.PutInPlace(); });
  no_rename_because = 0;
  fs::remove(tree.path());
  expect_failure(target_, ENOENT, [&] { tree.PutInPlace(); });
}

}  // namespace
}  // namespace tolm::testing

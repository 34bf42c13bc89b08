#include "operation/installed_tree.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <system_error>

#include "tests/support/files.h"

namespace {

// The system's call that fails with EIO, and the entry for which it does; none when it is empty.
std::string failing_call;
std::string failing_name;

bool IsToFail(const std::string& call, const std::string& name = "") {
  if (failing_call != call || failing_name != name) {
    return false;
  }
  errno = EIO;
  return true;
}

}  // namespace

int fstat(int fd, struct stat* status) noexcept {
  using Call = int(int, struct stat*);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "fstat64"));
  return IsToFail("fstat") ? -1 : real(fd, status);
}

int fstatat(int directory, const char* name, struct stat* status, int flags) noexcept {
  using Call = int(int, const char*, struct stat*, int);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "fstatat64"));
  return IsToFail("fstatat", name) ? -1 : real(directory, name, status, flags);
}

dirent* readdir(DIR* listing) {
  using Call = dirent*(DIR*);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "readdir64"));
  return failing_call == "rmdir" || IsToFail("readdir") ? nullptr : real(listing);
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::MakeTree;
using testing::WriteFile;

constexpr char kDirectory[] = "/tmp/tree";

// Account 1000 may write all that is made in the directory.
bool GiveDefaultList(const fs::path& directory) {
  constexpr std::string_view kList(
      "\2\0\0\0"
      "\x01\0\7\0\xff\xff\xff\xff"
      "\x02\0\7\0\xe8\3\0\0"
      "\x04\0\5\0\xff\xff\xff\xff"
      "\x10\0\7\0\xff\xff\xff\xff"
      "\x20\0\5\0\xff\xff\xff\xff",
      44);
  return setxattr(directory.c_str(), "system.posix_acl_default", kList.data(), kList.size(), 0) ==
         0;
}

std::uint64_t Fingerprint(const std::string& directory) {
  const std::uint64_t fingerprint = GlanceAtTree(directory).fingerprint;
  EXPECT_EQ(LookAt(directory).fingerprint, fingerprint);
  return fingerprint;
}

// A change within one tick of the kernel's clock has the time of the one before.
void WaitForTheNextTick() {
  WriteFile("/tmp/tick", "");
  struct stat first;
  struct stat now;
  ASSERT_EQ(stat("/tmp/tick", &first), 0);
  do {
    WriteFile("/tmp/tick", "");
    ASSERT_EQ(stat("/tmp/tick", &now), 0);
  } while (now.st_ctim.tv_sec == first.st_ctim.tv_sec &&
           now.st_ctim.tv_nsec == first.st_ctim.tv_nsec);
}

class InstalledTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeTree(kDirectory, {{"a", "one"}, {"sub/", ""}, {"sub/b", "two"}, {"link -> a", ""}});
    WaitForTheNextTick();
  }
};

TEST_F(InstalledTreeTest, ReadingChangesNothing) {
  const std::uint64_t before = Fingerprint(kDirectory);
  testing::ReadTree(kDirectory);
  EXPECT_EQ(Fingerprint(kDirectory), before);
}

TEST_F(InstalledTreeTest, EveryKindOfChangeIsSeen) {
  const fs::path directory = kDirectory;
  const std::map<std::string, std::function<void()>> changes = {
      {"Rewritten", [&] { WriteFile(directory / "a", "ONE"); }},
      {"RewrittenWithItsOldTime",
       [&] {
         const auto time = fs::last_write_time(directory / "a");
         WriteFile(directory / "a", "0ne");
         fs::last_write_time(directory / "a", time);
       }},
      {"Replaced",
       [&] {
         WriteFile("/tmp/new", "one");
         fs::rename("/tmp/new", directory / "a");
       }},
      {"Deep", [&] { WriteFile(directory / "sub/b", "2"); }},
      {"Added", [&] { WriteFile(directory / "sub/c", ""); }},
      {"Removed", [&] { fs::remove(directory / "link"); }},
      {"Renamed", [&] { fs::rename(directory / "sub/b", directory / "sub/d"); }},
      {"Mode", [&] { fs::permissions(directory / "a", fs::perms::owner_read); }}};
  for (const auto& [name, change] : changes) {
    const std::uint64_t before = Fingerprint(kDirectory);
    change();
    EXPECT_NE(Fingerprint(kDirectory), before) << name;
    WaitForTheNextTick();
  }
}

// As it is kept from one release to the next: FNV-1a of every entry, added up.
std::uint64_t FingerprintOf(const std::string& name, const fs::path& entry) {
  struct stat status;
  EXPECT_EQ(lstat(entry.c_str(), &status), 0);
  const std::int64_t numbers[] = {static_cast<std::int64_t>(status.st_ino),
                                  status.st_mode,
                                  status.st_uid,
                                  status.st_gid,
                                  status.st_size,
                                  status.st_mtim.tv_sec * 1000000000 + status.st_mtim.tv_nsec,
                                  status.st_ctim.tv_sec * 1000000000 + status.st_ctim.tv_nsec};
  std::string bytes = name + '\0';
  bytes.append(reinterpret_cast<const char*>(numbers), sizeof numbers);
  std::uint64_t value = 0xcbf29ce484222325;
  for (const char byte : bytes) {
    value = (value ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
  }
  return value;
}

TEST_F(InstalledTreeTest, FingerprintIsTheSameFromOneReleaseToTheNext) {
  std::uint64_t expected = 0xcbf29ce484222325;
  EXPECT_EQ(Fingerprint("/tmp/missing"), expected);
  for (const char* name : {"a", "sub", "sub/b", "link"}) {
    expected += FingerprintOf(name, fs::path(kDirectory) / name);
  }
  EXPECT_EQ(Fingerprint(kDirectory), expected);
}

TEST_F(InstalledTreeTest, FileIsFoundByItsNameWithAllThatTheSystemSaysOfIt) {
  const fs::path file = fs::path(kDirectory) / "sub/b";
  ASSERT_EQ(chown(file.c_str(), 12, 34), 0);
  const timespec times[] = {{0, 0}, {1700000000, 123456789}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  const InstalledTree tree = LookAt(kDirectory);
  const TreeFile* const found = Find(tree, "sub/b");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->name, "sub/b");
  EXPECT_EQ(found->mode, S_IFREG | 0644u);
  EXPECT_EQ(found->size, 3u);
  EXPECT_EQ(found->modified_ns, 1700000000123456789);
  EXPECT_GT(found->changed_ns, found->modified_ns);
  EXPECT_EQ(found->owner, 12u);
  ASSERT_NE(Find(tree, "a"), nullptr);
  EXPECT_EQ(Find(tree, "a")->owner, 0u);
  for (const char* name : {"", "b", "sub", "sub/", "sub/c"}) {
    EXPECT_EQ(Find(tree, name), nullptr) << name;
  }
  EXPECT_EQ(Find(InstalledTree(), "a"), nullptr);
  EXPECT_TRUE(GlanceAtTree(kDirectory).files.empty());
}

TEST_F(InstalledTreeTest, EntryThatCannotBeLookedAtIsAnErrorThatNamesIt) {
  struct Row {
    std::string call;
    std::string name;
    std::string shown;
  };
  for (const Row& row :
       {Row{"fstat", "", "/tmp/tree/"}, Row{"readdir", "", "/tmp/tree/"},
        Row{"fstatat", "a", "/tmp/tree/a"}, Row{"fstatat", "b", "/tmp/tree/sub/b"}}) {
    failing_call = row.call;
    failing_name = row.name;
    try {
      LookAt(kDirectory);
      ADD_FAILURE() << row.call;
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::io_error);
      EXPECT_EQ(std::string(error.what()), row.shown + ": Input/output error");
    }
    failing_call.clear();
  }
}

TEST_F(InstalledTreeTest, ProgramWithoutStandardInputSeesTheSame) {
  const std::uint64_t before = Fingerprint(kDirectory);
  const int kept = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  errno = ENOENT;  // Of whatever was called before.
  const std::uint64_t without = GlanceAtTree(kDirectory).fingerprint;
  dup2(kept, STDIN_FILENO);
  close(kept);
  EXPECT_EQ(without, before);
}

TEST_F(InstalledTreeTest, FilesAndLinksAreListedByName) {
  WriteFile(fs::path(kDirectory) / "sub.x", "123");
  std::string names;
  for (const TreeFile& file : LookAt(kDirectory).files) {
    names += file.name + (S_ISLNK(file.mode) ? " link " : " ") + std::to_string(file.size) + '\n';
  }
  EXPECT_EQ(names, "a 3\nlink link 1\nsub.x 3\nsub/b 3\n");
}

TEST_F(InstalledTreeTest, WhatOthersMayWriteIsSeen) {
  const fs::path directory = kDirectory;
  EXPECT_FALSE(GlanceAtTree(kDirectory).is_open);
  for (const fs::path& entry : {directory, directory / "sub", directory / "sub/b"}) {
    struct stat status;
    ASSERT_EQ(stat(entry.c_str(), &status), 0);
    ASSERT_EQ(chmod(entry.c_str(), status.st_mode | S_IWGRP), 0);
    EXPECT_TRUE(GlanceAtTree(kDirectory).is_open) << entry;
    ASSERT_EQ(chmod(entry.c_str(), status.st_mode), 0);
  }
  for (const fs::path& entry : {directory, directory / "sub"}) {
    ASSERT_EQ(chown(entry.c_str(), 12, 0), 0);
    EXPECT_TRUE(GlanceAtTree(kDirectory).is_open) << entry;
    ASSERT_EQ(chown(entry.c_str(), 0, 0), 0);
    ASSERT_TRUE(GiveDefaultList(entry));
    EXPECT_TRUE(GlanceAtTree(kDirectory).is_open) << entry;
    ASSERT_EQ(removexattr(entry.c_str(), "system.posix_acl_default"), 0);
  }
  ASSERT_EQ(chown((directory / "a").c_str(), 12, 0), 0);
  EXPECT_FALSE(GlanceAtTree(kDirectory).is_open);
}

TEST_F(InstalledTreeTest, MissingDirectoryIsAnEmptyOne) {
  fs::create_directory("/tmp/empty");
  EXPECT_EQ(Fingerprint("/tmp/empty"), Fingerprint("/tmp/missing"));
  EXPECT_NE(Fingerprint(kDirectory), Fingerprint("/tmp/missing"));
}

TEST_F(InstalledTreeTest, DirectoryThatIsRemovedMeanwhileIsAnEmptyOne) {
  failing_call = "rmdir";  // It lists nothing any more, not even itself.
  const std::size_t files = LookAt(kDirectory).files.size();
  failing_call.clear();
  EXPECT_EQ(files, 0u);
}

TEST_F(InstalledTreeTest, OtherThanADirectoryIsAnError) {
  try {
    LookAt("/tmp/tree/a");
    FAIL() << "nothing is thrown";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::not_a_directory);
    EXPECT_EQ(std::string(error.what()), "/tmp/tree/a/: Not a directory");
  }
}

}  // namespace
}  // namespace tolm::operation

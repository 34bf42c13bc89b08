#include "operation/write_rights.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "base/file.h"
#include "tests/support/files.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/syslog_capture.h"

namespace {

ssize_t list_bytes = -1;  // How long the default access control list of every directory is.
int removed_lists = 0;
bool is_unreadable = false;       // No directory can be listed.
std::function<void()> meanwhile;  // Happens once, between a look at "file" and its opening.

}  // namespace

int openat(int directory, const char* name, int flags, ...) {
  if (std::string(name) == "file") {
    if (const std::function<void()> action = std::exchange(meanwhile, nullptr)) {
      action();
    }
  }
  return static_cast<int>(syscall(SYS_openat, directory, name, flags, 0));
}

dirent* readdir(DIR* listing) {
  if (is_unreadable) {
    errno = EIO;
    return nullptr;
  }
  return reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"))(listing);
}

ssize_t fgetxattr(int, const char*, void*, size_t size) noexcept {
  errno = size == 0 ? ENODATA : ERANGE;
  return size == 0 ? list_bytes : -1;
}

int fremovexattr(int, const char*) noexcept {
  ++removed_lists;
  return 0;
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::IsEmpty;
using ::testing::ThrowsMessage;
using ::testing::UnorderedElementsAre;
using tolm::testing::HasOrdinaryAccount;
using tolm::testing::kOrdinaryAccount;
using tolm::testing::SyslogCapture;
using tolm::testing::WriteFile;

constexpr char kTop[] = "/srv/top";

std::string At(const std::string& name) {
  return std::string(kTop) + '/' + name;
}

void SetMode(const std::string& path, mode_t mode, uid_t owner = 0) {
  ASSERT_EQ(lchown(path.c_str(), owner, owner), 0) << path;
  ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void MakeDirectory(const std::string& path, mode_t mode, uid_t owner = 0) {
  fs::create_directories(path);
  SetMode(path, mode, owner);
}

void MakeFile(const std::string& path, mode_t mode, uid_t owner = 0) {
  WriteFile(path, "x");
  SetMode(path, mode, owner);
}

void MakePipe(const std::string& path) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0) << path;
  SetMode(path, 0666);
}

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

std::vector<std::string> Warnings() {
  return SyslogCapture::TextsWithoutPlace(LOG_WARNING);
}

std::string WasOpen(const std::string& path) {
  return path + " could be written by others; it no longer can";
}

class WriteRightsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!HasOrdinaryAccount()) {
      GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
    }
    MakeDirectory(kTop, 0755);
    SyslogCapture::Clear();
  }
};

// ---- All that is below ----

TEST_F(WriteRightsTest, WhatOthersCouldWriteBelowIsClosedAndToldAndNothingElseIsTouched) {
  MakeFile("/srv/outside", 0666);
  MakeFile(At("deep/open"), 0666);
  MakeFile(At("deep/of_group"), 04775);
  MakeFile(At("deep/theirs"), 0666, kOrdinaryAccount);
  MakeFile(At("deep/closed"), 04755);
  MakeFile(At("..dots"), 0602);
  MakeDirectory(At("sticky"), 01777);
  MakeDirectory(At("deep"), 02775);
  MakePipe(At("pipe"));
  fs::create_symlink("/srv/outside", At("link"));
  fs::create_directory_symlink("/srv", At("deep/up"));
  MakeDirectory(kTop, 0777);

  TakeWriteFromOthersBelow(kTop);

  EXPECT_EQ(ModeOf(kTop), 0755U);
  EXPECT_EQ(ModeOf(At("sticky")), 01755U);
  EXPECT_EQ(ModeOf(At("deep")), 0755U);
  EXPECT_EQ(ModeOf(At("deep/open")), 0644U);
  EXPECT_EQ(ModeOf(At("deep/of_group")), 0755U) << "nobody's program runs with root's rights";
  EXPECT_EQ(ModeOf(At("deep/theirs")), 0644U);
  EXPECT_EQ(ModeOf(At("deep/closed")), 04755U);
  EXPECT_EQ(ModeOf(At("..dots")), 0600U);
  EXPECT_EQ(ModeOf(At("pipe")), 0666U);
  EXPECT_EQ(ModeOf("/srv/outside"), 0666U);
  EXPECT_THAT(Warnings(),
              UnorderedElementsAre(WasOpen(kTop), WasOpen(At("sticky")), WasOpen(At("deep")),
                                   WasOpen(At("deep/open")), WasOpen(At("deep/of_group")),
                                   WasOpen(At("deep/theirs")), WasOpen(At("..dots"))));
  SyslogCapture::Clear();
  TakeWriteFromOthersBelow(kTop);
  EXPECT_THAT(Warnings(), IsEmpty());
}

TEST_F(WriteRightsTest, NothingIsClosedWhereADirectoryIsSomebodysOrThereIsNone) {
  MakeFile(At("a/open"), 0666);
  MakeDirectory(At("a/theirs"), 0755, kOrdinaryAccount);
  const std::string theirs = At("a/theirs");
  EXPECT_THAT([] { TakeWriteFromOthersBelow(kTop); },
              ThrowsMessage<ForeignGround>(theirs +
                                           " belongs to user 1000; nothing was done (rm "
                                           "-r " +
                                           theirs + ", or chown root " + theirs + ")"));
  EXPECT_EQ(ModeOf(At("a/open")), 0666U);
  fs::create_directory_symlink(kTop, "/srv/link");
  for (const char* const none : {"/srv/missing", "/srv/link", "/srv/top/a/open"}) {
    EXPECT_NO_THROW(TakeWriteFromOthersBelow(none)) << none;
  }
  EXPECT_EQ(ModeOf(At("a/open")), 0666U);
}

TEST_F(WriteRightsTest, DefaultListsOfDirectoriesAreRemoved) {
  MakeFile(At("deep/a"), 0666);
  for (const ssize_t none : std::initializer_list<ssize_t>{-1, 0}) {
    list_bytes = none;
    TakeWriteFromOthersBelow(kTop);
    EXPECT_EQ(removed_lists, 0) << none;
  }
  SetMode(At("deep/a"), 0666);
  list_bytes = 1;
  TakeWriteFromOthersBelow(kTop);
  EXPECT_EQ(removed_lists, 2) << "of the two directories, and not of the file";
}

TEST_F(WriteRightsTest, DirectoryThatCannotBeListedIsAnError) {
  is_unreadable = true;
  EXPECT_THAT([] { TakeWriteFromOthersBelow(kTop); },
              ThrowsMessage<base::FileError>("Fail to list /srv/top: Input/output error"));
  is_unreadable = false;
}

// ---- State directories ----

TEST_F(WriteRightsTest, StateDirectoryIsClosedWithItsFilesWhereThatIsWanted) {
  const auto open_all = [] {
    SetMode(At("file"), 0666);
    SetMode(At("sub"), 0777);
    SetMode(At("sub/file"), 0666);
    SetMode(kTop, 0777);
  };
  MakeFile(At("file"), 0666);
  MakeFile(At("closed"), 0600);
  MakeFile(At("sub/file"), 0666);
  MakePipe(At("pipe"));
  MakeFile("/srv/outside", 0666);
  fs::create_symlink("/srv/outside", At("link"));

  open_all();
  SecureStateDirectory(kTop, false);
  EXPECT_EQ(ModeOf(kTop), 0755U);
  EXPECT_EQ(ModeOf(At("file")), 0666U);

  open_all();
  errno = ENOENT;  // Of another call, which says nothing of this one.
  SecureStateDirectory(kTop, true);
  EXPECT_EQ(ModeOf(kTop), 0755U);
  EXPECT_EQ(ModeOf(At("file")), 0644U);
  EXPECT_EQ(ModeOf(At("closed")), 0600U);
  EXPECT_EQ(ModeOf(At("sub")), 0777U);
  EXPECT_EQ(ModeOf(At("sub/file")), 0666U);
  EXPECT_EQ(ModeOf(At("pipe")), 0666U);
  EXPECT_EQ(ModeOf("/srv/outside"), 0666U);
  EXPECT_THAT(Warnings(), UnorderedElementsAre(WasOpen(kTop), WasOpen(kTop), WasOpen(At("file"))));

  open_all();
  EXPECT_NO_THROW(SecureStateDirectory("/srv/missing", true));
  const int as_account = tolm::testing::CallAsOrdinaryAccount([] {
    SecureStateDirectory(kTop, true);
    return 0;
  });
  EXPECT_EQ(as_account, 0);
  EXPECT_EQ(ModeOf(kTop), 0777U);
}

TEST_F(WriteRightsTest, OnlyTheAdministratorMayHavePutAStateDirectoryElsewhere) {
  MakeDirectory(kTop, 0777);
  fs::create_directory_symlink(kTop, "/srv/link");
  EXPECT_THAT([] { SecureStateDirectory("/srv/link", true, false); },
              ThrowsMessage<ForeignGround>("/srv/link is a link; nothing was done (rm /srv/link)"));
  EXPECT_EQ(ModeOf(kTop), 0777U);
  EXPECT_NO_THROW(SecureStateDirectory("/srv/link", true));
  EXPECT_EQ(ModeOf(kTop), 0755U);
  WriteFile("/srv/file", "");
  for (const bool may_be_link : {true, false}) {
    EXPECT_THAT([=] { SecureStateDirectory("/srv/file", true, may_be_link); },
                ThrowsMessage<base::FileError>("Fail to open /srv/file: Not a directory"));
  }
}

TEST_F(WriteRightsTest, StateOfSomebodysIsNamed) {
  MakeDirectory(At("theirs"), 0755, kOrdinaryAccount);
  EXPECT_THAT(
      [] { SecureStateDirectory(At("theirs"), false); },
      ThrowsMessage<ForeignGround>("/srv/top/theirs belongs to user 1000; nothing was done (rm -r "
                                   "/srv/top/theirs, or chown root /srv/top/theirs)"));
  EXPECT_NO_THROW(SecureStateDirectory(kTop, true)) << "only the files of a directory count";
  const auto refused = ThrowsMessage<ForeignGround>(
      "/srv/top/file belongs to user 1000; nothing was done (rm /srv/top/file)");
  MakeFile(At("file"), 0644, kOrdinaryAccount);
  EXPECT_THAT([] { SecureStateDirectory(kTop, true); }, refused);
  fs::remove(At("file"));
  MakeFile("/srv/outside", 0644);
  fs::create_symlink("/srv/outside", At("file"));
  ASSERT_EQ(lchown(At("file").c_str(), kOrdinaryAccount, kOrdinaryAccount), 0);
  EXPECT_THAT([] { SecureStateDirectory(kTop, true); }, refused) << "a link is a file, too";
}

TEST_F(WriteRightsTest, StateThatBecomesSomebodysMeanwhileIsRefused) {
  MakeFile(At("file"), 0644);
  meanwhile = [] { MakeFile(At("file"), 0666, kOrdinaryAccount); };
  EXPECT_THROW(SecureStateDirectory(kTop, true), ForeignGround);
  EXPECT_EQ(ModeOf(At("file")), 0666U);
}

TEST_F(WriteRightsTest, FilesOfTheSystemsAndOfTheDatabasesStateAreClosed) {
  const std::vector<std::string> files = {"/var/lib/data_update/move.json",
                                          "/var/lib/data_update/oui/version.json",
                                          "/var/cache/data_update/database_info.json"};
  for (const std::string& file : files) {
    MakeFile(file, 0666);
  }
  MakeFile("/var/lib/data_update/geo/version.json", 0666);
  SecureStateDirectories("oui");
  for (const std::string& file : files) {
    EXPECT_EQ(ModeOf(file), 0644U) << file;
  }
  EXPECT_EQ(ModeOf("/var/lib/data_update/geo/version.json"), 0666U);
  fs::create_directory_symlink("/srv/top", "/var/lib/data_update/elsewhere");
  EXPECT_THROW(SecureStateDirectories("elsewhere"), ForeignGround);
}

}  // namespace
}  // namespace tolm::operation

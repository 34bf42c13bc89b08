#include "operation/lock_files.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "base/file.h"
#include "dataupdate/io_utils.h"
#include "operation/interruptible_lock.h"
#include "tests/support/files.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/unique_descriptor.h"

namespace {

std::function<void()> meanwhile;  // Happens once, before a file is put where there is none.
int link_error = 0;               // Unless it is 0, none is put there, because of this.

bool is_chown_forbidden = false;  // As by a unit's filter of system calls.

}  // namespace

int fchown(int fd, uid_t owner, gid_t group) noexcept {
  if (is_chown_forbidden) {
    errno = EPERM;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fchown, fd, owner, group));
}

int link(const char* from, const char* to) noexcept {
  if (const std::function<void()> action = std::exchange(meanwhile, nullptr)) {
    action();
  }
  if (link_error != 0) {
    errno = link_error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_link, from, to));
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using tolm::testing::EventChannel;
using tolm::testing::ForkedChild;
using tolm::testing::UniqueDescriptor;
using tolm::testing::WriteFile;

constexpr char kSettings[] = "/usr/tolm/etc/data_update/operation.conf";
constexpr char kUsing[] = "/run/data_update/using_oui.lock";
constexpr char kAny[] = "/run/data_update/update_any.lock";
const char* const kOthers[] = {
    "/run/data_update/operator.lock",   kAny,
    "/run/data_update/update_oui.lock", "/run/data_update/fresh_info.lock",
    "/run/data_update/config.lock",     "/run/data_update/notes.lock"};

struct stat StatusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

mode_t ModeOf(const std::string& path) {
  return StatusOf(path).st_mode & 07777;
}

// A lock file as an earlier version has made it.
void MakeOld(const std::string& path) {
  WriteFile(path, "");
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
}

class LockFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile("/usr/share/data_update/data_update.conf", R"({"config": {"cur_volume": ""}})");
    WriteFile("/usr/share/data_update/databases.conf", R"({"oui": {}})");
  }

  static void Make() {
    MakeLockFiles(dataupdate::ServiceConfig(
        std::make_shared<dataupdate::Config>(std::make_shared<dataupdate::IOUtils>())));
  }
};

TEST_F(LockFilesTest, AreRootsButForTheReadersOnes) {
  for (const mode_t mask : {mode_t{0}, mode_t{077}}) {
    fs::remove_all("/run/data_update");
    const mode_t before = umask(mask);
    Make();
    umask(before);
    EXPECT_EQ(ModeOf("/run/data_update"), 0755U);
    EXPECT_EQ(ModeOf(kUsing), 0644U);
    EXPECT_EQ(StatusOf(kUsing).st_gid, 0U);
    for (const char* lock : kOthers) {
      EXPECT_EQ(ModeOf(lock), 0600U) << lock;
    }
    EXPECT_EQ(std::distance(fs::directory_iterator("/run/data_update"), {}), 7);
  }
}

TEST_F(LockFilesTest, StayTheSameOnceTheyAreRight) {
  Make();
  const ino_t before = StatusOf(kAny).st_ino;
  Make();
  EXPECT_EQ(StatusOf(kAny).st_ino, before);
}

TEST_F(LockFilesTest, GroupOfReadersOpensTheirs) {
  const group* daemon = getgrnam("daemon");
  ASSERT_NE(daemon, nullptr);
  const gid_t gid = daemon->gr_gid;
  Make();
  WriteFile(kSettings, R"({"reader_group": "daemon"})");
  Make();
  EXPECT_EQ(ModeOf(kUsing), 0640U);
  EXPECT_EQ(StatusOf(kUsing).st_gid, gid);
  EXPECT_EQ(StatusOf(kUsing).st_uid, 0U);
  EXPECT_EQ(ModeOf(kAny), 0600U);
  WriteFile(kSettings, R"({"reader_group": "daemon", "reader_group_locks": "all"})");
  Make();
  EXPECT_EQ(ModeOf(kAny), 0640U);
  EXPECT_EQ(StatusOf(kAny).st_gid, gid);
  fs::remove(kSettings);
  Make();
  EXPECT_EQ(ModeOf(kUsing), 0644U);
  EXPECT_EQ(ModeOf(kAny), 0600U);
  EXPECT_EQ(StatusOf(kAny).st_gid, 0U);
}

// Without it root may change no owners, as in a unit whose capabilities are bounded.
void DropRightToChown() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct rights[2]{};
  ASSERT_EQ(syscall(SYS_capget, &header, rights), 0);
  rights[0].effective &= ~(1U << CAP_CHOWN);
  ASSERT_EQ(syscall(SYS_capset, &header, rights), 0);
}

TEST_F(LockFilesTest, GroupNeedsTheRightToChangeOwners) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << "there is one user only, and no other group";
  }
  Make();
  ForkedChild unit([](EventChannel& parent) {
    DropRightToChown();
    Make();
    WriteFile(kSettings, R"({"reader_group": "daemon"})");
    try {
      Make();
      parent.Send("made");
    } catch (const std::system_error& error) {
      parent.Send(error.what());
    }
    return 0;
  });
  EXPECT_EQ(unit.Channel().Receive(),
            std::string("Fail to give ") + kUsing + " to group " +
                std::to_string(getgrnam("daemon")->gr_gid) + " (reader_group in " + kSettings +
                "), for which CAP_CHOWN is needed, and @chown in a systemd unit: "
                "Operation not permitted");
  EXPECT_EQ(unit.Process().Wait(), 0);
  EXPECT_EQ(ModeOf(kUsing), 0644U) << "it stays as it was";
  EXPECT_EQ(std::distance(fs::directory_iterator("/run/data_update"), {}), 7);
}

TEST_F(LockFilesTest, WithoutAGroupNoOwnerIsChanged) {
  MakeOld(kUsing);
  is_chown_forbidden = true;
  EXPECT_NO_THROW(Make());
  is_chown_forbidden = false;
  EXPECT_EQ(ModeOf(kAny), 0600U);
}

TEST_F(LockFilesTest, UnknownGroupAndDamagedSettingsAreErrors) {
  WriteFile(kSettings, R"({"reader_group": "no-such-group"})");
  try {
    Make();
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              std::string(kSettings) + ": reader_group: there is no group no-such-group");
  }
  WriteFile(kSettings, "{");
  EXPECT_THROW(Make(), std::runtime_error);
}

TEST_F(LockFilesTest, OldOneThatNobodyHoldsIsReplaced) {
  MakeOld(kAny);
  const UniqueDescriptor kept(open(kAny, O_RDONLY | O_CLOEXEC));
  Make();
  EXPECT_EQ(ModeOf(kAny), 0600U);
  ASSERT_EQ(flock(kept.Get(), LOCK_EX | LOCK_NB), 0);
  EXPECT_NO_THROW(dataupdate::FileLock(kAny, 0)) << "what was opened before is of no use";
}

TEST_F(LockFilesTest, OldOneThatAnAccountHoldsIsReplaced) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  MakeOld(kAny);
  ForkedChild account = tolm::testing::ForkOrdinaryAccount([](EventChannel& parent) {
    const UniqueDescriptor file(open(kAny, O_RDONLY | O_CLOEXEC));
    parent.Send(flock(file.Get(), LOCK_EX | LOCK_NB) == 0 ? "held" : "failed");
    parent.Receive();
    return 0;
  });
  ASSERT_EQ(account.Channel().Receive(), "held");
  EXPECT_NO_THROW(InterruptibleLock(kAny));
  EXPECT_EQ(ModeOf(kAny), 0600U);
}

TEST_F(LockFilesTest, OldOneThatAProcessOfRootsHoldsIsLeftForTheNextTime) {
  for (const char* const lock : kOthers) {
    MakeOld(lock);
    {
      const UniqueDescriptor file(open(lock, O_RDONLY | O_CLOEXEC));
      ASSERT_EQ(flock(file.Get(), LOCK_EX | LOCK_NB), 0);
      Make();
      EXPECT_EQ(ModeOf(lock), 0644U) << lock;
      EXPECT_THROW(dataupdate::FileLock(lock, 0), std::exception) << "it is the same lock";
    }
    Make();
    EXPECT_EQ(ModeOf(lock), 0600U) << lock;
  }
}

TEST_F(LockFilesTest, OldOneOfSomebodysIsReplaced) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  MakeOld(kAny);
  ASSERT_EQ(chown(kAny, 1000, 1000), 0);
  Make();
  EXPECT_EQ(ModeOf(kAny), 0600U);
  EXPECT_EQ(StatusOf(kAny).st_uid, 0U);
}

// A process of that number may have been killed while it made one.
TEST_F(LockFilesTest, WhatAKilledProcessLeftIsNoObstacle) {
  for (const char* const lock : kOthers) {
    for (int count = 0; count < 8; ++count) {
      WriteFile(
          std::string(lock) + ".new-" + std::to_string(getpid()) + "-" + std::to_string(count), "");
    }
  }
  EXPECT_NO_THROW(Make());
  EXPECT_EQ(ModeOf(kOthers[0]), 0600U);
}

TEST_F(LockFilesTest, OneThatAnotherProcessMakesMeanwhileIsTheOne) {
  ino_t others = 0;
  meanwhile = [&others] {
    WriteFile(kOthers[0], "");
    ASSERT_EQ(chmod(kOthers[0], 0600), 0);
    others = StatusOf(kOthers[0]).st_ino;
  };
  Make();
  EXPECT_EQ(StatusOf(kOthers[0]).st_ino, others);
  fs::remove(kAny);
  link_error = EIO;
  EXPECT_THAT([] { Make(); }, ::testing::ThrowsMessage<base::FileError>(
                                  std::string("Fail to make ") + kAny + ": Input/output error"));
  link_error = 0;
  EXPECT_EQ(std::distance(fs::directory_iterator("/run/data_update"), {}), 6) << "nothing is left";
}

TEST_F(LockFilesTest, ReadersOneThatIsHeldGetsItsModeAndStays) {
  Make();
  const ino_t before = StatusOf(kUsing).st_ino;
  const UniqueDescriptor reader(open(kUsing, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(reader.Get(), LOCK_SH | LOCK_NB), 0);
  WriteFile(kSettings, R"({"reader_group": "daemon"})");
  Make();
  EXPECT_EQ(ModeOf(kUsing), 0640U);
  EXPECT_EQ(StatusOf(kUsing).st_ino, before);
}

TEST_F(LockFilesTest, WhatIsNoFileGivesWay) {
  fs::create_directories("/run/data_update");
  fs::create_symlink("/etc/passwd", kAny);
  Make();
  EXPECT_EQ(ModeOf(kAny), 0600U);
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kAny)));
}

TEST_F(LockFilesTest, DirectoryIsRoots) {
  fs::create_directories("/run/data_update");
  ASSERT_EQ(chmod("/run/data_update", 0777), 0);
  Make();
  EXPECT_EQ(ModeOf("/run/data_update"), 0755U);
  if (chown("/run/data_update", 1000, 1000) != 0) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  try {
    Make();
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("/run/data_update belongs to user 1000"));
  }
}

TEST_F(LockFilesTest, AccountMakesNoneAndMayNotLock) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  EXPECT_EQ(tolm::testing::CallAsOrdinaryAccount([] {
              Make();
              return MayLock(kAny) ? 1 : 0;
            }),
            0);
  EXPECT_FALSE(fs::exists("/run/data_update"));
  Make();
  EXPECT_TRUE(MayLock(kAny));
  EXPECT_EQ(
      tolm::testing::CallAsOrdinaryAccount([] {
        return !MayLock(kAny) && open(kAny, O_RDONLY | O_CLOEXEC) == -1 && MayLock(kUsing) ? 0 : 1;
      }),
      0);
}

}  // namespace
}  // namespace tolm::operation

// What other accounts of the device can do to the installed tool's operations.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/opening_watch.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/unique_descriptor.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr char kTmp[] = "/volume1/@tmp";
constexpr char kMain[] = "/volume1/@database/autoupdate";
constexpr char kAnyLock[] = "/run/data_update/update_any.lock";
constexpr char kUsingLock[] = "/run/data_update/using_oui.lock";

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

void SetMode(const std::string& path, mode_t mode) {
  fs::create_directories(path);
  ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

CommandResult ToolAsAccount(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), kTool);
  return RunCommand(AsOrdinaryAccount(arguments));
}

CommandResult ToolWithUmask(const std::string& mask, const std::string& arguments) {
  return RunCommand({"sh", "-c", "umask " + mask + "; exec " + kTool + ' ' + arguments});
}

class AccountsTest : public DeviceTest {
 protected:
  void SetUp() override {
    if (!HasOrdinaryAccount()) {
      GTEST_SKIP() << kNoOrdinaryAccount;
    }
    DeviceTest::SetUp();
  }
};

// ---- The ground ----

TEST_F(AccountsTest, OperationsRefuseAVolumeThatEverybodyWrites) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  SetMode("/volume1", 0777);
  for (const char* command : {"update", "fix", "force-install"}) {
    const CommandResult result = Tool({command, "oui"});
    EXPECT_EQ(result.exit_status, 1) << command;
    EXPECT_EQ(result.err,
              "tolmdbud: oui: /volume1 can be written by everybody; nothing was done (chmod go-w "
              "/volume1)\n");
  }
  EXPECT_EQ(Tool({"verify", "--package"}).exit_status, 1);
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_EQ(InstalledVersion("oui"), "1");
  ExpectNothingLeft();
}

TEST_F(AccountsTest, OperationsRefuseWhatIsSomebodysInTheirWay) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  SetMode(kTmp, 01777);
  ASSERT_EQ(CallAsOrdinaryAccount([] {
              fs::create_symlink("/root", "/volume1/@tmp/data_update");
              return 0;
            }),
            0);
  WriteFile("/root/precious", "kept");
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err,
            "tolmdbud: oui: /volume1/@tmp/data_update is a link; nothing was done (rm "
            "/volume1/@tmp/data_update)\n");
  EXPECT_EQ(ReadFile("/root/precious"), "kept");
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_FALSE(fs::exists(mark_));
}

TEST_F(AccountsTest, SharedTemporaryDirectoryIsGoodEnough) {
  SetMode(kTmp, 01777);
  InstallFirst();
  ExpectNothingLeft();
  publisher_.Offer("oui", 2, {2});
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ReadTree(prefix_), second_);
  ExpectNothingLeft();
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(Tool({"verify", "--package"}).exit_status, 0);
  ExpectNothingLeft();
}

TEST_F(AccountsTest, SharedVolumeIsGoodEnough) {
  SetMode("/volume1", 01777);
  InstallFirst();
  EXPECT_EQ(ModeOf("/volume1/@database"), 0755U);
  ExpectNothingLeft();
}

TEST_F(AccountsTest, NobodyLooksIntoTheTemporaryDirectory) {
  publisher_.Server().Hang("/packages/oui_v1", ReadFile(publisher_.FullPackage("oui", 1)));
  RunningCommand update({"sh", "-c", std::string("umask 0; exec ") + kTool + " update oui"});
  ASSERT_TRUE(publisher_.Server().WaitForRequest("/packages/oui_v1"));
  EXPECT_EQ(ModeOf("/volume1/@tmp/data_update"), 0700U);
  EXPECT_EQ(ModeOf(kTmp), 0755U);
  publisher_.Server().Release();
  EXPECT_EQ(update.Wait().exit_status, 0);
}

TEST_F(AccountsTest, WhatAnEarlierVersionLeftIsRemoved) {
  WriteFile("/volume1/@tmp/data_update/oui_v1", "left");
  SetMode("/volume1/@tmp/data_update", 0755);
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("removed what an earlier operation left"));
  ExpectNothingLeft();
}

// ---- Whoever calls ----

TEST_F(AccountsTest, CallersUmaskCountsForNothing) {
  for (const char* mask : {"000", "077"}) {
    SCOPED_TRACE(mask);
    const CommandResult result = ToolWithUmask(mask, "force-install oui");
    ASSERT_EQ(result.exit_status, 0) << result.err;
    for (const char* directory :
         {"/run/data_update", "/var/lib/data_update", "/var/lib/data_update/oui",
          "/var/cache/data_update", "/volume1/@database", kMain,
          "/volume1/@database/autoupdate/oui", "/volume1/@database/autoupdate/oui/sub"}) {
      EXPECT_EQ(ModeOf(directory), 0755U) << directory;
    }
    for (const char* file :
         {"/var/lib/data_update/oui/version.json", "/var/cache/data_update/database_info.json",
          "/var/lib/data_update/history.jsonl", kUsingLock}) {
      EXPECT_EQ(ModeOf(file), 0644U) << file;
    }
    EXPECT_EQ(ModeOf(kAnyLock), 0600U);
    for (const char* made : {"/run/data_update", "/var/lib/data_update", "/var/cache/data_update",
                             "/volume1/@database", kTmp}) {
      fs::remove_all(made);
    }
  }
}

TEST_F(AccountsTest, StateThatAnEarlierVersionLeftOpenIsClosed) {
  InstallFirst();
  ASSERT_EQ(chmod("/var/lib/data_update/oui", 0777), 0);
  ASSERT_EQ(chmod("/var/lib/data_update/oui/version.json", 0666), 0);
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ModeOf("/var/lib/data_update/oui"), 0755U);
  EXPECT_EQ(ModeOf("/var/lib/data_update/oui/version.json"), 0644U);
}

TEST_F(AccountsTest, CommandUnderTheReadersLockHasTheCallersUmask) {
  ASSERT_EQ(Tool({"init"}).exit_status, 0);
  EXPECT_EQ(ToolWithUmask("037", "lock oui -- sh -c umask").out, "0037\n");
}

// ---- Locks ----

TEST_F(AccountsTest, LockThatAnAccountKeepsStopsNothing) {
  WriteFile(kAnyLock, "");  // As an earlier version has made it.
  ASSERT_EQ(chmod(kAnyLock, 0644), 0);
  ForkedChild account = ForkOrdinaryAccount([](EventChannel& parent) {
    const UniqueDescriptor file(open(kAnyLock, O_RDONLY | O_CLOEXEC));
    parent.Send(flock(file.Get(), LOCK_EX | LOCK_NB) == 0 ? "held" : "failed");
    parent.Receive();
    return 0;
  });
  ASSERT_EQ(account.Channel().Receive(), "held");
  InstallFirst();
  EXPECT_EQ(ToolAsAccount({"lock", "oui", "--", "true"}).exit_status, 0);
  EXPECT_NE(RunAsOrdinaryAccount(std::string("flock -n ") + kAnyLock + " true").exit_status, 0);
}

TEST_F(AccountsTest, AccountHearsOfAnOperationWithoutItsLocks) {
  InstallFirst();
  EXPECT_EQ(ToolAsAccount({"busy"}).exit_status, 0);
  const std::string path = "/packages/oui_v1";
  const std::size_t seen = publisher_.Server().RequestCount(path);
  publisher_.Server().Hang(path, ReadFile(publisher_.FullPackage("oui", 1)));
  RunningCommand install({kTool, "force-install", "oui"});
  ASSERT_TRUE(publisher_.Server().WaitForRequest(path, seen + 1));
  EXPECT_EQ(ToolAsAccount({"busy"}).exit_status, 13);
  EXPECT_EQ(ToolAsAccount({"busy", "oui"}).exit_status, 13);
  EXPECT_THAT(ToolAsAccount({"status", "--offline"}).out, HasSubstr("  up to date  "))
      << "the mark of an operation that goes on";
  publisher_.Server().Release();
  EXPECT_EQ(install.Wait().exit_status, 0);
  EXPECT_EQ(ToolAsAccount({"busy", "oui"}).exit_status, 0);
}

TEST_F(AccountsTest, VerificationOfAnAccountWaitsForTheOperation) {
  InstallFirst();
  const std::string path = "/packages/oui_v1";
  const std::size_t seen = publisher_.Server().RequestCount(path);
  publisher_.Server().Hang(path, ReadFile(publisher_.FullPackage("oui", 1)));
  RunningCommand install({kTool, "force-install", "oui"});
  ASSERT_TRUE(publisher_.Server().WaitForRequest(path, seen + 1));
  const OpeningWatch watch("/usr/share/data_update/databases.conf");
  RunningCommand verification(AsOrdinaryAccount({kTool, "verify", "oui"}));
  ASSERT_TRUE(watch.Wait());
  EXPECT_TRUE(verification.Process().IsRunning());
  publisher_.Server().Release();
  EXPECT_EQ(install.Wait().exit_status, 0);
  const CommandResult result = verification.Wait();
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("oui: intact"));
}

// ---- Volumes ----

TEST_F(AccountsTest, InitSaysWhyAVolumeThatOthersWriteIsNotChosen) {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}}, "");
  SetMode("/volume1", 0777);
  EXPECT_EQ(Tool({"init"}).out, "volume: /volume2\n");
  ConfigureDevice(publisher_, {{"oui", kOnVolume}}, "");
  fs::remove("/usr/tolm/etc/data_update/data_update.conf");
  SetMode("/volume2/@tmp", 0777);
  const CommandResult result = Tool({"init"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: /volume1 can be written by everybody (chmod go-w /volume1)\n");
  EXPECT_THAT(Tool({"volume", "show"}).out, HasSubstr("/volume2  not suitable"));
  const CommandResult mounted = Tool({"volume", "mounted", "/volume2"});
  EXPECT_EQ(mounted.exit_status, 1);
  EXPECT_EQ(mounted.err,
            "tolmdbud: /volume2/@tmp can be written by everybody (chmod go-w /volume2/@tmp)\n");
}

TEST_F(AccountsTest, DatabasesThatOthersCouldChangeAreNotMoved) {
  InstallFirst();
  ASSERT_EQ(chmod((prefix_ / "a.txt").c_str(), 0666), 0);
  const CommandResult result = Tool({"volume", "unmounting", "/volume1"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err,
            "tolmdbud: /volume1/@database/autoupdate is not moved because "
            "/volume1/@database/autoupdate/oui/a.txt can be written by others; /volume2 is chosen "
            "and the databases are installed anew\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_TRUE(fs::is_empty("/volume2/@database/autoupdate"));
  EXPECT_THAT(Tool({"volume", "show"}).out, HasSubstr("chosen: /volume2\n"));
}

TEST_F(AccountsTest, SharedVolumeIsPreparedBeforeDatabasesMoveToIt) {
  InstallFirst();
  SetMode("/volume2", 01777);
  EXPECT_EQ(ToolWithUmask("000", "volume unmounting /volume1").exit_status, 0);
  EXPECT_EQ(ModeOf("/volume2/@database"), 0755U);
  EXPECT_EQ(ReadTree("/volume2/@database/autoupdate/oui"), first_);
}

TEST_F(AccountsTest, SharedVolumeIsPreparedBeforeItIsChosen) {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}}, "");
  SetMode("/volume1", 01777);
  EXPECT_EQ(ToolWithUmask("000", "init").out, "volume: /volume1\n");
  EXPECT_EQ(ModeOf(kMain), 0755U);
}

}  // namespace
}  // namespace tolm::testing

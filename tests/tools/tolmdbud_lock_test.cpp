// tolmdbud lock and busy: how other programs get along with operations.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>

#include <filesystem>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr char kUsingLock[] = "/run/data_update/using_oui.lock";

class LockCommandTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    ASSERT_EQ(Tool({"init"}).exit_status, 0);
  }
};

TEST_F(LockCommandTest, CommandRunsUnderTheSharedLock) {
  const CommandResult result =
      Tool({"lock", "oui", "--", "sh", "-c",
            "flock -n -s /run/data_update/using_oui.lock echo shared; "
            "flock -n -x /run/data_update/using_oui.lock echo exclusive || echo refused"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "shared\nrefused\n");
  EXPECT_TRUE(IsFree(kUsingLock));
}

TEST_F(LockCommandTest, ExitStatusOfTheCommandIsPassedOn) {
  EXPECT_EQ(Tool({"lock", "oui", "--", "sh", "-c", "exit 7"}).exit_status, 7);
  EXPECT_EQ(Tool({"lock", "oui", "--", "sh", "-c", "kill -TERM $$"}).exit_status, 128 + SIGTERM);
  EXPECT_EQ(Tool({"lock", "oui", "--", "/no/such/program"}).exit_status, 127);
  EXPECT_EQ(Tool({"lock", "oui", "--", "/etc"}).exit_status, 126);
}

TEST_F(LockCommandTest, OptionsOfTheCommandAreItsOwn) {
  EXPECT_EQ(Tool({"lock", "oui", "--wait", "1", "--", "echo", "--wait", "-n", "--help"}).out,
            "--wait -n --help\n");
}

TEST_F(LockCommandTest, LockThatIsNotHadInTimeIsAFailure) {
  const UniqueDescriptor installer(open(kUsingLock, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(installer.Get(), LOCK_EX | LOCK_NB), 0);
  const CommandResult result = Tool({"lock", "oui", "--wait", "0", "--", "echo", "ran"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "tolmdbud: oui: the lock was not had within 0 s\n");
}

TEST_F(LockCommandTest, UnknownDatabaseOrMissingLockFileIsAFailure) {
  const CommandResult unknown = Tool({"lock", "unknown", "--", "echo", "ran"});
  EXPECT_EQ(unknown.exit_status, 1);
  EXPECT_THAT(unknown.err, HasSubstr("unknown: the database is not configured or has no lock"));
  fs::remove(kUsingLock);
  const CommandResult missing = Tool({"lock", "oui", "--", "echo", "ran"});
  EXPECT_EQ(missing.exit_status, 1);
  EXPECT_THAT(missing.err, HasSubstr("tolmdbud init makes it"));
  EXPECT_EQ(missing.out, "");
}

TEST_F(LockCommandTest, TerminationIsPassedOnToTheCommand) {
  RunningCommand lock({kTool, "lock", "oui", "--", "sh", "-c",
                       "trap 'exit 9' TERM; touch /tmp/ready; while :; do sleep 0.01; done"});
  ASSERT_TRUE(WaitUntil([] { return fs::exists("/tmp/ready"); }));
  lock.Process().Signal(SIGTERM);
  EXPECT_EQ(lock.Wait().exit_status, 9);
  EXPECT_TRUE(IsFree(kUsingLock));
}

TEST_F(LockCommandTest, LockLastsAsLongAsTheCommandWhenTheToolIsKilled) {
  RunningCommand lock({kTool, "lock", "oui", "--", "sh", "-c",
                       "touch /tmp/ready; while [ ! -e /tmp/end ]; do sleep 0.01; done"});
  ASSERT_TRUE(WaitUntil([] { return fs::exists("/tmp/ready"); }));
  lock.Process().Signal(SIGKILL);
  lock.Process().Wait();
  EXPECT_FALSE(IsFree(kUsingLock));
  WriteFile("/tmp/end", "");
  EXPECT_TRUE(WaitUntil([] { return IsFree(kUsingLock); }));
}

TEST_F(LockCommandTest, WhatTheCommandLeavesBehindHoldsNoLock) {
  EXPECT_EQ(Tool({"lock", "oui", "--", "sh", "-c",
                  "(while [ ! -e /tmp/end ]; do sleep 0.01; done) >/dev/null 2>&1 & :"})
                .exit_status,
            0);
  EXPECT_TRUE(IsFree(kUsingLock));
  WriteFile("/tmp/end", "");
}

TEST_F(LockCommandTest, WrongUsageExitsWithTwo) {
  const std::vector<std::vector<std::string>> wrong = {
      {"lock"},
      {"lock", "oui"},
      {"lock", "oui", "--wait", "-1", "--", "true"},
      {"lock", "oui", "--wait", "soon", "--", "true"},
      {"busy", "oui", "extra"}};
  for (const auto& arguments : wrong) {
    EXPECT_EQ(Tool(arguments).exit_status, 2) << ::testing::PrintToString(arguments);
  }
}

using BusyCommandTest = LockCommandTest;

TEST_F(BusyCommandTest, IdleUntilAnOperationRuns) {
  EXPECT_EQ(Tool({"busy"}).exit_status, 0);
  EXPECT_EQ(Tool({"busy", "oui"}).out, "idle\n");
  publisher_.Server().Hang("/packages/oui_v1");
  RunningCommand update({kTool, "update", "oui"});
  ASSERT_TRUE(publisher_.Server().WaitForRequest("/packages/oui_v1"));
  const CommandResult any = Tool({"busy"});
  EXPECT_EQ(any.exit_status, 13);
  EXPECT_EQ(any.out, "busy\n");
  EXPECT_EQ(Tool({"busy", "oui"}).exit_status, 13);
  update.Process().Signal(SIGTERM);
  update.Wait();
  EXPECT_EQ(Tool({"busy"}).exit_status, 0);
}

TEST_F(BusyCommandTest, UnknownDatabaseIsAFailure) {
  const CommandResult result = Tool({"busy", "unknown"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: unknown: there is no such database; configured: oui\n");
}

}  // namespace
}  // namespace tolm::testing

#include "operation/running_program.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/wait.h"

namespace tolm::operation {
namespace {

using tolm::testing::RunningCommand;
using tolm::testing::WaitUntil;

bool HasCommand(pid_t process, const std::vector<std::string>& arguments) {
  std::string wanted;
  for (const std::string& argument : arguments) {
    wanted += argument + '\0';
  }
  return tolm::testing::ReadFile("/proc/" + std::to_string(process) + "/cmdline") == wanted;
}

TEST(RunningProgramTest, IsFoundByItsWholeCommandAsLongAsItRuns) {
  const std::vector<std::string> command = {"/bin/sleep", "600", "0.25"};
  EXPECT_FALSE(IsRunning(command));
  RunningCommand sleep(command);
  EXPECT_TRUE(WaitUntil([&] { return IsRunning(command); }));
  EXPECT_FALSE(IsRunning({"/bin/sleep", "600"}));
  EXPECT_FALSE(IsRunning({"/bin/sleep", "600", "0.25", ""}));
  sleep.Process().Signal(SIGKILL);
  sleep.Process().Wait();
  EXPECT_FALSE(IsRunning(command));
}

// What /proc lists may be gone when it is read.
TEST(RunningProgramTest, ProcessesThatEndMeanwhileAreNone) {
  const RunningCommand others({"/bin/sh", "-c", "while :; do (:) & (:) & (:) & wait; done"});
  for (int i = 0; i < 2000; ++i) {
    ASSERT_NO_THROW(EXPECT_FALSE(IsRunning({"/bin/sleep", "600", "0.125"})));
  }
}

// Anybody may call a program of their own so.
TEST(RunningProgramTest, ThatOfAnotherAccountIsNone) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  const std::vector<std::string> command = {"/bin/sleep", "600", "0.5"};
  RunningCommand own(command);
  ASSERT_TRUE(WaitUntil([&] { return IsRunning(command); }));
  own.Process().Signal(SIGKILL);
  own.Process().Wait();

  RunningCommand others(tolm::testing::AsOrdinaryAccount(command));
  ASSERT_TRUE(WaitUntil([&] { return HasCommand(others.Process().Pid(), command); }));
  EXPECT_FALSE(IsRunning(command));
}

// The name of a program stands before its account in what the kernel tells of it.
TEST(RunningProgramTest, NameThatLooksLikeAnAccountIsNone) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  const tolm::testing::TemporaryDirectory directory;
  std::filesystem::permissions(directory.Path(), std::filesystem::perms(0755));
  const std::string program = directory.Path() / "Uid: 0 0";
  std::filesystem::copy_file("/bin/sleep", program);
  const std::vector<std::string> command = {program, "600"};
  RunningCommand others(tolm::testing::AsOrdinaryAccount(command));
  ASSERT_TRUE(WaitUntil([&] { return HasCommand(others.Process().Pid(), command); }));
  EXPECT_FALSE(IsRunning(command));
}

// A container has directories of its own with the same names.
TEST(RunningProgramTest, WhatSeesOtherDirectoriesThereIsNone) {
  const tolm::testing::TemporaryDirectory directory;
  const std::vector<std::string> command = {"/bin/sleep", "600", "0.75"};
  RunningCommand elsewhere(
      {"/usr/bin/unshare", "--mount", "/bin/sh", "-c",
       "mount -t tmpfs none " + directory.Path().string() + " && exec /bin/sleep 600 0.75"});
  ASSERT_TRUE(WaitUntil([&] { return HasCommand(elsewhere.Process().Pid(), command); }));
  EXPECT_FALSE(IsRunning(command, {directory.Path()}));
  EXPECT_TRUE(IsRunning(command));
  EXPECT_TRUE(IsRunning(command, {"/usr"}));
  EXPECT_FALSE(IsRunning(command, {"/usr", directory.Path()}));
}

TEST(RunningProgramTest, WhatSeesAnotherDirectoryOfTheSameFileSystemThereIsNone) {
  const tolm::testing::TemporaryDirectory directory;
  const tolm::testing::TemporaryDirectory other;
  const std::vector<std::string> command = {"/bin/sleep", "600", "0.625"};
  RunningCommand elsewhere({"/usr/bin/unshare", "--mount", "/bin/sh", "-c",
                            "mount --bind " + other.Path().string() + ' ' +
                                directory.Path().string() + " && exec /bin/sleep 600 0.625"});
  ASSERT_TRUE(WaitUntil([&] { return HasCommand(elsewhere.Process().Pid(), command); }));
  EXPECT_FALSE(IsRunning(command, {directory.Path()}));
  EXPECT_TRUE(IsRunning(command, {other.Path()}));
}

// A volume that is gone for both may be the same.
TEST(RunningProgramTest, DirectoryThatNeitherSeesTellsNothing) {
  const std::vector<std::string> command = {"/bin/sleep", "600", "0.875"};
  RunningCommand sleep(command);
  EXPECT_TRUE(WaitUntil([&] { return IsRunning(command, {"/no/such/directory"}); }));
}

}  // namespace
}  // namespace tolm::operation

#include "operation/running_program.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "tests/support/child_process.h"
#include "tests/support/wait.h"

namespace tolm::operation {
namespace {

using testing::RunningCommand;
using testing::WaitUntil;

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

}  // namespace
}  // namespace tolm::operation

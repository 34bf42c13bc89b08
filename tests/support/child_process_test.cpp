#include "tests/support/child_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "tests/support/wait.h"

namespace tolm::testing {
namespace {

TEST(ForkedChild, ResultOfTheFunctionIsItsExitStatus) {
  ForkedChild child([](EventChannel&) { return 7; });
  EXPECT_EQ(child.Process().Wait(), 7);
}

TEST(ForkedChild, ExceptionBecomesAStatusOfItsOwn) {
  ForkedChild child([](EventChannel&) -> int { throw std::runtime_error("expected here"); });
  EXPECT_EQ(child.Process().Wait(), 125);
}

TEST(ForkedChild, MessagesGoBothWays) {
  ForkedChild child([](EventChannel& parent) {
    parent.Send("one");
    parent.Send("two");
    return parent.Receive() == "three" ? 0 : 1;
  });
  EXPECT_EQ(child.Channel().Receive(), "one");
  EXPECT_EQ(child.Channel().Receive(), "two");
  child.Channel().Send("three");
  EXPECT_EQ(child.Channel().Receive(), std::nullopt);
  EXPECT_EQ(child.Process().Wait(), 0);
}

TEST(ForkedChild, KilledOneReportsTheSignal) {
  ForkedChild child([](EventChannel& parent) {
    parent.Send("ready");
    pause();
    return 0;
  });
  ASSERT_EQ(child.Channel().Receive(), "ready");
  EXPECT_TRUE(child.Process().IsRunning());
  child.Process().Signal(SIGKILL);
  EXPECT_TRUE(WaitUntil([&] { return !child.Process().IsRunning(); }));
  EXPECT_EQ(child.Process().Wait(), 128 + SIGKILL);
}

TEST(ForkedChild, IsEndedWithItsObject) {
  pid_t pid = 0;
  {
    ForkedChild child([](EventChannel&) {
      pause();
      return 0;
    });
    pid = child.Process().Pid();
  }
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST(RunCommand, KeepsOutputErrorsAndStatusApart) {
  const CommandResult result = RunCommand({"sh", "-c", "echo out; echo err >&2; exit 3"});
  EXPECT_EQ(result.out, "out\n");
  EXPECT_EQ(result.err, "err\n");
  EXPECT_EQ(result.exit_status, 3);
}

TEST(RunCommand, TakesInputDirectoryAndEnvironment) {
  setenv("TOLM_OLD", "old", 1);
  CommandOptions options;
  options.environment = {"TOLM_OLD=new", "TOLM_MORE=more"};
  options.working_directory = "/usr";
  options.input = "in";
  const CommandResult result = RunCommand({"sh", "-c", "cat; pwd; env | grep ^TOLM_"}, options);
  EXPECT_EQ(result.out, "in/usr\nTOLM_OLD=new\nTOLM_MORE=more\n");
}

TEST(RunCommand, MissingProgramIsAnError) {
  EXPECT_THROW(RunCommand({"/nowhere/program"}), std::system_error);
}

TEST(RunningCommand, ShowsItsOutputBeforeItsEnd) {
  RunningCommand command({"sh", "-c", "echo started; exec sleep 1000"});
  EXPECT_TRUE(WaitUntil([&] { return command.Out() == "started\n"; }));
  command.Process().Signal(SIGTERM);
  EXPECT_EQ(command.Wait().exit_status, 128 + SIGTERM);
}

}  // namespace
}  // namespace tolm::testing

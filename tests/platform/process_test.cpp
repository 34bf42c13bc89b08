#include "platform/process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/scratch.h"
#include "tests/support/syslog_capture.h"

namespace tolm::testing {
namespace {

using platform::ProcessRequest;
using platform::ProcessResult;
using platform::RunProcess;
using std::chrono::milliseconds;
using ::testing::ElementsAre;

using End = ProcessResult::End;

ProcessRequest Shell(const std::string& script, const std::string& argument = "") {
  ProcessRequest request;
  request.program = "/bin/sh";
  request.arguments = {"-c", script, "sh", argument};
  return request;
}

class ProcessTest : public ::testing::Test {
 protected:
  ~ProcessTest() override { platform::CancelProcesses(false); }

  ScratchDirectory scratch_;
};

TEST_F(ProcessTest, TheGivenEnvironmentIsTheWholeEnvironment) {
  const std::string out = scratch_ / "out";
  ProcessRequest request;
  request.program = "/bin/cp";  // a shell would add variables of its own
  request.environment = {"B=2", "A=1 1", "EMPTY="};
  request.arguments = {"/proc/self/environ", out};
  ASSERT_TRUE(RunProcess(request).Succeeded());
  EXPECT_EQ(ReadFile(out), std::string("B=2\0A=1 1\0EMPTY=\0", 17));
}

TEST_F(ProcessTest, AnEmptyEnvironmentIsEmpty) {
  const std::string out = scratch_ / "out";
  ProcessRequest request;
  request.program = "/bin/cp";
  request.arguments = {"/proc/self/environ", out};
  request.environment.emplace();
  ASSERT_TRUE(RunProcess(request).Succeeded());
  EXPECT_EQ(ReadFile(out), "");
}

TEST_F(ProcessTest, TheWorkingDirectoryIsTheGivenOne) {
  ProcessRequest request = Shell("test \"$(pwd -P)\" = \"$1\"", "/usr");
  request.working_directory = "/usr";
  EXPECT_TRUE(RunProcess(request).Succeeded());
  request.working_directory = scratch_ / "missing";
  const ProcessResult result = RunProcess(request);
  EXPECT_EQ(result.end, End::kNotStarted);
  EXPECT_EQ(result.error, ENOENT);
}

TEST_F(ProcessTest, AProgramWithinItsTimeLimitIsLeftAlone) {
  ProcessRequest request = Shell("exit 4");
  request.time_limit = std::chrono::hours(10000);
  const ProcessResult result = RunProcess(request);
  EXPECT_EQ(result.end, End::kFinished);
  EXPECT_EQ(result.status, 4);
}

TEST_F(ProcessTest, AProgramBeyondItsTimeLimitIsEndedWithItsGroup) {
  Fifo group(scratch_ / "group");
  ProcessResult result;
  std::thread program([&] {
    ProcessRequest request = Shell(
        "exec 9> $1; echo last words >&2; sleep 1000 & echo ready >&9; wait", scratch_ / "group");
    request.time_limit = milliseconds(2000);
    result = RunProcess(request);
  });
  group.WaitForEnd();
  program.join();
  EXPECT_EQ(result.end, End::kTimedOut);
  EXPECT_EQ(result.status, 128 + SIGTERM);
  EXPECT_THAT(result.last_lines, ElementsAre("last words"));
}

TEST_F(ProcessTest, AProgramThatIgnoresSigtermIsKilledAfterTheGrace) {
  Fifo group(scratch_ / "group");
  ProcessResult result;
  std::thread program([&] {
    ProcessRequest request = Shell(
        "exec 9> $1; trap 'echo asked >&9' TERM; echo ready >&9; while :; do sleep 1000; done",
        scratch_ / "group");
    request.time_limit = milliseconds(2000);
    request.grace = milliseconds(300);
    result = RunProcess(request);
  });
  EXPECT_EQ(group.ReadLine(), "ready");
  EXPECT_EQ(group.ReadLine(), "asked");
  group.WaitForEnd();
  program.join();
  EXPECT_EQ(result.end, End::kTimedOut);
  EXPECT_EQ(result.status, 128 + SIGKILL);
}

TEST_F(ProcessTest, CancellingDoesNotTouchAProcessThatIsNotCancellable) {
  Fifo ready(scratch_ / "ready");
  Fifo go(scratch_ / "go");
  ProcessResult result;
  std::thread program([&] {
    result = RunProcess(
        Shell("echo ready > $1/ready; read line < $1/go; test \"$line\" = now", scratch_ / "."));
  });
  EXPECT_EQ(ready.ReadLine(), "ready");
  platform::CancelProcesses(true);
  EXPECT_TRUE(RunProcess(Shell("exit 0")).Succeeded()) << "it may start, too";
  WriteFile(scratch_ / "go", "now\n");
  program.join();
  EXPECT_TRUE(result.Succeeded());
}

struct LogCase {
  const char* name;
  ProcessResult result;
  const char* text;
};

class ProcessLogTest : public ::testing::TestWithParam<LogCase> {};

TEST_P(ProcessLogTest, SaysWhatHappened) {
  SyslogCapture::Clear();
  platform::LogFailure(LOG_WARNING, "tool", GetParam().result);
  const std::vector<SyslogLine> log = SyslogCapture::Lines();
  ASSERT_EQ(log.size(), 2U);
  EXPECT_EQ(log[0].text, GetParam().text);
  EXPECT_EQ(log[1].text, "tool: line %d");
  EXPECT_EQ(LOG_PRI(log[0].priority), LOG_WARNING);
  EXPECT_EQ(LOG_PRI(log[1].priority), LOG_WARNING);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ProcessLogTest,
    ::testing::Values(
        LogCase{"NotStarted",
                {End::kNotStarted, ENOENT, 0, {"line %d"}},
                "tool could not be run: No such file or directory"},
        LogCase{"Finished", {End::kFinished, 0, 8, {"line %d"}}, "tool failed with status 8"},
        LogCase{"Cancelled",
                {End::kCancelled, 0, 143, {"line %d"}},
                "tool was cancelled and ended with status 143"},
        LogCase{"TimedOut",
                {End::kTimedOut, 0, 137, {"line %d"}},
                "tool exceeded its time limit and ended with status 137"},
        LogCase{"StatusUnknown",
                {End::kStatusUnknown, ECHILD, 0, {"line %d"}},
                "tool left no exit status: No child processes"}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tolm::testing

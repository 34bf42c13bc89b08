#include "operation/program_watch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "operation/interrupt.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"
#include "tolm/exec.h"

namespace tolm::operation {
namespace {

const char* const kEnd = nullptr;

int Shell(const char* command, const std::string& argument = "") {
  return TLIBCExecl("/bin/sh", 0, "-c", command, argument.c_str(), kEnd);
}

TEST(ProgramWatchTest, AllThatAProgramSaysIsTaken) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const testing::UniqueDescriptor from(ends[0]);
  const testing::UniqueDescriptor to(ends[1]);
  std::string said;
  ProgramWatch watch([] { return false; }, from.Get(),
                     [&said](std::string_view text) { said += text; });
  const std::string name = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(to.Get());
  EXPECT_EQ(Shell("printf one >\"$0\"", name), 0);
  EXPECT_EQ(Shell("printf two >\"$0\"", name), 0);
  watch.Stop();
  EXPECT_EQ(said, "onetwo");
  EXPECT_FALSE(watch.ended());
  watch.Stop();
}

TEST(ProgramWatchTest, ProgramThatMustEndIsEndedAndTheNextOneRuns) {
  ProgramWatch watch([] { return true; });
  EXPECT_NE(Shell("exec sleep 600"), 0);
  watch.Stop();
  EXPECT_TRUE(watch.ended());
  EXPECT_EQ(Shell("exit 0"), 0);
}

TEST(ProgramWatchTest, AfterASignalNoneRunsAnyMore) {
  const Interrupt interrupt;
  ProgramWatch watch([] { return true; });
  EXPECT_NE(Shell("exec sleep 600"), 0);
  kill(getpid(), SIGTERM);
  ASSERT_TRUE(testing::WaitUntil([] { return Interrupt::Received() != 0; }));
  watch.Stop();
  EXPECT_TRUE(watch.ended());
  EXPECT_NE(Shell("exit 0"), 0);
}

}  // namespace
}  // namespace tolm::operation

#include "publish/test_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <ctime>

#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace {

int waits = 0;
bool comes_late = false;

}  // namespace

// Before the C library's: somebody who looks when all is over.
pid_t waitpid(pid_t process, int* status, int options) {
  if (comes_late) {
    siginfo_t ended{};
    ::waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOWAIT);
  }
  return ::wait4(process, status, options, nullptr);
}

int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
  ++waits;
  const timespec time = {milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
  return ppoll(descriptors, count, milliseconds < 0 ? nullptr : &time, nullptr);
}

namespace tolm::testing {
namespace {

using publish::RunTestCommand;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TestCommandTest : public ::testing::Test {
 protected:
  std::vector<std::string> Run(const std::string& command) const {
    return RunTestCommand({command, "oui", 7, directory_.Path()});
  }

  TemporaryDirectory directory_;
};

TEST_F(TestCommandTest, ReleaseMayBeMadeWhenItEndsWell) {
  EXPECT_THAT(Run("exit 0"), IsEmpty());
  EXPECT_THAT(Run("test \"$NAME $VERSION $1\" = \"oui 7 $TREE\" && test \"$PWD\" = \"$TREE\""),
              IsEmpty());
}

TEST_F(TestCommandTest, WhyNotIsSaidInItsOwnWords) {
  EXPECT_THAT(Run("echo one; echo two >&2; exit 3"),
              ElementsAre("its test failed with status 3", "  one", "  two"));
  EXPECT_THAT(Run("kill -KILL $$"), ElementsAre("its test was ended by signal 9"));
}

TEST_F(TestCommandTest, WordsAreReadThatItHasSaidBeforeAnybodyLooked) {
  comes_late = true;
  EXPECT_THAT(Run("echo one; exit 3"), ElementsAre("its test failed with status 3", "  one"));
  comes_late = false;
}

TEST_F(TestCommandTest, OfManyWordsTheLastTwentyLinesOfTheLastFourThousandBytesAreSaid) {
  // More than a pipe holds, before anything has ended.
  const std::vector<std::string> many = Run("seq 30000; exit 1");
  ASSERT_EQ(many.size(), 21u);
  EXPECT_EQ(many[1], "  29981");
  EXPECT_EQ(many[20], "  30000");
  EXPECT_EQ(Run("seq 20; exit 1").size(), 21u);
  EXPECT_THAT(Run("printf x; exit 1"), ElementsAre("its test failed with status 1", "  x"));
  EXPECT_THAT(Run("printf 'b%04999d' 0; exit 1"),
              ElementsAre("its test failed with status 1", "  " + std::string(4000, '0')));
  EXPECT_THAT(Run("printf 'b%03999d' 0; exit 1"),
              ElementsAre("its test failed with status 1", "  b" + std::string(3999, '0')));
}

TEST_F(TestCommandTest, ChildThatEndsIsNotTheEndOfTheTest) {
  EXPECT_THAT(Run("for i in 1 2 3; do /bin/true; done; sleep 0.1; exit 0"), IsEmpty());
}

TEST_F(TestCommandTest, OneThatHasClosedItsOutputIsWaitedForInPeace) {
  waits = 0;
  EXPECT_THAT(Run("exec >/dev/null 2>&1; sleep 0.3"), IsEmpty());
  EXPECT_GT(waits, 0);
  EXPECT_LT(waits, 20) << "it was asked all the time whether it had ended";
}

TEST_F(TestCommandTest, SignalEndsItAndIsPassedOn) {
  const std::string ended = directory_.Path() / "ended";
  try {
    Run("trap 'touch ended; exit 1' TERM; kill -HUP $PPID; for i in $(seq 300); do sleep 0.1; "
        "done");
    FAIL() << "it goes on without end";
  } catch (const publish::Interrupted& interrupted) {
    EXPECT_EQ(interrupted.signal, SIGHUP);
  }
  EXPECT_TRUE(std::filesystem::exists(ended)) << "it was told to end";
}

TEST_F(TestCommandTest, SignalEndsAlsoATestThatHeedsNoneAndTellsNothingMore) {
  const std::string late = directory_.Path() / "late";
  EXPECT_THROW(Run("exec >/dev/null 2>&1; trap '' TERM; kill -HUP $PPID; for i in $(seq 200); do "
                   "sleep 0.1; done; touch late"),
               publish::Interrupted);
  EXPECT_FALSE(std::filesystem::exists(late)) << "it was not ended";
}

}  // namespace
}  // namespace tolm::testing

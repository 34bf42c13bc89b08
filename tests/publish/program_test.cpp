#include "publish/program.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "base/descriptor.h"
#include "package/error.h"
#include "publish/memory_file.h"
#include "tests/support/files.h"
#include "tests/support/interrupted_calls.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using publish::RunProgram;
using ::testing::EndsWith;

const publish::Program kShell = {"sh", "dash"};

class ProgramTest : public ::testing::Test {
 protected:
  // What the shell command writes to its standard output.
  std::string Run(const std::string& command, const std::vector<std::string>& unset = {}) {
    const std::string path = directory_.Path() / "out";
    const base::Descriptor out(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    RunProgram(kShell, {{"-c", command}, out.Get(), -1, unset});
    return ReadFile(path);
  }

  std::string Failure(const std::string& command) {
    try {
      Run(command);
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), package::Code::kInternal);
      return error.what();
    }
    return "";
  }

  TemporaryDirectory directory_;
};

TEST_F(ProgramTest, OutputGoesToTheDescriptor) {
  EXPECT_EQ(Run("echo said"), "said\n");
}

TEST_F(ProgramTest, ReadsNothingAndInheritsNoOtherDescriptor) {
  const int inherited = ::open("/dev/null", O_RDONLY);  // without close-on-exec
  ASSERT_GT(inherited, 2);
  EXPECT_EQ(Run("cat; readlink /proc/self/fd/0; test -e /proc/self/fd/" +
                std::to_string(inherited) + " || echo none"),
            "/dev/null\nnone\n");
  ::close(inherited);
}

TEST_F(ProgramTest, NamedVariablesAreKeptFromIt) {
  ::setenv("TOLM_A", "a", 1);
  ::setenv("TOLM_B", "b", 1);
  EXPECT_EQ(Run("echo $TOLM_A-$TOLM_B", {"TOLM_A"}), "-b\n");
  EXPECT_STREQ(::getenv("TOLM_A"), "a");
}

TEST_F(ProgramTest, FailureTellsStatusAndWords) {
  EXPECT_EQ(Failure("printf 'why\\n\\tso\\n' >&2; exit 3"),
            "sh failed with status 3: why; \\x09so");
  EXPECT_EQ(Failure("kill -9 $$"), "sh was ended by signal 9: ");
}

TEST_F(ProgramTest, ReadsTheDescriptorFromWhereItIs) {
  const publish::MemoryFile input("input", "one\ntwo\n");
  const publish::MemoryFile output("output");
  ::lseek(input.Get(), 4, SEEK_SET);
  RunProgram(kShell, {{"-c", "cat"}, output.Get(), input.Get()});
  EXPECT_EQ(output.Content(), "two\n");
}

TEST_F(ProgramTest, EndIsToldWhateverItIs) {
  const auto end = [](const std::string& command) {
    return RunToItsEnd(kShell, {{"-c", command}, STDOUT_FILENO});
  };
  EXPECT_EQ(end("exit 0").exit_status, 0);
  EXPECT_EQ(end("exit 7").exit_status, 7);
  EXPECT_EQ(end("exit 7").signal, 0);
  EXPECT_EQ(end("kill -SEGV $$").signal, SIGSEGV);
  EXPECT_EQ(end("echo why >&2").words, "why");
}

TEST_F(ProgramTest, OnlyTheEndOfManyWordsIsKept) {
  const std::string text = Failure("seq 100000 >&2; exit 1");
  EXPECT_THAT(text, EndsWith("; 99999; 100000"));
  EXPECT_LT(text.size(), 5000U);
}

TEST_F(ProgramTest, MissingProgramNamesItsPackage) {
  try {
    RunProgram({"tolm-no-such-program", "its-package"}, {{}, 1});
    ADD_FAILURE() << "ran";
  } catch (const package::Error& error) {
    EXPECT_STREQ(error.what(),
                 "tolm-no-such-program is not installed (Debian package its-package)");
  }
}

TEST_F(ProgramTest, WorksInTheDirectoryThatIsNamed) {
  const publish::MemoryFile output("output");
  publish::ProgramRun run;
  run.arguments = {"-c", "pwd"};
  run.output = output.Get();
  run.directory = directory_.Path();
  RunProgram(kShell, run);
  EXPECT_EQ(output.Content(), directory_.Path().string() + "\n");
}

TEST_F(ProgramTest, SetVariableTakesThePlaceOfTheInheritedOne) {
  ::setenv("TOLM_A", "a", 1);
  ::setenv("TOLM_AB", "ab", 1);
  const publish::MemoryFile output("output");
  publish::ProgramRun run;
  run.arguments = {"-c", "tr '\\0' '\\n' < /proc/$$/environ | grep ^TOLM_A | sort"};
  run.output = output.Get();
  run.set = {"TOLM_A=another=one"};
  RunProgram(kShell, run);
  EXPECT_EQ(output.Content(), "TOLM_A=another=one\nTOLM_AB=ab\n");
}

TEST_F(ProgramTest, HearsTheSignalsThatItsStarterDoesNot) {
  sigset_t blocked;
  sigset_t before;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto handler = ::signal(SIGUSR2, SIG_IGN);
  EXPECT_EQ(RunToItsEnd(kShell, {{"-c", "kill -USR1 $$; exit 5"}, STDOUT_FILENO}).signal, SIGUSR1);
  const publish::ProgramEnd end =
      RunToItsEnd(kShell, {{"-c", "kill -USR2 $$; exit 5"}, STDOUT_FILENO});
  EXPECT_EQ(end.signal, SIGUSR2);
  EXPECT_EQ(end.exit_status, 0);
  ::signal(SIGUSR2, handler);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(ProgramTest, LeadsAGroupOfItsOwnOnlyWhenItIsToldTo) {
  publish::ProgramRun run;
  run.arguments = {"-c",
                   "read -r pid name state parent group rest < /proc/$$/stat; "
                   "[ $group = $pid ]"};
  run.output = STDOUT_FILENO;
  EXPECT_EQ(RunToItsEnd(kShell, run).exit_status, 1);
  run.own_group = true;
  EXPECT_EQ(RunToItsEnd(kShell, run).exit_status, 0);
}

TEST_F(ProgramTest, WordsAreTheLastTwoThousandBytes) {
  EXPECT_EQ(RunToItsEnd(kShell, {{"-c", "printf 'b%02999d' 0 >&2"}, STDOUT_FILENO}).words,
            std::string(2000, '0'));
  EXPECT_EQ(RunToItsEnd(kShell, {{"-c", "printf '\\n;a ;\\n \\n' >&2"}, STDOUT_FILENO}).words,
            "; ;a");
  EXPECT_EQ(RunToItsEnd(kShell, {{"-c", "printf x >&2"}, STDOUT_FILENO}).words, "x");
}

TEST_F(ProgramTest, SignalsOfItsStarterDoNotEndTheWait) {
  const InterruptedCalls interrupted;
  const publish::ProgramEnd end = RunToItsEnd(
      kShell, {{"-c", "sleep 0.1; echo why >&2; exec 2>&-; sleep 0.1; exit 7"}, STDOUT_FILENO});
  EXPECT_EQ(end.exit_status, 7);
  EXPECT_EQ(end.signal, 0);
  EXPECT_EQ(end.words, "why");
}

TEST_F(ProgramTest, InputMayBeTheFirstDescriptor) {
  const publish::MemoryFile input("input", "one\n");
  const publish::MemoryFile output("output");
  const int before = ::dup(STDIN_FILENO);
  ::dup2(input.Get(), STDIN_FILENO);
  ::lseek(STDIN_FILENO, 0, SEEK_SET);
  RunProgram(kShell, {{"-c", "cat"}, output.Get(), STDIN_FILENO});
  ::dup2(before, STDIN_FILENO);
  ::close(before);
  EXPECT_EQ(output.Content(), "one\n");
}

TEST_F(ProgramTest, LeavesNoMemoryBehind) {
  const auto run = [] { RunToItsEnd(kShell, {{"-c", ":"}, STDOUT_FILENO}); };
  run();
  const std::size_t before = ::mallinfo2().uordblks;
  for (int i = 0; i < 20; ++i) {
    run();
  }
  EXPECT_LT(::mallinfo2().uordblks, before + 1024);
}

}  // namespace
}  // namespace tolm::testing

#include "tolm/exec.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/scratch.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/unique_descriptor.h"
#include "tolm/err.h"

namespace tolm::testing {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr int kOptions = 187;

// Makes this program's read below wait for as many bytes as were asked for.
std::atomic<bool> read_full_blocks_only{false};

// Counted by this program's posix_spawn below.
std::atomic<bool> starts_forbidden{false};
std::atomic<int> starts{0};
std::atomic<int> forbidden_starts{0};

// Redirections are put into ( ) where the shell's own descriptors matter: it makes those of a plain
// command in its own process.
int Sh(const std::string& script, const char* a1 = nullptr, const char* a2 = nullptr) {
  return TLIBCExecl("/bin/sh", kOptions, "-c", script.c_str(), "sh", a1, a2,
                    static_cast<char*>(nullptr));
}

class ExecTest : public ::testing::Test {
 protected:
  ExecTest() { SyslogCapture::Clear(); }
  ~ExecTest() override { TLIBCExecCancel(0); }

  ScratchDirectory scratch_;
  const std::string out_ = scratch_ / "out";
};

// ---- What the caller learns ----

struct StatusCase {
  const char* name;
  const char* script;
  int expected;
};

class ExecStatusTest : public ::testing::TestWithParam<StatusCase> {};

TEST_P(ExecStatusTest, IsReturned) {
  EXPECT_EQ(Sh(GetParam().script), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Table, ExecStatusTest,
                         ::testing::Values(StatusCase{"Zero", "exit 0", 0},
                                           StatusCase{"One", "exit 1", 1},
                                           StatusCase{"Eight", "exit 8", 8},
                                           StatusCase{"Largest", "exit 255", 255},
                                           StatusCase{"Terminated", "kill -TERM $$", 128 + SIGTERM},
                                           StatusCase{"Killed", "kill -KILL $$", 128 + SIGKILL},
                                           StatusCase{"BrokenPipe", "kill -PIPE $$", 128 + SIGPIPE},
                                           StatusCase{"HungUp", "kill -HUP $$", 128 + SIGHUP}),
                         [](const auto& row) { return row.param.name; });

struct NotRunCase {
  const char* name;
  const char* program;
  int error;
};

class ExecNotRunTest : public ::testing::TestWithParam<NotRunCase> {
 protected:
  ExecNotRunTest() { SyslogCapture::Clear(); }

  ScratchDirectory scratch_;
};

TEST_P(ExecNotRunTest, IsNegativeAndNamesTheReason) {
  WriteFile(scratch_ / "not-executable", "#!/bin/sh\n");
  WriteFile(scratch_ / "no-format", "neither a script nor a binary\n");
  chmod((scratch_ / "no-format").c_str(), 0755);
  WriteScript(scratch_ / "no-interpreter", "");
  WriteFile(scratch_ / "no-interpreter", "#!/no/such/interpreter\n");
  const std::string given = GetParam().program;
  const std::string program = given.empty() || given[0] == '/' ? given : scratch_ / given;
  EXPECT_LT(TLIBCExec(program.c_str(), nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(TLIBCErrGet(), GetParam().error);
  EXPECT_THAT(LogTexts(), ElementsAre(StartsWith(program + " could not be run: ")));
}

INSTANTIATE_TEST_SUITE_P(Table, ExecNotRunTest,
                         ::testing::Values(NotRunCase{"Missing", "missing", ENOENT},
                                           NotRunCase{"Empty", "", ENOENT},
                                           NotRunCase{"NotExecutable", "not-executable", EACCES},
                                           NotRunCase{"Directory", "/tmp", EACCES},
                                           NotRunCase{"BelowAFile", "/bin/sh/x", ENOTDIR},
                                           NotRunCase{"NoFormat", "no-format", ENOEXEC},
                                           NotRunCase{"NoInterpreter", "no-interpreter", ENOENT}),
                         [](const auto& row) { return row.param.name; });

TEST_F(ExecTest, NullProgramIsInvalid) {
  EXPECT_LT(TLIBCExec(nullptr, "a", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
  EXPECT_LT(TLIBCExecl(nullptr, kOptions, "a", static_cast<char*>(nullptr)), 0);
}

TEST_F(ExecTest, TooLongArgumentIsAFailureToRun) {
  const std::string longest(131072, 'x');
  EXPECT_LT(TLIBCExec("/bin/true", longest.c_str(), nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(TLIBCErrGet(), E2BIG);
}

TEST_F(ExecTest, SuccessLeavesTheLastErrorAlone) {
  ASSERT_LT(TLIBCExec("/no/such/program", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(TLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(TLIBCErrGet(), ENOENT);
}

// ---- Arguments and environment ----

class ExecArgumentsTest : public ExecTest {
 protected:
  // Writes each argument, the program's own name first, as one line in brackets.
  void SetUp() override {
    WriteScript(program_, "for a in \"$0\" \"$@\"; do printf '[%s]\\n' \"$a\"; done > " + out_);
  }

  const std::string program_ = scratch_ / "show";
};

TEST_F(ExecArgumentsTest, ArrivesVerbatim) {
  EXPECT_EQ(TLIBCExecl(program_.c_str(), kOptions, "-N", "http://h/a?b[c]=d&e", "-O", "", "a b  c",
                       "$HOME `id` \"'\\", "*", "--tries=3", static_cast<char*>(nullptr)),
            0);
  EXPECT_THAT(ReadLines(out_),
              ElementsAre("[" + program_ + "]", "[-N]", "[http://h/a?b[c]=d&e]", "[-O]", "[]",
                          "[a b  c]", "[$HOME `id` \"'\\]", "[*]", "[--tries=3]"));
}

TEST_F(ExecArgumentsTest, NoArgumentsAreFine) {
  EXPECT_EQ(TLIBCExecl(program_.c_str(), kOptions, static_cast<char*>(nullptr)), 0);
  EXPECT_THAT(ReadLines(out_), ElementsAre("[" + program_ + "]"));
}

TEST_F(ExecArgumentsTest, FourFixedArgumentsArrive) {
  EXPECT_EQ(TLIBCExec(program_.c_str(), "1", "", "3 3", "4"), 0);
  EXPECT_THAT(ReadLines(out_), ElementsAre("[" + program_ + "]", "[1]", "[]", "[3 3]", "[4]"));
}

TEST_F(ExecArgumentsTest, FirstNullEndsTheFixedArguments) {
  EXPECT_EQ(TLIBCExec(program_.c_str(), "1", nullptr, "3", "4"), 0);
  EXPECT_THAT(ReadLines(out_), ElementsAre("[" + program_ + "]", "[1]"));
}

TEST_F(ExecTest, ChildHasTheCallersEnvironment) {
  setenv("TOLM_TEST_VARIABLE", "some value", 1);
  EXPECT_EQ(Sh("test \"$TOLM_TEST_VARIABLE\" = 'some value'"), 0);
}

// ---- What the child starts with ----

TEST_F(ExecTest, ChildReadsAnEmptyStandardInput) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const UniqueDescriptor own(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
  const UniqueDescriptor reader(ends[0]);
  const UniqueDescriptor writer(ends[1]);
  ASSERT_EQ(dup2(reader.Get(), STDIN_FILENO), STDIN_FILENO);  // a terminal would be as endless
  EXPECT_EQ(Sh("(readlink /proc/$$/fd/0 > $1); cat >> $1", out_.c_str()), 0);
  dup2(own.Get(), STDIN_FILENO);
  EXPECT_EQ(ReadFile(out_), "/dev/null\n");
}

TEST_F(ExecTest, ChildsStandardOutputGoesNowhere) {
  EXPECT_EQ(Sh("echo loud; (readlink /proc/$$/fd/1 > $1); exit 0", out_.c_str()), 0);
  EXPECT_EQ(ReadFile(out_), "/dev/null\n");
}

TEST_F(ExecTest, ChildInheritsNoDescriptorAboveTwo) {
  std::vector<UniqueDescriptor> open_files;
  for (int i = 0; i < 40; ++i)
    open_files.emplace_back(open("/dev/null", O_RDONLY));  // without close-on-exec
  for (const int number : {100, 500, 1000}) {
    ASSERT_EQ(dup2(open_files[0].Get(), number), number);
    open_files.emplace_back(number);
  }
  EXPECT_EQ(Sh("(ls /proc/$$/fd > $1); exit 0", out_.c_str()), 0);
  EXPECT_THAT(ReadLines(out_), ElementsAre("0", "1", "2"));
}

TEST_F(ExecTest, ChildDoesNotKeepALockOfADeadParent) {
  const std::string lock = scratch_ / "lock";
  Fifo started(scratch_ / "started");
  const pid_t holder = fork();
  ASSERT_GE(holder, 0);
  if (holder == 0) {
    const int fd = open(lock.c_str(), O_RDWR | O_CREAT, 0600);  // without close-on-exec
    if (fd < 0 || flock(fd, LOCK_EX | LOCK_NB) != 0)
      _exit(1);
    Sh("exec 9> $1; echo $$ >&9; while :; do sleep 1000; done", (scratch_ / "started").c_str());
    _exit(2);
  }
  const pid_t child = std::stoi(started.ReadLine());
  const UniqueDescriptor fd(open(lock.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_NE(flock(fd.Get(), LOCK_EX | LOCK_NB), 0);
  kill(holder, SIGKILL);
  ASSERT_EQ(waitpid(holder, nullptr, 0), holder);
  EXPECT_EQ(kill(child, 0), 0) << "the child must outlive its parent here";
  EXPECT_EQ(flock(fd.Get(), LOCK_EX | LOCK_NB), 0);
  kill(-child, SIGKILL);
  started.WaitForEnd();
}

std::string StatusField(const std::string& path, const std::string& name) {
  for (const std::string& line : ReadLines(path)) {
    if (line.rfind(name + ":\t", 0) == 0)
      return line.substr(name.size() + 2);
  }
  return "no such field";
}

TEST_F(ExecTest, ChildHasDefaultSignalDispositionsAndAnEmptyMask) {
  for (int number = 1; number <= SIGRTMAX; ++number) {
    if (number != SIGCHLD)
      signal(
          number, number % 2 == 0 ? SIG_IGN : [](int) {});
  }
  sigset_t all;
  sigfillset(&all);
  sigset_t old;
  pthread_sigmask(SIG_SETMASK, &all, &old);
  EXPECT_EQ(Sh("exec cat /proc/self/status > $1", out_.c_str()), 0);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  for (int number = 1; number <= SIGRTMAX; ++number)
    signal(number, SIG_DFL);
  // The C library keeps signals 32 and 33 to itself: programs can neither set nor, in effect, get
  // them.
  constexpr unsigned long long kLibrarysOwn = 0x180000000ULL;
  for (const char* field : {"SigBlk", "SigIgn", "SigCgt"})
    EXPECT_EQ(std::stoull(StatusField(out_, field), nullptr, 16) & ~kLibrarysOwn, 0U) << field;
}

TEST_F(ExecTest, ChildLeadsAProcessGroupOfItsOwn) {
  EXPECT_EQ(Sh("exec cat /proc/self/stat > $1", out_.c_str()), 0);
  int pid = 0;
  int group = 0;
  int session = 0;
  ASSERT_EQ(std::sscanf(ReadFile(out_).c_str(), "%d (cat) %*c %*d %d %d", &pid, &group, &session),
            3);
  EXPECT_EQ(group, pid);
  EXPECT_EQ(session, getsid(0));
}

TEST_F(ExecTest, ParentMayHaveClosedItsStandardDescriptors) {
  const pid_t parent = fork();
  ASSERT_GE(parent, 0);
  if (parent == 0) {
    for (const int fd : {0, 1, 2})
      close(fd);
    const int status =
        Sh("(readlink /proc/$$/fd/0 > $1); (readlink /proc/$$/fd/1 >> $1); "
           "echo complaint >&2; exit 7",
           out_.c_str());
    const std::vector<std::string> log = LogTexts();
    _exit(status == 7 && log.size() == 2 && log[1] == "/bin/sh: complaint" ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(parent, &status, 0), parent);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ReadFile(out_), "/dev/null\n/dev/null\n");
}

TEST_F(ExecTest, LeavesNoDescriptorAndNoChildBehind) {
  const auto count = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = count();
  EXPECT_EQ(Sh("exit 0"), 0);
  EXPECT_EQ(Sh("exit 3"), 3);
  EXPECT_LT(TLIBCExec("/no/such/program", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(count(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

// ---- What goes to the log ----

TEST_F(ExecTest, SuccessLogsNothing) {
  EXPECT_EQ(Sh("echo progress >&2"), 0);
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST_F(ExecTest, FailureLogsStatusAndStandardErrorAtNoticeLevel) {
  EXPECT_EQ(
      Sh("echo not this; echo 'ERROR 404: Not Found. 100%s' >&2; printf 'no line end' >&2; exit 8"),
      8);
  const std::vector<SyslogLine> log = SyslogCapture::Lines();
  ASSERT_THAT(log, SizeIs(3));
  EXPECT_EQ(log[0].text, "/bin/sh failed with status 8");
  EXPECT_EQ(log[1].text, "/bin/sh: ERROR 404: Not Found. 100%s");
  EXPECT_EQ(log[2].text, "/bin/sh: no line end");
  for (const SyslogLine& entry : log)
    EXPECT_EQ(LOG_PRI(entry.priority), LOG_NOTICE);
}

TEST_F(ExecTest, OnlyTheLastLinesOfALongStandardErrorAreLogged) {
  EXPECT_EQ(Sh("i=0; while [ $i -lt 100000 ]; do i=$((i+1)); echo line $i; done >&2; exit 1"), 1);
  const std::vector<std::string> log = LogTexts();
  ASSERT_THAT(log, SizeIs(21));
  for (std::size_t i = 1; i <= 20; ++i)
    EXPECT_EQ(log[i], "/bin/sh: line " + std::to_string(99980 + i));
}

TEST_F(ExecTest, AnEndlessLineIsBounded) {
  EXPECT_EQ(Sh("head -c 20000000 /dev/zero | tr '\\0' x >&2; printf end >&2; exit 1"), 1);
  const std::vector<std::string> log = LogTexts();
  ASSERT_THAT(log, SizeIs(2));
  EXPECT_EQ(log[1], "/bin/sh: " + std::string(4093, 'x') + "end");
}

TEST_F(ExecTest, ABackgroundProcessThatKeepsStandardErrorOpenIsNotWaitedFor) {
  Fifo alive(scratch_ / "alive");
  std::thread program([&] {
    EXPECT_EQ(Sh("exec 9> $1; sleep 1000 & echo $! >&9; echo last words >&2; exit 3",
                 (scratch_ / "alive").c_str()),
              3);
  });
  const pid_t background = std::stoi(alive.ReadLine());
  program.join();
  EXPECT_EQ(kill(background, 0), 0) << "what a program leaves running is left alone";
  EXPECT_THAT(LogTexts(), ElementsAre("/bin/sh failed with status 3", "/bin/sh: last words"));
  kill(background, SIGKILL);
  alive.WaitForEnd();
}

TEST_F(ExecTest, ABackgroundProcessThatWritesWithoutEndIsNotWaitedFor) {
  Fifo alive(scratch_ / "alive");
  read_full_blocks_only = true;  // so the writers are never behind the reader
  std::thread program([&] {
    EXPECT_EQ(Sh("exec 9> $1; cat /dev/zero >&2 & cat /dev/zero >&2 & echo started >&9; exit 3",
                 (scratch_ / "alive").c_str()),
              3);
  });
  EXPECT_EQ(alive.ReadLine(), "started");
  program.join();
  read_full_blocks_only = false;
  alive.WaitForEnd();  // their next write meets a pipe without a reader
}

// ---- Hosts of every kind ----

TEST_F(ExecTest, InterruptedCallsAreContinued) {
  struct sigaction action = {};
  static std::atomic<int> alarms{0};
  action.sa_handler = [](int) { ++alarms; };  // without SA_RESTART
  sigaction(SIGALRM, &action, nullptr);
  itimerval every_millisecond{{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &every_millisecond, nullptr);
  EXPECT_EQ(Sh("i=0; while [ $i -lt 200000 ]; do i=$((i+1)); done; exit 5"), 5);
  itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_GT(alarms, 0);
}

TEST_F(ExecTest, AProcessThatIgnoresSigchldIsToldThatTheStatusIsLost) {
  signal(SIGCHLD, SIG_IGN);
  EXPECT_LT(Sh("echo done > $1; exit 0", out_.c_str()), 0);
  EXPECT_EQ(TLIBCErrGet(), ECHILD);
  signal(SIGCHLD, SIG_DFL);
  EXPECT_EQ(ReadFile(out_), "done\n") << "it was waited for all the same";
}

TEST_F(ExecTest, SeveralThreadsRunProgramsAtOnce) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([thread] {
      for (int round = 0; round < 10; ++round) {
        const int status = thread * 10 + round;
        EXPECT_EQ(Sh("echo noise >&2; exit " + std::to_string(status)), status);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

// ---- Cancelling ----

TEST_F(ExecTest, NothingIsStartedWhileCancelled) {
  TLIBCExecCancel(1);
  EXPECT_LT(Sh("echo ran > $1", out_.c_str()), 0);
  EXPECT_EQ(TLIBCErrGet(), ECANCELED);
  EXPECT_LT(TLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_FALSE(std::filesystem::exists(out_));
  TLIBCExecCancel(0);
  EXPECT_EQ(Sh("echo ran > $1", out_.c_str()), 0);
  EXPECT_TRUE(std::filesystem::exists(out_));
}

struct CancelCase {
  const char* name;
  const char* script;  // has $1 open for writing as descriptor 9
  int expected;
  int error;  // for a negative result
};

class ExecCancelTest : public ::testing::TestWithParam<CancelCase> {
 protected:
  ~ExecCancelTest() override { TLIBCExecCancel(0); }

  ScratchDirectory scratch_;
};

TEST_P(ExecCancelTest, EndsTheWholeGroup) {
  const CancelCase& row = GetParam();
  Fifo group(scratch_ / "group");
  int result = 0;
  int error = 0;
  std::thread program([&] {
    result = Sh(std::string("exec 9> $1; ") + row.script, (scratch_ / "group").c_str());
    error = TLIBCErrGet();
  });
  EXPECT_EQ(group.ReadLine(), "ready");
  TLIBCExecCancel(1);
  program.join();
  group.WaitForEnd();
  EXPECT_EQ(result, row.expected);
  if (result < 0) {
    EXPECT_EQ(error, row.error);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ExecCancelTest,
    ::testing::Values(
        CancelCase{"Program", "echo ready >&9; exec sleep 1000", 128 + SIGTERM, 0},
        CancelCase{"WithItsChildren", "sleep 1000 & echo ready >&9; wait", 128 + SIGTERM, 0},
        CancelCase{"IgnoringSigterm", "trap '' TERM; echo ready >&9; sleep 1000", 128 + SIGKILL, 0},
        CancelCase{"ChildIgnoringSigterm",
                   "(trap '' TERM; echo ready >&9; sleep 1000) & wait; sleep 1000", 128 + SIGTERM,
                   0},
        CancelCase{"Stopped",
                   "(until grep -q 'State:.T' /proc/$$/status; do :; done; echo ready >&9) & "
                   "kill -STOP $$; sleep 1000",
                   128 + SIGTERM, 0},
        // A program that tidies up and leaves with a status of its own was cancelled all the same.
        CancelCase{"ExitingWithZero", "trap 'exit 0' TERM; sleep 1000 & echo ready >&9; wait", -1,
                   ECANCELED},
        CancelCase{"ExitingWithOne", "trap 'exit 1' TERM; sleep 1000 & echo ready >&9; wait", -1,
                   ECANCELED},
        CancelCase{"WritingWithoutEnd", "echo ready >&9; while :; do echo noise; done >&2",
                   128 + SIGTERM, 0}),
    [](const auto& row) { return row.param.name; });

TEST_F(ExecTest, ACancelThatIsTakenBackAtOnceStillEndsWhatWasRunning) {
  Fifo group(scratch_ / "group");
  int result = 0;
  std::thread program([&] {
    result = Sh("exec 9> $1; echo ready >&9; exec sleep 1000", (scratch_ / "group").c_str());
  });
  EXPECT_EQ(group.ReadLine(), "ready");
  TLIBCExecCancel(1);
  TLIBCExecCancel(0);
  program.join();
  EXPECT_EQ(result, 128 + SIGTERM);
}

TEST_F(ExecTest, CancellingEndsTheProgramsOfAllThreads) {
  Fifo first(scratch_ / "first");
  Fifo second(scratch_ / "second");
  int results[2] = {0, 0};
  const auto run = [&](const std::string& name, int* result) {
    *result = Sh("exec 9> $1; echo ready >&9; exec sleep 1000", (scratch_ / name).c_str());
  };
  std::thread a(run, "first", &results[0]);
  std::thread b(run, "second", &results[1]);
  EXPECT_EQ(first.ReadLine(), "ready");
  EXPECT_EQ(second.ReadLine(), "ready");
  TLIBCExecCancel(1);
  a.join();
  b.join();
  EXPECT_THAT(results, ElementsAre(128 + SIGTERM, 128 + SIGTERM));
}

TEST_F(ExecTest, ACancelledProgramIsLogged) {
  Fifo group(scratch_ / "group");
  std::thread program([&] {
    Sh("exec 9> $1; echo half way >&2; echo ready >&9; exec sleep 1000",
       (scratch_ / "group").c_str());
  });
  EXPECT_EQ(group.ReadLine(), "ready");
  TLIBCExecCancel(1);
  program.join();
  EXPECT_THAT(LogTexts(),
              ElementsAre("/bin/sh was cancelled and ended with status 143", "/bin/sh: half way"));
}

// Whatever the moment, a program either runs to its end, is ended, or is not started.
TEST_F(ExecTest, NoProgramStartsAfterCancelHasReturned) {
  for (int round = 0; round < 30; ++round) {
    std::atomic<int> finished{0};
    std::atomic<int> running_threads{3};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] {
        int result = 0;
        for (; result == 0; ++finished)
          result = Sh("exit 0");
        EXPECT_THAT(result, AnyOf(-1, 128 + SIGTERM));
        --running_threads;
      });
    }
    while (finished < round % 5 && running_threads > 0)
      std::this_thread::yield();
    TLIBCExecCancel(1);
    starts_forbidden = true;
    for (std::thread& thread : threads)
      thread.join();
    starts_forbidden = false;
    TLIBCExecCancel(0);
  }
  EXPECT_GT(starts, 0);
  EXPECT_EQ(forbidden_starts, 0);
}

}  // namespace
}  // namespace tolm::testing

// Watches the library under test start its programs.
extern "C" __attribute__((visibility("default"))) int posix_spawn(
    pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
    const posix_spawnattr_t* attributes, char* const argv[], char* const environment[]) {
  static const auto real =
      reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
  const int result = real(pid, path, actions, attributes, argv, environment);
  ++tolm::testing::starts;
  if (tolm::testing::starts_forbidden)
    ++tolm::testing::forbidden_starts;
  return result;
}

// Lets a test decide how the library under test gets on with its reading.
extern "C" __attribute__((visibility("default"))) ssize_t read(int fd, void* buffer, size_t size) {
  static const auto real = reinterpret_cast<decltype(&read)>(dlsym(RTLD_NEXT, "read"));
  int available = 0;
  while (size > 1 && tolm::testing::read_full_blocks_only && ioctl(fd, FIONREAD, &available) == 0 &&
         static_cast<size_t>(available) < size)
    std::this_thread::yield();
  return real(fd, buffer, size);
}

// Runs a command under the readers' lock.

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <memory>

#include "dataupdate/project_lock.h"
#include "tools/tolmdbud_cli.h"

namespace tolm::tool {
namespace {

class ReaderLock {
 public:
  ReaderLock(const std::string& name, std::uint32_t wait_seconds)
      : fd_(TOLMDBUDGetFileLock(name.c_str(), wait_seconds)) {}
  ~ReaderLock() { TOLMDBUDReleaseFileLock(fd_); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

  int Get() const { return fd_; }

 private:
  int fd_;
};

std::string ReasonFor(int failure, std::uint32_t wait_seconds) {
  constexpr int kTimedOut = -1;
  if (failure == kTimedOut) {
    return "the lock was not had within " + std::to_string(wait_seconds) + " s";
  }
  return "the database is not configured or has no lock file yet (tolmdbud init makes it)";
}

// Keeps a signal that comes while the command is being started until there is somebody to pass it
// on to.
class SignalsHeldBack {
 public:
  SignalsHeldBack() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGHUP, SIGINT, SIGQUIT}) {
      sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, &before_);
  }
  ~SignalsHeldBack() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsHeldBack(const SignalsHeldBack&) = delete;
  SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;

  const sigset_t& Before() const { return before_; }

 private:
  sigset_t before_ = {};
};

volatile pid_t child_to_tell = 0;

void PassOn(int number) {
  kill(child_to_tell, number);
}

// 0, or an errno value. The command inherits the lock's descriptor: were this process killed, the
// lock would last as long as the command.
int Spawn(const std::vector<std::string>& command, mode_t callers_umask, pid_t& child) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  const SignalsHeldBack held;
  posix_spawnattr_setsigmask(&attributes, &held.Before());
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const mode_t own_umask = umask(callers_umask);
  const int error =
      posix_spawnp(&child, arguments[0], nullptr, &attributes, arguments.data(), environ);
  umask(own_umask);
  posix_spawnattr_destroy(&attributes);
  if (error == 0) {
    child_to_tell = child;
    std::signal(SIGTERM, PassOn);
    std::signal(SIGHUP, PassOn);
    // The terminal sends these to the command as well: it decides, and this process goes on
    // waiting.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGQUIT, SIG_IGN);
  }
  return error;
}

int WaitFor(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : kSignal + WTERMSIG(status);
}

struct Given {
  std::string name;
  std::uint32_t wait_seconds = 60;
  std::vector<std::string> command;
};

// Returns the command's exit status, or 128 + the signal that ended it.
int Lock(Console& console, const Given& given) {
  const ReaderLock lock(given.name, given.wait_seconds);
  if (lock.Get() < 0) {
    console.Fail(given.name, operation::reasons::kOther, ReasonFor(lock.Get(), given.wait_seconds));
    return kFailure;
  }
  pid_t child = 0;
  const int error = Spawn(given.command, console.GetOptions().callers_umask, child);
  if (error != 0) {
    console.Fail(given.command.front(), operation::reasons::kOther, std::strerror(error));
    return error == ENOENT ? kCommandNotFound : kCannotExecute;
  }
  return WaitFor(child);
}

}  // namespace

void AddReaderLock(CommandSyntax app, Choice& choice) {
  const auto given = std::make_shared<Given>();
  const CommandSyntax command = AddCommand(
      app, choice, "lock", "Run a command while no update replaces the files",
      {"tolmdbud lock vendors -- grep -r 00:1B:63 /volume1/@database/autoupdate/vendors",
       "tolmdbud lock vendors --wait 5 -- tar -C /volume1/@database/autoupdate -cf /tmp/v.tar "
       "vendors",
       "Exit status: the command's own; 1 when the lock is not had."},
      [given](Console& console, const operation::Service&) { return Lock(console, *given); },
      Output::kOfTheProgramThatItRuns, Rights::kAnyone);
  command.AddOption("NAME", given->name, "The database").Required();
  command
      .AddOption("--wait", given->wait_seconds, "Seconds to wait for an update that replaces them")
      .ShowDefault();
  command.AddOption("COMMAND", given->command, "Given after --, with its arguments").Required();
}

}  // namespace tolm::tool

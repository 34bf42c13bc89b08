// Runs a command under the readers' lock.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "dataupdate/project_lock.h"
#include "tools/tolmdbud_commands.h"

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

// Signals of the terminal reach the command as well: it decides, and this process goes on waiting.
class TerminalSignalsIgnored {
 public:
  TerminalSignalsIgnored()
      : interrupt_(std::signal(SIGINT, SIG_IGN)), quit_(std::signal(SIGQUIT, SIG_IGN)) {}
  ~TerminalSignalsIgnored() {
    std::signal(SIGINT, interrupt_);
    std::signal(SIGQUIT, quit_);
  }
  TerminalSignalsIgnored(const TerminalSignalsIgnored&) = delete;
  TerminalSignalsIgnored& operator=(const TerminalSignalsIgnored&) = delete;

 private:
  void (*interrupt_)(int);
  void (*quit_)(int);
};

pid_t child_to_tell = 0;

void PassOn(int number) {
  kill(child_to_tell, number);
}

// 0, or an errno value. The command inherits the lock's descriptor: were this process killed, the
// lock would last as long as the command.
int Spawn(const std::vector<std::string>& command, pid_t& child) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  return posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ);
}

int WaitFor(pid_t child) {
  child_to_tell = child;
  std::signal(SIGTERM, PassOn);
  std::signal(SIGHUP, PassOn);
  const TerminalSignalsIgnored ignored;
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : kSignal + WTERMSIG(status);
}

}  // namespace

int Lock(const std::string& name, std::uint32_t wait_seconds,
         const std::vector<std::string>& command) {
  const ReaderLock lock(name, wait_seconds);
  if (lock.Get() < 0) {
    PrintNote(name + ": " + ReasonFor(lock.Get(), wait_seconds));
    return kFailure;
  }
  pid_t child = 0;
  const int error = Spawn(command, child);
  if (error != 0) {
    PrintNote(command.front() + ": " + std::strerror(error));
    return error == ENOENT ? kCommandNotFound : kCannotExecute;
  }
  return WaitFor(child);
}

}  // namespace tolm::tool

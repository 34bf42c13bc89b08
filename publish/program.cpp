#include "publish/program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <new>
#include <set>

#include "base/descriptor.h"
#include "base/utf8.h"
#include "package/error.h"

namespace tolm::publish {
namespace {

using base::Descriptor;
using package::Code;
using package::Error;

constexpr std::size_t kMaxErrorTextBytes = 2000;

void Require(int result) {
  if (result != 0) {
    throw std::bad_alloc();
  }
}

class SpawnSetup {
 public:
  SpawnSetup() {
    Require(posix_spawn_file_actions_init(&actions_));
    if (posix_spawnattr_init(&attributes_) != 0) {
      posix_spawn_file_actions_destroy(&actions_);
      throw std::bad_alloc();
    }
  }
  ~SpawnSetup() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  void SetDescriptors(int input, int output, int errors) {
    Require(posix_spawn_file_actions_adddup2(&actions_, errors, STDERR_FILENO));
    Require(posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
    Require(input < 0 ? posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null",
                                                         O_RDONLY, 0)
                      : posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO));
    Require(posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
  }

  void SetDirectory(const std::string& directory) {
    Require(posix_spawn_file_actions_addchdir_np(&actions_, directory.c_str()));
  }

  void ResetSignals(bool own_group) {
    sigset_t all;
    sigfillset(&all);
    sigset_t none;
    sigemptyset(&none);
    Require(posix_spawnattr_setsigdefault(&attributes_, &all));
    Require(posix_spawnattr_setsigmask(&attributes_, &none));
    const int group = own_group ? POSIX_SPAWN_SETPGROUP : 0;
    Require(posix_spawnattr_setflags(
        &attributes_, static_cast<short>(POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | group)));
  }

  // Returns 0 or an errno value.
  int Spawn(const char* name, char* const* arguments, char* const* environment, pid_t* pid) const {
    return posix_spawnp(pid, name, &actions_, &attributes_, arguments, environment);
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

// Null-ended, as the system wants it; the strings stay the caller's.
std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

std::string NameOf(const std::string& variable) {
  return variable.substr(0, variable.find('='));
}

std::vector<std::string> EnvironmentOf(const ProgramRun& run) {
  std::set<std::string> left_out(run.unset.begin(), run.unset.end());
  for (const std::string& variable : run.set) {
    left_out.insert(NameOf(variable));
  }
  std::vector<std::string> environment = run.set;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (left_out.count(NameOf(*entry)) == 0) {
      environment.emplace_back(*entry);
    }
  }
  return environment;
}

// Reads to the end, which comes with the program's.
std::string ReadEnd(int fd) {
  std::string text;
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return text;
    }
    text.append(buffer.data(), static_cast<std::size_t>(count));
    text.erase(0, text.size() - std::min(text.size(), kMaxErrorTextBytes));
  }
}

// Its lines as one.
std::string OneLine(const std::string& text) {
  std::string line;
  for (const char c : text) {
    line += c == '\n' ? std::string("; ") : std::string(1, c);
  }
  while (!line.empty() && (line.back() == ' ' || line.back() == ';')) {
    line.pop_back();
  }
  return base::EscapeControls(line);
}

int WaitFor(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      throw package::SystemError(Code::kInternal, "waitpid", errno);
    }
  }
  return status;
}

}  // namespace

void ThrowNotInstalled(const Program& program) {
  throw Error(Code::kInternal,
              program.name + " is not installed (Debian package " + program.debian_package + ")");
}

pid_t StartProgram(const Program& program, const ProgramRun& run, int errors) {
  SpawnSetup setup;
  setup.SetDescriptors(run.input, run.output, errors);
  setup.ResetSignals(run.own_group);
  if (!run.directory.empty()) {
    setup.SetDirectory(run.directory);
  }
  std::vector<std::string> words = {program.name};
  words.insert(words.end(), run.arguments.begin(), run.arguments.end());
  std::vector<std::string> environment = EnvironmentOf(run);
  pid_t pid = 0;
  const int reason =
      setup.Spawn(program.name.c_str(), Pointers(words).data(), Pointers(environment).data(), &pid);
  if (reason == ENOENT) {
    ThrowNotInstalled(program);
  }
  if (reason != 0) {
    throw package::SystemError(Code::kInternal, program.name, reason);
  }
  return pid;
}

ProgramEnd RunToItsEnd(const Program& program, const ProgramRun& run) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw package::SystemError(Code::kInternal, program.name, errno);
  }
  const Descriptor reader(ends[0]);
  Descriptor writer(ends[1]);
  const pid_t pid = StartProgram(program, run, writer.Get());
  writer = Descriptor();
  ProgramEnd end;
  end.words = OneLine(ReadEnd(reader.Get()));
  const int status = WaitFor(pid);
  end.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
  end.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  return end;
}

void RequireSuccess(const Program& program, const ProgramEnd& end) {
  if (end.signal != 0 || end.exit_status != 0) {
    const std::string how = end.signal != 0
                                ? "was ended by signal " + std::to_string(end.signal)
                                : "failed with status " + std::to_string(end.exit_status);
    throw Error(Code::kInternal, program.name + ' ' + how + ": " + end.words);
  }
}

void RunProgram(const Program& program, const ProgramRun& run) {
  RequireSuccess(program, RunToItsEnd(program, run));
}

}  // namespace tolm::publish

#include "tests/support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace tolm::testing {
namespace {

constexpr std::size_t kMessageLimitBytes = 64 * 1024;
constexpr int kReceiveTimeoutMilliseconds = 60 * 1000;
constexpr int kBodyThrew = 125;

[[noreturn]] void Fail(const std::string& what, int error = errno) {
  throw std::system_error(error, std::generic_category(), "cannot " + what);
}

int RunBody(const ForkedChild::Body& body, UniqueDescriptor socket) {
  try {
    EventChannel channel(std::move(socket));
    return body(channel);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "forked child: %s\n", error.what());
  } catch (...) {
    std::fputs("forked child: an exception of unknown type\n", stderr);
  }
  return kBodyThrew;
}

// A file in memory takes any amount of output without anybody reading along.
UniqueDescriptor MakeMemoryFile() {
  UniqueDescriptor file(memfd_create("memory", MFD_CLOEXEC));
  if (!file) {
    Fail("make a file in memory");
  }
  return file;
}

UniqueDescriptor MakeInput(const std::string& content) {
  UniqueDescriptor file = MakeMemoryFile();
  if (write(file.Get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
      lseek(file.Get(), 0, SEEK_SET) != 0) {
    Fail("fill a file in memory");
  }
  return file;
}

UniqueDescriptor MakeOutput() {
  UniqueDescriptor file = MakeMemoryFile();
  // A program may open /dev/stdout and then write through both descriptors.
  if (fcntl(file.Get(), F_SETFL, O_APPEND) != 0) {
    Fail("append to a file in memory");
  }
  return file;
}

std::string ReadMemoryFile(const UniqueDescriptor& file) {
  std::string content;
  char buffer[4096];
  ssize_t count = 0;
  // At explicit positions: the file's own one belongs to the program that writes.
  while ((count = pread(file.Get(), buffer, sizeof buffer, static_cast<off_t>(content.size()))) >
         0) {
    content.append(buffer, static_cast<std::size_t>(count));
  }
  return content;
}

std::vector<std::string> MakeEnvironment(const std::vector<std::string>& changes) {
  std::vector<std::string> environment = changes;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    const std::string name = text.substr(0, text.find('=') + 1);
    bool replaced = false;
    for (const std::string& change : changes) {
      replaced = replaced || change.compare(0, name.size(), name) == 0;
    }
    if (!replaced) {
      environment.push_back(text);
    }
  }
  return environment;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

pid_t Spawn(std::vector<std::string> arguments, const CommandOptions& options,
            const UniqueDescriptor& out, const UniqueDescriptor& err) {
  const UniqueDescriptor in = MakeInput(options.input);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.Get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.Get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err.Get(), STDERR_FILENO);
  if (!options.working_directory.empty()) {
    posix_spawn_file_actions_addchdir_np(&actions, options.working_directory.c_str());
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  std::vector<std::string> environment = MakeEnvironment(options.environment);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, arguments.at(0).c_str(), &actions, &attributes,
                                 Pointers(arguments).data(), Pointers(environment).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    Fail("run " + arguments.at(0), error);
  }
  return pid;
}

}  // namespace

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

Child::Child(Child&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}

void Child::Signal(int signal) const {
  if (pid_ <= 0 || kill(pid_, signal) != 0) {
    Fail("signal the child", pid_ <= 0 ? ESRCH : errno);
  }
}

int Child::Wait() {
  int status = 0;
  if (pid_ <= 0 || waitpid(pid_, &status, 0) != pid_) {
    Fail("wait for the child", pid_ <= 0 ? ECHILD : errno);
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool Child::IsRunning() const {
  siginfo_t info = {};
  // Looks without taking the status away from Wait().
  return pid_ > 0 &&
         waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

void EventChannel::Send(const std::string& message) const {
  if (send(socket_.Get(), message.data(), message.size(), MSG_NOSIGNAL) < 0) {
    Fail("send \"" + message + "\" to the other process");
  }
}

std::optional<std::string> EventChannel::Receive() const {
  pollfd ready = {socket_.Get(), POLLIN, 0};
  if (poll(&ready, 1, kReceiveTimeoutMilliseconds) == 0) {
    throw std::runtime_error("no message from the other process");
  }
  std::string message(kMessageLimitBytes, '\0');
  const ssize_t count = recv(socket_.Get(), message.data(), message.size(), 0);
  if (count <= 0) {
    return std::nullopt;
  }
  message.resize(static_cast<std::size_t>(count));
  return message;
}

ForkedChild::Parts ForkedChild::Start(const Body& body) {
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
    Fail("make a pair of sockets");
  }
  UniqueDescriptor parent_end(sockets[0]);
  UniqueDescriptor child_end(sockets[1]);
  std::fflush(nullptr);  // Or both processes would write what is in the buffers.
  const pid_t pid = fork();
  if (pid < 0) {
    Fail("fork");
  }
  if (pid == 0) {
    parent_end.Close();
    const int status = RunBody(body, std::move(child_end));
    std::fflush(nullptr);
    _exit(status);  // The parent's destructors are not this process's business.
  }
  return {EventChannel(std::move(parent_end)), Child(pid)};
}

RunningCommand::RunningCommand(const std::vector<std::string>& arguments,
                               const CommandOptions& options)
    : out_(MakeOutput()), err_(MakeOutput()), child_(Spawn(arguments, options, out_, err_)) {}

std::string RunningCommand::Out() const {
  return ReadMemoryFile(out_);
}

std::string RunningCommand::Err() const {
  return ReadMemoryFile(err_);
}

CommandResult RunningCommand::Wait() {
  const int exit_status = child_.Wait();
  return {exit_status, Out(), Err()};
}

bool HasOpen(pid_t process, const std::filesystem::path& file) {
  namespace fs = std::filesystem;
  std::error_code gone;
  const fs::directory_iterator descriptors("/proc/" + std::to_string(process) + "/fd", gone);
  return std::any_of(begin(descriptors), end(descriptors), [&](const fs::directory_entry& entry) {
    return fs::read_symlink(entry, gone) == file;
  });
}

CommandResult RunCommand(const std::vector<std::string>& arguments, const CommandOptions& options) {
  return RunningCommand(arguments, options).Wait();
}

}  // namespace tolm::testing

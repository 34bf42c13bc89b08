#include "platform/process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <new>
#include <system_error>
#include <utility>

#include "base/descriptor.h"
#include "platform/output_tail.h"

namespace tolm::platform {
namespace {

using Clock = std::chrono::steady_clock;
using End = ProcessResult::End;

// How often a child is looked at where the kernel has no descriptor for processes (before
// Linux 5.3).
constexpr std::chrono::milliseconds kLookInterval{20};
constexpr std::size_t kUsualPipeBytes = 65536;

// ---- Cancelling ----

// One running cancellable process: its event is written to cancel it. Nodes live on the stacks of
// the threads that wait, so entering and leaving the list allocates nothing.
struct CancelNode {
  CancelNode() = default;
  ~CancelNode();
  CancelNode(const CancelNode&) = delete;
  CancelNode& operator=(const CancelNode&) = delete;

  base::Descriptor event;
  CancelNode* next = nullptr;
};

// Constant initialisation and nothing to destroy: usable at any moment of the program's life.
std::mutex cancel_mutex;
bool cancelled_now = false;
CancelNode* cancel_nodes = nullptr;

CancelNode::~CancelNode() {
  const std::lock_guard<std::mutex> lock(cancel_mutex);
  CancelNode** link = &cancel_nodes;
  while (*link != nullptr && *link != this)
    link = &(*link)->next;
  if (*link == this)
    *link = next;
}

// ---- Starting ----

// posix_spawn's two attribute objects; every failure is thrown as std::bad_alloc, the only one they
// have.
class SpawnSetup {
 public:
  SpawnSetup() {
    if (posix_spawn_file_actions_init(&actions_) != 0)
      throw std::bad_alloc();
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

  void SetDescriptors(int error_fd, const std::string& working_directory) {
    // Standard error comes first: in a parent that has closed its standard descriptors the pipe may
    // itself be 0 or 1, which the next two lines replace.
    Check(posix_spawn_file_actions_adddup2(&actions_, error_fd, STDERR_FILENO));
    Check(posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
    Check(posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0));
    Check(posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
    if (!working_directory.empty())
      Check(posix_spawn_file_actions_addchdir_np(&actions_, working_directory.c_str()));
  }

  void SetSignalsAndGroup() {
    sigset_t all;
    sigfillset(&all);
    sigset_t none;
    sigemptyset(&none);
    Check(posix_spawnattr_setsigdefault(&attributes_, &all));
    Check(posix_spawnattr_setsigmask(&attributes_, &none));
    Check(posix_spawnattr_setpgroup(&attributes_, 0));
    Check(posix_spawnattr_setflags(
        &attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP));
  }

  // Returns 0 or an errno value. The child is in its own group when this returns.
  int Spawn(const char* program, char* const* argv, char* const* environment, pid_t* pid) const {
    return posix_spawn(pid, program, &actions_, &attributes_, argv, environment);
  }

 private:
  static void Check(int error) {
    if (error != 0)
      throw std::bad_alloc();
  }

  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

// The null-terminated form that the system calls want; the strings stay the caller's.
std::vector<char*> Pointers(const std::vector<std::string>& strings, const char* first = nullptr) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 2);
  if (first != nullptr)
    pointers.push_back(const_cast<char*>(first));
  for (const std::string& text : strings)
    pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// Returns 0 or an errno value. Only the reading end does not wait; the child's writes must.
int MakePipe(base::Descriptor* reader, base::Descriptor* writer) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0)
    return errno;
  *reader = base::Descriptor(ends[0]);
  *writer = base::Descriptor(ends[1]);
  return fcntl(reader->Get(), F_SETFL, O_NONBLOCK) == 0 ? 0 : errno;
}

// Starts the program unless running programs is cancelled, and enters the node into the list; both
// under the lock, so that no program starts after CancelProcesses(true) has returned, and none is
// overlooked by it.
template <typename Spawn>
int SpawnUnlessCancelled(CancelNode* node, const Spawn& spawn) {
  const std::lock_guard<std::mutex> lock(cancel_mutex);
  if (cancelled_now)
    return ECANCELED;
  const int error = spawn();
  if (error == 0)
    node->next = std::exchange(cancel_nodes, node);
  return error;
}

// ---- Waiting ----

// A descriptor that can be read from once the process has ended; none on a kernel without them.
// Always close-on-exec. Not through the C library: its header of 2.36 cannot be used from C++.
base::Descriptor OpenPidfd(pid_t pid) {
  return base::Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

// A child from its start to its collection. Allocates nothing before the child is collected.
class Child {
 public:
  Child(pid_t pid, base::Descriptor output, int cancel_fd, const ProcessRequest& request)
      : pid_(pid),
        pidfd_(OpenPidfd(pid)),
        output_(std::move(output)),
        cancel_fd_(cancel_fd),
        grace_(request.grace) {
    if (request.time_limit)
      deadline_ = Clock::now() + *request.time_limit;
  }

  // Waits until the child has ended, collects it and tells how it went.
  ProcessResult Wait() {
    while (!HasExited())
      WaitForEvent();
    ReadWhatIsThere();
    // Until the child is collected its number names its own group and nobody else's.
    siginfo_t info;
    if (end_ != End::kFinished && Look(&info, WNOHANG | WNOWAIT))
      kill(-pid_, SIGKILL);
    ProcessResult result = Collect();
    result.last_lines = tail_.Lines();
    return result;
  }

 private:
  // False when there is no such child (any more): somebody else has collected it, or the kernel
  // itself has because SIGCHLD is ignored.
  bool Look(siginfo_t* info, int options) const {
    int result = 0;
    do {
      *info = siginfo_t{};
      result = waitid(P_PID, static_cast<id_t>(pid_), info, WEXITED | options);
    } while (result != 0 && errno == EINTR);
    return result == 0;
  }

  // Leaves the child uncollected.
  bool HasExited() const {
    siginfo_t info;
    return !Look(&info, WNOHANG | WNOWAIT) || info.si_pid != 0;
  }

  void WaitForEvent() {
    // A negative descriptor is passed over by poll.
    std::array<pollfd, 3> descriptors{pollfd{pidfd_.Get(), POLLIN, 0},
                                      pollfd{output_.Get(), POLLIN, 0},
                                      pollfd{cancel_fd_, POLLIN, 0}};
    if (poll(descriptors.data(), descriptors.size(), PollTimeout()) > 0) {
      if (descriptors[1].revents != 0)
        ReadOnce();
      // An exit that is already there counts as the program's own: HasExited() looks first.
      if (descriptors[2].revents != 0 && !HasExited())
        BeginEnding(End::kCancelled);
    }
    if (deadline_ && Clock::now() >= *deadline_ && !HasExited())
      HandleDeadline();
  }

  // In milliseconds, rounded up so that a deadline is over when poll returns; -1 waits without end.
  int PollTimeout() const {
    using std::chrono::milliseconds;
    constexpr milliseconds kLongest{60000};
    const milliseconds longest = pidfd_.IsOpen() ? kLongest : kLookInterval;
    if (!deadline_)
      return pidfd_.IsOpen() ? -1 : static_cast<int>(longest.count());
    const auto left = std::chrono::ceil<milliseconds>(*deadline_ - Clock::now());
    return static_cast<int>(std::clamp(left, milliseconds{0}, longest).count());
  }

  // One read at a time, so that a child that writes without end cannot keep the other events
  // waiting. Returns the number of bytes, 0 when there is nothing (more) to read.
  std::size_t ReadOnce() {
    std::array<char, 16384> buffer;
    const ssize_t size = read(output_.Get(), buffer.data(), buffer.size());
    if (size > 0) {
      tail_.Append(buffer.data(), static_cast<std::size_t>(size));
      return static_cast<std::size_t>(size);
    }
    if (size == 0 || (errno != EAGAIN && errno != EINTR))
      output_ = base::Descriptor();
    return 0;
  }

  // After the child's exit: what it wrote is in the pipe by now. No more than a pipe can hold is
  // read, since a process that it left behind may hold the other end and write for ever.
  void ReadWhatIsThere() {
    if (!output_.IsOpen())
      return;
    const int capacity = fcntl(output_.Get(), F_GETPIPE_SZ);
    std::size_t left = capacity > 0 ? static_cast<std::size_t>(capacity) : kUsualPipeBytes;
    while (left > 0 && output_.IsOpen()) {
      const std::size_t size = ReadOnce();
      if (size == 0)
        return;
      left -= std::min(left, size);
    }
  }

  void BeginEnding(End why) {
    cancel_fd_ = -1;
    if (end_ != End::kFinished)
      return;
    end_ = why;
    kill(-pid_, SIGTERM);
    kill(-pid_, SIGCONT);  // a stopped process does not see SIGTERM
    deadline_ = Clock::now() + grace_;
  }

  void HandleDeadline() {
    if (end_ == End::kFinished) {
      BeginEnding(End::kTimedOut);
      return;
    }
    kill(-pid_, SIGKILL);
    deadline_.reset();
  }

  ProcessResult Collect() const {
    ProcessResult result;
    siginfo_t info;
    if (!Look(&info, 0)) {
      result.end = End::kStatusUnknown;
      result.error = errno;
      return result;
    }
    result.end = end_;
    result.status = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
    return result;
  }

  const pid_t pid_;
  base::Descriptor pidfd_;  // none on a kernel without them
  base::Descriptor output_;
  int cancel_fd_;  // -1 when it cannot be, or has been, cancelled
  const std::chrono::milliseconds grace_;
  End end_ = End::kFinished;  // becomes the reason once the child is being ended
  std::optional<Clock::time_point> deadline_;
  OutputTail tail_;
};

ProcessResult NotStarted(int error) {
  ProcessResult result;
  result.error = error;
  return result;
}

std::string Describe(const ProcessResult& result) {
  switch (result.end) {
    case End::kNotStarted:
      return "could not be run: " + std::generic_category().message(result.error);
    case End::kFinished:
      return "failed with status " + std::to_string(result.status);
    case End::kCancelled:
      return "was cancelled and ended with status " + std::to_string(result.status);
    case End::kTimedOut:
      return "exceeded its time limit and ended with status " + std::to_string(result.status);
    case End::kStatusUnknown:
      return "left no exit status: " + std::generic_category().message(result.error);
  }
  return {};
}

}  // namespace

ProcessResult RunProcess(const ProcessRequest& request) {
  base::Descriptor reader;
  base::Descriptor writer;
  if (const int error = MakePipe(&reader, &writer); error != 0)
    return NotStarted(error);
  CancelNode node;
  if (request.cancellable) {
    node.event = base::Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!node.event.IsOpen())
      return NotStarted(errno);
  }
  SpawnSetup setup;
  setup.SetDescriptors(writer.Get(), request.working_directory);
  setup.SetSignalsAndGroup();
  const std::vector<char*> argv = Pointers(request.arguments, request.program.c_str());
  const std::vector<char*> own =
      request.environment ? Pointers(*request.environment) : std::vector<char*>();
  char* const* const environment = request.environment ? own.data() : environ;

  pid_t pid = -1;
  const auto spawn = [&] {
    return setup.Spawn(request.program.c_str(), argv.data(), environment, &pid);
  };
  const int error = request.cancellable ? SpawnUnlessCancelled(&node, spawn) : spawn();
  writer = base::Descriptor();
  if (error != 0)
    return NotStarted(error);
  return Child(pid, std::move(reader), node.event.Get(), request).Wait();
}

void CancelProcesses(bool cancelled) {
  const std::lock_guard<std::mutex> lock(cancel_mutex);
  cancelled_now = cancelled;
  if (!cancelled)
    return;
  for (const CancelNode* node = cancel_nodes; node != nullptr; node = node->next)
    eventfd_write(node->event.Get(), 1);
}

void LogFailure(int priority, const std::string& name, const ProcessResult& result) {
  syslog(priority, "%s %s", name.c_str(), Describe(result).c_str());
  for (const std::string& line : result.last_lines)
    syslog(priority, "%s: %s", name.c_str(), line.c_str());
}

}  // namespace tolm::platform

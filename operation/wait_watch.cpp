#include "operation/wait_watch.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "base/paths.h"
#include "operation/lock_holder.h"
#include "operation/noted_wait.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kInterval{500};
constexpr std::chrono::seconds kPatience{2};

std::mutex noting;
std::string noted_file;  // Guarded by the former; empty for none.

void Note(const std::string& lock_file) {
  const std::lock_guard<std::mutex> lock(noting);
  noted_file = lock_file;
}

std::string Noted() {
  const std::lock_guard<std::mutex> lock(noting);
  return noted_file;
}

// A lock that this process is waiting for: others hold it, and this one does not.
struct Wait {
  std::string lock_file;
  std::string holders;
};

std::optional<Wait> WaitFor(const std::string& lock_file) {
  const std::vector<LockHolder> holders = HoldersOf(lock_file);
  std::string text;
  for (const LockHolder& holder : holders) {
    if (holder.pid == getpid()) {
      return std::nullopt;
    }
    text += (text.empty() ? "" : "; ") + TextOf(holder);
  }
  return holders.empty() ? std::nullopt : std::make_optional(Wait{lock_file, text});
}

std::optional<Wait> PresentWait() {
  const std::string noted = Noted();
  if (!noted.empty()) {
    return WaitFor(noted);
  }
  std::error_code error;
  const std::string directory = std::string(paths::kLockDirectory) + '/';
  for (fs::directory_iterator open("/proc/self/fd", error), end; !error && open != end;
       open.increment(error)) {
    std::error_code ignored;
    const std::string file = fs::read_symlink(open->path(), ignored);
    if (file.rfind(directory, 0) == 0) {
      if (std::optional<Wait> wait = WaitFor(file)) {
        return wait;
      }
    }
  }
  return std::nullopt;
}

std::string WaitText(const Wait& wait) {
  const bool is_readers = fs::path(wait.lock_file).filename().string().rfind("using_", 0) == 0;
  return std::string(is_readers ? "waiting for readers of the database: "
                                : "waiting for another operation: ") +
         wait.lock_file + " is held by " + wait.holders;
}

}  // namespace

NotedWait::NotedWait(const std::string& lock_file) {
  Note(lock_file);
}

NotedWait::~NotedWait() {
  Note("");
}

class WaitWatch::Implementation {
 public:
  explicit Implementation(Listener listener) : listener_(std::move(listener)) {
    // Signals are for threads that expect them.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
      thread_ = std::thread(&Implementation::Loop, this);
    } catch (...) {
      pthread_sigmask(SIG_SETMASK, &before, nullptr);
      throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  ~Implementation() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }

  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

 private:
  void Loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!changed_.wait_for(lock, kInterval, [this] { return done_; })) {
      Look();
    }
  }

  void Look() {
    const std::optional<Wait> wait = PresentWait();
    const std::string lock_file = wait ? wait->lock_file : "";
    if (lock_file != lock_file_) {
      if (std::exchange(has_told_, false)) {
        listener_("the wait is over");
      }
      lock_file_ = lock_file;
      since_ = Clock::now();
    } else if (wait && !has_told_ && Clock::now() - since_ >= kPatience) {
      has_told_ = true;
      listener_(WaitText(*wait));
    }
  }

  const Listener listener_;
  std::string lock_file_;  // Of the wait that is seen now; empty for none.
  Clock::time_point since_;
  bool has_told_ = false;
  std::mutex mutex_;  // Guards what follows.
  std::condition_variable changed_;
  bool done_ = false;
  std::thread thread_;
};

WaitWatch::WaitWatch(Listener listener)
    : implementation_(std::make_unique<Implementation>(std::move(listener))) {}

WaitWatch::~WaitWatch() = default;

}  // namespace tolm::operation

#include "operation/interruptible_lock.h"

#include <unistd.h>

#include <chrono>
#include <optional>
#include <utility>

#include "base/messages.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "operation/interrupt.h"
#include "operation/lock_files.h"
#include "operation/lock_holder.h"
#include "operation/noted_wait.h"

namespace tolm::operation {

using dataupdate::FileLock;
using dataupdate::UpdateError;

void EndWhenInterrupted() {
  if (Interrupt::Received() != 0) {
    throw Interrupted();
  }
}

void PauseUnlessInterrupted(int seconds) {
  constexpr int kPollsPerSecond = 1000000 / rules::kLockPollMicroseconds;
  for (int i = 0; i < seconds * kPollsPerSecond && Interrupt::Received() == 0; ++i) {
    usleep(rules::kLockPollMicroseconds);
  }
}

FileLock InterruptibleLock(const std::string& path, const std::function<void()>& on_wait) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(rules::kLockWaitSeconds);
  bool has_told = !on_wait;
  std::optional<NotedWait> noted;
  MakeLockFile(path);
  while (true) {
    try {
      return FileLock(path, 0);
    } catch (const UpdateError& error) {
      const bool is_held = error.what() == messages::kFailToLock + path;
      if (!is_held || std::chrono::steady_clock::now() >= deadline) {
        throw UpdateError(WithLockHolder(error.what()), error.code());
      }
    }
    EndWhenInterrupted();
    if (!noted) {
      noted.emplace(path);
    }
    if (!std::exchange(has_told, true)) {
      on_wait();
    }
    usleep(rules::kLockPollMicroseconds);
  }
}

}  // namespace tolm::operation

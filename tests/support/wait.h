#ifndef TOLM_SUPPORT_WAIT_H_
#define TOLM_SUPPORT_WAIT_H_

#include <chrono>
#include <thread>

namespace tolm::testing {

/// For events outside the process that can only be looked for: asks again and again until @p
/// predicate holds, and returns false when it does not within the time. Only a failing test waits
/// for the whole time.
template <typename Predicate>
[[nodiscard]] bool WaitUntil(Predicate predicate,
                             std::chrono::seconds timeout = std::chrono::seconds(60)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_WAIT_H_

#ifndef TOLM_TESTS_SRC_FLOCK_CALLS_H_
#define TOLM_TESTS_SRC_FLOCK_CALLS_H_

// The flock() of the whole test program, which can fail. To be included by exactly one source of a
// program.

#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <vector>

namespace tolm::testing {

/// What was asked of flock(), and how it fails.
struct FlockCalls {
  std::vector<int> operations;
  int attempts_to_fail = 0;  ///< With `failure`.
  int failure = 0;
  bool fail_unlock = false;

  /// The operations but the unlocking.
  std::vector<int> Attempts() const {
    std::vector<int> attempts;
    std::copy_if(operations.begin(), operations.end(), std::back_inserter(attempts),
                 [](int operation) { return operation != LOCK_UN; });
    return attempts;
  }
};
inline FlockCalls flock_calls;

}  // namespace tolm::testing

#pragma GCC visibility push(default)
extern "C" int flock(int fd, int operation) noexcept {
  using tolm::testing::flock_calls;
  flock_calls.operations.push_back(operation);
  if (operation == LOCK_UN && flock_calls.fail_unlock) {
    errno = EBADF;
    return -1;
  }
  if (operation != LOCK_UN && flock_calls.attempts_to_fail > 0) {
    --flock_calls.attempts_to_fail;
    errno = flock_calls.failure;
    return -1;
  }
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}
#pragma GCC visibility pop

#endif  // TOLM_TESTS_SRC_FLOCK_CALLS_H_

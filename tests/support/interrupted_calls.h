#ifndef TOLM_SUPPORT_INTERRUPTED_CALLS_H_
#define TOLM_SUPPORT_INTERRUPTED_CALLS_H_

#include <sys/time.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace tolm::testing {

/// While this exists, a signal comes every other millisecond: calls of the program's first thread
/// that wait end with EINTR, again and again.
class InterruptedCalls {
 public:
  InterruptedCalls() {
    struct sigaction nothing {};
    nothing.sa_handler = [](int) {};  // Without SA_RESTART.
    const itimerval often = {{0, 2000}, {0, 2000}};
    if (::sigaction(SIGALRM, &nothing, &before_) != 0 ||
        ::setitimer(ITIMER_REAL, &often, nullptr) != 0) {
      throw std::system_error(errno, std::generic_category(), "setitimer");
    }
  }
  ~InterruptedCalls() {
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    ::sigaction(SIGALRM, &before_, nullptr);
  }
  InterruptedCalls(const InterruptedCalls&) = delete;
  InterruptedCalls& operator=(const InterruptedCalls&) = delete;

 private:
  struct sigaction before_ {};
};

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_INTERRUPTED_CALLS_H_

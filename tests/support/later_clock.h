#ifndef TOLM_TESTS_SUPPORT_LATER_CLOCK_H_
#define TOLM_TESTS_SUPPORT_LATER_CLOCK_H_

// The clocks of the whole test program, which go on as they do and may be set forward. To be
// included by exactly one source of a program.

#include <dlfcn.h>

#include <ctime>

namespace tolm::testing {

/// So many seconds later it is than the clocks say. Not for several threads at once.
inline time_t passed_seconds = 0;

}  // namespace tolm::testing

#pragma GCC visibility push(default)  // The standard library calls it.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  using Call = int(clockid_t, timespec*);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "clock_gettime"));
  const int result = real(clock, time);
  time->tv_sec += tolm::testing::passed_seconds;
  return result;
}
#pragma GCC visibility pop

#endif  // TOLM_TESTS_SUPPORT_LATER_CLOCK_H_

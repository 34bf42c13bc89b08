// Preloaded into an installed program, for which the steady clock then runs a thousand times as
// fast as for everybody else.

#include <time.h>

#include <chrono>

std::chrono::steady_clock::time_point __attribute__((visibility("default")))
std::chrono::steady_clock::now() noexcept {
  constexpr int kTimes = 1000;
  timespec reading{};
  clock_gettime(CLOCK_MONOTONIC, &reading);
  static const std::time_t begin = reading.tv_sec;
  return time_point(kTimes * (seconds(reading.tv_sec - begin) + nanoseconds(reading.tv_nsec)));
}

#ifndef TOLM_TESTS_SUPPORT_TOLD_TIME_H_
#define TOLM_TESTS_SUPPORT_TOLD_TIME_H_

// What time() tells the whole test program. To be included by exactly one source of a program.

#include <atomic>
#include <cstdint>
#include <ctime>

namespace tolm::testing {

/// Seconds since 1970; 0: what the system's clock says.
inline std::atomic<std::int64_t> test_time{0};

}  // namespace tolm::testing

extern "C" std::time_t time(std::time_t* stored) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::int64_t test_time = tolm::testing::test_time;
  const std::time_t told = test_time == 0 ? now.tv_sec : static_cast<std::time_t>(test_time);
  if (stored != nullptr) {
    *stored = told;
  }
  return told;
}

#endif  // TOLM_TESTS_SUPPORT_TOLD_TIME_H_

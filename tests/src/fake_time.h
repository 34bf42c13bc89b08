#ifndef TOLM_TESTS_SRC_FAKE_TIME_H_
#define TOLM_TESTS_SRC_FAKE_TIME_H_

// The steady clock and usleep() of the whole test program, so that waits of many minutes pass at
// once. To be included by exactly one source of a program, which must not be given to tests that
// really wait.

#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace tolm::dataupdate {

/// While one exists, steady_clock stands still and only usleep() moves it on. Otherwise both are
/// the real ones. One at a time, used by one thread.
class FakeTime {
 public:
  FakeTime() { current = this; }
  ~FakeTime() { current = nullptr; }
  FakeTime(const FakeTime&) = delete;
  FakeTime& operator=(const FakeTime&) = delete;

  /// The lengths that were asked for, in microseconds.
  const std::vector<useconds_t>& Sleeps() const { return sleeps_; }
  unsigned ClockReadings() const { return clock_readings_; }
  std::chrono::nanoseconds Passed() const { return passed_; }

  /// Called at the end of every sleep.
  std::function<void()> on_sleep;
  /// By how much a sleep moves the clock on, instead of by its own length, when not zero.
  std::chrono::nanoseconds step{0};

  // Of the functions below only.
  std::chrono::nanoseconds Read() {
    ++clock_readings_;
    return std::chrono::seconds(1000) + passed_;
  }
  void Sleep(useconds_t microseconds) {
    sleeps_.push_back(microseconds);
    passed_ += step.count() != 0 ? step : std::chrono::microseconds(microseconds);
    if (on_sleep) {
      on_sleep();
    }
  }
  inline static std::atomic<FakeTime*> current{nullptr};

 private:
  std::vector<useconds_t> sleeps_;
  unsigned clock_readings_ = 0;
  std::chrono::nanoseconds passed_{0};
};

}  // namespace tolm::dataupdate

#pragma GCC visibility push(default)

std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
  if (tolm::dataupdate::FakeTime* fake = tolm::dataupdate::FakeTime::current) {
    return time_point(duration_cast<duration>(fake->Read()));
  }
  timespec reading{};
  clock_gettime(CLOCK_MONOTONIC, &reading);
  return time_point(seconds(reading.tv_sec) + nanoseconds(reading.tv_nsec));
}

extern "C" int usleep(useconds_t microseconds) {
  if (tolm::dataupdate::FakeTime* fake = tolm::dataupdate::FakeTime::current) {
    fake->Sleep(microseconds);
    return 0;
  }
  const timespec length{static_cast<time_t>(microseconds / 1000000),
                        static_cast<long>(microseconds % 1000000) * 1000};
  return nanosleep(&length, nullptr);
}

#pragma GCC visibility pop

#endif  // TOLM_TESTS_SRC_FAKE_TIME_H_

#include "base/parallel.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <mutex>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

namespace tolm::base {
namespace {

TEST(ParallelTest, EveryNumberIsWorkedOnOnce) {
  for (const int jobs : {1, 2, 7, 100}) {
    std::vector<std::atomic<int>> times(50);
    ForEach(times.size(), jobs, [&](std::size_t number) { ++times[number]; });
    for (const auto& count : times) {
      EXPECT_EQ(count, 1) << jobs;
    }
  }
}

TEST(ParallelTest, NothingToDoIsDoneAtOnce) {
  ForEach(0, 4, [](std::size_t) { FAIL(); });
}

TEST(ParallelTest, OneJobRunsInTheCallersThreadInOrder) {
  std::vector<std::size_t> numbers;
  const std::thread::id caller = std::this_thread::get_id();
  ForEach(20, 1, [&](std::size_t number) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    numbers.push_back(number);
  });
  std::vector<std::size_t> expected(20);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(numbers, expected);
}

TEST(ParallelTest, AsManyAsAskedForRunSideBySide) {
  // Each waits until all are there, which ends only when they are.
  constexpr int kJobs = 3;
  std::atomic<int> there{0};
  ForEach(kJobs, kJobs, [&](std::size_t) {
    ++there;
    while (there < kJobs) {
      std::this_thread::yield();
    }
  });
  EXPECT_EQ(there, kJobs);
}

TEST(ParallelTest, NoMoreThanAskedForRunSideBySide) {
  std::mutex mutex;
  int now = 0;
  int most = 0;
  ForEach(200, 3, [&](std::size_t) {
    {
      const std::lock_guard<std::mutex> guard(mutex);
      most = std::max(most, ++now);
    }
    std::this_thread::yield();
    const std::lock_guard<std::mutex> guard(mutex);
    --now;
  });
  EXPECT_LE(most, 3);
}

TEST(ParallelTest, FailureOfTheLowestNumberIsToldAndNothingBeginsAfterIt) {
  for (const int jobs : {1, 4}) {
    std::atomic<int> begun{0};
    std::atomic<bool> later_has_failed{false};
    try {
      ForEach(10000, jobs, [&](std::size_t number) {
        ++begun;
        if (number == 1 && jobs > 1) {
          later_has_failed = true;
          throw std::runtime_error("1");
        }
        if (number == 0) {
          while (jobs > 1 && !later_has_failed) {
            std::this_thread::yield();
          }
          throw std::runtime_error("0");
        }
      });
      FAIL() << jobs;
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "0") << jobs;
    }
    EXPECT_LT(begun, 10000) << jobs;
  }
}

TEST(ParallelTest, SignalsAreLeftToTheCaller) {
  ForEach(2, 2, [](std::size_t) {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
  });
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
}

TEST(ParallelTest, DefaultIsOneAtLeast) {
  EXPECT_GE(DefaultJobs(), 1);
}

}  // namespace
}  // namespace tolm::base

#include "publish/work_budget.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "base/parallel.h"
#include "tests/support/wait.h"

namespace tolm::testing {
namespace {

using base::ForEach;
using publish::WorkBudget;

// Asks in a thread of its own, and keeps what it gets until it is told to give it back.
class Asking {
 public:
  Asking(WorkBudget& budget, std::uint64_t bytes)
      : thread_([this, &budget, bytes] {
          const WorkBudget::Share share(budget, bytes);
          has_it_ = true;
          EXPECT_TRUE(WaitUntil([this] { return may_end_.load(); }));
        }) {}
  ~Asking() { End(); }

  bool HasIt() const { return has_it_; }
  bool GetsIt() const {
    return WaitUntil([this] { return has_it_.load(); });
  }
  void End() {
    may_end_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
  }

 private:
  std::atomic<bool> has_it_{false};
  std::atomic<bool> may_end_{false};
  std::thread thread_;
};

bool OneWaits(WorkBudget& budget) {
  return WaitUntil([&] { return budget.waiting() == 1; });
}

TEST(WorkBudgetTest, NoMoreJobsThanThereAreWorkAtATime) {
  WorkBudget budget(2, 100);
  auto first = std::make_unique<WorkBudget::Share>(budget, 0);
  const WorkBudget::Share second(budget, 0);
  Asking third(budget, 0);
  EXPECT_TRUE(OneWaits(budget));
  EXPECT_FALSE(third.HasIt());
  first.reset();
  EXPECT_TRUE(third.GetsIt());
}

TEST(WorkBudgetTest, NoMoreMemoryThanThereIsIsTakenAtATime) {
  WorkBudget budget(4, 100);
  auto first = std::make_unique<WorkBudget::Share>(budget, 40);
  const WorkBudget::Share second(budget, 60);
  Asking third(budget, 1);
  EXPECT_TRUE(OneWaits(budget));
  EXPECT_FALSE(third.HasIt());
  first.reset();
  EXPECT_TRUE(third.GetsIt());
}

TEST(WorkBudgetTest, BoundsHoldHoweverManyAsk) {
  WorkBudget budget(3, 100);
  std::mutex mutex;
  int jobs = 0;
  int most_jobs = 0;
  std::uint64_t bytes = 0;
  std::uint64_t most_bytes = 0;
  ForEach(200, 8, [&](std::size_t number) {
    const std::uint64_t wanted = number % 5 * 15;
    const WorkBudget::Share share(budget, wanted);
    {
      const std::lock_guard<std::mutex> guard(mutex);
      most_jobs = std::max(most_jobs, ++jobs);
      most_bytes = std::max(most_bytes, bytes += wanted);
    }
    std::this_thread::yield();
    const std::lock_guard<std::mutex> guard(mutex);
    --jobs;
    bytes -= wanted;
  });
  EXPECT_LE(most_jobs, 3);
  EXPECT_LE(most_bytes, 100U);
}

TEST(WorkBudgetTest, SharesThatFitAreHeldSideBySide) {
  WorkBudget budget(2, 100);
  Asking one(budget, 50);
  Asking other(budget, 50);
  EXPECT_TRUE(one.GetsIt());
  EXPECT_TRUE(other.GetsIt());
}

TEST(WorkBudgetTest, WhatNeedsMoreThanThereIsWorksAlone) {
  WorkBudget budget(4, 100);
  auto small = std::make_unique<WorkBudget::Share>(budget, 10);
  Asking large(budget, 1000);
  EXPECT_TRUE(OneWaits(budget));
  EXPECT_FALSE(large.HasIt());
  small.reset();
  EXPECT_TRUE(large.GetsIt());
  Asking next(budget, 1);
  EXPECT_TRUE(OneWaits(budget));
  EXPECT_FALSE(next.HasIt());
  large.End();
  EXPECT_TRUE(next.GetsIt());
}

TEST(WorkBudgetTest, MemoryIsGivenBackBeforeThePlaceIs) {
  WorkBudget budget(2, 100);
  WorkBudget::Share first(budget, 60);
  Asking second(budget, 100);
  EXPECT_TRUE(OneWaits(budget));
  first.GiveBackMemory();
  EXPECT_TRUE(second.GetsIt());
  Asking third(budget, 0);
  EXPECT_TRUE(OneWaits(budget));
  EXPECT_FALSE(third.HasIt()) << "the place is still taken";
  first.GiveBackMemory();
  second.End();
  EXPECT_TRUE(third.GetsIt());
}

TEST(WorkBudgetTest, MemoryThatWasGivenBackIsNotGivenBackTwice) {
  WorkBudget budget(3, 100);
  {
    WorkBudget::Share first(budget, 60);
    first.GiveBackMemory();
    first.GiveBackMemory();
  }
  auto all = std::make_unique<WorkBudget::Share>(budget, 100);
  Asking more(budget, 1);
  EXPECT_TRUE(OneWaits(budget));
  EXPECT_FALSE(more.HasIt());
  all.reset();
  EXPECT_TRUE(more.GetsIt());
}

// A large one would otherwise wait for as long as small ones come.
TEST(WorkBudgetTest, NobodyIsOvertaken) {
  WorkBudget budget(4, 100);
  auto first = std::make_unique<WorkBudget::Share>(budget, 60);
  std::mutex mutex;
  std::vector<int> order;
  const auto ask = [&](int number, std::uint64_t bytes) {
    const WorkBudget::Share share(budget, bytes);
    const std::lock_guard<std::mutex> guard(mutex);
    order.push_back(number);
  };
  std::thread large(ask, 1, 100);
  EXPECT_TRUE(WaitUntil([&] { return budget.waiting() == 1; }));
  std::thread small(ask, 2, 10);
  EXPECT_TRUE(WaitUntil([&] { return budget.waiting() == 2; }));
  first.reset();
  large.join();
  small.join();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(WorkBudgetTest, WhoWaitsForWhatNeverComesIsEndedAndNobodyGetsAShareAnyMore) {
  WorkBudget budget(1, 100);
  const WorkBudget::Share held(budget, 50);
  std::vector<std::thread> threads;
  for (const std::uint64_t bytes : std::initializer_list<std::uint64_t>{0, 100}) {
    threads.emplace_back(
        [&budget, bytes] { EXPECT_THROW(WorkBudget::Share(budget, bytes), WorkBudget::Stopped); });
  }
  EXPECT_TRUE(WaitUntil([&] { return budget.waiting() == 2; }));
  budget.Stop();
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(budget.waiting(), 0U);
  WorkBudget free(1, 100);
  free.Stop();
  EXPECT_THROW(WorkBudget::Share(free, 0), WorkBudget::Stopped);
}

}  // namespace
}  // namespace tolm::testing

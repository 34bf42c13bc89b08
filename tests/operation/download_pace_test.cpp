#include "operation/download_pace.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>

namespace tolm::operation {
namespace {

using std::chrono::seconds;

constexpr DownloadPace::TimePoint kBegin{std::chrono::hours(1000)};

// After how many seconds, of an hour at most, it is given up, when asked every second.
std::optional<int> GivenUpAfter(const std::function<std::uint64_t(int second)>& bytes_at) {
  DownloadPace pace(kBegin);
  for (int second = 1; second <= 3600; ++second) {
    if (pace.IsTooSlow(kBegin + seconds(second), bytes_at(second))) {
      return second;
    }
  }
  return std::nullopt;
}

TEST(DownloadPaceTest, NothingIsWaitedForFiveMinutes) {
  EXPECT_EQ(GivenUpAfter([](int) { return 0; }), 300);
}

TEST(DownloadPaceTest, OneByteInTwentySecondsIsTooSlow) {
  EXPECT_EQ(GivenUpAfter([](int second) { return second / 20; }), 300);
}

TEST(DownloadPaceTest, OneKibibyteASecondIsEnough) {
  EXPECT_EQ(GivenUpAfter([](int second) { return 1024 * second; }), std::nullopt);
  EXPECT_EQ(GivenUpAfter([](int second) { return 1023 * second; }), 300);
}

TEST(DownloadPaceTest, RestsAreAllowedWhereTheAverageIsEnough) {
  EXPECT_EQ(GivenUpAfter([](int second) { return std::uint64_t(second / 290) * 290 * 1100; }),
            std::nullopt);
}

TEST(DownloadPaceTest, WhatCameBeforeTheSpanDoesNotCount) {
  EXPECT_EQ(GivenUpAfter([](int second) { return second <= 100 ? 1000000 * second : 100000000; }),
            400);
}

TEST(DownloadPaceTest, WhatWasThereBeforeIsNotGained) {
  DownloadPace pace(kBegin, 100000000);
  EXPECT_FALSE(pace.IsTooSlow(kBegin + seconds(299), 100000000));
  EXPECT_TRUE(pace.IsTooSlow(kBegin + seconds(300), 100000000));
}

TEST(DownloadPaceTest, NewAttemptsNeitherLoseNorGain) {
  EXPECT_EQ(GivenUpAfter([](int second) { return 2048 * (second % 100); }), std::nullopt);
  EXPECT_EQ(GivenUpAfter([](int second) { return 500 * (second % 100); }), 300);
}

TEST(DownloadPaceTest, OneByteLessThanTheLeastIsTooSlowHoweverOftenItIsAsked) {
  for (const bool is_enough : {false, true}) {
    DownloadPace pace(kBegin);
    const std::uint64_t bytes = 300 * 1024 - (is_enough ? 0 : 1);
    EXPECT_FALSE(pace.IsTooSlow(kBegin + seconds(100), bytes));
    EXPECT_FALSE(pace.IsTooSlow(kBegin + seconds(200), bytes)) << "nothing is gained";
    EXPECT_EQ(pace.IsTooSlow(kBegin + seconds(300), bytes), !is_enough);
  }
}

TEST(DownloadPaceTest, FirstQuestionDoesNotDependOnWhatWasInItsMemory) {
  constexpr std::size_t kBytes = 512;  // What a queue begins with.
  for (const int filling : {0, 0xff}) {
    void* const memory = std::malloc(kBytes);
    std::memset(memory, filling, kBytes);
    std::free(memory);
    DownloadPace pace(kBegin);
    EXPECT_FALSE(pace.IsTooSlow(kBegin + seconds(1), 0));
  }
}

TEST(DownloadPaceTest, QuestionsMayBeFarApart) {
  DownloadPace pace(kBegin);
  EXPECT_FALSE(pace.IsTooSlow(kBegin + seconds(299), 0));
  EXPECT_FALSE(pace.IsTooSlow(kBegin + seconds(1000), 1024 * 300));
  EXPECT_TRUE(pace.IsTooSlow(kBegin + seconds(5000), 1024 * 300 + 1));
}

}  // namespace
}  // namespace tolm::operation

#include "base/utc_time.h"

#include <gtest/gtest.h>

namespace tolm::testing {
namespace {

TEST(UtcTimeTest, TimesOfTheHistoryAreUnderstood) {
  EXPECT_EQ(base::ParseUtcTime("1970-01-01T00:00:00Z"), 0);
  EXPECT_EQ(base::ParseUtcTime("2026-01-31T23:59:59Z"), 1769903999);
  EXPECT_EQ(base::ParseUtcTime("1969-12-31T23:59:58Z"), -2);
}

TEST(UtcTimeTest, WhatIsNoTimeIsNone) {
  for (const char* text :
       {"", "x", "2026-01-31", "2026-01-31T23:59:59", "2026-01-31T23:59:59Zx",
        "2026-13-31T23:59:59Z", "2026-01-31T24:59:59Z", "2026-1-31T23:59:59Z",
        " 2026-01-31T23:59:59Z", "2026- 1-31T23:59:59Z", "99999999999-01-31T23:59:59Z",
        "-026-01-31T23:59:59Z", "2026-01-31 23:59:59Z"}) {
    EXPECT_EQ(base::ParseUtcTime(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace tolm::testing

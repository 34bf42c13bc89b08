#include "base/utc_time.h"

#include <gtest/gtest.h>

namespace tolm::testing {
namespace {

TEST(UtcTimeTest, TimesOfTheHistoryAreUnderstood) {
  EXPECT_EQ(base::ParseUtcTime("1970-01-01T00:00:00Z"), 0);
  EXPECT_EQ(base::ParseUtcTime("2026-01-31T23:59:59Z"), 1769903999);
  EXPECT_EQ(base::ParseUtcTime("1969-12-31T23:59:58Z"), -2);
}

// Where time_t has 32 bits as well.
TEST(UtcTimeTest, TimesAfterTheYear2038AreUnderstood) {
  EXPECT_EQ(base::ParseUtcTime("2038-01-19T03:14:07Z"), 2147483647);
  EXPECT_EQ(base::ParseUtcTime("2038-01-19T03:14:08Z"), 2147483648);
  EXPECT_EQ(base::ParseUtcTime("2040-02-29T12:00:00Z"), 2214129600);
  EXPECT_EQ(base::ParseUtcTime("2100-03-01T00:00:00Z"), 4107542400);
  EXPECT_EQ(base::ParseUtcTime("9999-12-31T23:59:59Z"), 253402300799);
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

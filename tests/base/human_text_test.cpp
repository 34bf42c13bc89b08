#include "base/human_text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace tolm::base {
namespace {

TEST(HumanTextTest, SizesAreInTheLargestUnitOfWhichThereIsOne) {
  EXPECT_EQ(HumanSize(0), "0 B");
  EXPECT_EQ(HumanSize(999), "999 B");
  EXPECT_EQ(HumanSize(1000), "1.0 kB");
  EXPECT_EQ(HumanSize(204'800), "205 kB");
  EXPECT_EQ(HumanSize(3'012'498), "3.0 MB");
  EXPECT_EQ(HumanSize(8'000'000'000), "8.0 GB");
  EXPECT_EQ(HumanSize(12'345'000'000'000), "12345 GB");
}

TEST(HumanTextTest, DigitsStandInGroupsOfThree) {
  EXPECT_EQ(Grouped(0), "0");
  EXPECT_EQ(Grouped(999), "999");
  EXPECT_EQ(Grouped(1000), "1,000");
  EXPECT_EQ(Grouped(3'012'498), "3,012,498");
  EXPECT_EQ(Grouped(std::numeric_limits<std::uint64_t>::max()), "18,446,744,073,709,551,615");
}

TEST(HumanTextTest, DurationsAreWholeUnitsRoundedDown) {
  EXPECT_EQ(HumanDuration(-5), "0 s");
  EXPECT_EQ(HumanDuration(59), "59 s");
  EXPECT_EQ(HumanDuration(60), "1 min");
  EXPECT_EQ(HumanDuration(3599), "59 min");
  EXPECT_EQ(HumanDuration(3600), "1 h");
  EXPECT_EQ(HumanDuration(2 * 86400 - 1), "47 h");
  EXPECT_EQ(HumanDuration(2 * 86400), "2 days");
}

TEST(HumanTextTest, TimesAreInUtcToTheMinute) {
  EXPECT_EQ(UtcMinutes(0), "1970-01-01 00:00");
  EXPECT_EQ(UtcMinutes(2147483648), "2038-01-19 03:14");
  EXPECT_EQ(UtcMinutes(INT64_MAX), "?");
}

}  // namespace
}  // namespace tolm::base

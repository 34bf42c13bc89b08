#include "base/percent.h"

#include <gtest/gtest.h>

#include <string>

namespace tolm::base {
namespace {

TEST(PercentTest, TwoDigitsAreAByteAndAnythingElseStays) {
  EXPECT_EQ(PercentDecoded("packages/a%20b/a%25_v1"), "packages/a b/a%_v1");
  EXPECT_EQ(PercentDecoded("%c3%A4"), "\xc3\xa4");
  EXPECT_EQ(PercentDecoded("x%00"), std::string("x\0", 2));
  for (const std::string text : {"", "%", "a%2", "a%zzb", "%-1", "%+1", "% 1"}) {
    EXPECT_EQ(PercentDecoded(text), text);
  }
}

}  // namespace
}  // namespace tolm::base

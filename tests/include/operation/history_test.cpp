#include "operation/history.h"

#include <gtest/gtest.h>

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, HistoryIsUsableAlone) {
  HistoryEntry entry;
  entry.time = TimeText(0);
  EXPECT_EQ(entry.time, "1970-01-01T00:00:00Z");
  entry.operation = "update";
  entry.database = "x";
  entry.outcome = kUpdated;
  entry.to = 7;
  EXPECT_EQ(OutcomeText(entry), "updated to 7");
  AppendToHistory(entry);
  const auto last = LastOf("x");
  ASSERT_TRUE(last.has_value());
  EXPECT_EQ(last->to, 7);
  EXPECT_FALSE(LastOf("y").has_value());
  for (const char* outcome :
       {kUpToDate, kRepaired, kIntact, kInstalled, kFailed, kInterrupted, kSkipped}) {
    entry.outcome = outcome;
    EXPECT_FALSE(OutcomeText(entry).empty()) << outcome;
  }
}

}  // namespace
}  // namespace tolm::operation

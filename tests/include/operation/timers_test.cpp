#include "operation/timers.h"

#include <gtest/gtest.h>

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, TimersIsUsableAlone) {
  const Timers timers = ExamineTimers();
  EXPECT_FALSE(timers.is_known) << "nothing runs the machine of the tests";
  EXPECT_EQ(timers.update.unit, "tolmdbud-update.timer");
  EXPECT_EQ(timers.verify.unit, "tolmdbud-verify.timer");
  EXPECT_FALSE(timers.update.is_waiting);
  EXPECT_EQ(timers.cron, "");
}

}  // namespace
}  // namespace tolm::operation

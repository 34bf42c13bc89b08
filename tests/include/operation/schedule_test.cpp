#include "operation/schedule.h"

#include <gtest/gtest.h>

namespace tolm::testing {
std::shared_ptr<dataupdate::ServiceConfig> MakeConfig();
}  // namespace tolm::testing

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, ScheduleIsUsableAlone) {
  const auto config = testing::MakeConfig();
  EXPECT_TRUE(IsScheduled(*config, "x"));
  EXPECT_EQ(ScheduledDatabases(*config), std::vector<std::string>{"x"});
  EXPECT_TRUE(HiddenDatabases().empty());
  SetScheduled(*config, "x", false);
  EXPECT_FALSE(IsScheduled(*config, "x"));
  EXPECT_TRUE(ScheduledDatabases(*config).empty());
}

}  // namespace
}  // namespace tolm::operation

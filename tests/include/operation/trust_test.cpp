#include "operation/trust.h"

#include <gtest/gtest.h>

namespace tolm::testing {
operation::Service MakeService();
}  // namespace tolm::testing

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, TrustIsUsableAlone) {
  const Service service = testing::MakeService();
  EXPECT_EQ(FloorOf(service, "x"), kNeverInstalled);
  EXPECT_THROW(LowerFloor(service, "x", 1), NotLower);
  ForgetDescriptions();
  EXPECT_FALSE(TrustInDescriptions().accepted.has_value());
}

}  // namespace
}  // namespace tolm::operation

#include "operation/run.h"

#include <gtest/gtest.h>

namespace tolm::testing {
operation::Service MakeService();
}  // namespace tolm::testing

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, RunIsUsableAlone) {
  const Service service = testing::MakeService();
  operation::Run run(service, true, false);
  EXPECT_EQ(run.HeldBack(), std::nullopt);
  EXPECT_THROW(run.Update("x"), std::exception);
  EXPECT_THROW(run.Fix("x"), std::exception);
  EXPECT_THROW(run.ForceInstall("x", 0), std::exception);
  EXPECT_EQ(run.Results().size(), 3U);
  run.Finish(false);
  EXPECT_NE(std::string(NoVolume().what()).find("no volume"), std::string::npos);
}

}  // namespace
}  // namespace tolm::operation

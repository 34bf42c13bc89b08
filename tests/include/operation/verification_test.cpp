#include "operation/verification.h"

#include <gtest/gtest.h>

namespace tolm::testing {
operation::Service MakeService();
}  // namespace tolm::testing

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, VerificationIsUsableAlone) {
  const Service service = testing::MakeService();
  const Verification recorded = VerifyRecorded(service, "x");
  EXPECT_EQ(recorded.version, kNeverInstalled);
  EXPECT_TRUE(recorded.IsIntact());
  EXPECT_EQ(VerifyAgainstPackage(service, "x").version, kNeverInstalled);
  Verification damaged{};
  damaged.damaged.push_back(DamagedFile{"file", "missing"});
  EXPECT_FALSE(damaged.IsIntact());
}

}  // namespace
}  // namespace tolm::operation

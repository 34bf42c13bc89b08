#include "operation/doctor.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tolm::testing {
operation::Service MakeService();
}  // namespace tolm::testing

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, DoctorIsUsableAlone) {
  const Service service = testing::MakeService();
  const std::vector<Finding> findings = Diagnose(service, false);
  const auto keyring = std::find_if(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.check == "keyring";
  });
  ASSERT_NE(keyring, findings.end());
  EXPECT_EQ(keyring->state, Finding::State::kProblem);
  EXPECT_EQ(keyring->subject, "/usr/tolm/etc/keyring/6.pem");
  EXPECT_FALSE(keyring->message.empty());
  EXPECT_FALSE(keyring->remedy.empty());
}

}  // namespace
}  // namespace tolm::operation

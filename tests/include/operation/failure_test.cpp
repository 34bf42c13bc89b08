#include "operation/failure.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, FailureIsUsableAlone) {
  const Failure other = FailureOf(std::runtime_error("text"));
  EXPECT_EQ(other.reason, reasons::kOther);
  EXPECT_EQ(LineOf("", other), "text");
  const Failure download = FailureOf(dataupdate::UpdateError(
      "Fail to wget url: http://u:p@example.org/x?dlid=178c", dataupdate::UpdateError::kGeneral));
  EXPECT_EQ(LineOf("", download), "http://example.org/x was not downloaded");
  const ExplainedError error("message", dataupdate::UpdateError::kGeneral,
                             {reasons::kBusy, "cause", "remedy", "7"});
  EXPECT_STREQ(error.what(), "message");
  EXPECT_EQ(LineOf("x", FailureOf(error)), "x 7: cause; remedy");
}

}  // namespace
}  // namespace tolm::operation

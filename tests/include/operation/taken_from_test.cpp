#include "operation/taken_from.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, TakenFromIsUsableAlone) {
  EXPECT_NO_THROW(TakenFrom("/tmp"));
  EXPECT_THROW(TakenFrom("/nonexistent"), std::runtime_error);
}

}  // namespace
}  // namespace tolm::operation

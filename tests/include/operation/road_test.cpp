#include "operation/road.h"

#include <gtest/gtest.h>

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, RoadIsUsableAlone) {
  int lines = 0;
  {
    const Road road([&lines](const std::string&) { ++lines; });
  }
  EXPECT_EQ(lines, 0) << "nothing was done";
}

}  // namespace
}  // namespace tolm::operation

#include "operation/wait_watch.h"

#include <gtest/gtest.h>

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, WaitWatchIsUsableAlone) {
  int lines = 0;
  {
    const WaitWatch watch([&lines](const std::string&) { ++lines; });
  }
  EXPECT_EQ(lines, 0) << "nothing was waited for";
}

}  // namespace
}  // namespace tolm::operation

#include "operation/environment.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, EnvironmentIsUsableAlone) {
  unsetenv("WGETRC");
  PrepareProcess();
  EXPECT_STREQ(std::getenv("WGETRC"), "/usr/share/data_update/wgetrc.empty");
}

}  // namespace
}  // namespace tolm::operation

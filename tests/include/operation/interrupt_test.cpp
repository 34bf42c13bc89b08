#include "operation/interrupt.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <csignal>

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, InterruptIsUsableAlone) {
  {
    const Interrupt interrupt;
    EXPECT_EQ(Interrupt::Received(), 0);
    ASSERT_EQ(kill(getpid(), SIGTERM), 0);
    while (Interrupt::Received() == 0) {
      sched_yield();
    }
  }
  EXPECT_EQ(Interrupt::Received(), SIGTERM);
  EXPECT_STREQ(Interrupted().what(), "interrupted");
}

}  // namespace
}  // namespace tolm::operation

#include "platform/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "tolm/err.h"

namespace tolm::testing {
namespace {

TEST(ErrorTest, IsZeroInAThreadWithoutAFailure) {
  EXPECT_EQ(TLIBCErrGet(), 0);
}

TEST(ErrorTest, IsTheLastOneSet) {
  platform::SetLastError(ENOENT);
  platform::SetLastError(EACCES);
  EXPECT_EQ(TLIBCErrGet(), EACCES);
  EXPECT_EQ(TLIBCErrGet(), EACCES) << "reading does not clear it";
}

TEST(ErrorTest, DoesNotTouchErrno) {
  errno = EBUSY;
  platform::SetLastError(ENOENT);
  EXPECT_EQ(TLIBCErrGet(), ENOENT);
  EXPECT_EQ(errno, EBUSY);
}

TEST(ErrorTest, EveryThreadHasItsOwn) {
  platform::SetLastError(ENOENT);
  std::thread other([] {
    EXPECT_EQ(TLIBCErrGet(), 0);
    platform::SetLastError(EACCES);
    EXPECT_EQ(TLIBCErrGet(), EACCES);
  });
  other.join();
  EXPECT_EQ(TLIBCErrGet(), ENOENT);
}

}  // namespace
}  // namespace tolm::testing

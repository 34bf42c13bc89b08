#include "operation/bounded_downloads.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, BoundedDownloadsIsUsableAlone) {
  bool was_run = false;
  WithBoundedDownloads([&] { was_run = true; });
  EXPECT_TRUE(was_run);
  EXPECT_THROW(WithBoundedDownloads([] { throw std::range_error("x"); }), std::range_error);
}

}  // namespace
}  // namespace tolm::operation

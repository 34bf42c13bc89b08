#include "dataupdate/export.h"

#include <gtest/gtest.h>

namespace tolm::testing {

TOLM_DATAUPDATE_API int SeenFromOutside();
int SeenFromOutside() {
  return 1;
}

namespace {

TEST(PublicHeaderTest, ExportIsUsableAlone) {
  EXPECT_EQ(SeenFromOutside(), 1);
}

}  // namespace
}  // namespace tolm::testing

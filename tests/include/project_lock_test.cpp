#include "dataupdate/project_lock.h"

#include <gtest/gtest.h>

namespace {

TEST(PublicHeaderTest, ProjectLockIsUsableAlone) {
  const uint32_t at_once = 0;
  EXPECT_EQ(TOLMDBUDGetFileLock("no-database", at_once), -2);
  TOLMDBUDReleaseFileLock(-2);
}

}  // namespace

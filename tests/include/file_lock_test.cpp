#include "dataupdate/file_lock.h"

#include <gtest/gtest.h>

namespace tolm::dataupdate {
namespace {

TEST(PublicHeaderTest, FileLockIsUsableAlone) {
  FileLock::MakeDir("/tmp/d/e/lock");
  {
    const FileLock lock("/tmp/d/e/lock", 0);
    EXPECT_THROW(FileLock("/tmp/d/e/lock", 0), std::exception);
  }
  EXPECT_NO_THROW(FileLock("/tmp/d/e/lock", 0));
}

}  // namespace
}  // namespace tolm::dataupdate

#include "publish/pushed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/publish/expect_error.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using publish::PushLock;

class PushLockTest : public ::testing::Test {
 protected:
  PushLockTest() { std::filesystem::create_directories(publish::RepositoryPaths(root_).State()); }

  TemporaryDirectory directory_;
  const std::string root_ = directory_.Path();
  const publish::PushPaths paths_{publish::RepositoryPaths(root_), "key"};
};

TEST_F(PushLockTest, FirstPushToARemoteHasOneToo) {
  const PushLock lock(paths_, "remote");
  EXPECT_GE(lock.Get(), 0);
  EXPECT_TRUE(std::filesystem::exists(paths_.Lock()));
}

TEST_F(PushLockTest, OnePushAtATimeAndTheOtherIsNamed) {
  {
    const PushLock lock(paths_, "remote");
    ExpectError([&] { const PushLock other(paths_, "remote"); },
                "remote: another push to it is at work, process " + std::to_string(getpid()));
    const PushLock elsewhere({publish::RepositoryPaths(root_), "another"}, "elsewhere");
  }
  EXPECT_NO_THROW(PushLock(paths_, "remote"));
}

}  // namespace
}  // namespace tolm::testing

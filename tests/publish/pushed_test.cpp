#include "publish/pushed.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "base/descriptor.h"
#include "publish/json_object.h"
#include "tests/publish/expect_error.h"
#include "tests/support/files.h"
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
  EXPECT_EQ(std::filesystem::status(paths_.Lock()).permissions() & std::filesystem::perms(0111),
            std::filesystem::perms::none);
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

TEST_F(PushLockTest, HolderIsTheProcessAlone) {
  std::filesystem::create_directories(paths_.Directory());
  WriteFile(paths_.Lock(), "99999999999999999999");
  const PushLock lock(paths_, "remote");
  EXPECT_EQ(ReadFile(paths_.Lock()), std::to_string(getpid()));
}

// What a push that was killed has started still has the lock, a moment longer.
TEST_F(PushLockTest, LockThatAnEndedPushHasLeftIsHadWhenItIsFree) {
  std::filesystem::create_directories(paths_.Directory());
  WriteFile(paths_.Lock(), "4194304");  // No process has that number: it is the first too large.
  base::Descriptor left(::open(paths_.Lock().c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(left.Get(), LOCK_EX), 0);
  std::thread freeing([&left] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    left = base::Descriptor();
  });
  EXPECT_NO_THROW(PushLock(paths_, "remote"));
  freeing.join();
}

TEST_F(PushLockTest, HolderThatHasNotSaidWhoItIsIsRefusedWithoutANumber) {
  std::filesystem::create_directories(paths_.Directory());
  WriteFile(paths_.Lock(), "");
  const base::Descriptor other(::open(paths_.Lock().c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(other.Get(), LOCK_EX), 0);
  ExpectError([&] { const PushLock lock(paths_, "remote"); },
              "remote: another push to it is at work");
  WriteFile(paths_.Lock(), "1");
  ExpectError([&] { const PushLock lock(paths_, "remote"); },
              "remote: another push to it is at work, process 1");
}

TEST_F(PushLockTest, WhatWasPushedIsReadAsItWasWritten) {
  const publish::Pushed none = LoadPushed(paths_);
  EXPECT_EQ(none.remote + none.description, "");
  EXPECT_EQ(none.pushed, 0);
  std::filesystem::create_directories(paths_.Directory());
  publish::Pushed pushed;
  pushed.remote = "store:b";
  pushed.description = "d384";
  pushed.pushed = 1800000000;
  pushed.proved = {{"a", "1"}, {"b", "2"}};
  pushed.gone = {{"b", 5}, {"c", 6}};
  SavePushed(paths_, pushed);
  const publish::Pushed read = LoadPushed(paths_);
  EXPECT_EQ(read.remote, pushed.remote);
  EXPECT_EQ(read.description, pushed.description);
  EXPECT_EQ(read.pushed, pushed.pushed);
  EXPECT_EQ(read.proved, pushed.proved);
  EXPECT_EQ(read.gone, pushed.gone);
  const Json::Value value = publish::ReadJsonFile(paths_.File());
  EXPECT_EQ(value["format"].asInt(), 1);
  EXPECT_FALSE(std::filesystem::exists(paths_.File() + ".new"));
  WriteFile(paths_.File(), R"({"format": 2})");
  ExpectError([&] { LoadPushed(paths_); },
              paths_.File() + ": written by a newer version of this program");
}

}  // namespace
}  // namespace tolm::testing

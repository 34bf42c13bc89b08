#include "publish/pushed.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>

#include "base/descriptor.h"
#include "publish/json_object.h"
#include "tests/publish/expect_error.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace {

std::int64_t slept_milliseconds = 0;
std::function<void()> when_slept;

}  // namespace

// Before the C library's: nobody sleeps here.
extern "C" int nanosleep(const timespec* time, timespec* /*rest*/) {
  slept_milliseconds += time->tv_sec * 1000 + time->tv_nsec / 1'000'000;
  if (when_slept) {
    when_slept();
  }
  return 0;
}

namespace {

int kill_error = 0;

}  // namespace

// Before the C library's: what another account's processes answer.
extern "C" int kill(pid_t process, int signal) noexcept {
  const int result = static_cast<int>(::syscall(SYS_kill, process, signal));
  errno = result == 0 ? ESRCH : errno;  // Whatever it was, it says nothing then.
  if (kill_error != 0) {
    errno = kill_error;
    return -1;
  }
  return result;
}

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
  ExpectError([&] { const PushLock lock(paths_, "remote"); },
              "remote: another push to it is at work, process 4194304");
  EXPECT_EQ(slept_milliseconds, 5000) << "a moment has an end";
  slept_milliseconds = 0;
  when_slept = [&left] {
    if (slept_milliseconds == 4900) {
      left = base::Descriptor();
    }
  };
  EXPECT_NO_THROW(PushLock(paths_, "remote"));
  when_slept = nullptr;
  EXPECT_EQ(slept_milliseconds, 4900);
}

TEST_F(PushLockTest, NobodyIsWaitedForWhoMayBeAtWorkNorSentASignal) {
  std::filesystem::create_directories(paths_.Directory());
  const base::Descriptor other(::open(paths_.Lock().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_EQ(::flock(other.Get(), LOCK_EX), 0);
  static volatile std::sig_atomic_t signals = 0;
  const auto before = std::signal(SIGHUP, [](int) { signals = signals + 1; });
  for (const std::string& process :
       {std::to_string(::getpid()), std::string("1"), std::string("-4194304"), std::string("x"),
        std::string("99999999999999999999")}) {
    slept_milliseconds = 0;
    WriteFile(paths_.Lock(), process);
    ExpectError([&] { const PushLock lock(paths_, "remote"); },
                "remote: another push to it is at work, process " + process);
    EXPECT_EQ(slept_milliseconds, 0) << process;
  }
  std::signal(SIGHUP, before);
  EXPECT_EQ(signals, 0);
  WriteFile(paths_.Lock(), "4194304");
  kill_error = EPERM;
  EXPECT_THROW(PushLock(paths_, "remote"), publish::Error);
  kill_error = 0;
  EXPECT_EQ(slept_milliseconds, 0) << "another account's";
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

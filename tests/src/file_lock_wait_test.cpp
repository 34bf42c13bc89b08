// How long a lock is waited for, with a clock and a flock() of this program's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "dataupdate/config.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "tests/src/fake_time.h"
#include "tests/src/flock_calls.h"
#include "tests/src/thrown.h"
#include "tests/support/syslog_capture.h"

namespace tolm::dataupdate {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using tolm::testing::flock_calls;
using tolm::testing::FlockCalls;
using tolm::testing::SyslogCapture;

constexpr char kPath[] = "/run/data_update/some.lock";
const Thrown kRefused{std::string("Fail to lock ") + kPath};

class FileLockWaitTest : public ::testing::Test {
 protected:
  /// Makes the file be held by somebody else, from before the counting starts.
  void Hold(const std::string& path) {
    holder_.reset();
    holder_ = std::make_unique<FileLock>(path, 0);
    SyslogCapture::Clear();
    flock_calls = FlockCalls();
  }
  void EndHold() {
    holder_.reset();
    SyslogCapture::Clear();
  }

 private:
  std::unique_ptr<FileLock> holder_;
};

TEST_F(FileLockWaitTest, TimeoutZeroOnAHeldFileIsExactlyOneAttempt) {
  Hold(kPath);
  const FakeTime time;
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 0); }), kRefused);
  EXPECT_EQ(flock_calls.Attempts().size(), 1U);
  EXPECT_THAT(time.Sleeps(), IsEmpty());
  EXPECT_EQ(time.ClockReadings(), 1U);
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST_F(FileLockWaitTest, TimeoutZeroOnAFreeFileIsOneAttemptToo) {
  flock_calls = FlockCalls();
  const FakeTime time;
  const FileLock lock(kPath, 0);
  EXPECT_EQ(flock_calls.Attempts().size(), 1U);
  EXPECT_THAT(flock_calls.Attempts(), Each(LOCK_EX | LOCK_NB));
  EXPECT_THAT(time.Sleeps(), IsEmpty());
}

TEST_F(FileLockWaitTest, HeldFileIsTriedEvery100MillisecondsUntilTheDeadline) {
  Hold(kPath);
  const FakeTime time;
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 2); }), kRefused);
  EXPECT_EQ(flock_calls.Attempts().size(), 21U);
  EXPECT_THAT(flock_calls.Attempts(), Each(LOCK_EX | LOCK_NB));
  EXPECT_EQ(time.Sleeps().size(), 20U);
  EXPECT_THAT(time.Sleeps(), Each(100000U));
  EXPECT_EQ(time.ClockReadings(), 21U);
  EXPECT_EQ(time.Passed(), std::chrono::seconds(2));
}

TEST_F(FileLockWaitTest, FileThatIsFreedInTimeIsLocked) {
  Hold(kPath);
  FakeTime time;
  time.on_sleep = [&] {
    if (time.Sleeps().size() == 20) {  // At the deadline itself one more attempt is made.
      EndHold();
    }
  };
  const FileLock lock(kPath, 2);
  EXPECT_EQ(time.Sleeps().size(), 20U);
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              ElementsAre(std::string("Acquire lock on file: ") + kPath));
}

std::string asked_of;
bool answer = false;

TEST_F(FileLockWaitTest, QuestionBetweenTwoAttemptsEndsTheWait) {
  Hold(kPath);
  SetLockWaitQuestion([](const std::string& path) {
    asked_of = path;
    return answer;
  });
  FakeTime time;
  time.on_sleep = [&] { answer = time.Sleeps().size() == 3; };
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 600); }), kRefused);
  EXPECT_EQ(asked_of, kPath);
  EXPECT_EQ(flock_calls.Attempts().size(), 4U) << "one after the last sleep";
  SetLockWaitQuestion(nullptr);
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 1); }), kRefused);
  EXPECT_EQ(flock_calls.Attempts().size(), 4U + 11U);
}

TEST_F(FileLockWaitTest, QuestionIsNotAskedOfAFreeFile) {
  flock_calls = FlockCalls();
  SetLockWaitQuestion([](const std::string&) { return true; });
  EXPECT_NO_THROW(FileLock(kPath, 600));
  SetLockWaitQuestion(nullptr);
}

TEST_F(FileLockWaitTest, SlowSleepStillLeavesOneAttemptAfterIt) {
  Hold(kPath);
  FakeTime time;
  time.step = std::chrono::hours(1);
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 2); }), kRefused);
  EXPECT_EQ(flock_calls.Attempts().size(), 2U);
}

TEST_F(FileLockWaitTest, LongestTimeoutIsKeptInFull) {
  Hold(kPath);
  FakeTime time;
  time.step = std::chrono::seconds(2147483647);
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 4294967295U); }), kRefused);
  EXPECT_EQ(time.Sleeps().size(), 3U) << "4294967295 s are more than twice 2147483647 s";
}

TEST_F(FileLockWaitTest, EveryFailureOfTheSystemIsTriedAgain) {
  for (const int failure : {EWOULDBLOCK, EINTR, ENOLCK, EINVAL, EBADF}) {
    flock_calls = FlockCalls();
    flock_calls.attempts_to_fail = 3;
    flock_calls.failure = failure;
    const FakeTime time;
    const FileLock lock(kPath, 1);
    EXPECT_EQ(flock_calls.Attempts().size(), 4U) << failure;
    EXPECT_EQ(time.Sleeps().size(), 3U) << failure;
  }
}

TEST_F(FileLockWaitTest, LastingFailureOfTheSystemEndsAtTheDeadline) {
  flock_calls = FlockCalls();
  flock_calls.attempts_to_fail = 1000;
  flock_calls.failure = ENOLCK;
  const FakeTime time;
  EXPECT_EQ(ErrorOf([] { FileLock lock(kPath, 1); }), kRefused);
  EXPECT_EQ(flock_calls.Attempts().size(), 11U);
}

TEST_F(FileLockWaitTest, FailedUnlockIsLoggedAndTheEndAsWell) {
  flock_calls = FlockCalls();
  {
    const FileLock lock(kPath, 0);
    SyslogCapture::Clear();
    flock_calls.fail_unlock = true;
  }
  flock_calls = FlockCalls();
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_ERR),
              ElementsAre(std::string("Fail to unlock ") + kPath));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              ElementsAre(std::string("Release lock on file: ") + kPath));
  ASSERT_EQ(SyslogCapture::Lines().size(), 2U);
  EXPECT_EQ(SyslogCapture::Lines()[0].priority, LOG_ERR) << "the failure comes first";
  EXPECT_NO_THROW(FileLock(kPath, 0)) << "closing the file frees the lock all the same";
}

TEST_F(FileLockWaitTest, ConfigurationWriteWaitsTenMinutesForItsLock) {
  constexpr char kConfigLock[] = "/run/data_update/config.lock";
  const Config config(std::make_shared<IOUtils>());
  config.Init("/tmp/default.conf", "/tmp/override.conf");
  const std::function<void()> writes[] = {
      [&] { config.Set("s", "k", std::string("text")); },
      [&] { config.Set("s", "k", "text"); },
      [&] { config.Set("s", "k", 1ULL); },
      [&] { config.Set("s", "k", true); },
  };
  for (const auto& write : writes) {
    Hold(kConfigLock);
    const FakeTime time;
    EXPECT_EQ(ErrorOf(write), Thrown{std::string("Fail to lock ") + kConfigLock});
    EXPECT_EQ(time.Passed(), std::chrono::seconds(600));
    EXPECT_EQ(flock_calls.Attempts().size(), 6001U);
    EXPECT_FALSE(std::filesystem::exists("/tmp/override.conf"));
  }
}

TEST_F(FileLockWaitTest, ConfigurationReadsTakeNoLock) {
  Hold("/run/data_update/config.lock");
  const IOUtils io;
  Json::Value document;
  document["s"]["text"] = "text";
  document["s"]["number"] = 1U;
  document["s"]["flag"] = true;
  io.WriteJson("/tmp/default.conf", document);
  const Config config(std::make_shared<IOUtils>());
  config.Init("/tmp/default.conf", "/tmp/override.conf");
  EXPECT_EQ(config.Get("s", "text"), "text");
  EXPECT_EQ(config.GetAsUInt64("s", "number"), 1U);
  EXPECT_TRUE(config.GetAsBool("s", "flag"));
  EXPECT_EQ(config.GetSections(), std::vector<std::string>{"s"});
  EXPECT_EQ(flock_calls.Attempts().size(), 0U);
}

}  // namespace
}  // namespace tolm::dataupdate

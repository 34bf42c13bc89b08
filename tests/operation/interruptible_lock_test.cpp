#include "operation/interruptible_lock.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "dataupdate/error.h"
#include "operation/interrupt.h"
#include "tests/support/files.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"

namespace {

unsigned long slept = 0;  // In microseconds.
std::function<void()> while_sleeping;

}  // namespace

// Nobody waits here.
int usleep(useconds_t microseconds) {
  slept += microseconds;
  if (while_sleeping) {
    while_sleeping();
  }
  return 0;
}

namespace tolm::operation {
namespace {

using tolm::testing::UniqueDescriptor;

constexpr char kLock[] = "/run/data_update/x.lock";

void Signal() {
  kill(getpid(), SIGTERM);
  ASSERT_TRUE(testing::WaitUntil([] { return Interrupt::Received() != 0; }));
}

class InterruptibleLockTest : public ::testing::Test {
 protected:
  ~InterruptibleLockTest() override { while_sleeping = nullptr; }

  Interrupt interrupt_;
  int waits_ = 0;
};

TEST_F(InterruptibleLockTest, FreeLockIsHadAtOnceInAFileOfRootsOwn) {
  const mode_t before = umask(0);
  const dataupdate::FileLock lock = InterruptibleLock(kLock, [this] { ++waits_; });
  umask(before);
  EXPECT_EQ(waits_, 0);
  EXPECT_EQ(slept, 0UL);
  struct stat status {};
  ASSERT_EQ(stat(kLock, &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  const UniqueDescriptor other(open(kLock, O_RDONLY | O_CLOEXEC));
  EXPECT_NE(flock(other.Get(), LOCK_SH | LOCK_NB), 0);
}

TEST_F(InterruptibleLockTest, HeldLockIsWaitedForAndThatIsToldOnce) {
  InterruptibleLock(kLock);
  UniqueDescriptor other(open(kLock, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(other.Get(), LOCK_EX | LOCK_NB), 0);
  while_sleeping = [&] {
    if (slept == 300000) {
      flock(other.Get(), LOCK_UN);
    }
  };
  InterruptibleLock(kLock, [this] { ++waits_; });
  EXPECT_EQ(waits_, 1);
  EXPECT_EQ(slept, 300000UL) << "ten times a second it is looked at";
}

TEST_F(InterruptibleLockTest, FileThatMayNotBeOpenedIsNotWaitedFor) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  InterruptibleLock(kLock);
  EXPECT_EQ(tolm::testing::CallAsOrdinaryAccount([] {
              while_sleeping = [] { _exit(2); };
              try {
                InterruptibleLock(kLock);
                return 1;
              } catch (const dataupdate::UpdateError&) {
                return 0;
              }
            }),
            0);
}

TEST_F(InterruptibleLockTest, SignalEndsTheWait) {
  InterruptibleLock(kLock);
  const UniqueDescriptor other(open(kLock, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(other.Get(), LOCK_EX | LOCK_NB), 0);
  while_sleeping = Signal;
  EXPECT_THROW(InterruptibleLock(kLock, [this] { ++waits_; }), Interrupted);
  EXPECT_EQ(waits_, 1);
  EXPECT_EQ(slept, 100000UL);
  EXPECT_THROW(EndWhenInterrupted(), Interrupted);
}

TEST_F(InterruptibleLockTest, PauseIsAsLongAsItIsSaidOrUntilASignal) {
  EXPECT_NO_THROW(EndWhenInterrupted());
  PauseUnlessInterrupted(2);
  EXPECT_EQ(slept, 2000000UL);
  slept = 0;
  while_sleeping = [] {
    if (slept == 500000) {
      Signal();
    }
  };
  PauseUnlessInterrupted(2);
  EXPECT_EQ(slept, 500000UL);
}

}  // namespace
}  // namespace tolm::operation

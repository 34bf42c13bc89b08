#include "operation/wait_watch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "operation/lock_holder.h"
#include "operation/noted_wait.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"

namespace tolm::operation {
namespace {

using tolm::testing::EventChannel;
using tolm::testing::ForkedChild;
using tolm::testing::UniqueDescriptor;
using tolm::testing::WaitUntil;

constexpr char kUpdateLock[] = "/run/data_update/update_oui.lock";
constexpr char kReadersLock[] = "/run/data_update/using_oui.lock";

class WaitWatchTest : public ::testing::Test {
 protected:
  WaitWatchTest() {
    testing::WriteFile(kUpdateLock, "");
    testing::WriteFile(kReadersLock, "");
  }

  // Holds it until it is told something.
  static ForkedChild Hold(const char* lock) {
    return ForkedChild([lock](EventChannel& parent) {
      const UniqueDescriptor file(open(lock, O_RDONLY | O_CLOEXEC));
      parent.Send(flock(file.Get(), LOCK_EX | LOCK_NB) == 0 ? "held" : "failed");
      parent.Receive();
      return 0;
    });
  }

  WaitWatch::Listener Listener() {
    return [this](const std::string& line) {
      const std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line);
    };
  }

  std::vector<std::string> Lines() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST_F(WaitWatchTest, WaitForAFileThatIsOpenIsToldWithItsHolderAndThenItsEnd) {
  ForkedChild holder = Hold(kUpdateLock);
  ASSERT_EQ(holder.Channel().Receive(), "held");
  const UniqueDescriptor waiting(open(kUpdateLock, O_RDONLY | O_CLOEXEC));
  const UniqueDescriptor free(open(kReadersLock, O_RDONLY | O_CLOEXEC));
  const std::vector<LockHolder> holders = HoldersOf(kUpdateLock);
  ASSERT_EQ(holders.size(), 1U);
  const WaitWatch watch(Listener());
  ASSERT_TRUE(WaitUntil([this] { return !Lines().empty(); }));
  holder.Channel().Send("release");
  holder.Process().Wait();
  ASSERT_TRUE(WaitUntil([this] { return Lines().size() > 1; }));
  EXPECT_EQ(Lines(),
            (std::vector<std::string>{std::string("waiting for another operation: ") + kUpdateLock +
                                          " is held by " + TextOf(holders[0]),
                                      "the wait is over"}));
}

TEST_F(WaitWatchTest, WaitThatIsNotedIsTheOneAndEndsWhenItIsNotedNoMore) {
  ForkedChild holder = Hold(kReadersLock);
  ASSERT_EQ(holder.Channel().Receive(), "held");
  const std::vector<LockHolder> holders = HoldersOf(kReadersLock);
  ASSERT_EQ(holders.size(), 1U);
  const WaitWatch watch(Listener());
  {
    const NotedWait noted(kReadersLock);
    ASSERT_TRUE(WaitUntil([this] { return !Lines().empty(); }));
  }
  ASSERT_TRUE(WaitUntil([this] { return Lines().size() > 1; }));
  EXPECT_EQ(Lines(),
            (std::vector<std::string>{std::string("waiting for readers of the database: ") +
                                          kReadersLock + " is held by " + TextOf(holders[0]),
                                      "the wait is over"}));
  holder.Channel().Send("release");
  holder.Process().Wait();
}

TEST_F(WaitWatchTest, ItsThreadTakesNoSignals) {
  sigset_t before;
  sigset_t after;
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &before), 0);
  const WaitWatch watch(Listener());
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &after), 0);
  EXPECT_EQ(sigismember(&after, SIGUSR1), sigismember(&before, SIGUSR1)) << "of the caller's own";
  sigset_t user;
  sigemptyset(&user);
  sigaddset(&user, SIGUSR1);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &user, nullptr), 0);
  kill(getpid(), SIGUSR1);
  EXPECT_EQ(sigwaitinfo(&user, nullptr), SIGUSR1) << "or the process would have ended";
}

}  // namespace
}  // namespace tolm::operation

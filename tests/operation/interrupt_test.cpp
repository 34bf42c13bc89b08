#include "operation/interrupt.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "base/paths.h"
#include "dataupdate/file_lock.h"
#include "tolm/archive.h"
#include "tolm/exec.h"

namespace {

// What the platform and the library were told last.
std::mutex mutex;
std::vector<std::string> calls;  // Guarded by the mutex.
std::atomic<std::size_t> call_count{0};
tolm::dataupdate::LockWaitQuestion question = nullptr;
bool refuses_threads = false;

void Add(const char* what, int value) {
  const std::lock_guard<std::mutex> lock(mutex);
  calls.push_back(what + std::to_string(value));
  ++call_count;
}

}  // namespace

void TLIBCExecCancel(int cancelled) {
  Add("programs ", cancelled);
}

void tolmarchive_cancel(int cancelled) {
  Add("archives ", cancelled);
}

void tolm::dataupdate::SetLockWaitQuestion(LockWaitQuestion asked) noexcept {
  question = asked;
}

[[gnu::visibility("default")]] int pthread_create(pthread_t* thread,
                                                  const pthread_attr_t* attributes,
                                                  void* (*run)(void*), void* argument) noexcept {
  static auto* const create =
      reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  return refuses_threads ? EAGAIN : create(thread, attributes, run, argument);
}

namespace tolm::operation {
namespace {

using ::testing::ElementsAre;

// Which of the three signals and of one more are blocked: "INT TERM HUP USR1 ".
std::string Blocked() {
  sigset_t mask;
  EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
  std::string names;
  names += sigismember(&mask, SIGINT) == 1 ? "INT " : "";
  names += sigismember(&mask, SIGTERM) == 1 ? "TERM " : "";
  names += sigismember(&mask, SIGHUP) == 1 ? "HUP " : "";
  names += sigismember(&mask, SIGUSR1) == 1 ? "USR1 " : "";
  return names;
}

std::vector<std::string> TakeCalls() {
  const std::lock_guard<std::mutex> lock(mutex);
  call_count = 0;
  return std::exchange(calls, {});
}

// The platform is told of each signal by two calls.
void Send(int signal, std::size_t calls_afterwards) {
  ASSERT_EQ(kill(getpid(), signal), 0);
  while (call_count < calls_afterwards) {
    sched_yield();
  }
}

class InterruptTest : public ::testing::Test {
 protected:
  ~InterruptTest() override { TakeCalls(); }
};

TEST_F(InterruptTest, NothingIsReceivedBeforeThereIsOne) {
  EXPECT_EQ(Interrupt::Received(), 0);
}

TEST_F(InterruptTest, ThreeSignalsAreBlockedAsLongAsItExists) {
  EXPECT_EQ(Blocked(), "");
  {
    mallopt(M_PERTURB, 1);  // What was in its memory before is no signal.
    const Interrupt interrupt;
    mallopt(M_PERTURB, 0);
    EXPECT_EQ(Blocked(), "INT TERM HUP ");
  }
  EXPECT_EQ(Blocked(), "");
}

TEST_F(InterruptTest, FirstSignalCountsAndEachEndsWhatRuns) {
  {
    const Interrupt interrupt;
    EXPECT_THAT(TakeCalls(), ElementsAre("programs 0", "archives 0"));
    Send(SIGHUP, 2);
    EXPECT_THAT(TakeCalls(), ElementsAre("programs 1", "archives 1"));
    Send(SIGINT, 2);
    EXPECT_THAT(TakeCalls(), ElementsAre("programs 1", "archives 1"));
    EXPECT_EQ(Interrupt::Received(), SIGHUP);
  }
  EXPECT_EQ(Interrupt::Received(), SIGHUP) << "its own end is no signal";
  const Interrupt another;
  EXPECT_EQ(Interrupt::Received(), 0);
  EXPECT_THAT(TakeCalls(), ElementsAre("programs 0", "archives 0")) << "others may begin again";
}

TEST_F(InterruptTest, WaitsForLocksEndButForThoseThatAreHeldForMoments) {
  {
    const Interrupt interrupt;
    ASSERT_NE(question, nullptr);
    EXPECT_FALSE(question(paths::kOperatorLock));
    TakeCalls();
    Send(SIGTERM, 2);
    EXPECT_TRUE(question(paths::kOperatorLock));
    EXPECT_FALSE(question(paths::kConfigLock));
    EXPECT_FALSE(question(paths::kNotesLock));
  }
  EXPECT_EQ(question, nullptr);
}

TEST_F(InterruptTest, WhereNoThreadIsToBeHadSignalsAreAsTheyWere) {
  refuses_threads = true;
  EXPECT_THROW(Interrupt(), std::system_error);
  refuses_threads = false;
  EXPECT_EQ(Blocked(), "");
}

}  // namespace
}  // namespace tolm::operation

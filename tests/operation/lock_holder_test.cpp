#include "operation/lock_holder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/unique_descriptor.h"

namespace tolm::operation {
namespace {

using tolm::testing::EventChannel;
using tolm::testing::ForkedChild;
using tolm::testing::UniqueDescriptor;

constexpr char kFile[] = "/run/data_update/x.lock";

// Holds the lock under that name until its test has ended.
class Holder {
 public:
  explicit Holder(int kind) : Holder(ForkedChild(Hold(kind))) {}
  static Holder OfOrdinaryAccount(int kind) {
    return Holder(tolm::testing::ForkOrdinaryAccount(Hold(kind)));
  }

  bool Holds() { return child_.Channel().Receive() == "held"; }
  pid_t Pid() { return child_.Process().Pid(); }

 private:
  explicit Holder(ForkedChild child) : child_(std::move(child)) {}

  static ForkedChild::Body Hold(int kind) {
    return [kind](EventChannel& parent) {
      const UniqueDescriptor file(open(kFile, O_RDONLY | O_CLOEXEC));
      prctl(PR_SET_NAME, "backup");
      parent.Send(flock(file.Get(), kind | LOCK_NB) == 0 ? "held" : "failed");
      parent.Receive();
      return 0;
    };
  }

  ForkedChild child_;
};

class LockHolderTest : public ::testing::Test {
 protected:
  void SetUp() override { tolm::testing::WriteFile(kFile, ""); }
};

TEST_F(LockHolderTest, NobodyHoldsAFreeLockOrAMissingFile) {
  EXPECT_TRUE(HoldersOf(kFile).empty());
  EXPECT_TRUE(HoldersOf("/run/data_update/missing.lock").empty());
  EXPECT_FALSE(IsHeld(kFile));
  EXPECT_FALSE(IsHeld("/run/data_update/missing.lock"));
}

TEST_F(LockHolderTest, ProcessIsNamed) {
  Holder holder(LOCK_EX);
  ASSERT_TRUE(holder.Holds());
  const std::vector<LockHolder> holders = HoldersOf(kFile);
  ASSERT_EQ(holders.size(), 1U);
  EXPECT_EQ(holders[0].pid, holder.Pid());
  EXPECT_EQ(holders[0].program, "backup");
  EXPECT_TRUE(holders[0].is_roots);
  EXPECT_TRUE(IsHeld(kFile));
}

TEST_F(LockHolderTest, EveryReaderHolds) {
  Holder one(LOCK_SH);
  ASSERT_TRUE(one.Holds());
  Holder other(LOCK_SH);
  ASSERT_TRUE(other.Holds());
  EXPECT_EQ(HoldersOf(kFile).size(), 2U);
}

TEST_F(LockHolderTest, ProcessWithTwoDescriptorsIsOneHolder) {
  const UniqueDescriptor one(open(kFile, O_RDONLY | O_CLOEXEC));
  const UniqueDescriptor other(open(kFile, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(one.Get(), LOCK_SH | LOCK_NB), 0);
  ASSERT_EQ(flock(other.Get(), LOCK_SH | LOCK_NB), 0);
  ASSERT_EQ(HoldersOf(kFile).size(), 1U);
  EXPECT_EQ(HoldersOf(kFile)[0].pid, getpid());
}

void StayOnThisProcessor() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(sched_getcpu(), &one);
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
}

// Takes and releases locks without end.
ForkedChild Churn() {
  return ForkedChild([](EventChannel& parent) {
    std::vector<UniqueDescriptor> files;
    for (int i = 0; i < 100; ++i) {
      const std::string name = "/run/data_update/" + std::to_string(i);
      files.emplace_back(open(name.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
      flock(files.back().Get(), LOCK_EX);
    }
    parent.Send("begun");
    for (;;) {
      for (const int kind : {LOCK_UN, LOCK_EX}) {
        for (std::size_t i = 0; i < files.size() / 2; ++i) {
          flock(files[i].Get(), kind);
        }
      }
    }
    return 0;
  });
}

TEST_F(LockHolderTest, IsFoundOnceWhileOtherLocksComeAndGo) {
  cpu_set_t all;
  ASSERT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
  StayOnThisProcessor();  // Each has a list of its own: what changes must stand before what is
                          // held.
  const UniqueDescriptor file(open(kFile, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(file.Get(), LOCK_SH | LOCK_NB), 0);
  ForkedChild churn = Churn();
  ASSERT_EQ(churn.Channel().Receive(), "begun");
  ASSERT_EQ(sched_setaffinity(0, sizeof all, &all), 0);
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(HoldersOf(kFile).size(), 1U) << i;
  }
}

TEST_F(LockHolderTest, WhoWaitsHoldsNothing) {
  Holder holder(LOCK_EX);
  ASSERT_TRUE(holder.Holds());
  Holder other(LOCK_EX);
  ASSERT_FALSE(other.Holds());
  EXPECT_EQ(HoldersOf(kFile).size(), 1U);
}

TEST_F(LockHolderTest, OrdinaryAccountIsNotRoot) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  Holder holder = Holder::OfOrdinaryAccount(LOCK_EX);
  ASSERT_TRUE(holder.Holds());
  ASSERT_EQ(HoldersOf(kFile).size(), 1U);
  EXPECT_FALSE(HoldersOf(kFile)[0].is_roots);
}

TEST_F(LockHolderTest, AnotherFilesHolderAndAnotherKindOfLockAreNone) {
  constexpr char kOther[] = "/run/data_update/y.lock";
  tolm::testing::WriteFile(kOther, "");
  const UniqueDescriptor other(open(kOther, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(other.Get(), LOCK_EX | LOCK_NB), 0);
  const UniqueDescriptor file(open(kFile, O_RDWR | O_CLOEXEC));
  struct flock whole {};
  whole.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(file.Get(), F_SETLK, &whole), 0);
  EXPECT_TRUE(HoldersOf(kFile).empty());
  EXPECT_FALSE(IsHeld(kFile));
  EXPECT_EQ(HoldersOf(kOther).size(), 1U);
}

// Whoever has inherited the file holds the lock of a process that has ended.
TEST_F(LockHolderTest, ProcessThatHasEndedIsNotRootsAndHasNoName) {
  const UniqueDescriptor file(open(kFile, O_RDONLY | O_CLOEXEC));
  pid_t pid = 0;
  {
    ForkedChild child(
        [&file](EventChannel&) { return flock(file.Get(), LOCK_EX | LOCK_NB) == 0 ? 0 : 1; });
    pid = child.Process().Pid();
    ASSERT_EQ(child.Process().Wait(), 0);
  }
  const std::vector<LockHolder> holders = HoldersOf(kFile);
  ASSERT_EQ(holders.size(), 1U);
  EXPECT_EQ(holders[0].pid, pid);
  EXPECT_EQ(holders[0].program, "");
  EXPECT_FALSE(holders[0].is_roots);
  EXPECT_EQ(TextOf(holders[0]), "process " + std::to_string(pid));
}

TEST_F(LockHolderTest, WhoHasTakenAnotherAccountIsNotRoot) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  struct Accounts {
    uid_t real;
    uid_t effective;
    uid_t saved;
  };
  for (const Accounts& row :
       std::initializer_list<Accounts>{{1000, 0, 0}, {0, 1000, 0}, {0, 0, 1000}}) {
    ForkedChild child([&](EventChannel& parent) {
      const UniqueDescriptor file(open(kFile, O_RDONLY | O_CLOEXEC));
      const bool is_set = setresuid(row.real, row.effective, row.saved) == 0;
      parent.Send(is_set && flock(file.Get(), LOCK_EX | LOCK_NB) == 0 ? "held" : "failed");
      parent.Receive();
      return 0;
    });
    ASSERT_EQ(child.Channel().Receive(), "held");
    const std::vector<LockHolder> holders = HoldersOf(kFile);
    ASSERT_EQ(holders.size(), 1U);
    EXPECT_FALSE(holders[0].is_roots) << row.real << ' ' << row.effective << ' ' << row.saved;
    child.Process().Signal(SIGKILL);
    child.Process().Wait();
  }
}

TEST_F(LockHolderTest, IsKnownToWhoMayNotOpenTheFile) {
  if (!tolm::testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << tolm::testing::kNoOrdinaryAccount;
  }
  ASSERT_EQ(chmod(kFile, 0600), 0);
  Holder holder(LOCK_EX);
  ASSERT_TRUE(holder.Holds());
  EXPECT_EQ(tolm::testing::CallAsOrdinaryAccount([] { return IsHeld(kFile) ? 0 : 1; }), 0);
  EXPECT_EQ(tolm::testing::CallAsOrdinaryAccount(
                [] { return IsHeld("/run/data_update/missing.lock") ? 0 : 1; }),
            1);
}

TEST_F(LockHolderTest, IsAddedToTheLibrarysMessage) {
  const std::string message = std::string("Fail to full update: Fail to lock ") + kFile;
  EXPECT_EQ(WithLockHolder(message), message);
  Holder holder(LOCK_EX);
  ASSERT_TRUE(holder.Holds());
  const std::string explained =
      message + " (held by process " + std::to_string(holder.Pid()) + ", backup)";
  EXPECT_EQ(WithLockHolder(message), explained);
  EXPECT_EQ(WithLockHolder(explained), explained);
  EXPECT_EQ(WithLockHolder("Fail open lock file x"), "Fail open lock file x");
}

TEST_F(LockHolderTest, EveryHolderIsAddedToTheLibrarysMessage) {
  Holder one(LOCK_SH);
  ASSERT_TRUE(one.Holds());
  Holder other(LOCK_SH);
  ASSERT_TRUE(other.Holds());
  const auto [first, second] = std::minmax({one.Pid(), other.Pid()});
  const std::string message = std::string("Fail to lock ") + kFile;
  EXPECT_EQ(WithLockHolder(message), message + " (held by process " + std::to_string(first) +
                                         ", backup; process " + std::to_string(second) +
                                         ", backup)");
}

}  // namespace
}  // namespace tolm::operation

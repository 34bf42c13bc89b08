#include "operation/cool_down.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "base/paths.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::WriteFile;

constexpr std::int64_t kStart = 1795255200;
constexpr std::int64_t kFirst = 900;
constexpr std::int64_t kLongest = 28800;
const std::string kAside = std::string(paths::kCoolDowns) + ".aside";

class CoolDownTest : public ::testing::Test {
 protected:
  // A new object, as a new process has it.
  CoolDown Of(const std::string& server) {
    return CoolDown(
        server, CoolDownTimes(), [this] { return now_; }, [this] { return chance_; });
  }
  CoolDown Server() { return Of("example.org:80"); }

  void Fail() { Server().BeginAttempt(); }

  // For how long a scheduled run is held back from now on.
  std::int64_t Wait() {
    const auto held = Server().Ask();
    return held ? held->until - now_ : 0;
  }

  std::int64_t now_ = kStart;
  double chance_ = 1;
};

TEST_F(CoolDownTest, NobodyIsHeldBackInTheBeginning) {
  EXPECT_FALSE(Server().Ask());
  EXPECT_FALSE(fs::exists(paths::kCoolDowns));
}

TEST_F(CoolDownTest, AttemptCountsAsAFailureUntilItSucceeds) {
  CoolDown server = Server();
  server.BeginAttempt();
  const auto held = Server().Ask();
  ASSERT_TRUE(held);
  EXPECT_EQ(held->failures, 1);
  EXPECT_EQ(held->until, kStart + kFirst);
  server.Succeed();
  EXPECT_FALSE(Server().Ask());
}

TEST_F(CoolDownTest, WaitEndsAtItsTime) {
  Fail();
  now_ += kFirst - 1;
  EXPECT_TRUE(Server().Ask());
  now_ += 1;
  EXPECT_FALSE(Server().Ask());
}

TEST_F(CoolDownTest, WaitsDoubleUpToTheLongest) {
  const std::vector<std::int64_t> waits = {900, 1800, 3600, 7200, 14400, 28800, 28800, 28800};
  for (const std::int64_t wait : waits) {
    Fail();
    EXPECT_EQ(Wait(), wait);
    now_ += wait;
    EXPECT_EQ(Wait(), 0);
  }
}

TEST_F(CoolDownTest, ChanceChoosesBetweenHalfOfTheWaitAndAllOfIt) {
  chance_ = 0;
  Fail();
  EXPECT_EQ(Wait(), kFirst / 2);
  chance_ = 0.5;
  Fail();
  EXPECT_EQ(Wait(), 2 * kFirst * 3 / 4);
}

TEST_F(CoolDownTest, ManyFailuresDoNotOverflow) {
  WriteFile(paths::kCoolDowns, R"({"format":1,"servers":{"example.org:80":{"failures":2147483647,
    "attempted":1795255000,"until":1795255100,"asked":false}}})");
  EXPECT_EQ(Wait(), 0);
  Fail();
  EXPECT_EQ(Wait(), kLongest);
}

TEST_F(CoolDownTest, SuccessBeginsAnew) {
  Fail();
  Fail();
  Fail();
  Server().Succeed();
  Fail();
  EXPECT_EQ(Wait(), kFirst);
}

TEST_F(CoolDownTest, WithdrawnAttemptLeavesAllAsItWas) {
  Fail();
  const std::string before = ReadFile(paths::kCoolDowns);
  now_ += 10;
  CoolDown server = Server();
  server.BeginAttempt();
  EXPECT_NE(ReadFile(paths::kCoolDowns), before);
  server.Withdraw();
  EXPECT_EQ(ReadFile(paths::kCoolDowns), before);
  Server().Succeed();
  CoolDown fresh = Server();
  fresh.BeginAttempt();
  fresh.Withdraw();
  EXPECT_FALSE(Server().Ask());
}

TEST_F(CoolDownTest, OnlyTheFirstToAskIsTheFirst) {
  Fail();
  EXPECT_TRUE(Server().Ask()->first_asked);
  EXPECT_FALSE(Server().Ask()->first_asked);
  now_ += kFirst;
  Fail();
  EXPECT_TRUE(Server().Ask()->first_asked);
}

TEST_F(CoolDownTest, ServersAreIndependent) {
  Fail();
  EXPECT_FALSE(Of("other.org:80").Ask());
  Of("other.org:80").BeginAttempt();
  Server().Succeed();
  EXPECT_TRUE(Of("other.org:80").Ask());
}

TEST_F(CoolDownTest, ServerThatNobodyAsksAnyMoreIsForgotten) {
  Of("old.org:80").BeginAttempt();
  now_ += 31 * 24 * 3600;
  Fail();
  EXPECT_EQ(ReadFile(paths::kCoolDowns).find("old.org"), std::string::npos);
}

TEST_F(CoolDownTest, ClockThatWasPutBackBeginsTheWaitAnewOnce) {
  Fail();
  now_ -= 365 * 24 * 3600;
  EXPECT_EQ(Wait(), kFirst);
  now_ += kFirst - 1;
  EXPECT_EQ(Wait(), 1);
  now_ += 1;
  EXPECT_EQ(Wait(), 0);
}

TEST_F(CoolDownTest, LookTellsWhoIsHeldBackAndChangesNothing) {
  const auto look = [this] { return CoolDown::LookForAll(CoolDownTimes(), now_); };
  EXPECT_TRUE(look().empty());
  Fail();
  Of("a:80").BeginAttempt();
  Of("z:80").Succeed();
  const std::string before = ReadFile(paths::kCoolDowns);
  ASSERT_EQ(look().size(), 2U);
  EXPECT_EQ(look()[0].server, "a:80");
  EXPECT_EQ(look()[1].server, "example.org:80");
  EXPECT_EQ(look()[1].failures, 1);
  EXPECT_EQ(look()[1].until, kStart + kFirst);
  now_ += kFirst;
  EXPECT_TRUE(look().empty());
  EXPECT_EQ(ReadFile(paths::kCoolDowns), before);
  WriteFile(paths::kCoolDowns, "{");
  EXPECT_TRUE(look().empty());
  EXPECT_FALSE(fs::exists(kAside));
}

TEST_F(CoolDownTest, FileThatCannotBeReadStaysAndIsNamed) {
  fs::create_directories(fs::path(paths::kCoolDowns).parent_path());
  fs::create_symlink("/proc/self/mem", paths::kCoolDowns);  // Nothing is at its beginning.
  try {
    Of("a:80").BeginAttempt();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(),
              std::string(paths::kCoolDowns) + ": cannot be read: Input/output error");
  }
  EXPECT_TRUE(fs::is_symlink(paths::kCoolDowns));
  EXPECT_FALSE(fs::exists(kAside));
}

TEST_F(CoolDownTest, DamagedFileIsSetAsideAndCountsAsNone) {
  for (const std::string damaged :
       {"", "{", "[]", "7", "\"x\"", "null", R"({"format":1})", R"({"format":2,"servers":{}})",
        R"({"format":1,"servers":[]})", R"({"format":1,"servers":"x"})"}) {
    WriteFile(paths::kCoolDowns, damaged);
    EXPECT_FALSE(Server().Ask()) << damaged;
    EXPECT_EQ(ReadFile(kAside), damaged);
    EXPECT_FALSE(fs::exists(paths::kCoolDowns)) << damaged;
    Fail();
    EXPECT_TRUE(Server().Ask()) << damaged;
  }
}

TEST_F(CoolDownTest, FileCutOffAtAnyByteHoldsNobodyForLongerThanTheLongest) {
  Fail();
  const std::string whole = ReadFile(paths::kCoolDowns);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    WriteFile(paths::kCoolDowns, whole.substr(0, size));
    EXPECT_LE(Wait(), kLongest) << size;
    Fail();
    EXPECT_GT(Wait(), 0) << size;
  }
}

TEST_F(CoolDownTest, DamagedEntryHoldsNobodyForLongerThanTheLongest) {
  for (const std::string damaged :
       {R"("x")", "[]", "{}", "null", R"({"failures":"1","attempted":0,"until":0,"asked":false})",
        R"({"failures":1,"attempted":1e300,"until":0,"asked":false})",
        R"({"failures":-5,"attempted":-1,"until":9223372036854775807,"asked":false})",
        R"({"failures":1,"attempted":1795255100,"until":9223372036854775807,"asked":false})",
        R"({"failures":1,"attempted":9223372036854775807,"until":0,"asked":false})",
        R"({"failures":1,"attempted":9000000000,"until":9000000900,"asked":false})"}) {
    WriteFile(paths::kCoolDowns, R"({"format":1,"servers":{"example.org:80":)" + damaged + "}}");
    now_ = kStart;
    const std::int64_t wait = Wait();
    EXPECT_LE(wait, kLongest) << damaged;
    now_ += wait;
    EXPECT_EQ(Wait(), 0) << damaged;
    Fail();
    EXPECT_GT(Wait(), 0) << damaged;
  }
}

TEST_F(CoolDownTest, OthersAreForgottenAfterThirtyDaysAndWhenDamaged) {
  const std::string old =
      R"({"failures":1,"attempted":)" + std::to_string(kStart) + R"(,"until":0,"asked":false})";
  WriteFile(paths::kCoolDowns,
            R"({"format":1,"servers":{"a:80":"x","b:80":[],"c:80":{},"d:80":{"attempted":"x"},)"
            R"("old.org:80":)" +
                old + "}}");
  now_ = kStart + 30 * 24 * 3600;
  Fail();
  const std::string on_the_last_second = ReadFile(paths::kCoolDowns);
  for (const char* damaged : {"a:80", "b:80", "c:80", "d:80"}) {
    EXPECT_EQ(on_the_last_second.find(damaged), std::string::npos) << damaged;
  }
  EXPECT_NE(on_the_last_second.find("old.org"), std::string::npos);
  now_ += 1;
  Fail();
  EXPECT_EQ(ReadFile(paths::kCoolDowns).find("old.org"), std::string::npos);
}

TEST_F(CoolDownTest, EntryWithAMemberThatIsNoneHoldsNobody) {
  for (const std::string damaged :
       {R"({"failures":"x","attempted":1795255200,"until":1795255300,"asked":false})",
        R"({"failures":1,"attempted":"x","until":1795255300,"asked":false})",
        R"({"failures":1,"attempted":1795255200,"until":"x","asked":false})",
        R"({"failures":1,"attempted":1795255200,"until":1795255300,"asked":"x"})"}) {
    WriteFile(paths::kCoolDowns, R"({"format":1,"servers":{"example.org:80":)" + damaged + "}}");
    EXPECT_EQ(Wait(), 0) << damaged;
  }
}

// A clock without a battery begins in 1970.
TEST_F(CoolDownTest, TimesThatCannotBeCountAsTheLongestWait) {
  struct Row {
    std::int64_t attempted;
    std::int64_t until;
    std::int64_t wait;
  };
  now_ = 100;
  for (const Row& row : {Row{-5, 50, kLongest - 100}, Row{90, 80, kLongest - 10}, Row{0, 50, 0},
                         Row{90, 90, 0}, Row{90, 140, 40}, Row{0, kLongest, kLongest - 100}}) {
    WriteFile(paths::kCoolDowns, R"({"format":1,"servers":{"example.org:80":{"failures":1,)"
                                 R"("asked":false,"attempted":)" +
                                     std::to_string(row.attempted) +
                                     ",\"until\":" + std::to_string(row.until) + "}}}");
    EXPECT_EQ(Wait(), row.wait) << row.attempted << ' ' << row.until;
  }
}

TEST_F(CoolDownTest, AttemptThatCannotBeWrittenDownIsAnError) {
  fs::create_directories("/var/lib/data_update");
  const testing::ScopedMount read_only = testing::ScopedMount::ReadOnly("/var/lib/data_update");
  EXPECT_THROW(Fail(), std::system_error);
}

TEST_F(CoolDownTest, FailedWritingLeavesTheOldFile) {
  Fail();
  const std::string before = ReadFile(paths::kCoolDowns);
  fs::create_directory(std::string(paths::kCoolDowns) + ".new");
  EXPECT_THROW(Fail(), std::system_error);
  EXPECT_EQ(ReadFile(paths::kCoolDowns), before);
}

TEST(ServerOfTest, NamesHostAndPort) {
  EXPECT_EQ(ServerOf("http", "Updates.Example.org"), "updates.example.org:80");
  EXPECT_EQ(ServerOf("https", "example.org"), "example.org:443");
  EXPECT_EQ(ServerOf("https", "example.org:8443"), "example.org:8443");
  EXPECT_EQ(ServerOf("http", "user:secret@example.org"), "example.org:80");
  EXPECT_EQ(ServerOf("http", "[::1]"), "[::1]:80");
  EXPECT_EQ(ServerOf("http", "[::1]:8080"), "[::1]:8080");
}

// The machine's own clock and chance.
TEST(MachineCoolDownTest, WaitLiesInItsRange) {
  for (int i = 0; i < 20; ++i) {
    const std::int64_t before = std::time(nullptr);
    CoolDown server("example.org:80");
    server.BeginAttempt();
    const auto held = server.Ask();
    ASSERT_TRUE(held);
    EXPECT_GE(held->until, before + kFirst / 2);
    EXPECT_LE(held->until, std::time(nullptr) + kFirst);
    server.Succeed();
  }
}

}  // namespace
}  // namespace tolm::operation

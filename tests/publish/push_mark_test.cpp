#include "publish/push_mark.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "publish/json_object.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/fake_rclone.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/told_time.h"
#include "tests/support/wait.h"

namespace {

using Moment = timespec;

std::atomic<int> seconds_to_pass{0};
std::atomic<int> waits{0};
// Of a thread that was told that so much has passed.
thread_local int passed_seconds = 0;

}  // namespace

#pragma GCC visibility push(default)  // The standard library calls it.
extern "C" int clock_gettime(clockid_t clock, Moment* time) noexcept {
  const int result = static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  time->tv_sec += passed_seconds;
  return result;
}
#pragma GCC visibility pop

// Wakes up often, to see whether time is to pass for whoever waits.
extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      clockid_t clock, const Moment* /*until*/) {
  using Call = int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const Moment*);
  static auto* const real = reinterpret_cast<Call*>(dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
  ++waits;
  for (;;) {
    Moment soon{};
    ::syscall(SYS_clock_gettime, clock, &soon);
    soon.tv_nsec += 2'000'000;
    soon.tv_sec += soon.tv_nsec / 1'000'000'000;
    soon.tv_nsec %= 1'000'000'000;
    if (real(condition, mutex, clock, &soon) == 0) {
      return 0;
    }
    if (const int seconds = seconds_to_pass.exchange(0); seconds != 0) {
      passed_seconds += seconds;
      return ETIMEDOUT;
    }
  }
}

namespace tolm::testing {
namespace {

using publish::PushMark;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A folder as a remote, and the mark in it.
class PushMarkTest : public ::testing::Test {
 protected:
  PushMarkTest() { std::filesystem::create_directory(directory_.Path() / "store"); }

  void Write(const std::string& id, const std::string& owner, std::int64_t expires) const {
    WriteFile(file_, R"({"format": 1, "id": ")" + id + R"(", "owner": ")" + owner +
                         R"(", "since": 1700000000, "expires": )" + std::to_string(expires) + '}');
  }
  /// Takes the mark, and says what was noted.
  std::vector<std::string> Take(bool taken_over = false) const {
    std::vector<std::string> notes;
    const PushMark mark(remote_, {"id", "here"}, taken_over,
                        [&notes](const std::string& note) { notes.push_back(note); });
    return notes;
  }
  std::string Name() const { return remote_.Name(); }

  TemporaryDirectory directory_;
  const publish::Remote remote_{directory_.Path() / "store"};
  const std::string file_ = directory_.Path() / "store" / publish::kPushMark;
  // 2100-01-01: whatever the clock of this machine says.
  static constexpr std::int64_t kLate = 4102444800;
};

TEST_F(PushMarkTest, SaysWhoHoldsItAndForHowLongAndIsGoneAfterwards) {
  const std::int64_t before = std::time(nullptr);
  {
    PushMark mark(remote_, {"id", "here"}, false, [](const std::string&) {});
    const Json::Value value = publish::ParseJson(ReadFile(file_), "mark");
    EXPECT_EQ(value.getMemberNames(),
              (std::vector<std::string>{"expires", "format", "id", "owner", "since"}));
    EXPECT_EQ(value["format"].asInt(), 1);
    EXPECT_EQ(value["id"].asString(), "id");
    EXPECT_EQ(value["owner"].asString(), "here");
    EXPECT_GE(value["since"].asInt64(), before);
    EXPECT_LE(value["since"].asInt64(), std::time(nullptr));
    EXPECT_EQ(value["expires"].asInt64(), value["since"].asInt64() + 900);
    EXPECT_NO_THROW(mark.Confirm());
  }
  EXPECT_THAT(ReadTree(directory_.Path() / "store"), IsEmpty());
}

TEST_F(PushMarkTest, SomebodyElsesThatCountsIsHeededOrTakenOver) {
  const std::string sentence =
      Name() + ": another push to it is at work, from there, since 2023-11-14 22:13 UTC";
  for (const auto& [id, owner] : {std::make_pair("other", "there"), {"id", "there"}}) {
    Write(id, owner, kLate);
    ExpectError([&] { Take(); }, sentence +
                                     "; if it was ended, its mark counts until 2100-01-01 00:00 "
                                     "UTC, or insist by --yes");
    EXPECT_TRUE(std::filesystem::exists(file_)) << "it stays its holder's";
  }
  EXPECT_THAT(Take(true), ElementsAre(sentence + "; it is not waited for"));
  EXPECT_FALSE(std::filesystem::exists(file_));
  Write("other", "here", kLate);
  EXPECT_THROW(Take(), publish::Error) << "of another repository of this machine";
}

TEST_F(PushMarkTest, CountsForNothingWhenItIsItsOwnOrOverOrNone) {
  Write("id", "here", kLate);
  EXPECT_THAT(Take(), IsEmpty());
  Write("other", "there", 1700000900);
  EXPECT_THAT(Take(), IsEmpty());
  for (const char* text : {"", "{\"form", "[]", R"({"id": "a", "owner": "b", "since": 1})"}) {
    WriteFile(file_, text);
    EXPECT_THAT(Take(), IsEmpty()) << text;
  }
}

TEST_F(PushMarkTest, CountsUpToTheSecondThatItNames) {
  test_time = 1700001000;
  Write("other", "there", 1700001000);
  EXPECT_THAT(Take(), IsEmpty());
  Write("other", "there", 1700001001);
  EXPECT_THROW(Take(), publish::Error);
  test_time = 0;
}

TEST_F(PushMarkTest, PushWhoseMarkIsAnothersNowDoesNotGoOnAndLeavesIt) {
  for (const auto& [id, owner] :
       {std::make_pair("other", "there"), {"other", "here"}, {"id", "there"}}) {
    {
      PushMark mark(remote_, {"id", "here"}, false, [](const std::string&) {});
      Write(id, owner, kLate);
      ExpectError([&] { mark.Confirm(); },
                  Name() + ": another push to it has begun at the same time");
    }
    EXPECT_TRUE(std::filesystem::exists(file_));
    std::filesystem::remove(file_);
  }
  PushMark mark(remote_, {"id", "here"}, false, [](const std::string&) {});
  std::filesystem::remove(file_);
  ExpectError([&] { mark.Confirm(); }, Name() + ": another push to it has begun at the same time");
}

TEST_F(PushMarkTest, IsRenewedFourTimesInItsTimeAsLongAsItIsItsHolders) {
  // What is there after so much has passed for whoever renews it.
  const auto after = [this](int seconds) {
    const int before = waits;
    seconds_to_pass = seconds;
    EXPECT_TRUE(WaitUntil([&] { return waits > before; }));
    const Json::Value value = publish::ParseJson(ReadFile(file_), "mark");
    return value["id"].asString() + ' ' + value["expires"].asString();
  };
  test_time = 1700001000;
  PushMark mark(remote_, {"id", "here"}, false, [](const std::string&) {});
  ASSERT_TRUE(WaitUntil([&] { return waits > 0; }));
  Write("id", "here", 5);
  EXPECT_EQ(after(222), "id 5") << "it is not time yet";
  after(3);
  const Json::Value renewed = publish::ParseJson(ReadFile(file_), "mark");
  EXPECT_EQ(renewed["owner"].asString(), "here");
  EXPECT_EQ(renewed["since"].asInt64(), 1700001000);
  EXPECT_EQ(renewed["expires"].asInt64(), 1700001900);
  Write("id", "here", 6);
  EXPECT_EQ(after(225), "id 1700001900") << "and again";
  Write("other", "there", 7);
  EXPECT_EQ(after(225), "other 7");
  // A store that cannot be used for a while ends nothing.
  std::filesystem::rename(directory_.Path() / "store", directory_.Path() / "away");
  WriteFile(directory_.Path() / "store", "no directory");
  const int rounds = waits;
  seconds_to_pass = 225;
  EXPECT_TRUE(WaitUntil([&] { return waits > rounds; }));
  std::filesystem::remove(directory_.Path() / "store");
  std::filesystem::rename(directory_.Path() / "away", directory_.Path() / "store");
  Write("id", "here", 8);
  EXPECT_EQ(after(225), "id 1700001900");
  EXPECT_NO_THROW(mark.Confirm());
  test_time = 0;
}

TEST_F(PushMarkTest, PushIsOverBeforeItBeginsWhenAnotherMarkIsThereAfterItsOwn) {
  const FakeRclone rclone(R"(case "$1" in
  backend) echo '{"Features": {"IsLocal": false, "BucketBased": true, "Move": false}}' ;;
  copyto) touch /tmp/fakes/brought ;;
  cat) [ -e /tmp/fakes/brought ] || exit 3
       echo '{"id": "other", "owner": "there", "since": 1, "expires": 4102444800}' ;;
esac
)");
  publish::Remote remote("store:");
  remote.UseWork(directory_.Path());
  ExpectError(
      [&] {
        PushMark(remote, {"id", "here"}, false, [](const std::string&) {});
      },
      "store:: another push to it has begun at the same time");
}

}  // namespace
}  // namespace tolm::testing

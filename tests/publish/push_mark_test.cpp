#include "publish/push_mark.h"

#include <gmock/gmock.h>

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

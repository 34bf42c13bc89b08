#include "operation/trust_state.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "operation/service.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

const std::filesystem::path kState = "/var/lib/data_update/trust.json";
const std::filesystem::path kAside = "/var/lib/data_update/trust.json.aside";

TEST(TrustStateTest, DatabaseHasNoFloorBeforeItIsInstalled) {
  EXPECT_EQ(FloorOf("oui"), kNeverInstalled);
  EXPECT_FALSE(std::filesystem::exists(kState));
}

TEST(TrustStateTest, FloorIsRaisedAndNotLoweredByWhatIsInstalled) {
  RaiseFloor("oui", 5);
  RaiseFloor("oui", 3);
  RaiseFloor("geo", 2);
  EXPECT_EQ(FloorOf("oui"), 5);
  EXPECT_EQ(FloorOf("geo"), 2);
  SetFloor("oui", 4);
  EXPECT_EQ(FloorOf("oui"), 4);
  EXPECT_EQ(FloorOf("geo"), 2);
}

TEST(TrustStateTest, FileIsForRootAlone) {
  SetFloor("oui", 1);
  struct stat status;
  ASSERT_EQ(stat(kState.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

// A disk that does not give it once may give it the next time.
TEST(TrustStateTest, FileThatCannotBeReadIsNotSetAsideAndStandsForNothing) {
  std::filesystem::create_directories(kState.parent_path());
  std::filesystem::create_symlink("/proc/self/mem", kState);  // Nothing is at its beginning.
  const auto why = [](const auto& action) -> std::string {
    try {
      action();
    } catch (const std::exception& error) {
      return error.what();
    }
    return "nothing";
  };
  const std::string expected = kState.string() + ": cannot be read: Input/output error";
  EXPECT_EQ(why([] { FloorOf("oui"); }), expected);
  EXPECT_EQ(why([] { RaiseFloor("oui", 1); }), expected);
  EXPECT_EQ(why([] { NoteInstalled("oui", 1, true); }), expected);
  EXPECT_EQ(why([] { ReadSignedState(); }), expected);
  EXPECT_EQ(why([] { SignedStateToJudgeBy(); }), expected);
  EXPECT_EQ(LookForFloor("oui"), std::nullopt);
  EXPECT_TRUE(std::filesystem::is_symlink(kState));
  EXPECT_FALSE(std::filesystem::exists(kAside));
}

TEST(TrustStateTest, ChangesOfManyProcessesAreAllThere) {
  constexpr int kProcesses = 4;
  constexpr int kChanges = 25;
  const auto name_of = [](int process) { return "database" + std::to_string(process); };
  {
    std::vector<std::unique_ptr<testing::ForkedChild>> children;
    for (int process = 0; process < kProcesses; ++process) {
      children.push_back(std::make_unique<testing::ForkedChild>([&](testing::EventChannel&) {
        for (int i = 1; i <= kChanges; ++i) {
          RaiseFloor(name_of(process), i);
          if (process == 0) {
            offer::Acceptance acceptance;
            acceptance.accepted.repository = "r";
            acceptance.accepted.counter = static_cast<std::uint64_t>(i);
            RememberAccepted(acceptance, {});
          }
        }
        return 0;
      }));
    }
    for (const auto& child : children) {
      EXPECT_EQ(child->Process().Wait(), 0);
    }
  }
  for (int process = 0; process < kProcesses; ++process) {
    EXPECT_EQ(FloorOf(name_of(process)), kChanges);
  }
  EXPECT_EQ(ReadSignedState().accepted.counter, std::uint64_t{kChanges});
}

TEST(TrustStateTest, NewerSignerLowersFloorsAndAuthorizesWhatIsLowerThanInstalled) {
  SetFloor("high", 9);
  SetFloor("low", 3);
  offer::Acceptance acceptance;
  acceptance.accepted.repository = "r";
  const std::map<std::string, OfferedVersion> offered = {
      {"high", {5, 9}}, {"low", {5, 3}}, {"unknown", {5, 7}}, {"none", {5, kNeverInstalled}}};
  RememberAccepted(acceptance, offered);
  EXPECT_EQ(FloorOf("high"), 9) << "only where the signer is newer";
  EXPECT_TRUE(ReadSignedState().is_wanted);
  acceptance.is_newer_epoch = true;
  RememberAccepted(acceptance, offered);
  EXPECT_EQ(FloorOf("high"), 5);
  EXPECT_EQ(LookForAuthorized("high"), 5);
  EXPECT_EQ(FloorOf("low"), 3);
  EXPECT_EQ(LookForAuthorized("low"), std::nullopt);
  EXPECT_EQ(LookForAuthorized("unknown"), 5);
  EXPECT_EQ(LookForAuthorized("none"), std::nullopt);
  NoteInstalled("high", 6, false);
  EXPECT_EQ(FloorOf("high"), 6);
  EXPECT_EQ(LookForAuthorized("high"), std::nullopt);
  NoteInstalled("high", 2, true);
  EXPECT_EQ(FloorOf("high"), 2);
  ForgetSignedDescriptions();
  EXPECT_FALSE(ReadSignedState().is_wanted);
  EXPECT_EQ(FloorOf("high"), 2);
  EXPECT_EQ(LookForAuthorized("unknown"), std::nullopt) << "another repository has not said so";
}

TEST(TrustStateTest, OfTwoNewerSignersTheNewestAuthorizes) {
  offer::Acceptance acceptance;
  acceptance.accepted.repository = "r";
  acceptance.is_newer_epoch = true;
  RememberAccepted(acceptance, {{"again", {5, 9}}});
  ASSERT_EQ(LookForAuthorized("again"), 5);
  RememberAccepted(acceptance, {{"again", {9, 9}}});
  EXPECT_EQ(LookForAuthorized("again"), std::nullopt);
  RememberAccepted(acceptance, {{"again", {5, 9}}});
  RememberAccepted(acceptance, {{"again", {5, 5}}});
  EXPECT_EQ(LookForAuthorized("again"), std::nullopt) << "it has been installed meanwhile";
  SetFloor("again", 9);
  RememberAccepted(acceptance, {{"again", {5, 5}}});
  EXPECT_EQ(FloorOf("again"), 5);
  EXPECT_EQ(LookForAuthorized("again"), std::nullopt) << "what is installed needs no permission";
}

TEST(TrustStateTest, DamagedFileIsSetAside) {
  for (const char* damaged :
       {"{", "[]", R"({"format": 2, "databases": {}})", R"({"format": 1, "databases": []})",
        R"({"format": 1, "databases": {"oui": 5}})",
        R"({"format": 1, "databases": {"oui": {"floor": "5"}}})",
        R"({"format": 1, "databases": {}, "accepted": {"repository": "r"}})",
        R"({"format": 1, "databases": {}, "accepted": {"repository": 1, "epoch": 1, "counter": 1,
            "digest": "d", "issued": 1, "expires": 1}})",
        R"({"format": 1, "databases": {}, "accepted": {"repository": "r", "epoch": "1",
            "counter": 1, "digest": "d", "issued": 1, "expires": 1}})",
        R"({"format": 1, "databases": {}, "accepted": {"repository": "r", "epoch": 1,
            "counter": -1, "digest": "d", "issued": 1, "expires": 1}})",
        R"({"format": 1, "databases": {}, "accepted": {"repository": "r", "epoch": 1,
            "counter": 1, "digest": 1, "issued": 1, "expires": 1}})",
        R"({"format": 1, "databases": {}, "accepted": {"repository": "r", "epoch": 1,
            "counter": 1, "digest": "d", "issued": 1.5, "expires": 1}})",
        R"({"format": 1, "databases": {}, "accepted": {"repository": "r", "epoch": 1,
            "counter": 1, "digest": "d", "issued": 1, "expires": "1"}})",
        R"({"format": 1, "databases": {}, "signed_wanted": 1})"}) {
    testing::WriteFile(kState, damaged);
    std::filesystem::remove(kAside);
    EXPECT_EQ(LookForFloor("oui"), std::nullopt) << damaged;
    EXPECT_FALSE(std::filesystem::exists(kAside)) << "a look changes nothing";
    EXPECT_EQ(FloorOf("oui"), kNeverInstalled) << damaged;
    EXPECT_EQ(testing::ReadFile(kAside), damaged);
  }
}

}  // namespace
}  // namespace tolm::operation

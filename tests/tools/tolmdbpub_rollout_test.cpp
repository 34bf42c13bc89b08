// The installed publisher, and versions that do not reach all devices at once.

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <set>

#include "tests/support/http_server.h"
#include "tests/support/noise.h"
#include "tests/support/shifted_clock.h"
#include "tests/tools/device.h"
#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;
constexpr char kStages[] = "1%/6h,10%/18h,100%";
using Names = std::vector<std::string>;

class RolloutCommandTest : public RepositoryTest {
 protected:
  void SetUp() override {
    RepositoryTest::SetUp();
    noise_ = Noise(20000, 1);
  }

  // A small delta leads from each to the next.
  Tree Version(int number) const { return {{"n", std::to_string(number)}, {"noise", noise_}}; }

  void MustStage(int number, const std::string& stages = kStages) const {
    MustRelease(Version(number), {"--stages", stages});
  }

  // 1000001 and 1000002 for all, 1000003 by stages.
  void MakeStaged(const std::string& stages = kStages) const {
    MustRelease(Version(1));
    MustRelease(Version(2));
    MustStage(3, stages);
  }

  static CommandResult Rollout(const std::string& command, const Names& options = {}) {
    return PubAt(0, WithOptions({"rollout", command, repo_, "oui"}, options));
  }

  static Names WithOptions(Names command, const Names& options) {
    command.insert(command.end(), options.begin(), options.end());
    return command;
  }

  /// As Pub(), by a clock that is ahead.
  static CommandResult PubAt(std::int64_t seconds, const Names& arguments) {
    CommandOptions later;
    if (seconds != 0) {
      later.environment = EnvironmentAt(std::time(nullptr) + seconds);
    }
    return RunCommand(WithOptions({kPub}, arguments), later);
  }

  static Json::Value SignedOui() {
    std::istringstream in(Description()["signed"].asString());
    Json::Value value;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr));
    return value["databases"]["oui"];
  }
  static Json::Value Plan() { return SignedOui()["next"]["plan"]; }
  static Json::Value Legacy() { return Description()["db_list"]["oui"]; }
  static Json::Value Database() { return Catalog()["databases"]["oui"]; }

  static void ExpectSound() {
    const CommandResult check = Pub({"check", repo_});
    EXPECT_EQ(check.exit_status, 0) << check.err;
  }

  static void Keep(const fs::path& as) {
    fs::remove_all(as);
    fs::copy(repo_, as, fs::copy_options::recursive);
  }
  static void Restore(const fs::path& from) {
    fs::remove_all(repo_);
    fs::copy(from, repo_, fs::copy_options::recursive);
  }

  std::string noise_;
};

TEST_F(RolloutCommandTest, StagedReleaseIsTheNextOneAndTheStableOneStays) {
  MustRelease(Version(1));
  MustRelease(Version(2));
  const Json::Value before = Legacy();
  const Json::Value stable = SignedOui();
  EXPECT_EQ(Catalog()["format"], 3);
  const CommandResult tried = Release(Version(3), {"--stages", kStages, "--dry-run"});
  EXPECT_THAT(tried.out,
              AllOf(HasSubstr("oui 1000003 would be released"),
                    HasSubstr("  rollout       1000003 is offered to 1 % of the devices")));
  EXPECT_EQ(SignedOui(), stable);
  const CommandResult staged = Release(Version(3), {"--stages", kStages});
  EXPECT_EQ(staged.exit_status, 0) << staged.err;
  EXPECT_EQ(staged.err,
            "tolmdbpub: note: a step of 6 h is shorter than a day: devices with the shipped timer "
            "ask once a day, so only some of those that it reaches take this version before the "
            "next step begins\n");
  EXPECT_THAT(staged.out,
              AllOf(HasSubstr("  rollout       1000003 is offered to 1 % of the devices, to 10 % "
                              "from "),
                    HasSubstr("; the stable version is 1000002\n"), HasSubstr("with 1000002  "),
                    HasSubstr("with 1000001  "), HasSubstr("2 deltas, together")));
  EXPECT_EQ(Legacy(), before);
  Json::Value signed_text = SignedOui();
  const Json::Value next = signed_text["next"];
  signed_text.removeMember("next");
  EXPECT_EQ(signed_text, stable);
  EXPECT_EQ(next["version"], 1000003);
  EXPECT_EQ(next["last_fetch_time"], Database()["last_fetch_time"]);
  EXPECT_EQ(next["full"]["link"], "packages/oui/oui_v1000003");
  EXPECT_EQ(next["deltas"].getMemberNames(), Names{"1000003"});
  EXPECT_EQ(next["plan"]["steps"].size(), 3u);
  EXPECT_EQ(next["plan"]["steps"][1]["share"], 1000);
  EXPECT_EQ(next["plan"]["steps"][1]["seconds"], 18 * kHour);
  EXPECT_FALSE(next["plan"]["stopped"].asBool());
  EXPECT_NEAR(static_cast<double>(next["plan"]["start"].asInt64()),
              static_cast<double>(std::time(nullptr)), 60);
  EXPECT_EQ(Catalog()["format"], 4);
  const CommandResult check = Pub({"check", repo_});
  EXPECT_EQ(check.exit_status, 0) << check.err;
  EXPECT_THAT(check.err, HasSubstr("note: oui 1000003 is offered to 1 % of the devices"));
  EXPECT_THAT(check.out, HasSubstr("2 deltas replayed"));
  EXPECT_THAT(Pub({"list", repo_}).out, HasSubstr("oui\n  1000003 is offered to 1 % of "));
  EXPECT_EQ(Release(Version(3)).out, "oui 1000003 is released already with this content\n");
}

TEST_F(RolloutCommandTest, StepsOfDaysAreNothingToNote) {
  MustRelease(Version(1));
  EXPECT_EQ(Release(Version(2), {"--stages", "1%/1d,10%/2d,100%", "--dry-run"}).err, "");
  EXPECT_EQ(Release(Version(2), {"--stages", "5%", "--dry-run"}).err, "");
}

TEST_F(RolloutCommandTest, ShowTellsPeopleAndPrograms) {
  MustRelease(Version(1));
  EXPECT_EQ(Pub({"rollout", "show", repo_}).out, "no rollout is open\n");
  EXPECT_EQ(Rollout("show").out, "oui: no rollout is open; all devices are offered 1000001\n");
  ExpectFailure(Pub({"rollout", "show", repo_, "geo"}), HasSubstr("geo"));
  EXPECT_EQ(ReadJson(repo_ / "state/catalog.json")["databases"]["oui"].isMember("rollout"), false);
  MustStage(2);
  EXPECT_THAT(Rollout("show").out,
              ::testing::MatchesRegex(
                  "oui 1000002 is offered to 1 % of the devices, to 10 % from .* UTC on; the "
                  "stable version is 1000001\n"
                  "      1 %  from .* UTC\n     10 %  from .* UTC\n    100 %  from .* UTC\n"));
  const auto parse = [](const std::string& text) {
    std::istringstream in(text);
    Json::Value value;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr)) << text;
    return value;
  };
  const Json::Value shown = parse(Pub({"rollout", "show", repo_, "--json"}).out);
  EXPECT_EQ(shown["format"], 1);
  ASSERT_EQ(shown["rollouts"].size(), 1u);
  EXPECT_EQ(shown["rollouts"][0]["name"], "oui");
  EXPECT_EQ(shown["rollouts"][0]["state"], "running");
  const Json::Value listed = parse(Pub({"list", repo_, "--json"}).out)["databases"][0];
  EXPECT_EQ(listed["newest"], 1000002);
  EXPECT_EQ(listed["stable"], 1000001);
  EXPECT_EQ(listed["rollout"]["share"], 100);
  ASSERT_EQ(Rollout("hold").exit_status, 0);
  EXPECT_THAT(Rollout("show").out, HasSubstr("    100 %  when it is resumed\n"));
}

// What each command says and does in each state.
TEST_F(RolloutCommandTest, EachCommandFitsTheState) {
  MustRelease(Version(1));
  Keep("/tmp/none");
  MustStage(2);
  Keep("/tmp/running");
  ASSERT_EQ(Rollout("hold").exit_status, 0);
  Keep("/tmp/held");
  ASSERT_EQ(Rollout("stop").exit_status, 0);
  Keep("/tmp/stopped");
  Restore("/tmp/none");
  MustStage(2, "100%");
  Keep("/tmp/last");
  struct Row {
    std::string state;
    std::string command;
    std::string failure;  // empty: it succeeds, and the plan is
    bool held = false;
    bool stopped = false;
  };
  const std::string none = "no rollout is open; all devices are offered 1000001";
  for (const Row& row : std::vector<Row>{
           {"none", "hold", none},
           {"none", "resume", none},
           {"none", "stop", none},
           {"none", "finish", none},
           {"running", "hold", "", true},
           {"running", "resume", "1000002 is not held"},
           {"running", "stop", "", true, true},
           {"running", "finish", ""},
           {"held", "hold", "1000002 is held already, since "},
           {"held", "resume", ""},
           {"held", "stop", "", true, true},
           {"held", "finish", ""},
           {"stopped", "hold", "1000002 is stopped already"},
           {"stopped", "resume",
            "1000002 was stopped; when it is good after all, --yes resumes it"},
           {"stopped", "resume --yes", ""},
           {"stopped", "stop", "1000002 is stopped already"},
           {"stopped", "finish",
            "1000002 was stopped, and would reach all devices; when it is good after all, --yes "
            "makes it the stable version; when it is not, \"tolmdbpub withdraw /tmp/repo oui "
            "1000002\" ends the rollout"},
           {"stopped", "finish --yes", ""},
           {"last", "hold", "100 % of the devices, so that holding it would change nothing"},
           {"last", "resume", "1000002 is not held"},
           {"last", "stop", "", true, true},
           {"last", "finish", ""}}) {
    SCOPED_TRACE(row.state + ", " + row.command);
    Restore("/tmp/" + row.state);
    const Json::Value legacy = Legacy();
    const std::string before = ReadFile(InPublic("database_info/1"));
    const std::string command = row.command.substr(0, row.command.find(' '));
    const CommandResult result =
        Rollout(command, row.command == command ? Names{} : Names{"--yes"});
    if (!row.failure.empty()) {
      ExpectFailure(result,
                    AllOf(HasSubstr("rollout " + command + " oui: "), HasSubstr(row.failure)));
      EXPECT_EQ(ReadFile(InPublic("database_info/1")), before);
      continue;
    }
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("they may use the one that they have for an hour\n"));
    if (command == "finish") {
      EXPECT_EQ(Legacy()["data_version"], "1000002");
      EXPECT_EQ(Legacy()["diff_files"].getMemberNames(), Names{"1000002"});
      EXPECT_FALSE(SignedOui().isMember("next"));
    } else {
      EXPECT_EQ(Legacy(), legacy);
      EXPECT_EQ(Plan().isMember("held"), row.held);
      EXPECT_EQ(Plan()["stopped"].asBool(), row.stopped);
    }
    EXPECT_EQ(Pub({"check", repo_, "--quick"}).exit_status, 0);
  }
}

TEST_F(RolloutCommandTest, ItGoesOnLaterByTheTimeForWhichItWasHeld) {
  MustRelease(Version(1));
  MustStage(2);
  const std::int64_t start = Plan()["start"].asInt64();
  const auto at = [](std::int64_t seconds, const Names& command) {
    const CommandResult result = PubAt(seconds, command);
    EXPECT_EQ(result.exit_status, 0) << result.err;
  };
  at(7 * kHour, {"rollout", "hold", repo_, "oui"});
  EXPECT_NEAR(static_cast<double>(Plan()["held"].asInt64() - start), 7 * kHour, 60);
  at(9 * kHour, {"rollout", "resume", repo_, "oui"});
  EXPECT_NEAR(static_cast<double>(Plan()["start"].asInt64() - start), 2 * kHour, 60);
  EXPECT_THAT(PubAt(9 * kHour, {"rollout", "show", repo_}).out,
              HasSubstr("offered to 10 % of the devices"));
  // Stopped while it is held, it goes on where it was held.
  at(10 * kHour, {"rollout", "hold", repo_, "oui"});
  at(20 * kHour, {"rollout", "stop", repo_, "oui"});
  at(30 * kHour, {"rollout", "resume", repo_, "oui", "--yes"});
  EXPECT_NEAR(static_cast<double>(Plan()["start"].asInt64() - start), 22 * kHour, 60);
  // By a clock that is behind, nothing is before its start.
  at(-5 * kHour, {"rollout", "hold", repo_, "oui"});
  EXPECT_EQ(Plan()["held"], Plan()["start"]);
}

TEST_F(RolloutCommandTest, WhatCannotBeStagedIsRefused) {
  ExpectFailure(Release(Version(1), {"--stages", kStages}), HasSubstr("nothing is stable yet"));
  EXPECT_EQ(Release(Version(1), {"--stages", "1%"}).exit_status, 1);
  const CommandResult bad = Release(Version(1), {"--stages", "1%,2%"});
  EXPECT_EQ(bad.exit_status, 2);
  EXPECT_THAT(bad.err, HasSubstr("such as 1%/1d,10%/2d,100%"));
  MustRelease(Version(1));
  ASSERT_EQ(Pub({"remove", repo_, "oui", "--yes"}).exit_status, 0);
  ExpectFailure(Release(Version(2), {"--stages", kStages}), HasSubstr("nothing is stable yet"));
  MustRelease(Version(1));
  MakeFormer();
  const std::string before = ReadFile(InPublic("database_info/1"));
  ExpectFailure(Release(Version(2), {"--stages", kStages}),
                HasSubstr("its descriptions are not signed, and only a signed one"));
  EXPECT_EQ(ReadFile(InPublic("database_info/1")), before);
  // As soon as they are, a repository of an earlier program does it too.
  ASSERT_EQ(Pub({"upgrade", repo_, "--root-key", keys_ / "root.key"}).exit_status, 0);
  MustStage(2);
  EXPECT_EQ(Legacy()["data_version"], "1000002");
  EXPECT_EQ(SignedOui()["next"]["version"], 1000003);
}

TEST_F(RolloutCommandTest, ReleaseOverAnOpenOneTakesItsPlaceOrIsRefused) {
  MakeStaged();
  for (const char* command : {"", "hold", "stop"}) {
    SCOPED_TRACE(command);
    if (*command != '\0') {
      ASSERT_EQ(Rollout(command).exit_status, 0);
    }
    const std::string before = ReadFile(InPublic("database_info/1"));
    ExpectFailure(Release(Version(9)),
                  AllOf(HasSubstr("\"tolmdbpub rollout finish /tmp/repo oui\""),
                        HasSubstr("\"tolmdbpub rollout stop /tmp/repo oui\""),
                        HasSubstr("\"tolmdbpub withdraw /tmp/repo oui 1000003\""),
                        HasSubstr("--stages lets this release take its place")));
    EXPECT_EQ(ReadFile(InPublic("database_info/1")), before);
    Keep("/tmp/kept");
    const Json::Value legacy = Legacy();
    MustStage(4, "50%");
    EXPECT_EQ(Legacy(), legacy);
    EXPECT_EQ(SignedOui()["version"], 1000002);
    EXPECT_EQ(SignedOui()["next"]["version"], 1000004);
    EXPECT_EQ(SignedOui()["next"]["deltas"].getMemberNames(), (Names{"1000003", "1000004"}));
    EXPECT_EQ(Plan()["steps"][0]["share"], 5000);
    EXPECT_FALSE(Plan().isMember("held"));
    EXPECT_FALSE(Plan()["stopped"].asBool());
    ExpectSound();
    // It ends at 50 %, so that it has to be finished.
    ExpectFailure(PubAt(kDay, {"release", repo_, "oui", source_, "--version", "1000007"}),
                  HasSubstr("the rollout of 1000004 is open"));
    Restore("/tmp/kept");
  }
}

TEST_F(RolloutCommandTest, OneThatHasReachedAllIsFinishedByTheNextRelease) {
  MakeStaged();
  MakeTree(source_, Version(4));
  const Names command = {"release", repo_, "oui", source_};
  EXPECT_EQ(PubAt(23 * kHour, command).exit_status, 1);
  const CommandResult released = PubAt(25 * kHour, command);
  EXPECT_EQ(released.exit_status, 0) << released.err;
  EXPECT_THAT(released.err,
              HasSubstr("1000003 is offered to all devices: its rollout is finished"));
  EXPECT_EQ(Legacy()["data_version"], "1000004");
  EXPECT_EQ(OfferedDeltas(), (Names{"1000002", "1000003", "1000004"}));
  EXPECT_FALSE(SignedOui().isMember("next"));
  EXPECT_GT(Database()["releases"][1]["offered_until"].asInt64(), 0);
}

// All devices have more than the stable version: they would be offered it at once.
TEST_F(RolloutCommandTest, StagedReleaseAfterOneThatHasReachedAllBeginsWithFew) {
  MakeStaged("100%");
  const CommandResult staged = Release(Version(4), {"--stages", kStages});
  EXPECT_EQ(staged.exit_status, 0) << staged.err;
  EXPECT_THAT(staged.err, HasSubstr("1000003 is offered to all devices: its rollout is finished"));
  EXPECT_EQ(SignedOui()["version"], 1000003);
  EXPECT_EQ(SignedOui()["next"]["version"], 1000004);
  EXPECT_EQ(OfferedDeltas(), (Names{"1000002", "1000003"}));
  ExpectSound();
}

TEST_F(RolloutCommandTest, WithdrawalGivesAllTheStableFilesAgain) {
  MakeStaged();
  const std::string stable = Database()["releases"][1]["content"].asString();
  ASSERT_EQ(Rollout("stop").exit_status, 0);
  EXPECT_EQ(Plan()["stopped"], true);
  const CommandResult withdrawn = Pub({"withdraw", repo_, "oui", "1000003"});
  EXPECT_EQ(withdrawn.exit_status, 0) << withdrawn.err;
  EXPECT_THAT(withdrawn.out,
              AllOf(HasSubstr("oui 1000004 is released with the files of 1000002; 1000003 is "
                              "withdrawn\n  rollout       over: all devices are offered 1000004\n"),
                    HasSubstr("with 1000003 (withdrawn)"), HasSubstr("with 1000001  ")));
  EXPECT_EQ(Legacy()["data_version"], "1000004");
  EXPECT_FALSE(SignedOui().isMember("next"));
  EXPECT_EQ(OfferedDeltas(), (Names{"1000002", "1000003", "1000004"}));
  EXPECT_EQ(Database()["releases"][3]["content"].asString(), stable);
  const CommandResult check = Pub({"check", repo_});
  EXPECT_EQ(check.exit_status, 0) << check.err;
  EXPECT_THAT(check.out, HasSubstr("3 deltas replayed"));
  ExpectFailure(Rollout("finish"), HasSubstr("no rollout is open"));
}

// One that took another staged one's place: not the files of that one come back.
TEST_F(RolloutCommandTest, WithdrawalOfTheSecondStagedVersionGoesBackToTheStableOne) {
  MakeStaged();
  MustStage(4);
  ASSERT_EQ(Pub({"withdraw", repo_, "oui", "1000004"}).exit_status, 0);
  EXPECT_EQ(Database()["releases"][4]["restores"], 1000002);
  EXPECT_EQ(OfferedDeltas(), (Names{"1000002", "1000003", "1000004", "1000005"}));
  ExpectSound();
}

TEST_F(RolloutCommandTest, WithdrawalOfOlderVersionsKeepsWhatIsOffered) {
  MakeStaged();
  MustStage(4);
  const auto withdraw = [](const char* version) {
    return Pub({"withdraw", repo_, "oui", version});
  };
  ExpectFailure(withdraw("1000002"), AllOf(HasSubstr("1000002 is the stable version while 1000004"),
                                           HasSubstr("rollout finish /tmp/repo oui"),
                                           HasSubstr("otherwise withdraw 1000004 before")));
  const Json::Value offered = SignedOui();
  EXPECT_THAT(withdraw("1000001").out, HasSubstr("devices are offered 1000002 already"));
  EXPECT_THAT(withdraw("1000003").out, HasSubstr("devices are offered 1000004 already"));
  EXPECT_EQ(SignedOui(), offered);
  // Both bad: the one that takes the staged one's place can be withdrawn as well.
  MustRelease(Version(2), {"--stages", "1%"});
  ExpectFailure(withdraw("1000005"), HasSubstr("the stable one, has files that were withdrawn"));
  ASSERT_EQ(Rollout("stop").exit_status, 0);
  ExpectFailure(withdraw("1000005"), HasSubstr("\"tolmdbpub rollout finish /tmp/repo oui --yes\""));
  ASSERT_EQ(Rollout("finish", {"--yes"}).exit_status, 0);
  ExpectSound();
}

TEST_F(RolloutCommandTest, PruneKeepsTheStableVersionAndItsGraceTime) {
  MakeStaged();
  MustStage(4);
  const CommandResult open = Pub({"prune", repo_, "oui", "--keep", "1", "--grace", "0"});
  EXPECT_EQ(open.exit_status, 0) << open.err;
  EXPECT_THAT(open.out, AllOf(HasSubstr("oui 1000001 is retired"), Not(HasSubstr("oui 1000002"))));
  EXPECT_EQ(Database()["releases"].size(), 3u);
  EXPECT_EQ(Legacy()["data_version"], "1000002");
  ExpectSound();
  // Finished two days later, the stable package was offered until then.
  ASSERT_EQ(PubAt(2 * kDay, {"rollout", "finish", repo_, "oui"}).exit_status, 0);
  const CommandResult early =
      PubAt(2 * kDay + kHour, {"prune", repo_, "oui", "--keep", "1", "--grace", "1"});
  EXPECT_EQ(early.exit_status, 0) << early.err;
  EXPECT_THAT(early.out, AllOf(HasSubstr("oui 1000002 is retired"),
                               HasSubstr("packages/oui/oui_v1000002 stays until"),
                               HasSubstr("packages/oui/oui_v1000003 is removed")));
  EXPECT_EQ(Catalog()["format"], 3) << "nothing is left of the rollout";
  EXPECT_THAT(PubAt(3 * kDay + kHour, {"prune", repo_, "oui", "--keep", "1", "--grace", "1"}).out,
              HasSubstr("packages/oui/oui_v1000002 is removed"));
}

TEST_F(RolloutCommandTest, OtherCommandsKeepThePlan) {
  MakeStaged();
  const Json::Value plan = Plan();
  for (const Names& command :
       std::vector<Names>{{"refresh", repo_},
                          {"resign", repo_, "--force"},
                          {"set", repo_, "--base-url", "http://127.0.0.1:2/db"},
                          {"deprecate", repo_, "oui"},
                          {"set", repo_, "--chain-share", "1"},
                          {"diff", repo_, "oui", "1000002", "1000003"}}) {
    SCOPED_TRACE(command[0]);
    const CommandResult result = Pub(command);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(Plan(), plan);
    EXPECT_EQ(SignedOui()["version"], 1000002);
    EXPECT_EQ(SignedOui()["next"]["deltas"].getMemberNames(), Names{"1000003"});
    ExpectSound();
  }
  EXPECT_EQ(SignedOui()["next"]["full"]["link"], "packages-2/oui/oui_v1000003");
  EXPECT_EQ(Legacy()["deprecated"], true);
  // A link of the stable version that a device would rewrite wrongly is refused as well.
  ExpectFailure(Pub({"set", repo_, "--base-url", "http://127.0.0.1:2/1000002"}),
                HasSubstr("\"1000002\" occurs 2 times"));
  ASSERT_EQ(Pub({"remove", repo_, "oui"}).exit_status, 0);
  EXPECT_EQ(Catalog()["removed"]["oui"]["newest"], 1000003) << "devices may have it";
  ExpectSound();
  MustRelease(Version(5));
  EXPECT_EQ(Legacy()["data_version"], "1000004");
}

TEST_F(RolloutCommandTest, CheckProvesWhatIsStagedToo) {
  MakeStaged();
  for (const char* package : {"oui_v1000003", "oui_d1000003"}) {
    const fs::path path = InPublic("packages/oui") / package;
    const std::string content = ReadFile(path);
    std::string damaged = content;
    damaged[100] = static_cast<char>(damaged[100] ^ 1);
    WriteFile(path, damaged);
    for (const Names& options : {Names{}, Names{"--quick"}}) {
      const CommandResult check = Pub(WithOptions({"check", repo_}, options));
      EXPECT_EQ(check.exit_status, 1) << package;
      EXPECT_THAT(check.err, HasSubstr(std::string(package) + ": not the package that was"));
    }
    fs::remove(path);
    EXPECT_EQ(Pub({"check", repo_, "--since", "1"}).exit_status, 1) << package;
    WriteFile(path, content);
  }
  EXPECT_THAT(Pub({"check", repo_}).out, HasSubstr("1 delta replayed, 1 as before"));
  EXPECT_THAT(Pub({"check", repo_}).out, HasSubstr("2 as before"));
  // Its last step has begun long ago.
  ASSERT_EQ(PubAt(9 * kDay, {"refresh", repo_}).exit_status, 0);
  const CommandResult late = PubAt(9 * kDay, {"check", repo_});
  EXPECT_EQ(late.exit_status, 0) << late.err;
  EXPECT_THAT(late.err, HasSubstr("oui: nothing follows the last step of 1000003; \"tolmdbpub "
                                  "rollout finish /tmp/repo oui\""));
  MakeFormer();
  EXPECT_THAT(Pub({"check", repo_, "--quick"}).err,
              HasSubstr("oui: a rollout is open, and the descriptions that could say so are not"));
}

// One without a delta, or one that could not be applied with those before, leaves the others
// theirs.
TEST_F(RolloutCommandTest, StagedReleaseWithoutADeltaTakesNoneFromTheStableVersion) {
  MustRelease({{"a/b", "1"}, {"noise", noise_}});
  MustRelease({{"n", "2"}, {"noise", noise_}});
  Keep("/tmp/kept");
  struct Row {
    const char* name;
    Tree files;
    Names options;
    const char* reason;
  };
  for (const Row& row : std::vector<Row>{
           {"a gap", {{"n", "3"}, {"noise", noise_}}, {"--version", "1000009"}, "there is a gap"},
           {"other files", {{"noise", Noise(20000, 2)}}, {"--allow-shrink"}, "of the full package"},
           {"a file in a directory's place",
            {{"a", "3"}, {"noise", noise_}},
            {},
            "it cannot be applied in one update with the delta to 1000002, which devices with "
            "older versions need"}}) {
    SCOPED_TRACE(row.name);
    Restore("/tmp/kept");
    const Json::Value legacy = Legacy();
    const CommandResult staged =
        Release(row.files, WithOptions({"--stages", kStages}, row.options));
    EXPECT_EQ(staged.exit_status, 0) << staged.err;
    EXPECT_THAT(staged.err, HasSubstr(row.reason));
    EXPECT_THAT(staged.out, HasSubstr("all of them"));
    EXPECT_EQ(Legacy(), legacy);
    EXPECT_EQ(SignedOui()["deltas"].getMemberNames(), Names{"1000002"});
    EXPECT_THAT(SignedOui()["next"]["deltas"].getMemberNames(), IsEmpty());
    ExpectSound();
    // The next one has a delta again, from the staged one only.
    Tree next = row.files;
    next["more"] = "m";
    const CommandResult after = Release(next, {"--stages", kStages});
    EXPECT_EQ(after.exit_status, 0) << after.err;
    EXPECT_EQ(SignedOui()["deltas"].getMemberNames(), Names{"1000002"});
    EXPECT_EQ(SignedOui()["next"]["deltas"].size(), 1u);
    ExpectSound();
    ASSERT_EQ(Rollout("finish").exit_status, 0);
    EXPECT_EQ(OfferedDeltas().size(), 1u) << "nothing leads over the gap";
    ExpectSound();
  }
}

// Devices that read nothing but the members outside of the signed text, as those of before do: they
// get the description without it.
class RolloutDeviceTest : public RolloutCommandTest {
 protected:
  void SetUp() override {
    RolloutCommandTest::SetUp();
    server_ = std::make_unique<HttpServer>(repo_ / "public",
                                           [](const HttpRequest&, int, std::uint64_t) {});
    ASSERT_EQ(Pub({"set", repo_, "--base-url", server_->Url("")}).exit_status, 0);
  }

  std::string Update() const {
    Json::Value description = Description();
    description.removeMember("signed");
    description.removeMember("signature");
    server_->SetBody("/database_info/1", description.toStyledString());
    fs::remove("/var/cache/data_update/database_info.json");
    const CommandResult update = Tool({"update", "oui"});
    EXPECT_EQ(update.exit_status, 0) << update.err;
    return InstalledVersion("oui") + " " + ReadFile(kVolumePrefix / "oui/n");
  }

  static constexpr char kServiceSettings[] = "/usr/share/data_update/data_update.conf";
  std::unique_ptr<HttpServer> server_;
};

TEST_F(RolloutDeviceTest, OldDevicesTakeTheStableVersion) {
  MustRelease(Version(1));
  ASSERT_EQ(Pub({"install-config", repo_, "/"}).exit_status, 0);
  Json::Value settings = ReadJson(kServiceSettings);
  settings["config"].removeMember("require_signed_description");
  WriteJson(kServiceSettings, settings);
  ASSERT_EQ(Tool({"init"}).exit_status, 0);
  EXPECT_EQ(Update(), "1000001 1");
  MustStage(2, "100%");
  EXPECT_EQ(Update(), "1000001 1");
  ASSERT_EQ(Rollout("finish").exit_status, 0);
  EXPECT_EQ(Update(), "1000002 2");
  MustStage(3, "100%");
  ASSERT_EQ(Rollout("stop").exit_status, 0);
  EXPECT_EQ(Update(), "1000002 2");
  ASSERT_EQ(Pub({"withdraw", repo_, "oui", "1000003"}).exit_status, 0);
  EXPECT_EQ(Update(), "1000004 2");
}

}  // namespace
}  // namespace tolm::testing

#include "publish/rollout.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <sstream>
#include <utility>

#include "package/error.h"
#include "publish/description.h"
#include "publish/json_object.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace {

// Whether the mark of a command that is not finished cannot be removed.
bool is_mark_kept = false;

}  // namespace

int unlink(const char* path) noexcept {
  if (is_mark_kept && std::strstr(path, "/state/unfinished") != nullptr &&
      access(path, F_OK) == 0) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

namespace tolm::testing {
namespace {

using package::Kind;
using publish::Catalog;
using publish::Database;
using publish::DeltaRecord;
using publish::DeviceShareText;
using publish::OpenRollout;
using publish::PackagePath;
using publish::ParseStages;
using publish::Release;
using publish::Rollout;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kStart = 1800000000;

std::vector<std::pair<int, std::int64_t>> Steps(const std::string& text) {
  std::vector<std::pair<int, std::int64_t>> steps;
  for (const offer::RolloutStep& step : ParseStages(text)) {
    steps.emplace_back(step.share, step.seconds);
  }
  return steps;
}

TEST(StagesTest, AreSharesWithTheirTimes) {
  using Expected = std::vector<std::pair<int, std::int64_t>>;
  for (const auto& [text, steps] : std::map<std::string, Expected>{
           {"1%/6h,10%/18h,100%", {{100, 6 * kHour}, {1000, 18 * kHour}, {10000, 0}}},
           {"100%", {{10000, 0}}},
           {"50%", {{5000, 0}}},
           {"0.05%/30m,0.5%/2d,99.99%", {{5, 1800}, {50, 2 * kDay}, {9999, 0}}},
           {"01%/007m,2.50%", {{100, 420}, {250, 0}}}}) {
    EXPECT_EQ(Steps(text), steps) << text;
  }
}

TEST(StagesTest, WhatIsNoneIsRefusedWithTheReason) {
  for (const auto& [text, why] : std::map<std::string, std::string>{
           {"", "no share in percent"},
           {"10", "\"10\" is no share in percent"},
           {"%", "no share in percent"},
           {"1.%", "no share in percent"},
           {".5%", "no share in percent"},
           {"0.005%", "no share in percent"},
           {"-1%", "no share in percent"},
           {"1e2%", "no share in percent"},
           {"1000%", "no share in percent"},
           {"1000000%", "no share in percent"},
           {" 1%", "no share in percent"},
           {"0%", "share must be above"},
           {"100.01%", "at most the whole"},
           {"10%/6h,10%", "share must be above"},
           {"10%/6h,5%", "share must be above"},
           {"10%,100%", "\"10%\" does not say after which time the next follows"},
           {"100%/6h", "the last step has no time"},
           {"1%/6h,", "\"\" is no share in percent"},
           {",100%", "\"\" is no share in percent"},
           {"1%/,100%", "\"\" is no time"},
           {"1%/h,100%", "\"h\" is no time"},
           {"1%/6,100%", "\"6\" is no time"},
           {"1%/6s,100%", "\"6s\" is no time"},
           {"1%/1.5h,100%", "\"1.5h\" is no time"},
           {"1%/6h/6h,100%", "\"6h/6h\" is no time"},
           {"1%/0h,100%", "each step but the last one takes its time"},
           {"1%/3651d,100%", "ten years at most"},
           {"1%/99999999d,100%", "is no time"}}) {
    ExpectError([&stages = text] { ParseStages(stages); },
                AllOf(StartsWith("stages \"" + text + "\": "), HasSubstr(why),
                      HasSubstr("such as 1%/1d,10%/2d,100%")));
  }
  std::string many;
  for (int percent = 1; percent < 33; ++percent) {
    many += std::to_string(percent) + "%/1m,";
  }
  EXPECT_EQ(ParseStages(many.substr(0, many.size() - 4)).size(), 32u);
  ExpectError([&] { ParseStages(many + "100%"); }, HasSubstr("more than 32"));
}

TEST(StagesTest, ShareIsShownInPercent) {
  for (const auto& [share, text] : std::map<int, std::string>{{0, "0 %"},
                                                              {5, "0.05 %"},
                                                              {50, "0.5 %"},
                                                              {100, "1 %"},
                                                              {1250, "12.5 %"},
                                                              {9999, "99.99 %"},
                                                              {10000, "100 %"}}) {
    EXPECT_EQ(DeviceShareText(share), text);
  }
}

OpenRollout Open() {
  OpenRollout rollout{"oui", 3, 5, {}};
  rollout.plan.start = kStart;
  rollout.plan.steps = ParseStages("1%/6h,10%/18h,100%");
  return rollout;
}

TEST(RolloutTextTest, SaysHowFarItHasCome) {
  OpenRollout rollout = Open();
  const auto text = [&](std::int64_t later) { return RolloutText(rollout, kStart + later); };
  const std::string stable = "; the stable version is 3";
  EXPECT_EQ(text(-1),
            "5 is offered to 0 % of the devices, to 1 % from 2027-01-15 08:00 UTC on" + stable);
  EXPECT_EQ(text(0),
            "5 is offered to 1 % of the devices, to 10 % from 2027-01-15 14:00 UTC on" + stable);
  EXPECT_EQ(
      text(kDay),
      "5 is offered to 100 % of the devices, its last step, since 2027-01-16 08:00 UTC" + stable);
  rollout.plan.held = kStart + 7 * kHour;
  EXPECT_EQ(text(9 * kDay), "5 is held at 10 % of the devices since 2027-01-15 15:00 UTC" + stable);
  rollout.plan.stopped = true;
  EXPECT_EQ(text(9 * kDay),
            "5 is stopped: devices that have it keep it, and nobody else is offered it" + stable);
}

TEST(RolloutTextTest, LongDoneOneIsToBeFinished) {
  OpenRollout rollout = Open();
  const auto care = [&](std::int64_t later) {
    return RolloutCare(rollout, "repo", kStart + later);
  };
  EXPECT_EQ(care(8 * kDay - 1), "");
  EXPECT_THAT(care(8 * kDay), HasSubstr("\"tolmdbpub rollout finish repo oui\" makes it the stable "
                                        "version"));
  rollout.plan.held = kStart + 2 * kDay;
  EXPECT_EQ(care(99 * kDay), "");
  rollout.plan.held.reset();
  rollout.plan.stopped = true;
  EXPECT_EQ(care(99 * kDay), "");
}

TEST(RolloutTextTest, ProgramsReadItAsJson) {
  OpenRollout rollout = Open();
  Json::Value value = ToJson(rollout, kStart + kHour);
  EXPECT_EQ(value["stable"], 3);
  EXPECT_EQ(value["next"], 5);
  EXPECT_EQ(value["state"], "running");
  EXPECT_EQ(value["share"], 100);
  EXPECT_TRUE(value["held"].isNull());
  EXPECT_EQ(value["steps"].size(), 3u);
  EXPECT_EQ(value["steps"][1]["begins"].asInt64(), kStart + 6 * kHour);
  EXPECT_FALSE(value["steps"][1]["has_begun"].asBool());
  rollout.plan.held = kStart + 6 * kHour;
  value = ToJson(rollout, kStart + 99 * kDay);
  EXPECT_EQ(value["state"], "held");
  EXPECT_EQ(value["share"], 1000);
  EXPECT_TRUE(value["steps"][1]["has_begun"].asBool());
  EXPECT_TRUE(value["steps"][2]["begins"].isNull()) << "that hangs on when it is resumed";
  rollout.plan.stopped = true;
  value = ToJson(rollout, kStart + 99 * kDay);
  EXPECT_EQ(value["state"], "stopped");
  EXPECT_EQ(value["share"], 0);
}

Release MakeRelease(int version, std::uint64_t full_bytes, std::uint64_t delta_bytes = 0) {
  Release release;
  release.version = version;
  release.released = 1000 + version;
  release.content = "c" + std::to_string(version);
  release.full = {PackagePath("packages", "oui", Kind::kFull, version), full_bytes, "f"};
  if (delta_bytes > 0) {
    release.delta = DeltaRecord{
        {PackagePath("packages", "oui", Kind::kDelta, version), delta_bytes, "d"}, {}, 0};
  } else {
    release.no_delta_reason = "none";
  }
  return release;
}

// Versions 1 to 3 and, staged, 4 and 5, with deltas of these sizes to 2 and on.
Database Staged(const std::vector<std::uint64_t>& delta_bytes) {
  Database database;
  database.releases = {MakeRelease(1, 1000)};
  for (const std::uint64_t bytes : delta_bytes) {
    database.releases.push_back(MakeRelease(database.releases.back().version + 1, 1000, bytes));
  }
  database.last_fetch_time = 7777;
  database.rollout = Rollout{3, Open().plan};
  return database;
}

TEST(RolloutTextTest, ProgramsReadEveryStep) {
  const auto json = [](const OpenRollout& rollout, std::int64_t now) {
    return publish::FormatJson(ToJson(rollout, now));
  };
  const auto normal = [](const std::string& text) {
    return publish::FormatJson(publish::ParseJson(text, ""));
  };
  OpenRollout rollout = Open();
  const std::string first =
      R"({"seconds": 21600, "share": 100, "begins": 1800000000, "has_begun": true})";
  EXPECT_EQ(json(rollout, kStart + 6 * kHour), normal(R"({
    "stable": 3, "next": 5, "state": "running", "share": 1000, "start": 1800000000, "held": null,
    "steps": [)" + first + R"(,
      {"seconds": 64800, "share": 1000, "begins": 1800021600, "has_begun": true},
      {"seconds": 0, "share": 10000, "begins": 1800086400, "has_begun": false}]})"));
  // The step that was about to begin has no time any more.
  rollout.plan.held = kStart + 6 * kHour - 1;
  EXPECT_EQ(json(rollout, kStart + kDay), normal(R"({
    "stable": 3, "next": 5, "state": "held", "share": 100, "start": 1800000000,
    "held": 1800021599,
    "steps": [)" + first + R"(,
      {"seconds": 64800, "share": 1000, "begins": null, "has_begun": false},
      {"seconds": 0, "share": 10000, "begins": null, "has_begun": false}]})"));
  rollout.plan.held = kStart + 6 * kHour;
  EXPECT_EQ(ToJson(rollout, kStart + kDay)["steps"][1]["begins"].asInt64(), kStart + 6 * kHour);
}

std::vector<int> Versions(const std::vector<const Release*>& releases) {
  std::vector<int> versions;
  for (const Release* release : releases) {
    versions.push_back(release->version);
  }
  return versions;
}

// A repository whose "oui" is staged, with the plan of Open().
class RolloutChangeTest : public ReleaseFixture {
 protected:
  RolloutChangeTest() {
    const std::time_t now = std::time(nullptr);
    InitRepository(NewSignedRepository(now), now);
    PutReleases("oui", Staged({300, 300, 300, 300}));
  }

  OpenRollout Change(publish::RolloutAction action, std::int64_t later, bool stopped_too = false) {
    notes_.clear();
    return publish::ChangeRollout({Path("repo"), "oui", action, stopped_too}, kStart + later,
                                  [this](const std::string& note) { notes_.push_back(note); });
  }
  void ExpectRefused(publish::RolloutAction action, std::int64_t later, const std::string& why) {
    const std::string before = ReadFile(Path("repo/state/catalog.json"));
    ExpectError([&] { Change(action, later); }, why);
    EXPECT_EQ(ReadFile(Path("repo/state/catalog.json")), before) << why;
  }
  publish::Database Kept() const {
    return publish::LoadCatalog(Path("repo/state/catalog.json")).databases.at("oui");
  }
  // What is kept of the plan, and told.
  void ExpectPlan(const OpenRollout& told, std::int64_t start, std::optional<std::int64_t> held,
                  bool stopped) const {
    const std::optional<OpenRollout> kept = publish::RolloutOf("oui", Kept());
    ASSERT_TRUE(kept);
    for (const OpenRollout& rollout : {told, *kept}) {
      EXPECT_EQ(rollout.name, "oui");
      EXPECT_EQ(rollout.stable, 3);
      EXPECT_EQ(rollout.next, 5);
      EXPECT_EQ(rollout.plan.start, kStart + start);
      EXPECT_EQ(rollout.plan.held, held ? std::optional(kStart + *held) : std::nullopt);
      EXPECT_EQ(rollout.plan.stopped, stopped);
      EXPECT_EQ(rollout.plan.steps.size(), 3u);
    }
  }
  std::string Shown(const std::string& name, bool as_json, std::int64_t later) const {
    std::ostringstream out;
    publish::ShowRollouts(Path("repo"), name, as_json, kStart + later, out);
    return out.str();
  }

  std::vector<std::string> notes_;
};

using publish::RolloutAction;

TEST_F(RolloutChangeTest, HeldOneGoesOnLaterByTheTimeBetween) {
  ExpectRefused(RolloutAction::kHold, kDay,
                "rollout hold oui: the last step of 5 has begun, 100 % of the devices, so that "
                "holding it would change nothing; \"tolmdbpub rollout stop\" keeps it from those "
                "that have not taken it yet");
  ExpectRefused(RolloutAction::kResume, kHour, "rollout resume oui: 5 is not held");
  ExpectPlan(Change(RolloutAction::kHold, kDay - 1), 0, kDay - 1, false);
  ExpectRefused(RolloutAction::kHold, kDay,
                "rollout hold oui: 5 is held already, since 2027-01-16 07:59 UTC");
  ExpectPlan(Change(RolloutAction::kResume, kDay + 9), 10, std::nullopt, false);
  // By a clock that is behind nothing begins earlier.
  ExpectPlan(Change(RolloutAction::kHold, kHour), 10, kHour, false);
  ExpectPlan(Change(RolloutAction::kResume, kHour - 5), 10, std::nullopt, false);
  ExpectPlan(Change(RolloutAction::kHold, 3), 10, 10, false);
}

TEST_F(RolloutChangeTest, StoppedOneGoesOnWhenThatIsInsistedOn) {
  ExpectPlan(Change(RolloutAction::kStop, 2 * kHour), 0, 2 * kHour, true);
  ExpectRefused(RolloutAction::kStop, 3 * kHour, "rollout stop oui: 5 is stopped already");
  ExpectRefused(RolloutAction::kHold, 3 * kHour,
                "rollout hold oui: 5 is stopped already, which is more");
  ExpectRefused(RolloutAction::kResume, 3 * kHour,
                "rollout resume oui: 5 was stopped; when it is good after all, --yes resumes it");
  ExpectRefused(
      RolloutAction::kFinish, 3 * kHour,
      "rollout finish oui: 5 was stopped, and would reach all devices; when it is good "
      "after all, --yes makes it the stable version; when it is not, \"tolmdbpub withdraw " +
          Path("repo") + " oui 5\" ends the rollout");
  ExpectPlan(Change(RolloutAction::kResume, 5 * kHour, true), 3 * kHour, std::nullopt, false);
  // Held before, it stands where it was held; stopped before its start, at its start.
  ExpectPlan(Change(RolloutAction::kHold, 4 * kHour), 3 * kHour, 4 * kHour, false);
  ExpectPlan(Change(RolloutAction::kStop, 9 * kHour), 3 * kHour, 4 * kHour, true);
  ExpectPlan(Change(RolloutAction::kResume, 6 * kHour, true), 5 * kHour, std::nullopt, false);
  ExpectPlan(Change(RolloutAction::kStop, kHour), 5 * kHour, 5 * kHour, true);
}

TEST_F(RolloutChangeTest, FinishedOneIsTheStableVersionAndItsChainIsTrimmed) {
  const OpenRollout before = Change(RolloutAction::kFinish, kHour);
  EXPECT_EQ(before.stable, 3);
  EXPECT_EQ(before.next, 5);
  EXPECT_THAT(notes_,
              ElementsAre("deltas to 3 and older are not offered any more: with it the deltas "
                          "would exceed 70 % of the full package"));
  const publish::Database kept = Kept();
  EXPECT_FALSE(kept.rollout);
  EXPECT_EQ(kept.releases[2].offered_until, kStart + kHour);
  EXPECT_EQ(kept.releases[2].delta->withdrawn, kStart + kHour);
  EXPECT_EQ(Versions(OfferedChain(kept)), (std::vector<int>{4, 5}));
  for (const auto& [action, word] :
       std::map<RolloutAction, std::string>{{RolloutAction::kHold, "hold"},
                                            {RolloutAction::kResume, "resume"},
                                            {RolloutAction::kStop, "stop"},
                                            {RolloutAction::kFinish, "finish"}}) {
    ExpectRefused(action, kDay,
                  "rollout " + word + " oui: no rollout is open; all devices are offered 5");
  }
}

TEST_F(RolloutChangeTest, OneThatIsCutShortIsToldByTheNextCommand) {
  is_mark_kept = true;
  EXPECT_THROW(Change(RolloutAction::kHold, kHour), package::Error);
  is_mark_kept = false;
  EXPECT_EQ(publish::UnfinishedCommand(publish::RepositoryPaths(Path("repo"))), "rollout hold oui");
}

TEST_F(RolloutChangeTest, ShareThatFitsTheChainIsNothingToNote) {
  PutReleases("geo", Staged({1, 1, 1, 1}));
  publish::ChangeRollout({Path("repo"), "geo", RolloutAction::kFinish}, kStart + kHour,
                         [](const std::string& note) { ADD_FAILURE() << note; });
}

TEST_F(RolloutChangeTest, OpenOnesAreShownByDatabase) {
  publish::Database plain;
  plain.releases = {MakeRelease(7, 1000)};
  PutReleases("all", plain);
  publish::Database held = Staged({1, 1, 1, 1});
  held.rollout->plan.held = kStart + 6 * kHour;
  PutReleases("pq", held);
  const std::string oui =
      "oui 5 is offered to 10 % of the devices, to 100 % from 2027-01-16 08:00 UTC on; the stable "
      "version is 3\n"
      "      1 %  from 2027-01-15 08:00 UTC\n"
      "     10 %  from 2027-01-15 14:00 UTC\n"
      "    100 %  from 2027-01-16 08:00 UTC\n";
  const std::string other =
      "pq 5 is held at 10 % of the devices since 2027-01-15 14:00 UTC; the stable version is "
      "3\n"
      "      1 %  from 2027-01-15 08:00 UTC\n"
      "     10 %  from 2027-01-15 14:00 UTC\n"
      "    100 %  when it is resumed\n";
  EXPECT_EQ(Shown("", false, 6 * kHour), oui + other);
  EXPECT_EQ(Shown("oui", false, 6 * kHour), oui);
  EXPECT_EQ(Shown("pq", false, 6 * kHour), other);
  EXPECT_EQ(Shown("all", false, 6 * kHour), "all: no rollout is open; all devices are offered 7\n");
  ExpectError([&] { Shown("none", false, 6 * kHour); }, HasSubstr("no database \"none\""));
  const auto names = [this](const std::string& name) {
    const Json::Value shown = publish::ParseJson(Shown(name, true, 6 * kHour), "");
    EXPECT_EQ(shown["format"], 1);
    EXPECT_TRUE(shown["rollouts"].isArray());
    std::vector<std::string> all;
    for (const Json::Value& rollout : shown["rollouts"]) {
      all.push_back(rollout["name"].asString() + ' ' + rollout["state"].asString());
    }
    return all;
  };
  EXPECT_THAT(names(""), ElementsAre("oui running", "pq held"));
  EXPECT_THAT(names("oui"), ElementsAre("oui running"));
  EXPECT_THAT(names("all"), ElementsAre());
  publish::ChangeRollout({Path("repo"), "oui", RolloutAction::kFinish}, kStart,
                         [](const std::string&) {});
  publish::ChangeRollout({Path("repo"), "pq", RolloutAction::kFinish}, kStart,
                         [](const std::string&) {});
  EXPECT_EQ(Shown("", false, 6 * kHour), "no rollout is open\n");
  std::ostringstream out;
  ExpectError([&] { publish::ShowRollouts(Path("none"), "", false, kStart, out); },
              HasSubstr("no repository"));
}

TEST(StagedChainTest, WhatIsStagedTakesNothingFromTheStableVersion) {
  struct Row {
    const char* name;
    std::vector<std::uint64_t> bytes;  // to 2, 3, 4 and 5
    std::vector<int> open;
    std::vector<int> to_newest;
    std::vector<int> finished;
  };
  for (const Row& row : std::vector<Row>{
           {"all fit", {100, 100, 100, 100}, {2, 3, 4, 5}, {2, 3, 4, 5}, {2, 3, 4, 5}},
           {"together beyond the share", {300, 300, 300, 300}, {2, 3, 4, 5}, {2, 3, 4, 5}, {4, 5}},
           {"staged ones beyond it", {300, 300, 400, 400}, {2, 3, 5}, {5}, {5}},
           {"no delta to the newest", {300, 300, 300, 0}, {2, 3}, {}, {}},
           {"no delta to the first staged", {300, 300, 0, 300}, {2, 3, 5}, {5}, {5}},
           {"stable ones beyond it", {400, 400, 300, 300}, {3, 4, 5}, {3, 4, 5}, {4, 5}}}) {
    SCOPED_TRACE(row.name);
    Database database = Staged(row.bytes);
    TrimChain(database, 70, 99);
    EXPECT_EQ(Versions(OfferedChain(database)), row.open);
    EXPECT_EQ(Versions(ChainToNewest(database)), row.to_newest);
    EXPECT_EQ(Versions(OfferedReleases(database)), (std::vector<int>{3, 5}));
    EndRollout(database, 5000);
    EXPECT_EQ(database.releases[2].offered_until, 5000);
    TrimChain(database, 70, 100);
    EXPECT_EQ(Versions(OfferedChain(database)), row.finished);
    EXPECT_EQ(Versions(OfferedReleases(database)), (std::vector<int>{5}));
  }
}

TEST(StagedChainTest, FullPackageIsOfferedUntilTheRolloutIsOver) {
  Database database = Staged({1, 1, 1, 1});
  const auto until = [&](std::size_t place) { return OfferedUntil(database, place, 9000); };
  EXPECT_EQ(until(1), 1003) << "when 3 was released";
  EXPECT_EQ(until(2), 9000) << "stable";
  EXPECT_EQ(until(3), 1005) << "the next one before";
  EXPECT_EQ(until(4), 9000);
  EndRollout(database, 5000);
  EXPECT_EQ(until(2), 5000);
  EXPECT_EQ(until(3), 1005);
  EXPECT_EQ(until(4), 9000);
}

TEST(StagedChainTest, StepsToWhatTookABadOnesPlaceAreOfItsWayBack) {
  Database database = Staged({100, 100, 500, 300});
  database.releases[4].withdrawn = 50;
  EndRollout(database, 50);
  database.releases.push_back(MakeRelease(6, 1000, 150));
  database.releases.back().restores = 3;
  TrimChain(database, 70, 99);
  EXPECT_EQ(Versions(OfferedChain(database)), (std::vector<int>{4, 5, 6}))
      << "4 was staged before, and devices with 3 step there";
}

TEST(StagedDescriptionTest, OldMembersNameTheStableVersion) {
  Catalog catalog;
  catalog.databases["oui"] = Staged({1, 1, 1, 1});
  const publish::BaseUrl base{"http", "example.org"};
  const std::string open = DescribeCatalog(catalog, base);
  Database& database = catalog.databases["oui"];
  database.releases.resize(3);
  database.rollout.reset();
  database.last_fetch_time = database.releases.back().released;
  EXPECT_EQ(open, DescribeCatalog(catalog, base)) << "as if nothing was staged";
}

TEST(StagedCatalogTest, HasAFormatOfItsOwnWithARolloutAndItsTrace) {
  const TemporaryDirectory directory;
  const std::string file = directory.Path() / "catalog.json";
  Catalog catalog;
  catalog.counter = 9;
  catalog.databases["oui"] = Staged({1, 1, 1, 1});
  catalog.databases["oui"].rollout->plan.held = kStart + 1;
  catalog.databases["oui"].rollout->plan.stopped = true;
  const auto format_of = [](const std::string& text) {
    return publish::ParseJson(text, "")["format"].asInt();
  };
  const auto read_back = [&] {
    const std::string text = FormatCatalog(catalog);
    WriteFile(file, text);
    EXPECT_EQ(FormatCatalog(publish::LoadCatalog(file)), text);
    return format_of(text);
  };
  EXPECT_EQ(read_back(), 4);
  const std::string good = FormatCatalog(catalog);
  EndRollout(catalog.databases["oui"], 5);
  EXPECT_EQ(read_back(), 4) << "an earlier program would prune too early";
  catalog.databases["oui"].releases[2].offered_until = 0;
  EXPECT_EQ(read_back(), 3);
  EXPECT_EQ(FormatCatalog(catalog).find("rollout"), std::string::npos);
  for (const auto& [before, after] :
       std::map<std::string, std::string>{{"\"stable\" : 3", "\"stable\" : 5"},
                                          {"\"stable\" : 3,", "\"stable\" : 7,"},
                                          {"\"share\" : 100\n", "\"share\" : 1000\n"},
                                          {"\"steps\"", "\"step\""},
                                          {"\"stopped\" : true", "\"stopped\" : 1"},
                                          {"\"held\" : 1800000001", "\"held\" : 17"}}) {
    std::string text = good;
    ASSERT_NE(text.find(before), std::string::npos) << before << text;
    text.replace(text.find(before), before.size(), after);
    WriteFile(file, text);
    ExpectError([&] { publish::LoadCatalog(file); }, StartsWith(file));
  }
}

}  // namespace
}  // namespace tolm::testing

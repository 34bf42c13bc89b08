#include "publish/withdraw.h"

#include <gmock/gmock.h>

#include <climits>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "publish/catalog.h"
#include "publish/repository.h"
#include "publish/rollout.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class WithdrawReleaseTest : public ReleaseFixture {
 protected:
  WithdrawReleaseTest() { InitRepository(NewRepository(), kNow); }

  void Make(const std::string& table) {
    ++now_;
    WriteFile(Path("tree/t.db"), table);
    publish::ReleaseRequest request;
    request.repository = Path("repo");
    request.name = "oui";
    request.directory = Path("tree");
    request.allow_shrink = true;
    MakeRelease(
        request, now_, [](const std::string&) {}, [](const publish::Step&) {});
  }

  // The versions that devices are offered a delta to.
  std::vector<int> OfferedDeltas() const {
    const publish::Catalog catalog =
        publish::LoadCatalog(publish::RepositoryPaths(Path("repo")).CatalogFile());
    std::vector<int> versions;
    for (const publish::Release& release : catalog.databases.at("oui").releases) {
      if (release.delta && release.delta->withdrawn == 0) {
        versions.push_back(release.version);
      }
    }
    return versions;
  }

  std::time_t now_ = kNow;
};

TEST_F(WithdrawReleaseTest, DeltasThatTheBadVersionDroveOutAreOfferedAgain) {
  // Not a part of a delta by SQL: what brings the good rows back is smaller than the full package.
  const std::string index = "CREATE INDEX i ON t(v);";
  Make(Table(0, index));
  Make(Table(1, index));
  ASSERT_THAT(OfferedDeltas(), ElementsAre(1000002));
  Make(Table(0, index + "DELETE FROM t; VACUUM;"));
  ASSERT_THAT(OfferedDeltas(), IsEmpty());
  publish::WithdrawRequest request;
  request.repository = Path("repo");
  request.name = "oui";
  request.version = 1000003;
  const publish::WithdrawReport report = WithdrawRelease(
      request, ++now_, [](const std::string&) {}, [](const publish::Step&) {});
  EXPECT_EQ(report.restored, 1000002);
  EXPECT_THAT(OfferedDeltas(), ElementsAre(1000002, 1000003, 1000004));
}

// Releases of noise, of which each adds some bytes.
class WithdrawalTest : public ReleaseFixture {
 protected:
  void Init(const publish::InitRequest& request) { InitRepository(request, now_); }
  void InitWithRoomForDeltas() {
    publish::InitRequest request = NewRepository();
    request.settings.chain_share_percent = 100;
    Init(request);
  }

  void Make(const std::string& text, const std::vector<offer::RolloutStep>& stages = {},
            std::optional<int> version = {}) {
    ++now_;
    WriteFile(Path("tree/d" + text + "/t"), Noise(4000, 1));
    WriteFile(Path("tree/n"), Noise(20000, 2) + text);
    publish::ReleaseRequest request = NewRelease();
    request.allow_shrink = true;
    request.allow_withdrawn = true;
    request.stages = stages;
    request.version = version;
    MakeRelease(
        request, now_, [](const std::string&) {}, [](const publish::Step&) {});
    std::filesystem::remove_all(Path("tree/d" + text));
  }

  publish::WithdrawReport Withdraw(int version, bool dry_run = false) {
    notes_.clear();
    steps_.clear();
    publish::WithdrawRequest request;
    request.repository = Path("repo");
    request.name = "oui";
    request.version = version;
    request.dry_run = dry_run;
    request.jobs = 1;
    return WithdrawRelease(
        request, ++now_, [this](const std::string& note) { notes_.push_back(note); },
        [this](const publish::Step& step) { steps_.emplace_back(step.what); });
  }

  void ChangeCatalog(const std::function<void(std::vector<publish::Release>&)>& change) {
    publish::RepositoryChange repository(Path("repo"), [](const std::string&) {});
    repository.Begin("test");
    change(repository.catalog.databases.at("oui").releases);
    repository.Commit();
  }

  publish::Database Oui() const {
    return publish::LoadCatalog(Path("repo/state/catalog.json")).databases.at("oui");
  }

  // A line for each release, times counted from kNow.
  std::vector<std::string> Releases() const {
    const auto time = [](std::int64_t seconds) {
      return seconds == 0 ? std::string("-") : std::to_string(seconds - kNow);
    };
    std::vector<std::string> lines;
    for (const publish::Release& release : Oui().releases) {
      std::string line = std::to_string(release.version % 1000) + ": released " +
                         time(release.released) + ", withdrawn " + time(release.withdrawn);
      line += release.restores ? ", restores " + std::to_string(*release.restores % 1000) : "";
      line += !release.delta                  ? ", no delta: " + release.no_delta_reason
              : release.delta->withdrawn == 0 ? ", delta"
                                              : ", delta until " + time(release.delta->withdrawn);
      lines.push_back(line);
    }
    return lines;
  }

  std::uint64_t SizeOf(const std::string& package) const {
    return std::filesystem::file_size(Path("repo/public/packages/oui/oui_" + package));
  }

  std::time_t now_ = kNow;
  std::vector<std::string> notes_;
  std::vector<std::string> steps_;
};

TEST_F(WithdrawalTest, WhatTakesTheBadVersionsPlaceIsRecordedReportedAndServed) {
  Init(NewRepository());
  Make("1");
  Make("2");
  Make("3");
  const Tree before = ReadTree(Path("repo"));
  const publish::WithdrawReport tried = Withdraw(1000003, true);
  EXPECT_EQ(ReadTree(Path("repo")), before);
  EXPECT_THAT(steps_, ::testing::Not(::testing::Contains("publishing")));
  --now_;
  const publish::WithdrawReport report = Withdraw(1000003);
  EXPECT_THAT(notes_, IsEmpty());
  EXPECT_EQ(steps_.back(), "publishing");
  EXPECT_THAT(Releases(),
              ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                          "2: released 2, withdrawn -, delta", "3: released 3, withdrawn 4, delta",
                          "4: released 4, withdrawn -, restores 2, delta"));
  const publish::Database oui = Oui();
  EXPECT_EQ(oui.last_fetch_time, kNow + 4);
  EXPECT_THAT(oui.directories, ElementsAre("/d1", "/d2", "/d3"));
  EXPECT_EQ(oui.releases[3].content, oui.releases[1].content);
  EXPECT_THAT(oui.releases[3].delta->keys, ElementsAre("/d2/t", "/d3/t", "/n"));
  EXPECT_THAT(publish::ListPublic(publish::RepositoryPaths(Path("repo"))),
              ElementsAre("database_info/1", "packages/oui/oui_d1000002",
                          "packages/oui/oui_d1000003", "packages/oui/oui_d1000004",
                          "packages/oui/oui_v1000001", "packages/oui/oui_v1000002",
                          "packages/oui/oui_v1000003", "packages/oui/oui_v1000004"));
  EXPECT_THAT(ListTree(Path("repo/state/work")), IsEmpty());
  // The bytes of a signature are others each time.
  const std::uint64_t offered = SizeOf("d1000002") + SizeOf("d1000003") + SizeOf("d1000004");
  EXPECT_EQ(report.release.full_bytes, SizeOf("v1000004"));
  EXPECT_EQ(report.release.delta_bytes, SizeOf("d1000004"));
  EXPECT_EQ(report.release.offered_bytes, offered);
  EXPECT_EQ(report.release.loads.at(2).bytes, offered);
  for (const publish::WithdrawReport& made : {report, tried}) {
    EXPECT_EQ(made.newest, 1000004);
    EXPECT_EQ(made.restored, 1000002);
    EXPECT_FALSE(made.has_ended_rollout);
    EXPECT_EQ(made.release.version, 1000004);
    EXPECT_FALSE(made.release.unchanged);
    EXPECT_EQ(made.release.files, 3u);
    EXPECT_EQ(made.release.no_delta_reason, "");
    EXPECT_EQ(made.release.offered_deltas, 3u);
    EXPECT_EQ(made.release.file_deltas.size(), 3u);
    ASSERT_EQ(made.release.changes.size(), 2u);
    EXPECT_EQ(made.release.changes[0].renamed_from, "/d3/t");
    EXPECT_EQ(made.release.changes[1].key, "/n");
    ASSERT_EQ(made.release.loads.size(), 3u);
    EXPECT_EQ(made.release.loads[0].version, 1000003);
    EXPECT_TRUE(made.release.loads[0].withdrawn);
    EXPECT_EQ(made.release.loads[2].bytes, made.release.offered_bytes);
    EXPECT_GT(*made.release.delta_bytes, 4000u);
  }
}

TEST_F(WithdrawalTest, OlderVersionIsMarkedAndNothingElse) {
  Init(NewRepository());
  Make("1");
  Make("2");
  const publish::WithdrawReport report = Withdraw(1000001);
  EXPECT_EQ(report.newest, 1000002);
  EXPECT_EQ(report.restored, std::nullopt);
  EXPECT_FALSE(report.has_ended_rollout);
  EXPECT_EQ(report.release.version, 0);
  EXPECT_THAT(Releases(),
              ElementsAre("1: released 1, withdrawn 3, no delta: it is the first release",
                          "2: released 2, withdrawn -, delta"));
  EXPECT_EQ(Oui().last_fetch_time, kNow + 2);
  EXPECT_THAT(steps_, ElementsAre("publishing"));
  ExpectError([&] { Withdraw(1000001); },
              "withdraw oui: version 1000001 was withdrawn already, on 2027-01-15 08:00");
  ExpectError([&] { Withdraw(1000000); },
              "withdraw oui: version 1000000 is not kept here: it was retired, or never released; "
              "the oldest one is 1000001");
  ExpectError([&] { Withdraw(1000003); },
              "withdraw oui: version 1000003 was never released; the newest one is 1000002");
  ExpectError([&] { Withdraw(1000002); },
              "withdraw oui: no good version before 1000002 is kept, whose files could take its "
              "place; release good ones by \"release\", then withdraw 1000002 to mark it");
}

// One whose package devices load while the bad one was offered is a step on the way back.
TEST_F(WithdrawalTest, DeltaThatWasTakenBackBeforeTheBadVersionIsNotOfferedAgain) {
  Init(NewRepository());
  Make("1");
  Make("2");
  Make("3");
  Make("4");
  ChangeCatalog([](std::vector<publish::Release>& releases) {
    releases[1].delta->withdrawn = kNow + 2;
    releases[2].delta->withdrawn = kNow + 4;
  });
  Withdraw(1000004);
  EXPECT_THAT(Releases(),
              ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                          "2: released 2, withdrawn -, delta until 2",
                          "3: released 3, withdrawn -, delta", "4: released 4, withdrawn 5, delta",
                          "5: released 5, withdrawn -, restores 3, delta"));
  EXPECT_THAT(notes_, IsEmpty());
}

TEST_F(WithdrawalTest, DeltaThatDoesNotLeadToTheGoodFilesIsOfferedNoLonger) {
  Init(NewRepository());
  Make("1");
  Make("2");
  Make("3");
  const std::string deltas[] = {Path("repo/public/packages/oui/oui_d1000002"),
                                Path("repo/public/packages/oui/oui_d1000003")};
  std::filesystem::copy(Path("repo"), Path("kept"), std::filesystem::copy_options::recursive);
  ChangeByte(deltas[0], 100);
  EXPECT_EQ(Withdraw(1000003).release.offered_deltas, 2u);
  EXPECT_THAT(
      Releases(),
      ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                  "2: released 2, withdrawn -, delta until 4", "3: released 3, withdrawn 4, delta",
                  "4: released 4, withdrawn -, restores 2, delta"));
  ASSERT_EQ(notes_.size(), 2u);
  EXPECT_THAT(notes_[0], ::testing::AllOf(::testing::StartsWith("by deltas from 1000001: "),
                                          ::testing::EndsWith("; they are not offered")));
  EXPECT_EQ(notes_[1], "deltas to 1000002 and older are not offered any more");
  std::filesystem::remove_all(Path("repo"));
  std::filesystem::rename(Path("kept"), Path("repo"));
  ChangeByte(deltas[1], 100);
  EXPECT_EQ(Withdraw(1000003).release.offered_deltas, 1u);
  EXPECT_THAT(Releases(),
              ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                          "2: released 2, withdrawn -, delta until 5",
                          "3: released 3, withdrawn 5, delta until 5",
                          "4: released 5, withdrawn -, restores 2, delta"));
  EXPECT_EQ(notes_.back(), "deltas to 1000003 and older are not offered any more");
}

TEST_F(WithdrawalTest, DamagedDeltaOfTheOnlyStepIsOfferedNoLonger) {
  Init(NewRepository());
  Make("1");
  Make("2");
  ChangeByte(Path("repo/public/packages/oui/oui_d1000002"), 100);
  EXPECT_EQ(Withdraw(1000002).release.offered_deltas, 1u);
  EXPECT_THAT(Releases(),
              ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                          "2: released 2, withdrawn 3, delta until 3",
                          "3: released 3, withdrawn -, restores 1, delta"));
  EXPECT_THAT(notes_, ElementsAre(::testing::StartsWith("by deltas from 1000001: "),
                                  "deltas to 1000002 and older are not offered any more"));
}

TEST_F(WithdrawalTest, VersionAfterAGapIsTakenBackWithItsOwnStepAlone) {
  Init(NewRepository());
  Make("1");
  Make("2");
  Make("3", {}, 1000005);
  const publish::WithdrawReport report = Withdraw(1000005);
  EXPECT_EQ(report.newest, 1000006);
  EXPECT_EQ(report.restored, 1000002);
  const std::string gap =
      "no delta: there is a gap after version 1000002, and a device steps from one version to the "
      "next";
  EXPECT_THAT(
      Releases(),
      ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                  "2: released 2, withdrawn -, delta until 3", "5: released 3, withdrawn 4, " + gap,
                  "6: released 4, withdrawn -, restores 2, delta"));
  EXPECT_THAT(notes_, IsEmpty());
}

TEST_F(WithdrawalTest, WhereNoDeltasAreWantedTheGoodFilesComeInFull) {
  publish::InitRequest request = NewRepository();
  request.settings.chain_share_percent = 0;
  Init(request);
  Make("1");
  Make("2");
  const std::string reason = "no deltas are wanted (the chain share is 0 %)";
  const publish::WithdrawReport report = Withdraw(1000002);
  EXPECT_EQ(report.release.no_delta_reason, reason);
  EXPECT_EQ(report.release.delta_bytes, std::nullopt);
  EXPECT_THAT(report.release.file_deltas, IsEmpty());
  EXPECT_EQ(report.release.offered_deltas, 0u);
  EXPECT_EQ(report.release.changes.size(), 2u);
  EXPECT_THAT(Releases(),
              ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                          ::testing::StartsWith("2: released 2, withdrawn 3, no delta: with "),
                          "3: released 3, withdrawn -, restores 1, no delta: " + reason));
  EXPECT_THAT(Oui().directories, ElementsAre("/d1"));
  EXPECT_THAT(
      notes_,
      ElementsAre("no delta leads to version 1000003, every device takes the full package: " +
                  reason));
  EXPECT_THAT(ListTree(Path("repo/public/packages/oui")),
              ElementsAre("oui_v1000001", "oui_v1000002", "oui_v1000003"));
}

TEST_F(WithdrawalTest, DamagedStepIsNotedAndNotLedTo) {
  Init(NewRepository());
  Make("1");
  Make("2");
  const std::string bad = Path("repo/public/packages/oui/oui_v1000002");
  WriteFile(bad, "bad");
  const publish::WithdrawReport report = Withdraw(1000002);
  const std::string reason = "the full package of version 1000002 is damaged";
  EXPECT_EQ(report.release.no_delta_reason, reason);
  EXPECT_THAT(report.release.changes, IsEmpty());
  ASSERT_EQ(notes_.size(), 2u);
  EXPECT_THAT(notes_[0],
              ::testing::AllOf(::testing::StartsWith(bad + ": "),
                               ::testing::EndsWith("; no delta leads there or on from there")));
  EXPECT_EQ(notes_[1],
            "no delta leads to version 1000003, every device takes the full package: " + reason);
  EXPECT_THAT(Releases(),
              ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                          "2: released 2, withdrawn 3, delta until 3",
                          "3: released 3, withdrawn -, restores 1, no delta: " + reason));
}

TEST_F(WithdrawalTest, StepThatNoDeltaCanMakeIsNoted) {
  Init(NewRepository());
  Make("1");
  const std::string path = Path("tree/way/in/t");
  WriteFile(path, Noise(4000, 3));
  Make("2");
  std::filesystem::remove_all(Path("tree/way"));
  WriteFile(Path("tree/way"), Noise(4000, 4));
  Make("3");
  std::filesystem::remove(Path("tree/way"));
  const std::string reason = Oui().releases[2].no_delta_reason;
  EXPECT_THAT(reason, ::testing::StartsWith("/way: devices may have a directory here"));
  Withdraw(1000003);
  EXPECT_THAT(notes_,
              ElementsAre(::testing::StartsWith("no delta leads to version 1000003: /way: ")));
  EXPECT_THAT(Releases(),
              ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                          "2: released 2, withdrawn -, delta until 3",
                          "3: released 3, withdrawn 4, no delta: " + reason,
                          "4: released 4, withdrawn -, restores 2, delta"));
}

TEST_F(WithdrawalTest, DeltasThatTheStepsCannotFollowStayTakenBack) {
  Init(NewRepository());
  WriteFile(Path("tree/large"), Noise(100000, 5));  // beside which no delta is too large
  Make("1");
  WriteFile(Path("tree/way/t"), Noise(4000, 3));
  Make("2");
  std::filesystem::remove_all(Path("tree/way"));
  Make("3");
  // Devices would have a directory there by the deltas before.
  WriteFile(Path("tree/way"), Noise(4000, 4));
  Make("4");
  std::filesystem::remove(Path("tree/way"));
  Withdraw(1000004);
  EXPECT_THAT(
      Releases(),
      ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                  "2: released 2, withdrawn -, delta until 4",
                  "3: released 3, withdrawn -, delta until 4", "4: released 4, withdrawn 5, delta",
                  "5: released 5, withdrawn -, restores 3, delta"));
  EXPECT_THAT(notes_, IsEmpty());
}

TEST_F(WithdrawalTest, DeltaThatWasTooLargeIsMadeForAStepToFollowWhatItCan) {
  publish::InitRequest request = NewRepository();
  request.settings.chain_share_percent = 10;
  Init(request);
  WriteFile(Path("tree/large"), Noise(200000, 5));
  Make("1");
  WriteFile(Path("tree/way/t"), Noise(4000, 3));
  Make("2");
  std::filesystem::remove_all(Path("tree/way"));
  Make("3");
  WriteFile(Path("tree/way"), Noise(30000, 4));
  Make("4");
  std::filesystem::remove(Path("tree/way"));
  EXPECT_THAT(Oui().releases[3].no_delta_reason, ::testing::StartsWith("with 3"));
  EXPECT_EQ(Withdraw(1000004).release.offered_deltas, 2u);
  EXPECT_THAT(
      Releases(),
      ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                  "2: released 2, withdrawn -, delta until 4",
                  "3: released 3, withdrawn -, delta until 4", "4: released 4, withdrawn 5, delta",
                  "5: released 5, withdrawn -, restores 3, delta"));
  EXPECT_THAT(notes_, IsEmpty());
  EXPECT_GT(SizeOf("d1000004"), 30000u);
}

TEST_F(WithdrawalTest, VersionThatNoDeviceCouldBeToldOfIsNotMade) {
  publish::InitRequest request = NewRepository();
  request.settings.base_url = {"http", "example.org/1000003"};
  Init(request);
  Make("1");
  Make("2");
  const Tree before = ReadTree(Path("repo"));
  ExpectError([&] { Withdraw(1000002); },
              ::testing::HasSubstr("the text \"1000003\" occurs 2 times in "
                                   "http://example.org/1000003/packages/oui/oui_v1000003"));
  EXPECT_EQ(ReadTree(Path("repo")), before);
}

TEST_F(WithdrawalTest, WayBackThatIsNotSmallerThanTheFullPackageIsNotOffered) {
  Init(NewRepository());
  Make("1");
  ++now_;
  WriteFile(Path("tree/n"), "bad");
  publish::ReleaseRequest request = NewRelease();
  request.allow_shrink = true;
  MakeRelease(
      request, now_, [](const std::string&) {}, [](const publish::Step&) {});
  const publish::WithdrawReport report = Withdraw(1000002);
  const std::string reason = report.release.no_delta_reason;
  EXPECT_THAT(reason, ::testing::MatchesRegex("with [0-9]{5} bytes it is not smaller than the full "
                                              "package"));
  EXPECT_GE(std::stoull(reason.substr(5)), SizeOf("v1000003"));
  EXPECT_EQ(report.release.delta_bytes, std::nullopt);
  EXPECT_EQ(Oui().releases[2].no_delta_reason, reason);
  EXPECT_THAT(
      notes_,
      ElementsAre("no delta leads to version 1000003, every device takes the full package: " +
                  reason));
  EXPECT_FALSE(std::filesystem::exists(Path("repo/public/packages/oui/oui_d1000003")));
}

TEST_F(WithdrawalTest, WithoutAnotherVersionOrWithOtherFilesNothingIsChanged) {
  Init(NewRepository());
  Make("1", {}, INT_MAX - 1);
  Make("2");
  const Tree before = ReadTree(Path("repo"));
  ExpectError([&] { Withdraw(INT_MAX); }, "withdraw oui: there is no version after 2147483647");
  EXPECT_EQ(ReadTree(Path("repo")), before);
}

TEST_F(WithdrawalTest, PackageWithOtherFilesThanWereReleasedIsNotReleasedAgain) {
  Init(NewRepository());
  Make("1");
  Make("2");
  ChangeCatalog(
      [](std::vector<publish::Release>& releases) { releases[0].content = std::string(96, '0'); });
  const Tree before = ReadTree(Path("repo"));
  ExpectError([&] { Withdraw(1000002); },
              "withdraw oui: the package of version 1000001 does not have the files that were "
              "released");
  EXPECT_EQ(ReadTree(Path("repo")), before);
}

TEST_F(WithdrawalTest, WhileARolloutIsOpenTheStableVersionAndItsFilesStay) {
  now_ = std::time(nullptr);  // by which descriptions are signed
  Init(NewSignedRepository(now_));
  const std::string of = ' ' + Path("repo") + " oui";
  const std::vector<offer::RolloutStep> stages = {{500, 3600}, {10000, 0}};
  Make("a");
  Make("b");
  Make("a");
  Make("c", stages);
  ExpectError(
      [&] { Withdraw(1000003); },
      "withdraw oui: 1000003 is the stable version while 1000004 is rolled out. If 1000004 is "
      "good, \"tolmdbpub rollout finish" +
          of +
          "\" makes it the stable one, and 1000003 can be withdrawn then; otherwise withdraw "
          "1000004 before, and then the version that takes its place");
  ExpectError([&] { Withdraw(1000001); },
              "withdraw oui: version 1000003, the stable one, has the same files as 1000001; "
              "withdraw that one when the rollout is over");
  // Another older one is marked, and what all devices are offered is the stable one.
  EXPECT_EQ(Withdraw(1000002).newest, 1000003);
  EXPECT_EQ(Oui().rollout->stable, 1000003);
  const publish::WithdrawReport report = Withdraw(1000004);
  EXPECT_TRUE(report.has_ended_rollout);
  EXPECT_EQ(report.restored, 1000003);
  EXPECT_FALSE(Oui().rollout);
  EXPECT_EQ(Oui().releases[2].offered_until, now_);
}

TEST_F(WithdrawalTest, StableVersionWithBadFilesIsNoneToGoBackTo) {
  now_ = std::time(nullptr);  // by which descriptions are signed
  Init(NewSignedRepository(now_));
  const std::string of = ' ' + Path("repo") + " oui";
  Make("a");
  Make("b");
  Withdraw(1000001);
  Make("a");
  Make("c", {{500, 3600}, {10000, 0}});
  const auto sentence = [&](const std::string& more) {
    return "withdraw oui: version 1000003, the stable one, has files that were withdrawn, or those "
           "of 1000004; \"tolmdbpub rollout finish" +
           of + more + "\" before takes the files of an earlier one";
  };
  ExpectError([&] { Withdraw(1000004); }, sentence(""));
  publish::ChangeRollout({Path("repo"), "oui", publish::RolloutAction::kStop}, now_,
                         [](const std::string&) {});
  ExpectError([&] { Withdraw(1000004); }, sentence(" --yes"));
}

// What leads to the oldest release that is kept comes from one that is not.
TEST_F(WithdrawalTest, DeltaToTheOldestReleaseThatIsKeptStaysWithThoseAfterIt) {
  InitWithRoomForDeltas();
  for (const char* text : {"1", "2", "3", "4"}) {
    Make(text);
  }
  ChangeCatalog([](std::vector<publish::Release>& releases) { releases.erase(releases.begin()); });
  std::filesystem::copy(Path("repo"), Path("kept"), std::filesystem::copy_options::recursive);
  EXPECT_EQ(Withdraw(1000004).release.offered_deltas, 4u);
  EXPECT_THAT(Releases(),
              ElementsAre("2: released 2, withdrawn -, delta", "3: released 3, withdrawn -, delta",
                          "4: released 4, withdrawn 5, delta",
                          "5: released 5, withdrawn -, restores 3, delta"));
  EXPECT_THAT(notes_, IsEmpty());
  std::filesystem::remove_all(Path("repo"));
  std::filesystem::rename(Path("kept"), Path("repo"));
  ChangeByte(Path("repo/public/packages/oui/oui_d1000003"), 100);
  EXPECT_EQ(Withdraw(1000004).release.offered_deltas, 2u);
  EXPECT_THAT(Releases(), ElementsAre("2: released 2, withdrawn -, delta until 6",
                                      "3: released 3, withdrawn -, delta until 6",
                                      "4: released 4, withdrawn 6, delta",
                                      "5: released 6, withdrawn -, restores 3, delta"));
  EXPECT_THAT(notes_, ElementsAre(::testing::StartsWith("by deltas from 1000002: "),
                                  "deltas to 1000003 and older are not offered any more"));
}

TEST_F(WithdrawalTest, DeltasThatTheFirstOfSeveralBadVersionsDroveOutAreOfferedAgain) {
  InitWithRoomForDeltas();
  for (const char* text : {"1", "2", "3", "4", "5"}) {
    Make(text);
  }
  ChangeCatalog([](std::vector<publish::Release>& releases) {
    releases[1].delta->withdrawn = kNow + 3;  // by the good version itself
    releases[2].delta->withdrawn = kNow + 4;
  });
  Withdraw(1000004);
  EXPECT_EQ(Withdraw(1000005).release.offered_deltas, 4u);
  EXPECT_THAT(
      Releases(),
      ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                  "2: released 2, withdrawn -, delta until 3", "3: released 3, withdrawn -, delta",
                  "4: released 4, withdrawn 6, delta", "5: released 5, withdrawn 7, delta",
                  "6: released 7, withdrawn -, restores 3, delta"));
  EXPECT_THAT(notes_, IsEmpty());
}

TEST_F(WithdrawalTest, DeltasForWhichThereIsNoRoomStayAsTheyWere) {
  publish::InitRequest request = NewRepository();
  request.settings.chain_share_percent = 65;
  Init(request);
  for (const char* text : {"1", "2", "3", "4"}) {
    Make(text);
  }
  WriteFile(Path("tree/bad"), Noise(9000, 6));
  Make("5");
  std::filesystem::remove(Path("tree/bad"));
  const std::vector<std::string> driven_out = {"2: released 2, withdrawn -, delta until 5",
                                               "3: released 3, withdrawn -, delta until 5"};
  ASSERT_THAT(Releases(), ::testing::IsSupersetOf(driven_out));
  std::filesystem::copy(Path("repo"), Path("kept"), std::filesystem::copy_options::recursive);
  Withdraw(1000005);
  EXPECT_THAT(Releases(), ::testing::IsSupersetOf(driven_out));
  std::filesystem::remove_all(Path("repo"));
  std::filesystem::rename(Path("kept"), Path("repo"));
  ChangeCatalog([](std::vector<publish::Release>& releases) { releases.erase(releases.begin()); });
  Withdraw(1000005);
  EXPECT_THAT(Releases(), ::testing::IsSupersetOf(driven_out));
}

TEST_F(WithdrawalTest, DirectoriesOfTheGoodVersionAreKeptInMind) {
  publish::InitRequest request = NewRepository();
  request.settings.chain_share_percent = 25;
  Init(request);
  WriteFile(Path("tree/large"), Noise(60000, 5));
  WriteFile(Path("tree/way/in/t"), Noise(4000, 3));
  Make("1");
  std::filesystem::remove_all(Path("tree/way"));
  WriteFile(Path("tree/more"), Noise(30000, 6));
  Make("2");
  WriteFile(Path("tree/way"), Noise(4000, 4));
  Make("3");
  ASSERT_THAT(Oui().directories, ElementsAre("/d2", "/d3"));
  Withdraw(1000002);
  const std::string too_large = Oui().releases[1].no_delta_reason;
  EXPECT_THAT(too_large, ::testing::StartsWith("with 3"));
  EXPECT_EQ(Withdraw(1000003).release.offered_deltas, 1u);
  EXPECT_THAT(notes_, ElementsAre(::testing::StartsWith("no delta leads to version 1000003: /way: "
                                                        "devices may have a directory here"),
                                  "deltas to 1000003 and older are not offered any more"));
  EXPECT_THAT(Releases(),
              ElementsAre("1: released 1, withdrawn -, no delta: it is the first release",
                          "2: released 2, withdrawn 4, no delta: " + too_large,
                          "3: released 3, withdrawn 5, delta until 5",
                          "4: released 5, withdrawn -, restores 1, delta"));
  EXPECT_THAT(Oui().directories, ElementsAre("/d1", "/d2", "/d3", "/way", "/way/in"));
}

TEST_F(WithdrawalTest, DeltaToTheOldestReleaseThatAStepCannotFollowStaysTakenBack) {
  InitWithRoomForDeltas();
  // These have one name among a device's work copies.
  WriteFile(Path("tree/a.b"), "1");
  WriteFile(Path("tree/a_b"), "1");
  Make("1");
  WriteFile(Path("tree/a.b"), "2");
  Make("2");
  Make("3");
  WriteFile(Path("tree/a_b"), "4");
  Make("4");
  ChangeCatalog([](std::vector<publish::Release>& releases) { releases.erase(releases.begin()); });
  Withdraw(1000004);
  EXPECT_THAT(Releases(),
              ElementsAre("2: released 2, withdrawn -, delta until 4",
                          "3: released 3, withdrawn -, delta", "4: released 4, withdrawn 5, delta",
                          "5: released 5, withdrawn -, restores 3, delta"));
  EXPECT_THAT(notes_, IsEmpty());
}

}  // namespace
}  // namespace tolm::testing

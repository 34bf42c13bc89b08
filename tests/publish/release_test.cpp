#include "publish/release.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "publish/files.h"
#include "publish/repository.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"
#include "tests/support/files.h"

namespace tolm::testing {
namespace {

using publish::Load;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

publish::Release ReleaseOf(int version, std::uint64_t delta_bytes) {
  publish::Release release;
  release.version = version;
  if (delta_bytes > 0) {
    release.delta = publish::DeltaRecord{{"d", delta_bytes, "d"}, {}, 0};
  }
  return release;
}

auto IsLoad(int version, bool withdrawn, std::uint64_t deltas, std::uint64_t bytes) {
  return AllOf(Field(&Load::version, version), Field(&Load::withdrawn, withdrawn),
               Field(&Load::deltas, deltas), Field(&Load::bytes, bytes));
}

TEST(LoadsTest, EachVersionLoadsTheDeltasFromThereOn) {
  publish::Database database;
  database.releases = {ReleaseOf(1, 0), ReleaseOf(2, 10), ReleaseOf(3, 200)};
  database.releases[1].withdrawn = 7;
  EXPECT_THAT(publish::LoadsOf(database),
              ElementsAre(IsLoad(2, true, 1, 200), IsLoad(1, false, 2, 210)));
  EXPECT_THAT(publish::LoadsTo(database, 2), ElementsAre(IsLoad(1, false, 1, 10)));
  EXPECT_THAT(publish::LoadsTo(database, 1), IsEmpty());
}

class StagedReleaseTest : public ReleaseFixture {
 protected:
  publish::ReleaseReport Make(const publish::ReleaseRequest& request, std::time_t now) const {
    return MakeRelease(
        request, now, [](const std::string&) {}, [](const publish::Step&) {});
  }

  const std::time_t now_ = std::time(nullptr);
};

// Hours after the command was given, when its packages are large.
TEST_F(StagedReleaseTest, RolloutStartsWhenTheReleaseIsReady) {
  const std::time_t given = now_ - 5000;
  InitRepository(NewSignedRepository(given), given);
  publish::ReleaseRequest request = NewRelease();
  Make(request, given);
  WriteFile(Path("tree/a.txt"), "b");
  request.version = publish::kFirstVersion + 2;  // No delta leads there, so that none is proved.
  request.stages = publish::ParseStages("10%/1h,100%");
  const publish::ReleaseReport report = Make(request, given + 1);
  ASSERT_TRUE(report.rollout) << "how it goes on is not told";
  EXPECT_GE(report.rollout->plan.start, now_);
}

// Of a repository that signs its descriptions. Versions follow each other with gaps, so that no
// delta is made, unless it is what a test is about.
class GapReleaseTest : public ReleaseFixture {
 protected:
  GapReleaseTest() {
    InitRepository(NewSignedRepository(now_), now_);
    request_ = NewRelease();
  }

  publish::ReleaseReport Make(std::optional<int> version, const std::string& content,
                              std::int64_t later = 0) {
    WriteFile(Path("tree/a.txt"), content);
    request_.version = version;
    notes_.clear();
    steps_.clear();
    begun_.clear();
    return publish::MakeRelease(
        request_, now_ + later, [this](const std::string& note) { notes_.push_back(note); },
        [this](const publish::Step& step) {
          if (steps_.empty() || steps_.back() != step.what) {
            steps_.emplace_back(step.what);
          }
          if (step.done == 0 && step.total == 0) {
            begun_.emplace_back(step.what);
          }
        });
  }
  publish::Catalog Catalog() const { return publish::LoadCatalog(Path("repo/state/catalog.json")); }
  publish::Database Oui() const { return Catalog().databases.at("oui"); }
  void ExpectRefused(const ::testing::Matcher<std::string>& text, std::optional<int> version,
                     const std::string& content, std::int64_t later = 0) {
    const Tree before = ReadTree(Path("repo"));
    ExpectError([&] { Make(version, content, later); }, text);
    EXPECT_EQ(ReadTree(Path("repo")), before);
  }

  const std::time_t now_ = std::time(nullptr);
  publish::ReleaseRequest request_;
  std::vector<std::string> notes_;
  std::vector<std::string> steps_;  // without those that go on
  std::vector<std::string> begun_;  // without files of a delta
};

TEST_F(GapReleaseTest, FirstReleaseIsToldAndKept) {
  WriteFile(Path("tree/d/e/b.txt"), "b");
  const publish::ReleaseReport report = Make(std::nullopt, "1");
  EXPECT_EQ(report.version, publish::kFirstVersion);
  EXPECT_FALSE(report.unchanged);
  EXPECT_EQ(report.files, 2u);
  EXPECT_THAT(report.changes, IsEmpty());
  EXPECT_THAT(report.file_deltas, IsEmpty());
  EXPECT_FALSE(report.delta_bytes);
  EXPECT_EQ(report.no_delta_reason, "it is the first release");
  EXPECT_EQ(report.offered_deltas, 0u);
  EXPECT_EQ(report.offered_bytes, 0u);
  EXPECT_THAT(report.loads, IsEmpty());
  EXPECT_EQ(report.refusal, "");
  EXPECT_FALSE(report.rollout);
  EXPECT_THAT(notes_, IsEmpty());
  EXPECT_THAT(steps_,
              ElementsAre("reading files", "packing", "unpacking", "counting", "publishing"));
  const publish::Database oui = Oui();
  ASSERT_EQ(oui.releases.size(), 1u);
  const publish::Release& release = oui.releases[0];
  EXPECT_EQ(release.version, report.version);
  EXPECT_EQ(release.released, now_);
  EXPECT_EQ(oui.last_fetch_time, now_);
  EXPECT_EQ(release.full.path, "packages/oui/oui_v1000001");
  EXPECT_EQ(release.full.size_bytes, report.full_bytes);
  EXPECT_EQ(report.full_bytes,
            std::filesystem::file_size(Path("repo/public/" + release.full.path)));
  EXPECT_EQ(release.no_delta_reason, report.no_delta_reason);
  EXPECT_EQ(release.content, publish::TreeDigest(publish::ScanTree(Path("tree"))));
  EXPECT_THAT(oui.directories, ElementsAre("/d", "/d/e"));
  const Tree before = ReadTree(Path("repo"));
  const publish::ReleaseReport again = Make(std::nullopt, "1", 5);
  EXPECT_TRUE(again.unchanged);
  EXPECT_EQ(again.version, report.version);
  EXPECT_TRUE(Make(report.version, "1", 5).unchanged);
  EXPECT_EQ(ReadTree(Path("repo")), before);
}

TEST_F(GapReleaseTest, VersionsFollowEachOther) {
  EXPECT_EQ(Make(5, "1").version, 5);
  const std::string start = "release oui: version ";
  const std::string end = " does not follow 5, the newest one; what was released stays as it is";
  ExpectRefused(start + '5' + end, 5, "2");
  ExpectRefused(start + '4' + end, 4, "1");
  const publish::ReleaseReport report = Make(7, "1", 3);
  EXPECT_EQ(report.no_delta_reason,
            "there is a gap after version 5, and a device steps from one version to the next");
  EXPECT_THAT(notes_, ElementsAre("no delta leads to version 7, every device takes the full "
                                  "package: " +
                                  report.no_delta_reason));
  EXPECT_THAT(report.changes, IsEmpty()) << "the same files under another version";
  EXPECT_EQ(Make(9, "2").changes.size(), 1u);
  Make(INT_MAX, "3");
  ExpectRefused("release oui: there is no version after 2147483647", std::nullopt, "4");
  std::filesystem::remove_all(Path("tree"));
  std::filesystem::create_directory(Path("tree"));
  request_.directory = Path("empty");
  std::filesystem::create_directory(Path("empty"));
  ExpectRefused("release oui: " + Path("empty") + ": no files in it", std::nullopt, "4");
}

TEST_F(GapReleaseTest, DirectoriesOfReleasesWithoutADeltaAreForgotten) {
  WriteFile(Path("tree/d/b.txt"), "b");
  Make(1, "1");
  std::filesystem::remove_all(Path("tree/d"));
  WriteFile(Path("tree/e/b.txt"), "b");
  request_.stages = publish::ParseStages("10%/1d,100%");
  Make(3, "2");
  EXPECT_THAT(Oui().directories, ElementsAre("/d", "/e")) << "others go on by deltas";
  request_.stages = publish::ParseStages("100%");
  Make(5, "3");
  request_.stages.clear();
  Make(7, "4", 1000000);
  EXPECT_THAT(Oui().directories, ElementsAre("/e"));
}

TEST_F(GapReleaseTest, WhatCannotBeStagedOrFollowedIsRefused) {
  request_.stages = publish::ParseStages("10%/1d,50%");
  ExpectRefused(
      "release oui: nothing is stable yet that devices could stay with: a first release reaches "
      "all of them, without --stages",
      1, "1");
  request_.stages.clear();
  Make(1, "1");
  request_.stages = publish::ParseStages("10%/1d,50%");
  const publish::ReleaseReport staged = Make(3, "2");
  ASSERT_TRUE(staged.rollout);
  EXPECT_EQ(staged.rollout->stable, 1);
  EXPECT_EQ(staged.rollout->next, 3);
  EXPECT_EQ(staged.rollout->plan.steps.size(), 2u);
  EXPECT_GE(staged.rollout->plan.start, now_);
  EXPECT_EQ(Oui().last_fetch_time, now_);
  request_.stages.clear();
  const std::string of = ' ' + Path("repo") + " oui";
  ExpectRefused(
      "release oui: the rollout of 3 is open, and without --stages this release would "
      "reach all devices. \"tolmdbpub rollout finish" +
          of + "\" makes 3 the stable version before; \"tolmdbpub rollout stop" + of +
          "\" and \"tolmdbpub withdraw" + of +
          " 3\" take it back; --stages lets this release take its place",
      5, "3", 1000000);
  request_.stages = publish::ParseStages("100%");
  EXPECT_EQ(Make(5, "3").rollout->stable, 1);
  EXPECT_THAT(notes_, ::testing::Contains(
                          "this release takes the place of 3, which is staged still: devices that "
                          "have 3 are offered it at once, all others by its own steps"));
  request_.stages.clear();
  EXPECT_FALSE(Make(7, "4", 1000).rollout);
  EXPECT_THAT(notes_, ::testing::Contains("5 is offered to all devices: its rollout is finished "
                                          "with this release"));
  EXPECT_EQ(Oui().releases[0].offered_until, now_ + 1000);
}

TEST_F(GapReleaseTest, StepsShorterThanADayAreNoted) {
  Make(1, "1");
  const auto notes = [this](const std::string& stages) {
    request_.stages = publish::ParseStages(stages);
    request_.dry_run = true;
    Make(3, "2");
    return std::vector<std::string>(notes_.begin() + 1, notes_.end());
  };
  EXPECT_THAT(notes("1%/24h,100%"), IsEmpty());
  EXPECT_THAT(notes("100%"), IsEmpty());
  EXPECT_THAT(notes("1%/2d,5%/23h,10%/30m,100%"),
              ElementsAre("a step of 30 min is shorter than a day: devices with the shipped timer "
                          "ask once a day, so only some of those that it reaches take this version "
                          "before the next step begins"));
}

TEST_F(GapReleaseTest, DryRunTellsAllReasonsAndChangesNothing) {
  Make(1, "1");
  {
    publish::RepositoryChange change(Path("repo"), [](const std::string&) {});
    change.catalog.databases["oui"].releases[0].withdrawn = now_;
    change.settings.databases["oui"].test = "echo wrong; false";
    change.Begin("test");
    change.Commit();
  }
  const Tree before = ReadTree(Path("repo"));
  const std::string all =
      "its files were withdrawn (--allow-withdrawn releases them all the same); its test was not "
      "passed";
  request_.dry_run = true;
  const publish::ReleaseReport report = Make(3, "1", 1);
  EXPECT_EQ(report.refusal, all);
  ASSERT_GE(report.findings.size(), 2u);
  EXPECT_THAT(report.findings[0],
              ::testing::StartsWith("the files are those of version 1, which was withdrawn on "));
  EXPECT_THAT(report.findings, ::testing::Contains(HasSubstr("wrong")));
  EXPECT_THAT(steps_, ElementsAre("reading files", "packing", "unpacking", "testing", "unpacking",
                                  "counting"));
  EXPECT_EQ(ReadTree(Path("repo")), before);
  request_.dry_run = false;
  try {
    Make(3, "1", 1);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const publish::Refused& refused) {
    EXPECT_EQ(refused.what(), "release oui: refused: " + all);
    EXPECT_EQ(refused.findings(), report.findings);
  }
  EXPECT_EQ(ReadTree(Path("repo")), before);
  request_.allow_withdrawn = true;
  request_.dry_run = true;
  EXPECT_EQ(Make(3, "1", 1).refusal, "its test was not passed");
  EXPECT_THAT(notes_, ::testing::Contains(report.findings[0]));
}

TEST_F(GapReleaseTest, NameThatWasRemovedGoesOnFromItsVersion) {
  {
    publish::RepositoryChange change(Path("repo"), [](const std::string&) {});
    WriteFile(change.paths().Work() + "/package", "package");
    const publish::PackageRecord record = {"packages/oui/oui_v9", 7,
                                           publish::Sha384OfText("package")};
    change.Begin("test");
    change.Publish(change.paths().Work() + "/package", record);
    change.catalog.removed["oui"] = {
        now_,
        9,
        {{record, now_ - 5}},
        {{8, now_, publish::TreeDigest(publish::ScanTree(Path("tree")))}}};
    change.Commit();
  }
  ExpectRefused(HasSubstr("its files were withdrawn"), std::nullopt, "a");
  ExpectRefused(HasSubstr("version 9 does not follow 9"), 9, "b");
  const publish::ReleaseReport report = Make(std::nullopt, "b");
  EXPECT_EQ(report.version, 10);
  EXPECT_EQ(report.no_delta_reason, "it is the first release since the database was removed");
  EXPECT_THAT(notes_, IsEmpty());
  EXPECT_THAT(Catalog().removed, IsEmpty());
  const publish::Database oui = Oui();
  ASSERT_EQ(oui.retired.size(), 1u);
  EXPECT_EQ(oui.retired[0].since, now_ - 5);
  EXPECT_EQ(oui.forgotten.size(), 1u);
  EXPECT_TRUE(std::filesystem::exists(Path("repo/public/packages/oui/oui_v9")));
}

TEST_F(GapReleaseTest, DamagedPackageBeforeIsNoReasonWhenThatIsInsistedOn) {
  Make(1, "1");
  ChangeByte(Path("repo/public/packages/oui/oui_v1"), 30);
  const std::string damaged =
      Path("repo/public/packages/oui/oui_v1") + ": is not the package that was released";
  ExpectRefused("release oui: " + damaged +
                    "; --allow-shrink releases without a comparison with it and without a delta "
                    "from it",
                3, "2");
  request_.allow_shrink = true;
  const publish::ReleaseReport report = Make(2, "2");
  EXPECT_EQ(report.no_delta_reason, "the full package of version 1 is damaged");
  EXPECT_THAT(notes_, ElementsAre(damaged, HasSubstr("no delta leads to version 2")));
  EXPECT_THAT(report.changes, IsEmpty());
}

TEST_F(GapReleaseTest, PackageThatItsTestHasWrittenToIsNamed) {
  Make(1, "1");
  {
    publish::RepositoryChange change(Path("repo"), [](const std::string&) {});
    change.settings.databases["oui"].test = "printf x >>../oui_v3";
    change.Begin("test");
    change.Commit();
  }
  ExpectRefused("release oui: " + Path("repo/state/work/oui_v3") +
                    ": was changed by another process after it was made and signed",
                3, "2");
}

TEST_F(GapReleaseTest, DeltaIsMadeAndToldByOneJobAsByTwo) {
  WriteFile(Path("tree/n"), Noise(20000));
  Make(1, "1");
  std::filesystem::copy(Path("repo"), Path("kept"), std::filesystem::copy_options::recursive);
  for (const int jobs : std::initializer_list<int>{1, 2}) {
    request_.jobs = jobs;
    const publish::ReleaseReport report = Make(std::nullopt, "2", 1);
    std::vector<std::string> expected = {"reading files", "packing",   "unpacking", "counting",
                                         "packing",       "replaying", "publishing"};
    if (jobs == 1) {
      expected.insert(expected.begin() + 3, "unpacking");
    }
    EXPECT_EQ(begun_, expected) << "what is done beside the full package is not told";
    EXPECT_THAT(notes_, IsEmpty());
    const publish::Release release = Oui().releases.back();
    const std::uint64_t bytes = std::filesystem::file_size(Path("repo/public/packages/oui/oui_d2"));
    EXPECT_EQ(release.delta->package.size_bytes, bytes);
    EXPECT_THAT(release.delta->keys, ElementsAre("/a.txt"));
    EXPECT_EQ(report.delta_bytes, bytes);
    EXPECT_EQ(report.no_delta_reason, "");
    EXPECT_EQ(report.file_deltas.size(), 1u);
    EXPECT_EQ(report.changes.size(), 1u);
    EXPECT_EQ(report.offered_deltas, 1u);
    EXPECT_EQ(report.offered_bytes, bytes);
    EXPECT_THAT(report.loads, ElementsAre(IsLoad(1, false, 1, bytes)));
    std::filesystem::remove_all(Path("repo"));
    std::filesystem::copy(Path("kept"), Path("repo"), std::filesystem::copy_options::recursive);
  }
}

// Of files that are noise beside "a.b" and "a_b", which have one name among a device's work copies.
class UnfitDeltaTest : public GapReleaseTest {
 protected:
  UnfitDeltaTest() { WriteFile(Path("tree/n"), Noise(20000)); }

  // With two files that would share a work copy on devices.
  void MakeFirst() {
    WriteFile(Path("tree/a_b"), "first");
    WriteFile(Path("tree/a.b"), "first");
    Make(1, "1");
  }

  void MakeOf(const std::string& key, const std::string& stages = "") {
    WriteFile(Path("tree/" + key), "changed to " + std::to_string(++later_));
    request_.stages.clear();
    if (!stages.empty()) {
      request_.stages = publish::ParseStages(stages);
    }
    Make(std::nullopt, "1", later_);
  }

  // That lead to a version: to all of them, and until when they were offered.
  std::vector<std::string> Deltas() const {
    std::vector<std::string> deltas;
    for (const publish::Release& release : Oui().releases) {
      std::string text = std::to_string(release.version);
      if (!release.delta) {
        text += " none";
      } else if (release.delta->withdrawn != 0) {
        text += " until " + std::to_string(release.delta->withdrawn - now_);
      }
      deltas.push_back(text);
    }
    return deltas;
  }

  static std::string NoLonger(int version, const std::string& keys) {
    return "the delta to " + std::to_string(version) + " is not offered any more: " + keys +
           " would share one work copy on devices";
  }

  int later_ = 0;
};

TEST_F(UnfitDeltaTest, DeltasThatANewOneCannotFollowAreOfferedNoLonger) {
  MakeFirst();
  MakeOf("c");
  MakeOf("a.b");
  MakeOf("d");
  EXPECT_THAT(notes_, IsEmpty());
  MakeOf("a_b");
  EXPECT_THAT(notes_, ElementsAre(NoLonger(2, "/a.b and /a_b"), NoLonger(3, "/a.b and /a_b")));
  EXPECT_THAT(Deltas(), ElementsAre("1 none", "2 until 4", "3 until 4", "4", "5"));
}

TEST_F(UnfitDeltaTest, StagedReleaseTakesNoDeltaFromTheStableVersion) {
  MakeFirst();
  MakeOf("a.b");
  MakeOf("a.b");
  MakeOf("a_b", "10%/1d,100%");
  EXPECT_THAT(Deltas(), ElementsAre("1 none", "2", "3", "4 none"));
  const std::string reason =
      "it cannot be applied in one update with the delta to 3, which devices with older versions "
      "need for the stable one: /a.b and /a_b would share one work copy on devices";
  EXPECT_EQ(Oui().releases.back().no_delta_reason, reason);
  EXPECT_THAT(
      notes_,
      ElementsAre("no delta leads to version 4, every device takes the full package: " + reason));
}

TEST_F(UnfitDeltaTest, StagedReleaseTakesADeltaFromTheStagedOneBeforeAlone) {
  MakeFirst();
  MakeOf("c");
  MakeOf("c");
  MakeOf("a.b", "10%/1d,100%");
  EXPECT_THAT(Deltas(), ElementsAre("1 none", "2", "3", "4"));
  MakeOf("a_b", "10%/1d,100%");
  EXPECT_THAT(Deltas(), ElementsAre("1 none", "2", "3", "4 until 4", "5"));
  EXPECT_THAT(notes_, ElementsAre(NoLonger(4, "/a.b and /a_b"),
                                  ::testing::StartsWith("this release takes the place of 4")));
}

TEST_F(UnfitDeltaTest, DirectoriesAreKeptInMindAsLongAsDeltasLeadOn) {
  WriteFile(Path("tree/d/e/b.txt"), "b");
  Make(1, "1");
  std::filesystem::remove_all(Path("tree/d"));
  MakeOf("f/b.txt");
  EXPECT_THAT(Deltas(), ElementsAre("1 none", "2"));
  EXPECT_THAT(Oui().directories, ElementsAre("/d", "/d/e", "/f"));
}

TEST_F(GapReleaseTest, VersionThatNoDeviceCouldBeToldOfIsRefusedBeforeAnythingIsMade) {
  Make(1, "1");
  {
    publish::RepositoryChange change(Path("repo"), [](const std::string&) {});
    change.settings.base_url = {"http", "example.org/3"};
    change.Begin("test");
    change.Commit();
  }
  for (const bool dry_run : std::initializer_list<bool>{true, false}) {
    request_.dry_run = dry_run;
    ExpectRefused(::testing::StartsWith(
                      "release oui: version 3 cannot be released: the text \"3\" occurs 2 times in "
                      "http://example.org/3/packages/oui/oui_v3"),
                  3, "2");
    EXPECT_THAT(begun_, ElementsAre("reading files"));
  }
}

TEST_F(GapReleaseTest, WhatLiesInAPackagesPlaceIsRefusedByADryRunAsWell) {
  WriteFile(Path("tree/n"), Noise(20000));
  Make(1, "1");
  const std::string packages = Path("repo/public/packages/oui/");
  const auto refusal = [](const std::string& path) {
    return ::testing::StartsWith("release oui: " + path +
                                 ": exists, and the catalog does not name it");
  };
  request_.dry_run = true;
  for (const char* name : {"oui_v2", "oui_d2"}) {
    std::filesystem::create_directory(packages + name);
    ExpectRefused(refusal(packages + name), 2, "2");
    std::filesystem::remove(packages + name);
  }
  request_.dry_run = false;
  std::filesystem::create_directory(packages + "oui_d2");
  ExpectError([&] { Make(2, "2"); }, refusal(packages + "oui_d2"));
  std::filesystem::remove(packages + "oui_d2");
  ASSERT_TRUE(std::filesystem::exists(packages + "oui_v2"));
  // What such a command has left is removed by the next one, and no reason for a dry run.
  const Tree before = ReadTree(Path("repo"));
  request_.dry_run = true;
  EXPECT_EQ(Make(2, "2").refusal, "");
  EXPECT_THAT(notes_, ElementsAre("an earlier command was interrupted (release of oui 2); the next "
                                  "one that changes something completes it"));
  EXPECT_EQ(ReadTree(Path("repo")), before);
  request_.dry_run = false;
  Make(2, "2");
  EXPECT_THAT(notes_, ElementsAre("an earlier command was interrupted: release of oui 2",
                                  "removed packages/oui/oui_v2, which it had not released"));
  EXPECT_TRUE(std::filesystem::exists(packages + "oui_d2"));
}

TEST_F(GapReleaseTest, WhatItsTestLeavesBesideItsFilesIsRemovedAndNotReleased) {
  Make(1, "1");
  {
    publish::RepositoryChange change(Path("repo"), [](const std::string&) {});
    change.settings.databases["oui"].test =
        "for d in new old; do mkdir ../$d; echo x >../$d/x; done";
    change.Begin("test");
    change.Commit();
  }
  EXPECT_EQ(Make(3, "2").files, 1u);
  EXPECT_EQ(Oui().releases.back().content, publish::TreeDigest(publish::ScanTree(Path("tree"))));
}

TEST_F(GapReleaseTest, WhatCannotBeCountedIsNoted) {
  Make(1, "1");
  WriteFile(Path("tree/t.db"), Database("CREATE TABLE t(k INTEGER); INSERT INTO t VALUES (1);"));
  WriteFile(Path("tree/t.db-wal"), "no log");
  Make(3, "2");
  EXPECT_THAT(notes_, ElementsAre(::testing::StartsWith("t.db has a write-ahead log beside it"),
                                  ::testing::StartsWith("no delta leads to version 3")));
}

}  // namespace
}  // namespace tolm::testing

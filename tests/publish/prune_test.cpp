#include "publish/prune.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "package/error.h"
#include "publish/files.h"
#include "publish/key_generator.h"
#include "tests/publish/expect_error.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace {

// What paths hold that are not removed; null: all are.
const char* kept = nullptr;

}  // namespace

// A disk that lets some files not be removed, when a test wants that.
int unlink(const char* path) noexcept {
  if (kept != nullptr && std::strstr(path, kept) != nullptr && access(path, F_OK) == 0) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using publish::RepositoryChange;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::time_t kNow = 1800000000;
constexpr char kOld[] = "packages/oui/oui_v1000001";
constexpr char kNew[] = "packages/oui/oui_v1000002";

// Two releases, of packages that are none.
class PruneTest : public ::testing::Test {
 protected:
  PruneTest() {
    publish::GenerateKeys(directory_.Path() / "keys", kNow);
    publish::InitRequest request;
    request.repository = root_;
    request.settings.base_url = {"http", "example.org"};
    request.settings.key = directory_.Path() / "keys/signing.key";
    request.settings.certificate_path = directory_.Path() / "keys/signing.pem";
    InitRepository(request, kNow);
    RepositoryChange change(root_, [](const std::string&) {});
    change.Begin("test");
    Release(change, 1000001, kOld);
    Release(change, 1000002, kNew);
    change.Commit();
  }
  ~PruneTest() override { kept = nullptr; }

  static void Release(RepositoryChange& change, int version, const std::string& path) {
    const std::string work = change.paths().Work() + "/package";
    WriteFile(work, "package");
    publish::Release release;
    release.version = version;
    release.released = kNow - 86400;
    release.full = {path, 7, publish::Sha384OfText("package")};
    release.no_delta_reason = "none";
    change.Publish(work, release.full);
    change.catalog.databases["oui"].releases.push_back(release);
  }

  publish::PruneReport PruneAll() { return Prune(1, 0); }

  publish::PruneReport Prune(int keep, int grace_days, std::time_t now = kNow) {
    return publish::Prune({root_, "oui", keep, grace_days}, now, [](const std::string&) {});
  }

  publish::Catalog Catalog() const {
    return publish::LoadCatalog(publish::RepositoryPaths(root_).CatalogFile());
  }

  // "path since" of each.
  static std::vector<std::string> Lines(const std::vector<publish::RetiredPackage>& packages) {
    std::vector<std::string> lines;
    for (const publish::RetiredPackage& retired : packages) {
      lines.push_back(retired.package.path + ' ' + std::to_string(retired.since - kNow));
    }
    return lines;
  }

  // Whether the action writes no new catalog.
  template <typename Action>
  bool ChangesNothing(const Action& action) const {
    const std::string file = publish::RepositoryPaths(root_).CatalogFile();
    fs::remove(directory_.Path() / "catalog");
    fs::create_hard_link(file, directory_.Path() / "catalog");
    action();
    return fs::equivalent(file, directory_.Path() / "catalog");
  }

  // What is told of a command that ends before its last step.
  template <typename Action>
  std::string CutShort(const Action& action) const {
    kept = "/state/unfinished";
    EXPECT_THROW(action(), package::Error);
    kept = nullptr;
    const std::string told = publish::UnfinishedCommand(publish::RepositoryPaths(root_));
    RepositoryChange(root_, [](const std::string&) {});  // Completes it.
    return told;
  }

  TemporaryDirectory directory_;
  const fs::path root_ = directory_.Path() / "repo";
};

TEST_F(PruneTest, OldReleaseAndItsPackageGo) {
  const publish::PruneReport report = PruneAll();
  EXPECT_THAT(report.versions, ElementsAre(1000001));
  EXPECT_THAT(report.removed, ElementsAre(kOld));
  EXPECT_THAT(publish::ListPublic(publish::RepositoryPaths(root_)),
              ElementsAre("database_info/1", kNew));
}

TEST_F(PruneTest, WhatIsCutShortIsCompletedByTheNextCommand) {
  kept = "/packages/";
  EXPECT_THROW(PruneAll(), package::Error);
  kept = nullptr;
  ASSERT_THAT(publish::ListPublic(publish::RepositoryPaths(root_)),
              ElementsAre("database_info/1", kOld, kNew));
  std::vector<std::string> notes;
  const RepositoryChange next(root_, [&](const std::string& note) { notes.push_back(note); });
  EXPECT_THAT(notes, ElementsAre("an earlier command was interrupted: prune of oui",
                                 std::string("removed ") + kOld + ", which it had not released"));
  EXPECT_THAT(publish::ListPublic(publish::RepositoryPaths(root_)),
              ElementsAre("database_info/1", kNew));
}

// With deltas, one of which was withdrawn before, by packages that are none.
class PruneOfDeltasTest : public PruneTest {
 protected:
  PruneOfDeltasTest() {
    RepositoryChange change(root_, [](const std::string&) {});
    change.Begin("test");
    Release(change, 1000003, "packages/oui/oui_v1000003");
    std::vector<publish::Release>& releases = change.catalog.databases["oui"].releases;
    for (const std::size_t at : std::initializer_list<std::size_t>{1, 2}) {
      const std::string path = "packages/oui/oui_d" + std::to_string(releases[at].version);
      const std::string work = change.paths().Work() + "/package";
      WriteFile(work, "package");
      releases[at].delta =
          publish::DeltaRecord{{path, 7, publish::Sha384OfText("package")}, {"/t"}, 0};
      releases[at].released = kNow - 86400 + static_cast<std::time_t>(at);
      change.Publish(work, releases[at].delta->package);
    }
    releases[1].delta->withdrawn = kNow - 50;
    releases[1].withdrawn = kNow - 60;
    releases[1].content = std::string(96, 'c');
    change.Commit();
  }
};

TEST_F(PruneOfDeltasTest, WhatIsRetiredIsKnownWithTheTimeWhenItWasOfferedNoLonger) {
  const publish::PruneReport report = Prune(1, 1);
  EXPECT_THAT(report.versions, ElementsAre(1000001, 1000002));
  EXPECT_THAT(report.removed, IsEmpty());
  EXPECT_THAT(report.waiting, ElementsAre("packages/oui/oui_v1000001", "packages/oui/oui_v1000002",
                                          "packages/oui/oui_d1000002"));
  const publish::Catalog catalog = Catalog();
  const publish::Database& oui = catalog.databases.at("oui");
  ASSERT_EQ(oui.releases.size(), 1u);
  EXPECT_EQ(oui.releases[0].version, 1000003);
  EXPECT_THAT(Lines(oui.retired),
              ElementsAre("packages/oui/oui_v1000001 -86399", "packages/oui/oui_v1000002 -86398",
                          "packages/oui/oui_d1000002 -50"));
  ASSERT_EQ(oui.forgotten.size(), 1u) << "what was withdrawn";
  EXPECT_EQ(oui.forgotten[0].version, 1000002);
  EXPECT_EQ(oui.forgotten[0].withdrawn, kNow - 60);
  EXPECT_EQ(oui.forgotten[0].content, std::string(96, 'c'));
  EXPECT_THAT(publish::ListPublic(publish::RepositoryPaths(root_)), ::testing::SizeIs(6));
}

TEST_F(PruneOfDeltasTest, PackageGoesInTheSecondInWhichItsGracePeriodIsOver) {
  Prune(1, 3);
  const std::time_t end = kNow - 86399 + 3 * 86400;
  EXPECT_TRUE(ChangesNothing([&] {
    const publish::PruneReport early = Prune(1, 3, end - 1);
    EXPECT_THAT(early.versions, IsEmpty());
    EXPECT_THAT(early.removed, IsEmpty());
    EXPECT_THAT(early.waiting, ::testing::SizeIs(3));
  }));
  const publish::PruneReport report = Prune(1, 3, end);
  EXPECT_THAT(report.versions, IsEmpty());
  EXPECT_THAT(report.removed, ElementsAre("packages/oui/oui_v1000001"));
  EXPECT_THAT(report.waiting,
              ElementsAre("packages/oui/oui_v1000002", "packages/oui/oui_d1000002"));
  EXPECT_THAT(Lines(Catalog().databases.at("oui").retired),
              ElementsAre("packages/oui/oui_v1000002 -86398", "packages/oui/oui_d1000002 -50"));
  EXPECT_THAT(
      publish::ListPublic(publish::RepositoryPaths(root_)),
      ElementsAre("database_info/1", "packages/oui/oui_d1000002", "packages/oui/oui_d1000003",
                  "packages/oui/oui_v1000002", "packages/oui/oui_v1000003"));
}

TEST_F(PruneOfDeltasTest, RemovedDatabaseKeepsItsNewestVersionAndWhatWasWithdrawn) {
  const auto no_notes = [](const std::string&) {};
  Prune(2, 1);
  ExpectError(
      [&] {
        publish::RemoveDatabase({root_, "oui"}, kNow, no_notes);
      },
      "remove oui: it is not deprecated, so that nobody was told of its end; \"deprecate\" it "
      "first "
      "and wait until devices have heard of it, or insist by --yes");
  EXPECT_TRUE(publish::SetDeprecated(root_, "oui", true, no_notes));
  EXPECT_EQ(publish::RemoveDatabase({root_, "oui"}, kNow + 5, no_notes), 1000003);
  const publish::Catalog catalog = Catalog();
  EXPECT_THAT(catalog.databases, IsEmpty());
  const publish::RemovedDatabase& removed = catalog.removed.at("oui");
  EXPECT_EQ(removed.since, kNow + 5);
  EXPECT_EQ(removed.newest, 1000003);
  EXPECT_THAT(Lines(removed.retired),
              ElementsAre("packages/oui/oui_v1000001 -86399", "packages/oui/oui_v1000002 -86398",
                          "packages/oui/oui_d1000002 -50", "packages/oui/oui_v1000003 5",
                          "packages/oui/oui_d1000003 5"));
  ASSERT_EQ(removed.forgotten.size(), 1u);
  EXPECT_EQ(removed.forgotten[0].version, 1000002);
  // What is left is removed as of a database that is there.
  const publish::PruneReport report = Prune(9, 0, kNow + 4);
  EXPECT_THAT(report.versions, IsEmpty());
  EXPECT_THAT(report.removed, ::testing::SizeIs(3));
  EXPECT_THAT(report.waiting,
              ElementsAre("packages/oui/oui_v1000003", "packages/oui/oui_d1000003"));
}

TEST_F(PruneOfDeltasTest, StableVersionAndWhatIsStagedAfterItStay) {
  const auto roll_out = [this](int stable) {
    RepositoryChange change(root_, [](const std::string&) {});
    change.Begin("test");
    publish::Rollout rollout;
    rollout.stable = stable;
    rollout.plan.start = kNow;
    rollout.plan.steps = {{100, 3600}, {10000, 0}};
    change.catalog.databases["oui"].rollout = rollout;
    change.Commit();
  };
  roll_out(1000001);
  EXPECT_TRUE(ChangesNothing([&] { EXPECT_THAT(Prune(1, 0).versions, IsEmpty()); }));
  roll_out(1000002);
  EXPECT_THAT(Prune(2, 0).versions, ElementsAre(1000001));
  EXPECT_THAT(Prune(1, 0).versions, IsEmpty());
  EXPECT_THAT(
      publish::ListPublic(publish::RepositoryPaths(root_)),
      ElementsAre("database_info/1", "packages/oui/oui_d1000002", "packages/oui/oui_d1000003",
                  "packages/oui/oui_v1000002", "packages/oui/oui_v1000003"));
}

TEST_F(PruneTest, OneReleaseAtLeastStaysAndNoTimeIsNegative) {
  for (const auto& [keep, grace] : {std::pair<int, int>{0, 0}, {-1, 1}, {1, -1}}) {
    EXPECT_TRUE(ChangesNothing([&, keep = keep, grace = grace] {
      ExpectError([&] { Prune(keep, grace); },
                  "prune oui: one release at least stays, and no time is negative");
    }));
  }
}

TEST_F(PruneTest, DeprecationIsSaidToChangeSomethingWhenItDoes) {
  const auto set = [this](bool deprecated) {
    return publish::SetDeprecated(root_, "oui", deprecated, [](const std::string&) {});
  };
  EXPECT_TRUE(ChangesNothing([&] { EXPECT_FALSE(set(false)); }));
  EXPECT_FALSE(ChangesNothing([&] { EXPECT_TRUE(set(true)); }));
  EXPECT_TRUE(Catalog().databases.at("oui").deprecated);
  EXPECT_TRUE(ChangesNothing([&] { EXPECT_FALSE(set(true)); }));
  EXPECT_TRUE(set(false));
  EXPECT_FALSE(Catalog().databases.at("oui").deprecated);
}

TEST_F(PruneTest, EachCommandIsNamedWhenItWasCutShort) {
  const auto no_notes = [](const std::string&) {};
  EXPECT_EQ(CutShort([&] { publish::SetDeprecated(root_, "oui", true, no_notes); }),
            "deprecate oui");
  EXPECT_EQ(CutShort([&] { PruneAll(); }), "prune of oui");
  EXPECT_EQ(CutShort([&] {
              publish::RemoveDatabase({root_, "oui", true}, kNow, no_notes);
            }),
            "remove oui");
}

}  // namespace
}  // namespace tolm::testing

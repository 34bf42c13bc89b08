#include "publish/repository.h"

#include <sys/stat.h>

#include <ctime>
#include <filesystem>

#include "package/error.h"
#include "publish/description.h"
#include "publish/files.h"
#include "publish/key_generator.h"
#include "tests/package/expect_code.h"
#include "tests/publish/expect_error.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using publish::RepositoryChange;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::time_t kNow = 1800000000;
constexpr char kFull[] = "packages/oui/oui_v1000001";

class RepositoryChangeTest : public ::testing::Test {
 protected:
  RepositoryChangeTest() {
    publish::GenerateKeys(directory_.Path() / "keys", kNow);
    publish::InitRequest request;
    request.repository = root_;
    request.settings.base_url = {"http", "example.org"};
    request.settings.key = directory_.Path() / "keys/signing.key";
    request.settings.certificate_path = directory_.Path() / "keys/signing.pem";
    InitRepository(request, kNow);
  }

  std::unique_ptr<RepositoryChange> Change() {
    notes_.clear();
    return std::make_unique<RepositoryChange>(
        root_, [this](const std::string& note) { notes_.push_back(note); });
  }

  // What a release records and puts, without real packages.
  static void Put(RepositoryChange& change) {
    const std::string work = change.paths().Work() + "/oui_v1000001";
    WriteFile(work, "package");
    change.Publish(work, {kFull, 7, publish::Sha384OfText("package")});
  }
  static void Record(RepositoryChange& change) {
    publish::Release release;
    release.version = 1000001;
    release.full = {kFull, 7, publish::Sha384OfText("package")};
    release.no_delta_reason = "first";
    change.catalog.databases["oui"].releases.push_back(release);
  }

  std::string Description() const { return ReadFile(root_ / "public/database_info/1"); }

  TemporaryDirectory directory_;
  const fs::path root_ = directory_.Path() / "repo";
  std::vector<std::string> notes_;
};

TEST_F(RepositoryChangeTest, CommittedReleaseIsDescribed) {
  {
    const auto change = Change();
    change->Begin("test");
    EXPECT_EQ(UnfinishedCommand(change->paths()), "test");
    Put(*change);
    Record(*change);
    change->Commit();
    EXPECT_EQ(UnfinishedCommand(change->paths()), "");
    WriteFile(change->paths().Work() + "/rest/x", "x");
  }
  EXPECT_THAT(notes_, IsEmpty());
  EXPECT_THAT(ListTree(root_ / "state/work"), IsEmpty());
  const auto change = Change();
  EXPECT_EQ(change->DatabaseNamed("oui").releases.back().version, 1000001);
  EXPECT_EQ(Description(), DescribeCatalog(change->catalog, change->settings.base_url));
  EXPECT_THAT(ListPublic(change->paths()), ElementsAre("database_info/1", kFull));
  EXPECT_THAT(notes_, IsEmpty());
}

TEST_F(RepositoryChangeTest, PackagesOfAnInterruptedCommandAreRemoved) {
  const std::string before = Description();
  {
    const auto change = Change();
    change->Begin("release of oui");
    Put(*change);
  }
  WriteFile(root_ / "public/packages/oui/notes.txt", "no package");
  const auto change = Change();
  EXPECT_THAT(notes_, ElementsAre("an earlier command was interrupted: release of oui",
                                  AllOf(HasSubstr(kFull), HasSubstr("removed"))));
  EXPECT_THAT(ListPublic(change->paths()),
              ElementsAre("database_info/1", "packages/oui/notes.txt"));
  EXPECT_EQ(Description(), before);
  EXPECT_EQ(UnfinishedCommand(change->paths()), "");
}

TEST_F(RepositoryChangeTest, DescriptionOfACommittedCatalogIsCompleted) {
  const std::string before = Description();
  {
    const auto change = Change();
    change->Begin("release of oui");
    Put(*change);
    Record(*change);
    change->Commit();
  }
  WriteFile(root_ / "public/database_info/1", before);
  WriteFile(root_ / "state/unfinished", "release of oui");
  const auto change = Change();
  EXPECT_THAT(notes_, Contains(HasSubstr("is written anew")));
  EXPECT_THAT(Description(), HasSubstr("oui_v1000001"));
  EXPECT_EQ(change->catalog.replaces, publish::Sha384OfText(before));
}

TEST_F(RepositoryChangeTest, PackageThatIsNotKnownIsNeverReplaced) {
  WriteFile(root_ / "public" / kFull, "published");
  ExpectError([&] { Change(); }, HasSubstr("the catalog does not name it"));
  EXPECT_THAT(notes_, IsEmpty());
  EXPECT_EQ(ReadFile(root_ / "public" / kFull), "published");
  // Nor is one that somebody puts there meanwhile.
  fs::remove(root_ / "public" / kFull);
  const auto change = Change();
  WriteFile(root_ / "public" / kFull, "published");
  change->Begin("test");
  ExpectError([&] { Put(*change); }, HasSubstr("the catalog does not name it"));
  EXPECT_EQ(ReadFile(root_ / "public" / kFull), "published");
}

TEST_F(RepositoryChangeTest, WhatWouldNeverBePutThereIsNoServedDescription) {
  const publish::RepositoryPaths paths(root_);
  const publish::Settings settings = publish::LoadSettings(paths.SettingsFile());
  const std::string path = paths.Description(settings);
  EXPECT_EQ(ServedDescription(paths, settings), Description());
  WriteFile(path, "");
  EXPECT_EQ(ServedDescription(paths, settings), "");
  fs::remove(path);
  EXPECT_EQ(ServedDescription(paths, settings), "");
  fs::create_symlink("/etc/passwd", path);
  EXPECT_EQ(ServedDescription(paths, settings), "");
  for (const mode_t kind : std::initializer_list<mode_t>{S_IFSOCK, S_IFIFO}) {
    fs::remove(path);
    ASSERT_EQ(mknod(path.c_str(), kind | 0644, 0), 0);
    EXPECT_EQ(ServedDescription(paths, settings), "");
  }
  fs::remove_all(fs::path(path).parent_path());
  WriteFile(fs::path(path).parent_path(), "no directory");
  EXPECT_THROW(ServedDescription(paths, settings), package::Error);
}

TEST_F(RepositoryChangeTest, OneAtATime) {
  const auto change = Change();
  ExpectError([this] { Change(); }, HasSubstr("another tolmdbpub is at work"));
  EXPECT_EQ(ReadFile(root_ / "state/lock"), std::to_string(getpid()));
}

TEST_F(RepositoryChangeTest, LockEndsWithItsHolder) {
  Change();
  Change();
}

TEST_F(RepositoryChangeTest, AmbiguousLinkIsRefusedWhateverMadeItOne) {
  {
    const auto change = Change();
    change->Begin("test");
    Put(*change);
    Record(*change);
    change->Commit();
  }
  std::string settings = ReadFile(root_ / "state/settings.json");
  settings.replace(settings.find("example.org"), 11, "e1000001.org");
  WriteFile(root_ / "state/settings.json", settings);
  const std::string before = Description();
  ExpectError([this] { Change(); }, HasSubstr("occurs 2 times"));
  EXPECT_EQ(Description(), before);
}

TEST(PackagePathTest, OnlyPackagesOfThisProgramAreOnes) {
  for (const char* path :
       {"packages/oui/oui_v7", "packages-12/a b/a b_d1000001", "packages-0/o/o_v0"}) {
    EXPECT_TRUE(publish::IsPackagePath(path)) << path;
  }
  for (const char* path : {"packages/oui/other_v7",
                           "packages/oui/oui_v7.zst",
                           "packages/oui/oui_v07",
                           "oui_v7",
                           "database_info/1",
                           "packages/oui/oui_x7",
                           "packages-x/oui/oui_v7",
                           "x/packages/o/o_v1",
                           "",
                           "/",
                           "packages",
                           "packages/",
                           "packages//_v7",
                           "packages/oui/",
                           "packages/oui/oui_",
                           "packages/oui/oui_v",
                           "packages/oui/oui_7",
                           "packages/oui/oui_v-7",
                           "packages/oui/oui_v7/",
                           "packages/oui/x/oui_v7",
                           "packages-/oui/oui_v7",
                           "packages-1-/oui/oui_v7",
                           "packages2/oui/oui_v7",
                           "packag/oui/oui_v7"}) {
    EXPECT_FALSE(publish::IsPackagePath(path)) << path;
  }
}

}  // namespace
}  // namespace tolm::testing

#include "publish/repository.h"

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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
  ExpectError([&] { change->RequireUnpublished(kFull); },
              HasSubstr("the catalog does not name it"));
  EXPECT_NO_THROW(change->RequireUnpublished("packages/oui/oui_v1000002"));
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
  EXPECT_EQ(ReadFile(root_ / "state/lock"), "");
  fs::remove(root_ / "state/lock");
  const mode_t before = ::umask(0);
  Change();
  ::umask(before);
  EXPECT_EQ(fs::status(root_ / "state/lock").permissions(), fs::perms(0644)) << "made anew";
}

TEST_F(RepositoryChangeTest, LockNamesItsHolderAndSaysAfterwardsWhatItSaidBefore) {
  const std::string lock = root_ / "state/lock";
  const std::string busy = root_.string() + ": another tolmdbpub is at work on it";
  WriteFile(lock, "what it said");
  {
    const auto change = Change();
    EXPECT_EQ(ReadFile(lock), std::to_string(getpid()));
    ExpectError([this] { Change(); }, busy + ", process " + std::to_string(getpid()));
    // Another account may have written there.
    WriteFile(lock, "");
    ExpectError([this] { Change(); }, busy);
    WriteFile(lock, std::string(4097, 'x'));
    ExpectError([this] { Change(); }, busy);
    WriteFile(lock, std::string(4096, 'x'));
    ExpectError([this] { Change(); }, busy + ", process " + std::string(4096, 'x'));
  }
  EXPECT_EQ(ReadFile(lock), "what it said");
}

TEST_F(RepositoryChangeTest, TrialCompletesNothingAndSaysSo) {
  {
    const auto change = Change();
    change->Begin("release of oui");
    Put(*change);
  }
  WriteFile(root_ / "state/work/rest", "x");
  const Tree state = ReadTree(root_);
  {
    const RepositoryChange trial(
        root_, [this](const std::string& note) { notes_.push_back(note); },
        publish::Purpose::kTrial);
    EXPECT_THAT(notes_, ElementsAre("an earlier command was interrupted (release of oui); the "
                                    "next one that changes something completes it"));
    EXPECT_THAT(ListTree(root_ / "state/work"), IsEmpty());
  }
  Tree after = ReadTree(root_);
  after["state/work/rest"] = "x";
  EXPECT_EQ(after, state);
}

TEST_F(RepositoryChangeTest, ChangedFileIsNotPublished) {
  const auto change = Change();
  change->Begin("test");
  const std::string work = change->paths().Work() + "/oui_v1000001";
  WriteFile(work, "other");
  ExpectError(
      [&] {
        change->Publish(work, {kFull, 7, publish::Sha384OfText("package")});
      },
      work + ": was changed by another process after it was made and signed");
  EXPECT_FALSE(fs::exists(root_ / "public" / kFull));
  EXPECT_EQ(ReadFile(work), "other");
}

TEST_F(RepositoryChangeTest, PackageThatTheCatalogNamesNoLongerIsRemovedAndSettingsAreKept) {
  {
    const auto change = Change();
    change->Begin("test");
    Put(*change);
    Record(*change);
    change->settings.chain_share_percent = 55;
    change->Commit();
  }
  EXPECT_TRUE(fs::exists(root_ / "public" / kFull));
  const auto change = Change();
  EXPECT_EQ(change->settings.chain_share_percent, 55);
  change->catalog.databases.clear();
  change->catalog.removed["oui"] = {7, 1000001, {}, {}};
  change->Begin("test");
  change->Commit();
  EXPECT_FALSE(fs::exists(root_ / "public" / kFull));
  EXPECT_THAT(notes_, IsEmpty());
  ExpectError([&] { change->DatabaseNamed("oui"); }, root_.string() + ": \"oui\" was removed");
  ExpectError([&] { change->DatabaseNamed("geo"); },
              root_.string() + ": no database \"geo\" was ever released here");
}

TEST_F(RepositoryChangeTest, DescriptionOfManyTimesWhatDevicesReadIsNone) {
  const publish::RepositoryPaths paths(root_);
  const publish::Settings settings = publish::LoadSettings(paths.SettingsFile());
  const std::uintmax_t most = 16 * 4 << 20;
  fs::resize_file(paths.Description(settings), most);
  EXPECT_EQ(ServedDescription(paths, settings).size(), most);
  fs::resize_file(paths.Description(settings), most + 1);
  EXPECT_EQ(ServedDescription(paths, settings), "");
}

TEST_F(RepositoryChangeTest, DescriptionIsWrittenAnewWhereNothingIsLeftOfItAndWarnedOf) {
  const publish::Settings settings = publish::LoadSettings(root_ / "state/settings.json");
  const std::string before = Description();
  fs::remove_all(root_ / "public/database_info");
  Change();
  EXPECT_THAT(notes_, ElementsAre("the description was not what the catalog says, and is written "
                                  "anew"));
  EXPECT_EQ(Description(), before);
  const auto change = Change();
  change->Begin("test");
  Put(*change);
  Record(*change);
  change->settings.base_url.netloc += '/' + std::string(1 << 20, 'x');
  change->Commit();
  EXPECT_THAT(notes_, ElementsAre(AllOf(HasSubstr("the description has 10"),
                                        HasSubstr(" bytes; devices refuse one of more than"))));
}

TEST(NewRepositoryTest, DirectoriesAboveItAreMade) {
  const TemporaryDirectory directory;
  publish::GenerateKeys(directory.Path() / "keys", kNow);
  publish::InitRequest request;
  request.repository = directory.Path() / "a/b/repo/";
  request.settings.base_url = {"http", "example.org"};
  request.settings.key = directory.Path() / "keys/signing.key";
  request.settings.certificate_path = directory.Path() / "keys/signing.pem";
  request.settings.info_certificate_path = directory.Path() / "keys/info.pem";
  InitRepository(request, kNow);
  const publish::Settings settings =
      publish::LoadSettings(directory.Path() / "a/b/repo/state/settings.json");
  EXPECT_EQ(settings.RootFile(), directory.Path() / "keys/root.pem");
  EXPECT_FALSE(settings.IsSigned()) << "a certificate alone signs nothing";
}

// Of a repository that signs its descriptions.
class SignedRepositoryChangeTest : public ::testing::Test {
 protected:
  SignedRepositoryChangeTest() {
    publish::GenerateKeys(directory_.Path() / "keys", now_);
    publish::InitRequest request;
    request.repository = root_;
    request.settings.base_url = {"http", "example.org"};
    request.settings.key = directory_.Path() / "keys/signing.key";
    request.settings.certificate_path = directory_.Path() / "keys/signing.pem";
    TakeInfoFilesBesideKey(request.settings);
    InitRepository(request, now_);
  }
  std::optional<offer::Offer> Served() const {
    const publish::RepositoryPaths paths(root_);
    return ServedOffer(paths, publish::LoadSettings(paths.SettingsFile()), now_);
  }
  std::unique_ptr<RepositoryChange> Change(publish::Purpose purpose) {
    notes_.clear();
    return std::make_unique<RepositoryChange>(
        root_, [this](const std::string& note) { notes_.push_back(note); }, purpose);
  }

  const std::time_t now_ = std::time(nullptr);
  const TemporaryDirectory directory_;
  const fs::path root_ = directory_.Path() / "repo";
  std::vector<std::string> notes_;
};

TEST_F(SignedRepositoryChangeTest, FirstDescriptionIsSignedAndEveryChangeCountsOn) {
  const auto first = Served();
  ASSERT_TRUE(first);
  const publish::Catalog catalog = publish::LoadCatalog(root_ / "state/catalog.json");
  EXPECT_EQ(first->counter, catalog.counter);
  EXPECT_EQ(first->issued, now_);
  EXPECT_EQ(first->repository, publish::LoadSettings(root_ / "state/settings.json").identity);
  EXPECT_EQ(catalog.replaces, publish::Sha384OfText(ReadFile(root_ / "public/database_info/1")));
  {
    const auto change = Change(publish::Purpose::kChange);
    change->Begin("test");
    change->Commit();
    EXPECT_GE(change->DescriptionExpires(), first->expires);
  }
  EXPECT_THAT(notes_, IsEmpty());
  const auto second = Served();
  ASSERT_TRUE(second);
  EXPECT_GT(second->counter, first->counter);
  WriteFile(root_ / "public/database_info/1", "damaged");
  EXPECT_FALSE(Served());
}

// What signs descriptions may be what has to be replaced.
TEST_F(SignedRepositoryChangeTest, DescriptionIsLeftToACommitWithNewKeys) {
  WriteFile(root_ / "public/database_info/1", "damaged");
  fs::rename(directory_.Path() / "keys/info.key", directory_.Path() / "keys/lost.key");
  EXPECT_THROW(Change(publish::Purpose::kChange), package::Error);
  WriteFile(root_ / "state/unfinished", "test");
  {
    const auto change = Change(publish::Purpose::kNewKeys);
    EXPECT_EQ(ReadFile(root_ / "public/database_info/1"), "damaged");
    EXPECT_EQ(UnfinishedCommand(change->paths()), "test");
    EXPECT_THAT(notes_, ElementsAre("an earlier command was interrupted: test"));
    EXPECT_THROW(change->Begin("another"), package::Error);
    EXPECT_EQ(UnfinishedCommand(change->paths()), "test") << "nothing was written";
  }
  fs::rename(directory_.Path() / "keys/lost.key", directory_.Path() / "keys/info.key");
  Change(publish::Purpose::kChange);
  EXPECT_TRUE(Served());
  EXPECT_FALSE(fs::exists(root_ / "state/unfinished"));
}

TEST_F(SignedRepositoryChangeTest, SignerOfChangedSettingsIsLoadedBeforeAnythingIsWritten) {
  const auto change = Change(publish::Purpose::kChange);
  change->settings.info_key = "none";
  EXPECT_THROW(change->Begin("test"), package::Error);
  EXPECT_EQ(UnfinishedCommand(change->paths()), "");
}

TEST_F(SignedRepositoryChangeTest, InfoFilesBesideTheKeyAreTakenTogetherOrNotAtAll) {
  const std::string keys = directory_.Path() / "keys";
  const auto taken = [&](publish::Settings settings) {
    settings.key = settings.key.empty() ? keys + "/signing.key" : settings.key;
    TakeInfoFilesBesideKey(settings);
    return settings.info_key + ' ' + settings.info_certificate_path;
  };
  EXPECT_EQ(taken({}), keys + "/info.key " + keys + "/info.pem");
  publish::Settings given;
  given.info_key = "k";
  EXPECT_EQ(taken(given), "k ");
  given = {};
  given.info_certificate_path = "c";
  EXPECT_EQ(taken(given), " c");
  given = {};
  given.key = keys + "/none.key";
  EXPECT_EQ(taken(given), " ");
  for (const char* missing : {"info.key", "info.pem"}) {
    fs::rename(fs::path(keys) / missing, directory_.Path() / "away");
    EXPECT_EQ(taken({}), " ") << missing;
    fs::rename(directory_.Path() / "away", fs::path(keys) / missing);
  }
}

TEST(RepositoryPathsTest, RootHasNoSlashAtItsEnd) {
  for (const auto& [given, root] : std::map<std::string, std::string>{{"/a/b", "/a/b"},
                                                                      {"/a/b/", "/a/b"},
                                                                      {"/a/./b//", "/a/b"},
                                                                      {"/a/../", "/"},
                                                                      {"/", "/"}}) {
    EXPECT_EQ(publish::RepositoryPaths(given).Root(), root) << given;
  }
  EXPECT_EQ(publish::RepositoryPaths("b/").Root(), fs::current_path() / "b");
}

TEST_F(RepositoryChangeTest, NewOneIsCompleteAndOneThatIsThereIsLeftAlone) {
  EXPECT_THAT(ListTree(root_),
              ElementsAre("public/", "public/database_info/", "public/database_info/1",
                          "public/packages/", "state/", "state/catalog.json", "state/lock",
                          "state/settings.json", "state/work/"));
  EXPECT_EQ(ReadFile(root_ / "state/lock"), "");
  const publish::Settings settings = publish::LoadSettings(root_ / "state/settings.json");
  EXPECT_EQ(settings.root_path, "../keys/root.pem");
  EXPECT_FALSE(settings.IsSigned());
  EXPECT_EQ(settings.identity, "");
  const publish::Catalog catalog = publish::LoadCatalog(root_ / "state/catalog.json");
  EXPECT_EQ(catalog.counter, 0u);
  EXPECT_EQ(Description(), DescribeCatalog(catalog, settings.base_url));
  const Tree before = ReadTree(root_);
  publish::InitRequest request;
  request.repository = root_;
  request.settings = settings;
  request.settings.key = directory_.Path() / "keys/signing.key";
  request.settings.certificate_path = directory_.Path() / "keys/signing.pem";
  request.settings.root_path = directory_.Path() / "keys/root.pem";
  EXPECT_ANY_THROW(InitRepository(request, kNow));
  request.repository = directory_.Path() / "other";
  request.settings.info_version = "..";
  ExpectError([&] { InitRepository(request, kNow); }, HasSubstr("a version of the description"));
  request.settings.info_version = "2";
  publish::GenerateKeys(directory_.Path() / "others", kNow);
  request.settings.root_path = directory_.Path() / "others/root.pem";
  EXPECT_THROW(InitRepository(request, kNow), package::Error);
  EXPECT_FALSE(fs::exists(directory_.Path() / "other"));
  EXPECT_EQ(ReadTree(root_), before);
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

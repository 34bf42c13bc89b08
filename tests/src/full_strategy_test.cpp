#include <dirent.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "dataupdate/strategy.h"
#include "tests/src/during_copy.h"
#include "tests/src/engine_support.h"
#include "tests/src/fake_time.h"
#include "tests/src/strategy_support.h"
#include "tests/support/fake_platform.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"

namespace {

// Directories look as if the file system did not tell the types of its entries...
bool hide_types = false;
// ... nor listed this one.
std::string left_out;

}  // namespace

#pragma GCC visibility push(default)
// With _FILE_OFFSET_BITS=64 this is the 64-bit symbol that the library calls.
extern "C" dirent* readdir(DIR* directory) {
  static auto* const real = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir64"));
  dirent* entry = real(directory);
  while (entry != nullptr && entry->d_name == left_out) {
    entry = real(directory);
  }
  if (entry != nullptr && hide_types) {
    entry->d_type = DT_UNKNOWN;
  }
  return entry;
}
#pragma GCC visibility pop

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::FakeTime;
using dataupdate::FullStrategy;
using dataupdate::ModifyInfo;
using dataupdate::RemoteInfo;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kUrl[] = "http://host/full";
constexpr char kInstall[] = "/volume1/db/x";
constexpr char kUsingLock[] = "/run/data_update/using_x.lock";

class FullStrategyTest : public ::testing::Test {
 protected:
  ~FullStrategyTest() override {
    hide_types = false;
    left_out.clear();
  }

  static FullStrategy Make(const std::string& install = kInstall,
                           const std::string& root_directory = "/volume1",
                           const std::string& volume = "/volume1") {
    return FullStrategy("x", RemoteInfo(7, 70, false, kUrl), volume, install, root_directory);
  }

  FakePlatform platform_;
};

TEST_F(FullStrategyTest, VirtualOperationsKeepTheirSlots) {
  ExpectSlotsOfAStrategy<FullStrategy>();
}

TEST_F(FullStrategyTest, ConstructionDoesNothing) {
  const FullStrategy strategy = Make();
  EXPECT_THAT(strategy.GetModifiedFiles(), IsEmpty());
  EXPECT_THAT(platform_.Story(), IsEmpty());
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(FullStrategyTest, PreparationDownloadsAndUnpacksUnderTheFixedNames) {
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  EXPECT_THAT(
      platform_.Calls(),
      ElementsAre("mkdir /volume1/@tmp/data_update",
                  "download http://host/full to /volume1/@tmp/data_update/x_v7",
                  "mkdir /volume1/@tmp/data_update/x_full", "open /volume1/@tmp/data_update/x_v7",
                  "extract to /volume1/@tmp/data_update/x_full", "mkdir /volume1/db/x"));
}

TEST_F(FullStrategyTest, PreparationLeavesInstalledFilesAndTakesNoLock) {
  platform_.OfferPackage(kUrl, {{"a", "new"}});
  MakeTree(kInstall, {{"a", "old"}, {"b", "old"}});
  const HeldLock other(kUsingLock, LOCK_EX);
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}, {"b", "old"}}));
}

TEST_F(FullStrategyTest, DeprecatedOfferIsInstalledAllTheSame) {
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  FullStrategy strategy("x", RemoteInfo(7, 70, true, kUrl), "/volume1", kInstall, "/volume1");
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "1"}}));
}

TEST_F(FullStrategyTest, EveryRegularFileOfThePackageIsModified) {
  platform_.OfferPackage(kUrl, {{"a.db", "1"}, {"d/e/f", "2"}, {"d/.hidden", "3"}, {"void/", ""}});
  FullStrategy strategy = Make();
  EXPECT_THAT(strategy.GetModifiedFiles(), IsEmpty());
  strategy.PrepareUpdate();
  EXPECT_THAT(strategy.GetModifiedFiles(), ElementsAre("a.db", "d/.hidden", "d/e/f"));
}

TEST_F(FullStrategyTest, WhatIsNeitherFileNorLinkToOneIsLeftOut) {
  platform_.OfferPackage(
      kUrl, {{"a", "1"}, {"d/b", "2"}, {"dangling -> none", ""}, {"to-directory -> d", ""}});
  platform_.after_extract = [](const std::string& destination) {
    ASSERT_EQ(mkfifo((destination + "/fifo").c_str(), 0600), 0);
  };
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  EXPECT_THAT(strategy.GetModifiedFiles(), ElementsAre("a", "d/b"));
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "1"}, {"d/", ""}, {"d/b", "2"}}));
}

TEST_F(FullStrategyTest, LinkToAFileOfThePackageCountsAsThatFile) {
  platform_.OfferPackage(kUrl, {{"d/real", "1"}, {"link -> d/real", ""}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  EXPECT_THAT(strategy.GetModifiedFiles(), ElementsAre("d/real"));
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"d/", ""}, {"d/real", "1"}}));
}

TEST_F(FullStrategyTest, LinkOutOfThePackageIsRefusedWithThatTextAlone) {
  WriteFile("/tmp/secret", "secret");
  platform_.OfferPackage(kUrl, {{"a", "1"}, {"link -> /tmp/secret", ""}});
  MakeTree(kInstall, {{"a", "old"}});
  FullStrategy strategy = Make();
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "path not in base");
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
}

TEST_F(FullStrategyTest, LinkToADirectoryWithALongerNameLeadsOut) {
  MakeTree(kRoot, {{"x_full2/secret", "secret"}});
  platform_.OfferPackage(kUrl, {{"a", "1"}, {"link -> ../x_full2/secret", ""}});
  FullStrategy strategy = Make();
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "path not in base");
}

TEST_F(FullStrategyTest, FileSystemErrorOfTheWalkIsNamed) {
  platform_.OfferPackage(kUrl, {{"a -> b", ""}, {"b -> a", ""}});
  FullStrategy strategy = Make();
  const std::string message = UpdateErrorOf([&] { strategy.PrepareUpdate(); });
  EXPECT_THAT(message, StartsWith("Fail to calculate modify info: "));
  EXPECT_THAT(message, HasSubstr("Too many levels of symbolic links"));
}

TEST_F(FullStrategyTest, WalkErrorsOfTheUtilitiesPassWithoutPrefix) {
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  platform_.after_extract = [](const std::string& destination) { fs::remove_all(destination); };
  FullStrategy strategy = Make();
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
            "failed to read file stat: /volume1/@tmp/data_update/x_full");
}

TEST_F(FullStrategyTest, FirstInstallationFreesMinusThePackagesSize) {
  platform_.OfferPackage(kUrl, {{"a", std::string(1000, 'a')}, {"d/b", std::string(24, 'b')}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  EXPECT_EQ(strategy.GetDeltaSize(), -1024);
  EXPECT_TRUE(fs::is_directory(kInstall));
}

TEST_F(FullStrategyTest, ReplacingFreesTheDifference) {
  platform_.OfferPackage(kUrl, {{"a", std::string(100, 'a')}});
  MakeTree(kInstall, {{"a", std::string(1000, 'o')}, {"d/old", std::string(500, 'o')}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  EXPECT_EQ(strategy.GetDeltaSize(), 1400);
}

TEST_F(FullStrategyTest, SpaceIsMeasuredThroughTheVirtualOperation) {
  struct Greedy : FullStrategy {
    using FullStrategy::FullStrategy;
    long long GetDeltaSize() const override { return -(1LL << 60); }
  };
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  Greedy strategy("x", RemoteInfo(7, 70, false, kUrl), "/volume1", kInstall, "/volume1");
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Disk space is too low");
}

TEST_F(FullStrategyTest, OnlyTheRootDirectorysFileSystemIsMeasured) {
  platform_.OfferPackage(kUrl, {{"a", std::string(600 * 1024, 'a')}});
  const ScopedMount small = ScopedMount::Tmpfs("/small", 512 * 1024);
  {
    FullStrategy strategy = Make(kInstall, "/small");
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Disk space is too low");
  }
  FullStrategy strategy = Make(kInstall, "/volume1");
  strategy.PrepareUpdate();
}

TEST_F(FullStrategyTest, InstallationBecomesExactlyThePackage) {
  platform_.OfferPackage(kUrl, {{"kept", "new"}, {"d/e/new", "2"}, {"void/deep/", ""}});
  MakeTree(kInstall, {{"kept", "old"},
                      {"gone", "old"},
                      {".hidden", "old"},
                      {"empty/deep/", ""},
                      {"d", "was a file"},
                      {"dir/file", "old"}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall),
            (Tree{{"d/", ""}, {"d/e/", ""}, {"d/e/new", "2"}, {"kept", "new"}}));
}

TEST_F(FullStrategyTest, InstallDirectoryItselfStays) {
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  fs::create_directories(kInstall);
  SetMode(kInstall, 0751);
  struct stat before;
  ASSERT_EQ(stat(kInstall, &before), 0);
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  struct stat after;
  ASSERT_EQ(stat(kInstall, &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mode & 07777U, 0751U);
}

// "." and ".." reach the callbacks of the walk then, in whatever order, and some file systems do
// not even have them both.
TEST_F(FullStrategyTest, NothingBesideTheInstallationIsTouchedWhereListingsTellNoTypes) {
  for (const char* not_listed : {"", ".", ".."}) {
    SCOPED_TRACE(not_listed);
    platform_.OfferPackage(kUrl, {{"a", "new"}, {"b", "1"}});
    MakeTree("/volume1/db", {{"x/a", "old"}, {"x/gone", "o"}, {"x/d/e/gone", "o"}, {"y/b", "2"}});
    {
      FullStrategy strategy = Make();
      hide_types = true;
      left_out = not_listed;
      strategy.PrepareUpdate();
      EXPECT_THAT(strategy.GetModifiedFiles(), ElementsAre("a", "b"));
      EXPECT_EQ(strategy.GetDeltaSize(), (3 + 1) - (3 + 1)) << "of what lies at the top";
      EXPECT_EQ(UpdateErrorOf([&] { strategy.ApplyUpdate(); }), "(nothing was thrown)");
      hide_types = false;
      left_out = "";
    }
    EXPECT_EQ(ReadTree("/volume1/db"),
              (Tree{{"x/", ""}, {"x/a", "new"}, {"x/b", "1"}, {"y/", ""}, {"y/b", "2"}}));
    fs::remove_all("/volume1/db");
  }
}

TEST_F(FullStrategyTest, InstalledLinksAreRemovedNotFollowed) {
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  MakeTree("/volume1/elsewhere", {{"keep", "me"}});
  MakeTree(kInstall, {{"link -> /volume1/elsewhere", ""}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "1"}}));
  EXPECT_EQ(ReadTree("/volume1/elsewhere"), (Tree{{"keep", "me"}}));
}

TEST_F(FullStrategyTest, FileModesAreKept) {
  platform_.OfferPackage(kUrl, {{"program", "1"}, {"secret", "2"}, {"sealed", "3"}});
  platform_.after_extract = [](const std::string& destination) {
    SetMode(destination + "/program", 0755);
    SetMode(destination + "/secret", 0640);
    SetMode(destination + "/sealed", 0444);
  };
  const mode_t umask_before = umask(077);
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  umask(umask_before);
  EXPECT_EQ(ModeOf(std::string(kInstall) + "/program"), fs::perms(0755));
  EXPECT_EQ(ModeOf(std::string(kInstall) + "/secret"), fs::perms(0640));
  EXPECT_EQ(ModeOf(std::string(kInstall) + "/sealed"), fs::perms(0444));
}

TEST_F(FullStrategyTest, UnpackedTreeStaysIntactUntilDestruction) {
  platform_.OfferPackage(kUrl, {{"a", "1"}, {"d/b", "2"}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(std::string(kRoot) + "/x_full"), (Tree{{"a", "1"}, {"d/", ""}, {"d/b", "2"}}));
}

TEST_F(FullStrategyTest, InstallsOnAnotherFileSystem) {
  std::string large(5 * 1024 * 1024 + 13, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) {
    large[i] = static_cast<char>(i * 2654435761U >> 13);
  }
  platform_.OfferPackage(kUrl, {{"large", large}, {"empty", ""}, {"d/small", "s"}});
  platform_.after_extract = [](const std::string& destination) {
    SetMode(destination + "/d/small", 0600);
  };
  const ScopedMount other = ScopedMount::Tmpfs("/var/db", 16 * 1024 * 1024);
  FullStrategy strategy = Make("/var/db/x", "/var/db");
  strategy.PrepareUpdate();
  struct stat volume;
  struct stat install;
  ASSERT_EQ(stat("/volume1", &volume), 0);
  ASSERT_EQ(stat("/var/db/x", &install), 0);
  ASSERT_NE(volume.st_dev, install.st_dev);
  strategy.ApplyUpdate();
  EXPECT_TRUE(ReadFile("/var/db/x/large") == large);
  EXPECT_EQ(fs::file_size("/var/db/x/empty"), 0U);
  EXPECT_EQ(ReadFile("/var/db/x/d/small"), "s");
  EXPECT_EQ(ModeOf("/var/db/x/d/small"), fs::perms(0600));
}

TEST_F(FullStrategyTest, FullDiskWhileInstallingIsAFailure) {
  platform_.OfferPackage(kUrl, {{"a", "small"}, {"b", std::string(2 * 1024 * 1024, 'b')}});
  const ScopedMount small = ScopedMount::Tmpfs("/var/db", 1024 * 1024);
  FullStrategy strategy = Make("/var/db/x", "/volume1");
  strategy.PrepareUpdate();
  const std::string message = UpdateErrorOf([&] { strategy.ApplyUpdate(); });
  EXPECT_THAT(message, StartsWith("Fail to full update: "));
  EXPECT_THAT(message, HasSubstr("No space left on device"));
  EXPECT_EQ(ReadTree("/var/db/x"), (Tree{{"a", "small"}})) << "a half-written copy was left";
}

TEST_F(FullStrategyTest, FullVolumeWhileUnpackingIsAFailure) {
  const ScopedMount volume = ScopedMount::Tmpfs("/volume9", 1024 * 1024);
  platform_.OfferPackage(kUrl, {{"a", "small"}});
  platform_.archive_extract_error = 30;
  MakeTree(kInstall, {{"a", "old"}});
  {
    FullStrategy strategy = Make(kInstall, "/volume1", "/volume9");
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
              "tolmarchive_extract /volume9/@tmp/data_update/x_v7 failed, ret: 30");
  }
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
  EXPECT_FALSE(fs::exists("/volume9/@tmp/data_update"));
}

TEST_F(FullStrategyTest, ReadersAreLockedOutWhileFilesAreReplaced) {
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  bool locked = false;
  const DuringCopy look([&] { locked = IsLocked(kUsingLock); });
  strategy.ApplyUpdate();
  EXPECT_TRUE(locked);
  EXPECT_FALSE(IsLocked(kUsingLock));
  EXPECT_TRUE(fs::exists(kUsingLock));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              ElementsAre(std::string("Acquire lock on file: ") + kUsingLock,
                          std::string("Release lock on file: ") + kUsingLock));
}

TEST_F(FullStrategyTest, InstallationWaitsForAReader) {
  platform_.OfferPackage(kUrl, {{"a", "new"}});
  MakeTree(kInstall, {{"a", "old"}});
  HeldLock reader(kUsingLock, LOCK_SH);
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  FakeTime time;
  time.on_sleep = [&] {
    EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
    if (time.Sleeps().size() == 3) {
      reader.Release();
    }
  };
  strategy.ApplyUpdate();
  EXPECT_EQ(time.Sleeps().size(), 3U);
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}}));
}

TEST_F(FullStrategyTest, ReaderThatStaysEndsTheInstallationAfterTenMinutes) {
  platform_.OfferPackage(kUrl, {{"a", "new"}});
  MakeTree(kInstall, {{"a", "old"}});
  const HeldLock reader(kUsingLock, LOCK_SH);
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  const FakeTime time;
  EXPECT_EQ(UpdateErrorOf([&] { strategy.ApplyUpdate(); }),
            "Fail to full update: Fail to lock /run/data_update/using_x.lock");
  EXPECT_EQ(time.Passed(), std::chrono::seconds(600));
  EXPECT_THAT(time.Sleeps(), ::testing::Each(useconds_t{100000}));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
}

TEST_F(FullStrategyTest, FailureWithoutATextCountsAsEmpty) {
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  const HeldLock reader(kUsingLock, LOCK_SH);
  FakeTime waiting;
  waiting.on_sleep = [] { throw dataupdate::Wordless(); };
  EXPECT_EQ(UpdateErrorOf([&] { strategy.ApplyUpdate(); }), "Fail to full update: ");
}

TEST_F(FullStrategyTest, MissingSourceIsNamed) {
  platform_.OfferPackage(kUrl, {{"a", "1"}, {"b", "2"}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  fs::remove(std::string(kRoot) + "/x_full/b");
  const std::string message = UpdateErrorOf([&] { strategy.ApplyUpdate(); });
  EXPECT_THAT(message, StartsWith("Fail to full update: "));
  EXPECT_THAT(message, HasSubstr("x_full/b"));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "1"}})) << "there is no rollback";
}

TEST_F(FullStrategyTest, InstallDirectoryThatVanishedIsAFailure) {
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  fs::remove_all(kInstall);
  EXPECT_EQ(UpdateErrorOf([&] { strategy.ApplyUpdate(); }),
            "Fail to full update: failed to read file stat: /volume1/db/x");
}

// The plan, which only the strategy itself makes. An explicit instantiation may name a private
// member.
template <auto kMember>
struct PlanOf {
  friend std::map<std::string, ModifyInfo>& Plan(FullStrategy& strategy) {
    return strategy.*kMember;
  }
};
std::map<std::string, ModifyInfo>& Plan(FullStrategy& strategy);
template struct PlanOf<&FullStrategy::modify_infos_>;

TEST_F(FullStrategyTest, PlanEntryThatIsNotOverrideIsRefused) {
  platform_.OfferPackage(kUrl, {{"a", "1"}, {"b", "2"}});
  FullStrategy strategy = Make();
  strategy.PrepareUpdate();
  ASSERT_EQ(Plan(strategy).at("a").operation, 1);
  EXPECT_EQ(Plan(strategy).at("a").source_path, "/volume1/@tmp/data_update/x_full/a");
  Plan(strategy).at("b").operation = 2;
  EXPECT_EQ(UpdateErrorOf([&] { strategy.ApplyUpdate(); }),
            "Fail to full update: operation not set to override");
}

class FullStrategyFailureTest : public FullStrategyTest,
                                public ::testing::WithParamInterface<FailureRow> {};

const FailureRow kFailures[] = {
    {"TemporaryRoot", [](FakePlatform& p) { p.refused_directories = {kRoot}; },
     "Fail to create dir /volume1/@tmp/data_update"},
    {"Download", [](FakePlatform& p) { p.SetProgram("/usr/bin/wget", [](auto&) { return 4; }); },
     "Fail to wget url: http://host/full"},
    {"UnpackedTree",
     [](FakePlatform& p) { p.refused_directories = {"/volume1/@tmp/data_update/x_full"}; },
     "Fail to create dir /volume1/@tmp/data_update/x_full"},
    {"ArchiveInit", [](FakePlatform& p) { p.archive_init_fails = true; },
     "Failed to extract package at tolmarchive_init"},
    {"ArchiveOpen", [](FakePlatform& p) { p.archive_open_error = 18; },
     "tolmarchive_open /volume1/@tmp/data_update/x_v7 failed, ret: 18"},
    {"ArchiveExtract", [](FakePlatform& p) { p.archive_extract_error = 31; },
     "tolmarchive_extract /volume1/@tmp/data_update/x_v7 failed, ret: 31"},
    {"InstallPrefix", [](FakePlatform& p) { p.refused_directories = {kInstall}; },
     "Fail to create dir /volume1/db/x"},
};

TEST_P(FullStrategyFailureTest, LeavesInstalledFilesAndNoTemporaryData) {
  platform_.OfferPackage(kUrl, {{"a", "new"}, {"b", "new"}});
  MakeTree(kInstall, {{"a", "old"}});
  GetParam().spoil(platform_);
  {
    FullStrategy strategy = Make();
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), GetParam().message);
  }
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
  ExpectCleanedUp();
}

INSTANTIATE_TEST_SUITE_P(Steps, FullStrategyFailureTest, ::testing::ValuesIn(kFailures), NameOf);

TEST_F(FullStrategyTest, LackOfSpaceLeavesInstalledFilesAndNoTemporaryData) {
  const ScopedMount small = ScopedMount::Tmpfs("/small", 64 * 1024);
  platform_.OfferPackage(kUrl, {{"a", std::string(128 * 1024, 'n')}});
  MakeTree(kInstall, {{"a", "old"}});
  {
    FullStrategy strategy = Make(kInstall, "/small");
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Disk space is too low");
  }
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(FullStrategyTest, SuccessAndFailedInstallationLeaveNoTemporaryData) {
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  {
    FullStrategy strategy = Make();
    strategy.PrepareUpdate();
    strategy.ApplyUpdate();
  }
  EXPECT_FALSE(fs::exists(kRoot));
  {
    FullStrategy strategy = Make();
    strategy.PrepareUpdate();
    fs::remove_all(kInstall);
    UpdateErrorOf([&] { strategy.ApplyUpdate(); });
  }
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(FullStrategyTest, DestructorRemovesTheWholeTemporaryRootInAnyCase) {
  MakeTree(kRoot, {{"other_full/left", "over"}});
  { const FullStrategy strategy = Make(); }
  EXPECT_FALSE(fs::exists(kRoot));
  EXPECT_TRUE(fs::exists("/volume1/@tmp"));
}

TEST_F(FullStrategyTest, PackageThatCannotBeRemovedIsLogged) {
  platform_.before_download = [](const std::string&, const std::string& output) {
    WriteFile(output + "/in/the/way", "");
    throw std::runtime_error("broken off");
  };
  {
    FullStrategy strategy = Make();
    EXPECT_THROW(strategy.PrepareUpdate(), std::runtime_error);
  }
  const std::vector<std::string> errors = SyslogCapture::TextsWithoutPlace(LOG_ERR);
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_THAT(errors[0], StartsWith("Failed to clean tarball '/volume1/@tmp/data_update/x_v7': "));
  EXPECT_THAT(errors[0], HasSubstr("Directory not empty"));
  EXPECT_THAT(SyslogCapture::Texts(LOG_ERR)[0], StartsWith("strategy:"));
  EXPECT_FALSE(fs::exists(kRoot)) << "the rest of the cleaning goes on";
}

TEST_F(FullStrategyTest, TemporaryDataThatCannotBeRemovedIsLoggedTwice) {
  platform_.OfferPackage(kUrl, {{"a", "1"}});
  std::unique_ptr<ScopedMount> busy;
  {
    FullStrategy strategy = Make();
    strategy.PrepareUpdate();
    busy = std::make_unique<ScopedMount>(
        ScopedMount::Tmpfs(std::string(kRoot) + "/x_full/busy", 4096));
  }
  EXPECT_THAT(
      SyslogCapture::TextsWithoutPlace(LOG_ERR),
      ElementsAre("Failed to clean tmp data: Fail to remove all: /volume1/@tmp/data_update/x_full",
                  "Failed to clean tmp data: Fail to remove all: /volume1/@tmp/data_update"));
  EXPECT_FALSE(fs::exists(std::string(kRoot) + "/x_v7"));
}

}  // namespace
}  // namespace tolm::testing

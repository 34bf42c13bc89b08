#include <gmock/gmock.h>
#include <syslog.h>

#include <memory>

#include "dataupdate/strategy.h"
#include "tests/src/engine_support.h"
#include "tests/src/fake_time.h"
#include "tests/src/strategy_support.h"
#include "tests/support/fake_platform.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::FakeTime;
using dataupdate::ForceInstallByLink;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kLink[] = "http://host/forced";
constexpr char kInstall[] = "/volume1/db/x";
constexpr char kUsingLock[] = "/run/data_update/using_x.lock";

class ForceInstallByLinkTest : public ::testing::Test {
 protected:
  static ForceInstallByLink Make(const std::string& root_directory = "/") {
    return ForceInstallByLink("x", kLink, "/volume1", kInstall, root_directory);
  }

  FakePlatform platform_;
};

TEST_F(ForceInstallByLinkTest, VirtualOperationsKeepTheirSlots) {
  ExpectSlotsOfAStrategy<ForceInstallByLink>();
}

TEST_F(ForceInstallByLinkTest, UnpacksOverTheInstallation) {
  platform_.OfferPackage(kLink, {{"a", "new"}, {"d/b", "new"}});
  MakeTree(kInstall, {{"a", "old"}, {"survivor", "old"}, {"d/survivor", "old"}});
  ForceInstallByLink strategy = Make();
  strategy.PrepareUpdate();
  EXPECT_EQ(ReadFile(std::string(kInstall) + "/a"), "old");
  strategy.ApplyUpdate();
  EXPECT_EQ(
      ReadTree(kInstall),
      (Tree{{"a", "new"}, {"survivor", "old"}, {"d/", ""}, {"d/b", "new"}, {"d/survivor", "old"}}));
  EXPECT_THAT(platform_.Story(),
              ElementsAre("mkdir /volume1/@tmp/data_update",
                          "download http://host/forced to /volume1/@tmp/data_update/x_debug",
                          "mkdir /volume1/db/x",
                          "info file_lock: Acquire lock on file: /run/data_update/using_x.lock",
                          "open /volume1/@tmp/data_update/x_debug", "extract to /volume1/db/x",
                          "info file_lock: Release lock on file: /run/data_update/using_x.lock"));
}

TEST_F(ForceInstallByLinkTest, SaysNothingOfFilesAndSizes) {
  platform_.OfferPackage(kLink, {{"a", "new"}});
  ForceInstallByLink strategy = Make();
  EXPECT_THAT(strategy.GetModifiedFiles(), IsEmpty());
  EXPECT_EQ(strategy.GetDeltaSize(), 0);
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_THAT(strategy.GetModifiedFiles(), IsEmpty());
  EXPECT_EQ(strategy.GetDeltaSize(), 0);
}

TEST_F(ForceInstallByLinkTest, RootDirectoryAndFreeSpaceAreNotLookedAt) {
  platform_.OfferPackage(kLink, {{"a", "new"}});
  ForceInstallByLink strategy = Make("/does/not/exist");
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}}));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_DEBUG),
              ElementsAre(StartsWith("Use ")));  // No figures of a space check.
}

TEST_F(ForceInstallByLinkTest, ReadersAreLockedOutWhileUnpacking) {
  platform_.OfferPackage(kLink, {{"a", "new"}});
  bool locked = false;
  platform_.after_extract = [&](const std::string&) { locked = IsLocked(kUsingLock); };
  ForceInstallByLink strategy = Make();
  strategy.PrepareUpdate();
  EXPECT_FALSE(fs::exists(kUsingLock));
  strategy.ApplyUpdate();
  EXPECT_TRUE(locked);
  EXPECT_FALSE(IsLocked(kUsingLock));
}

TEST_F(ForceInstallByLinkTest, ReaderThatStaysEndsItAfterTenMinutes) {
  platform_.OfferPackage(kLink, {{"a", "new"}});
  MakeTree(kInstall, {{"a", "old"}});
  const HeldLock reader(kUsingLock, LOCK_SH);
  ForceInstallByLink strategy = Make();
  strategy.PrepareUpdate();
  const FakeTime time;
  EXPECT_EQ(UpdateErrorOf([&] { strategy.ApplyUpdate(); }),
            "Fail to force install: Fail to lock /run/data_update/using_x.lock");
  EXPECT_EQ(time.Passed(), std::chrono::seconds(600));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
}

TEST_F(ForceInstallByLinkTest, PackageThatIsRefusedLeavesInstalledFiles) {
  platform_.OfferFile(kLink, "no package");
  MakeTree(kInstall, {{"a", "old"}});
  {
    ForceInstallByLink strategy = Make();
    strategy.PrepareUpdate();
    EXPECT_EQ(UpdateErrorOf([&] { strategy.ApplyUpdate(); }),
              "Fail to force install: tolmarchive_open /volume1/@tmp/data_update/x_debug failed, "
              "ret: 5");
  }
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
  EXPECT_FALSE(fs::exists(kRoot));
  EXPECT_FALSE(IsLocked(kUsingLock));
}

TEST_F(ForceInstallByLinkTest, FailureWithoutATextCountsAsEmpty) {
  platform_.OfferPackage(kLink, {{"a", "new"}});
  platform_.after_extract = [](const std::string&) { throw dataupdate::Wordless(); };
  ForceInstallByLink strategy = Make();
  strategy.PrepareUpdate();
  EXPECT_EQ(UpdateErrorOf([&] { strategy.ApplyUpdate(); }), "Fail to force install: ");
}

class ForceInstallByLinkFailureTest : public ForceInstallByLinkTest,
                                      public ::testing::WithParamInterface<FailureRow> {};

const FailureRow kFailures[] = {
    {"TemporaryRoot", [](FakePlatform& p) { p.refused_directories = {kRoot}; },
     "Fail to create dir /volume1/@tmp/data_update"},
    {"Download", [](FakePlatform& p) { p.SetProgram("/usr/bin/wget", [](auto&) { return 4; }); },
     "Fail to wget url: http://host/forced"},
    {"InstallPrefix", [](FakePlatform& p) { p.refused_directories = {kInstall}; },
     "Fail to create dir /volume1/db/x"},
    {"ArchiveInit", [](FakePlatform& p) { p.archive_init_fails = true; },
     "Fail to force install: Failed to extract package at tolmarchive_init"},
    {"ArchiveOpen", [](FakePlatform& p) { p.archive_open_error = 18; },
     "Fail to force install: tolmarchive_open /volume1/@tmp/data_update/x_debug failed, ret: 18"},
    {"ArchiveExtract", [](FakePlatform& p) { p.archive_extract_error = 31; },
     "Fail to force install: tolmarchive_extract /volume1/@tmp/data_update/x_debug failed, ret: "
     "31"},
};

TEST_P(ForceInstallByLinkFailureTest, HasItsMessageAndLeavesNoTemporaryData) {
  platform_.OfferPackage(kLink, {{"a", "new"}, {"b", "new"}});
  GetParam().spoil(platform_);
  {
    ForceInstallByLink strategy = Make();
    EXPECT_EQ(UpdateErrorOf([&] {
                strategy.PrepareUpdate();
                strategy.ApplyUpdate();
              }),
              GetParam().message);
  }
  ExpectCleanedUp();
}

INSTANTIATE_TEST_SUITE_P(Steps, ForceInstallByLinkFailureTest, ::testing::ValuesIn(kFailures),
                         NameOf);

TEST_F(ForceInstallByLinkTest, SuccessLeavesNoTemporaryData) {
  platform_.OfferPackage(kLink, {{"a", "new"}});
  {
    ForceInstallByLink strategy = Make();
    strategy.PrepareUpdate();
    EXPECT_TRUE(fs::exists("/volume1/@tmp/data_update/x_debug"));
    strategy.ApplyUpdate();
  }
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(ForceInstallByLinkTest, WhatCannotBeRemovedIsLogged) {
  std::unique_ptr<ScopedMount> busy;
  platform_.before_download = [&](const std::string&, const std::string& output) {
    busy = std::make_unique<ScopedMount>(ScopedMount::Tmpfs(output + "/busy", 4096));
    throw std::runtime_error("broken off");
  };
  {
    ForceInstallByLink strategy = Make();
    EXPECT_THROW(strategy.PrepareUpdate(), std::runtime_error);
  }
  const std::vector<std::string> errors = SyslogCapture::TextsWithoutPlace(LOG_ERR);
  ASSERT_EQ(errors.size(), 2U);
  EXPECT_THAT(errors[0],
              StartsWith("Failed to clean tarball '/volume1/@tmp/data_update/x_debug': "));
  EXPECT_EQ(errors[1], "Failed to clean tmp data: Fail to remove all: /volume1/@tmp/data_update");
}

}  // namespace
}  // namespace tolm::testing

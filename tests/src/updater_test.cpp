#include "dataupdate/updater.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <memory>

#include "tests/src/engine_support.h"
#include "tests/src/fake_time.h"
#include "tests/support/fake_platform.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/vtable_slot.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::CalculateStatus;
using dataupdate::CheckStatus;
using dataupdate::DatabaseStatus;
using dataupdate::DiffInfo;
using dataupdate::FakeTime;
using dataupdate::FileStatus;
using dataupdate::Fixer;
using dataupdate::RemoteInfo;
using dataupdate::Updater;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kRoot[] = "/volume1/@tmp/data_update";
constexpr char kInstall[] = "/volume1/db/x";
constexpr char kFull[] = "http://host/full";
constexpr char kUsingLock[] = "/run/data_update/using_x.lock";
constexpr char kEmptyDigest[] =
    "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b9"
    "5b";

using Statuses = std::map<std::string, FileStatus>;

std::string Installed(const std::string& name) {
  return std::string(kInstall) + "/" + name;
}

FileStatus StatusOf(const std::string& name) {
  return FileStatus(Sha384Hex(Installed(name)));
}

std::vector<std::string> Keys(const Statuses& statuses) {
  std::vector<std::string> keys;
  for (const auto& entry : statuses) {
    keys.push_back(entry.first);
  }
  return keys;
}

RemoteInfo Remote() {
  return RemoteInfo(5, 1234567, false, kFull);
}

// --- CheckStatus and CalculateStatus

TEST(CheckStatusTest, NoFilesAreAlwaysThere) {
  EXPECT_TRUE(CheckStatus({}, "/does/not/exist"));
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST(CheckStatusTest, FilesWithTheirDigestsPass) {
  MakeTree(kInstall, {{"a", "1"}, {"d/b", "2"}, {"empty", ""}, {"unlisted", "3"}});
  EXPECT_TRUE(CheckStatus(
      {{"a", StatusOf("a")}, {"d/b", StatusOf("d/b")}, {"empty", FileStatus(kEmptyDigest)}},
      kInstall));
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST(CheckStatusTest, KeysThatBeginWithASlashLieBelowTheDirectory) {
  MakeTree(kInstall, {{"a", "1"}});
  WriteFile("/a", "another");
  EXPECT_TRUE(CheckStatus({{"/a", StatusOf("a")}}, kInstall));
  EXPECT_THAT(Keys(CalculateStatus({"/a"}, kInstall)), ElementsAre("/a"));
  EXPECT_EQ(CalculateStatus({"/a"}, kInstall).at("/a"), StatusOf("a"));
}

TEST(CheckStatusTest, FirstMissingFileIsSaidAndEndsTheCheck) {
  MakeTree(kInstall, {{"a", "1"}, {"z", "changed"}});
  EXPECT_FALSE(CheckStatus({{"a", StatusOf("a")},
                            {"gone", FileStatus("")},
                            {"later", FileStatus("")},
                            {"z", FileStatus("wrong")}},
                           kInstall));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_ERR),
              ElementsAre("File /volume1/db/x/gone is gone"));
  ASSERT_EQ(SyslogCapture::Lines().size(), 1U);
  EXPECT_EQ(SyslogCapture::Lines()[0].format, "%s:%d File %s is gone");
  EXPECT_THAT(SyslogCapture::Lines()[0].text, StartsWith("updater:"));
}

TEST(CheckStatusTest, FirstChangedFileIsSaidAndEndsTheCheck) {
  MakeTree(kInstall, {{"a", "1"}});
  EXPECT_FALSE(CheckStatus({{"a", FileStatus("other")}, {"gone", FileStatus("")}}, kInstall));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_ERR),
              ElementsAre("File /volume1/db/x/a digest check fail"));
  EXPECT_EQ(SyslogCapture::Lines().size(), 1U);
}

TEST(CheckStatusTest, DigestsAreComparedByteForByte) {
  MakeTree(kInstall, {{"a", "1"}});
  const std::string digest = Sha384Hex(Installed("a"));
  std::string upper = digest;
  for (char& c : upper) {
    c = static_cast<char>(std::toupper(c));
  }
  ASSERT_NE(upper, digest);
  EXPECT_TRUE(CheckStatus({{"a", FileStatus(digest)}}, kInstall));
  EXPECT_FALSE(CheckStatus({{"a", FileStatus(upper)}}, kInstall));
  EXPECT_FALSE(CheckStatus({{"a", FileStatus(digest.substr(0, 95))}}, kInstall));
  EXPECT_FALSE(CheckStatus({{"a", FileStatus(digest + "0")}}, kInstall));
}

TEST(CheckStatusTest, DanglingLinkIsGone) {
  MakeTree(kInstall, {{"a -> none", ""}});
  EXPECT_FALSE(CheckStatus({{"a", FileStatus(kEmptyDigest)}}, kInstall));
  EXPECT_THAT(CalculateStatus({"a"}, kInstall), IsEmpty());
}

TEST(CheckStatusTest, StatusThatCannotBeReadIsTheFileSystemsOwnError) {
  fs::create_directories(kInstall);
  const std::string name(300, 'n');
  EXPECT_THROW(CheckStatus({{name, FileStatus("")}}, kInstall),
               boost::filesystem::filesystem_error);
  EXPECT_THROW(CalculateStatus({name}, kInstall), boost::filesystem::filesystem_error);
}

TEST(CheckStatusTest, FileThatCannotBeOpenedForWritingReadsAsNoData) {
  MakeTree(kInstall, {{"a", "1"}});
  const Statuses expected = {{"a", StatusOf("a")}};
  const ScopedMount mount = ScopedMount::ReadOnly(kInstall);
  EXPECT_FALSE(CheckStatus(expected, kInstall));
  EXPECT_TRUE(CheckStatus({{"a", FileStatus(kEmptyDigest)}}, kInstall));
}

TEST(CalculateStatusTest, MissingFilesAreLeftOut) {
  MakeTree(kInstall, {{"a", "1"}, {"d/b", "2"}, {"unlisted", "3"}});
  EXPECT_EQ(CalculateStatus({"a", "d/b", "gone"}, kInstall),
            (Statuses{{"a", StatusOf("a")}, {"d/b", StatusOf("d/b")}}));
  EXPECT_THAT(CalculateStatus({}, kInstall), IsEmpty());
  EXPECT_THAT(CalculateStatus({"a"}, "/does/not/exist"), IsEmpty());
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST(CalculateStatusTest, FilesOfSeveralGibibytesAreDigestedWhole) {
  // The rest of this file passes through values at which an int holds 0, and ends one byte behind.
  // The digest is sha384sum's: truncate -s 4G file; printf x >> file; sha384sum file
  fs::create_directories(kInstall);
  WriteFile(Installed("sparse"), "");
  fs::resize_file(Installed("sparse"), std::uintmax_t{1} << 32);
  std::ofstream(Installed("sparse"), std::ios::app) << 'x';
  EXPECT_EQ(CalculateStatus({"sparse"}, kInstall).at("sparse").sha384_digest,
            "da4f72262305a051ceb2d8cb6283f1f6261d1e9e4e3a84769b800f91f0a0247b556d34ee18ba4276093bd6"
            "74e58d1109");
}

// --- Fixer

class EngineTest : public ::testing::Test {
 protected:
  EngineTest() {
    platform_.plugin_action = [this](int action) {
      seen_by_plugins_[action] = fs::exists(kInstall) ? ReadTree(kInstall) : Tree();
      return 0;
    };
    platform_.plugin_exit = [this] { temporary_data_at_exit_ = fs::exists(kRoot); };
  }

  // Offers a delta with one new file, and returns the map with it.
  std::map<int, DiffInfo> OfferDelta(const std::string& patch_infos, Tree inputs = {}) {
    inputs["patch_infos.json"] = patch_infos;
    platform_.OfferPackage("http://host/d5", inputs);
    return {{5, DiffInfo("http://host/d5", 1)}};
  }

  DatabaseStatus RunUpdate(int installed_version, const std::map<int, DiffInfo>& diffs) {
    return Updater().Update("x", DatabaseStatus(installed_version, 0, {}), Remote(), diffs,
                            "/volume1", kInstall, "/volume1");
  }

  FakePlatform platform_;
  std::map<int, Tree> seen_by_plugins_;  // By action.
  bool temporary_data_at_exit_ = false;
};

class FixerTest : public EngineTest {
 protected:
  const Fixer fixer_ = Fixer("x", Remote(), "/volume1", kInstall, "/volume1");
};

TEST_F(FixerTest, VirtualOperationsKeepTheirSlotsWithoutADestructor) {
  EXPECT_FALSE(std::has_virtual_destructor_v<Fixer>);
  EXPECT_EQ(VtableSlot(&Fixer::IsFixNeeded), 0U);
  EXPECT_EQ(VtableSlot(&Fixer::Fix), 1U);
}

TEST_F(FixerTest, NeverInstalledDatabaseNeedsAFixWhateverItsFiles) {
  MakeTree(kInstall, {{"a", "1"}});
  EXPECT_TRUE(fixer_.IsFixNeeded(DatabaseStatus()));
  EXPECT_TRUE(fixer_.IsFixNeeded(DatabaseStatus(-1, 9, {{"a", StatusOf("a")}})));
  EXPECT_THAT(platform_.Story(), ElementsAre("err updater: x not been updated yet. Need Fix",
                                             "err updater: x not been updated yet. Need Fix"));
}

TEST_F(FixerTest, ValidVersionWithoutFilesNeedsNoFix) {
  EXPECT_FALSE(fixer_.IsFixNeeded(DatabaseStatus(0, 0, {})));
  EXPECT_FALSE(fixer_.IsFixNeeded(DatabaseStatus(3, 0, {})));
  EXPECT_THAT(platform_.Story(), IsEmpty());
}

TEST_F(FixerTest, OtherNegativeVersionsAreCheckedLikeAny) {
  EXPECT_FALSE(fixer_.IsFixNeeded(DatabaseStatus(-2, 0, {})));
}

TEST_F(FixerTest, MatchingFilesNeedNoFix) {
  MakeTree(kInstall, {{"a", "1"}});
  EXPECT_FALSE(fixer_.IsFixNeeded(DatabaseStatus(3, 0, {{"a", StatusOf("a")}})));
  EXPECT_THAT(platform_.Story(), IsEmpty());
}

TEST_F(FixerTest, DamagedFilesNeedAFix) {
  MakeTree(kInstall, {{"a", "1"}});
  EXPECT_TRUE(fixer_.IsFixNeeded(DatabaseStatus(3, 0, {{"a", FileStatus("other")}})));
  EXPECT_TRUE(fixer_.IsFixNeeded(DatabaseStatus(3, 0, {{"gone", FileStatus("other")}})));
  EXPECT_THAT(platform_.Story(), ElementsAre("err updater: File /volume1/db/x/a digest check fail",
                                             "info updater: x file check fail, Need Fix",
                                             "err updater: File /volume1/db/x/gone is gone",
                                             "info updater: x file check fail, Need Fix"));
}

TEST_F(FixerTest, FixInstallsThePackageBetweenTheHooks) {
  platform_.OfferPackage(kFull, {{"a", "new"}, {"d/b", "new"}});
  MakeTree(kInstall, {{"a", "damaged"}, {"stray", "old"}});
  const DatabaseStatus status = fixer_.Fix();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}, {"d/", ""}, {"d/b", "new"}}));
  EXPECT_EQ(status, DatabaseStatus(5, 1234567, {{"a", StatusOf("a")}, {"d/b", StatusOf("d/b")}}));
  EXPECT_THAT(
      platform_.Story(),
      ElementsAre("warning updater: Try to fix database x", "mkdir /volume1/@tmp/data_update",
                  "download http://host/full to /volume1/@tmp/data_update/x_v5",
                  "mkdir /volume1/@tmp/data_update/x_full", "open /volume1/@tmp/data_update/x_v5",
                  "extract to /volume1/@tmp/data_update/x_full", "mkdir /volume1/db/x",
                  "plugin init database_autoupdate database_autoupdate/version_change",
                  "plugin set DATABASE=x", "plugin set CHANGED_FILES=a:d/b",
                  "plugin set DELIMITER=:", "plugin action 4",
                  "info file_lock: Acquire lock on file: /run/data_update/using_x.lock",
                  "info file_lock: Release lock on file: /run/data_update/using_x.lock",
                  "plugin action 5", "plugin exit"));
  EXPECT_EQ(seen_by_plugins_[4], (Tree{{"a", "damaged"}, {"stray", "old"}}));
  EXPECT_EQ(seen_by_plugins_[5], (Tree{{"a", "new"}, {"d/", ""}, {"d/b", "new"}}));
  EXPECT_TRUE(temporary_data_at_exit_) << "the hook goes before the strategy";
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(FixerTest, FixThatCannotBePreparedRunsNoHook) {
  MakeTree(kInstall, {{"a", "damaged"}});
  EXPECT_EQ(UpdateErrorOf([&] { fixer_.Fix(); }), "Fail to wget url: http://host/full");
  EXPECT_THAT(platform_.Calls(),
              ElementsAre("mkdir /volume1/@tmp/data_update",
                          "download http://host/full to /volume1/@tmp/data_update/x_v5"));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "damaged"}}));
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(FixerTest, FixThatCannotBeInstalledRunsNoPostHookAndReleasesTheHook) {
  platform_.OfferPackage(kFull, {{"a", "new"}});
  platform_.plugin_action = [](int) {
    fs::remove_all(kInstall);
    return 0;
  };
  EXPECT_EQ(UpdateErrorOf([&] { fixer_.Fix(); }),
            "Fail to full update: failed to read file stat: /volume1/db/x");
  const std::vector<std::string> calls = platform_.Calls();
  EXPECT_THAT(calls, ::testing::Not(::testing::Contains("plugin action 5")));
  EXPECT_EQ(calls.back(), "plugin exit");
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(FixerTest, FailingHooksDoNotStopAFix) {
  platform_.OfferPackage(kFull, {{"a", "new"}});
  platform_.plugin_init_result = -1;
  platform_.plugin_init_gives_handle = false;
  EXPECT_THAT(Keys(fixer_.Fix().file_statuses), ElementsAre("a"));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}}));
}

TEST_F(FixerTest, KeepsCopiesOfItsArguments) {
  platform_.OfferPackage(kFull, {{"a", "new"}});
  auto name = std::make_unique<std::string>("x");
  auto remote = std::make_unique<RemoteInfo>(Remote());
  const Fixer fixer(*name, *remote, std::string("/volume1"), std::string(kInstall),
                    std::string("/volume1"));
  name.reset();
  remote.reset();
  EXPECT_EQ(fixer.Fix().data_version, 5);
}

// --- Updater

using UpdaterTest = EngineTest;

constexpr char kCreateNew[] = R"({"/new": {"operation": "create", "input_file": "in"}})";

TEST_F(UpdaterTest, VirtualOperationsKeepTheirSlots) {
  EXPECT_TRUE(std::has_virtual_destructor_v<Updater>);
  EXPECT_EQ(sizeof(Updater), sizeof(void*));
  EXPECT_EQ(VtableSlot(&Updater::Update), 2U);
}

TEST_F(UpdaterTest, DeltaUpdateRunsBetweenTheHooks) {
  MakeTree(kInstall, {{"gone", "old"}, {"untouched", "old"}});
  const auto diffs = OfferDelta(R"({"/gone": {"operation": "delete"},
                                    "/new": {"operation": "create", "input_file": "in"}})",
                                {{"in", "new"}});
  const DatabaseStatus status = RunUpdate(4, diffs);
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"new", "new"}, {"untouched", "old"}}));
  EXPECT_EQ(status, DatabaseStatus(5, 1234567, {{"/new", StatusOf("new")}}))
      << "only what the chain touched and what is still there";
  EXPECT_THAT(
      platform_.Story(),
      ElementsAre("notice updater: Prepare diff update: x", "mkdir /volume1/@tmp/data_update/x_sum",
                  "mkdir /volume1/@tmp/data_update/x_delta_5",
                  "download http://host/d5 to /volume1/@tmp/data_update/x_d5",
                  "open /volume1/@tmp/data_update/x_d5",
                  "extract to /volume1/@tmp/data_update/x_delta_5", "mkdir /volume1/db/x",
                  "plugin init database_autoupdate database_autoupdate/version_change",
                  "plugin set DATABASE=x", "plugin set CHANGED_FILES=/gone:/new",
                  "plugin set DELIMITER=:", "plugin action 4", "notice updater: Apply update: x",
                  "info file_lock: Acquire lock on file: /run/data_update/using_x.lock",
                  "info file_lock: Release lock on file: /run/data_update/using_x.lock",
                  "plugin action 5", "plugin exit"));
  EXPECT_EQ(seen_by_plugins_[4], (Tree{{"gone", "old"}, {"untouched", "old"}}));
  EXPECT_EQ(seen_by_plugins_[5], (Tree{{"new", "new"}, {"untouched", "old"}}));
  EXPECT_TRUE(temporary_data_at_exit_) << "the hook goes before the strategy";
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(UpdaterTest, FullUpdateFollowsADeltaThatIsNotOffered) {
  platform_.OfferPackage(kFull, {{"a", "new"}, {"d/b", "new"}});
  MakeTree(kInstall, {{"a", "old"}, {"stray", "old"}});
  const DatabaseStatus status = RunUpdate(-1, {});
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}, {"d/", ""}, {"d/b", "new"}}));
  EXPECT_EQ(status, DatabaseStatus(5, 1234567, {{"a", StatusOf("a")}, {"d/b", StatusOf("d/b")}}));
  EXPECT_THAT(
      platform_.Story(),
      ElementsAre("notice updater: Prepare diff update: x",
                  "warning updater: Diff update fail, try full update: No sufficient diff patched",
                  "notice updater: Prepare full update: x", "mkdir /volume1/@tmp/data_update",
                  "download http://host/full to /volume1/@tmp/data_update/x_v5",
                  "mkdir /volume1/@tmp/data_update/x_full", "open /volume1/@tmp/data_update/x_v5",
                  "extract to /volume1/@tmp/data_update/x_full", "mkdir /volume1/db/x",
                  "plugin init database_autoupdate database_autoupdate/version_change",
                  "plugin set DATABASE=x", "plugin set CHANGED_FILES=a:d/b",
                  "plugin set DELIMITER=:", "plugin action 4", "notice updater: Apply update: x",
                  "info file_lock: Acquire lock on file: /run/data_update/using_x.lock",
                  "info file_lock: Release lock on file: /run/data_update/using_x.lock",
                  "plugin action 5", "plugin exit"));
  EXPECT_FALSE(fs::exists(kRoot));
}

struct FallbackRow {
  const char* name;
  void (*spoil)(FakePlatform& platform);
  const char* reason;
};

class UpdaterFallbackTest : public UpdaterTest,
                            public ::testing::WithParamInterface<FallbackRow> {};

void OnlyForDelta(FakePlatform& platform, std::function<void()> spoil,
                  std::function<void()> restore) {
  platform.before_download = [spoil, restore](const std::string& url, const std::string&) {
    url == kFull ? restore() : spoil();
  };
}

const FallbackRow kFallbacks[] = {
    {"Download", [](FakePlatform& p) { p.OfferFile("http://host/d5", ""); },
     "tolmarchive_open /volume1/@tmp/data_update/x_d5 failed, ret: 5"},
    {"WorkCopies",
     [](FakePlatform& p) { p.refused_directories = {"/volume1/@tmp/data_update/x_sum"}; },
     "Fail to create dir /volume1/@tmp/data_update/x_sum"},
    {"Signature",
     [](FakePlatform& p) {
       OnlyForDelta(
           p, [&p] { p.archive_open_error = 18; }, [&p] { p.archive_open_error = 0; });
     },
     "tolmarchive_open /volume1/@tmp/data_update/x_d5 failed, ret: 18"},
    {"Unpacking",
     [](FakePlatform& p) {
       OnlyForDelta(
           p, [&p] { p.archive_extract_error = 31; }, [&p] { p.archive_extract_error = 0; });
     },
     "tolmarchive_extract /volume1/@tmp/data_update/x_d5 failed, ret: 31"},
    {"Description",
     [](FakePlatform& p) {
       p.OfferPackage("http://host/d5", {{"patch_infos.json", "[]"}});
     },
     "Fail to decode: /volume1/@tmp/data_update/x_delta_5/patch_infos.json"},
    {"DescriptionMissing",
     [](FakePlatform& p) {
       p.OfferPackage("http://host/d5", {{"other", ""}});
     },
     "File not exist: /volume1/@tmp/data_update/x_delta_5/patch_infos.json"},
};

TEST_P(UpdaterFallbackTest, FullUpdateFollowsADeltaThatCannotBePrepared) {
  platform_.OfferPackage(kFull, {{"a", "new"}});
  MakeTree(kInstall, {{"a", "old"}, {"stray", "old"}});
  const auto diffs = OfferDelta(kCreateNew, {{"in", "new"}});
  GetParam().spoil(platform_);
  EXPECT_THAT(Keys(RunUpdate(4, diffs).file_statuses), ElementsAre("a"));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}}));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ElementsAre(std::string("Diff update fail, try full update: ") + GetParam().reason));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_NOTICE),
              ElementsAre("Prepare diff update: x", "Prepare full update: x", "Apply update: x"));
  EXPECT_FALSE(fs::exists(kRoot));
}

INSTANTIATE_TEST_SUITE_P(Steps, UpdaterFallbackTest, ::testing::ValuesIn(kFallbacks),
                         [](const auto& row) { return row.param.name; });

TEST_F(UpdaterTest, DeltaIsCleanedUpBeforeTheFallbackIsSaid) {
  platform_.OfferPackage(kFull, {{"a", "new"}});
  const auto diffs = OfferDelta(kCreateNew, {{"in", "new"}});
  std::unique_ptr<ScopedMount> busy;  // Makes the cleaning heard.
  platform_.before_download = [&](const std::string& url, const std::string&) {
    if (url != kFull) {
      busy = std::make_unique<ScopedMount>(
          ScopedMount::Tmpfs(std::string(kRoot) + "/x_sum/busy", 4096));
      throw dataupdate::UpdateError("broken off");
    }
    busy.reset();
  };
  RunUpdate(4, diffs);
  EXPECT_THAT(platform_.Story(),
              ::testing::Contains("err strategy: Failed to clear tmp data: Fail to remove all: "
                                  "/volume1/@tmp/data_update"));
  std::vector<std::string> severe;
  for (const std::string& line : platform_.Story()) {
    if (line.rfind("err ", 0) == 0 || line.rfind("warning ", 0) == 0) {
      severe.push_back(line.substr(0, line.find(": ")));
    }
  }
  EXPECT_THAT(severe, ElementsAre("err strategy", "err strategy", "warning updater"));
}

TEST_F(UpdaterTest, FullPackageIsFetchedWhenTheDeltasDataIsGone) {
  platform_.OfferPackage(kFull, {{"a", "new"}});
  const auto diffs = OfferDelta("[]", {{"in", std::string(1000, 'i')}});
  std::vector<std::string> left;
  platform_.before_download = [&](const std::string& url, const std::string&) {
    if (url == kFull) {
      left = ListTree(kRoot);
    }
  };
  RunUpdate(4, diffs);
  EXPECT_THAT(left, IsEmpty());
}

TEST_F(UpdaterTest, OtherExceptionsOfTheDeltaEndTheUpdateWithoutFallback) {
  platform_.OfferPackage(kFull, {{"a", "new"}});
  MakeTree(kInstall, {{"a", "old"}});
  const auto diffs = OfferDelta(kCreateNew, {{"in", "new"}});
  platform_.before_download = [](const std::string&, const std::string&) {
    throw std::runtime_error("not one of ours");
  };
  try {
    RunUpdate(4, diffs);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "not one of ours");
  }
  EXPECT_THAT(
      platform_.Story(),
      ElementsAre("notice updater: Prepare diff update: x", "mkdir /volume1/@tmp/data_update/x_sum",
                  "mkdir /volume1/@tmp/data_update/x_delta_5",
                  "download http://host/d5 to /volume1/@tmp/data_update/x_d5"));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(UpdaterTest, FailureOfTheFullUpdateIsTheOneThatIsThrown) {
  MakeTree(kInstall, {{"a", "old"}});
  EXPECT_EQ(UpdateErrorOf([&] { RunUpdate(-1, {}); }), "Fail to wget url: http://host/full");
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
  EXPECT_THAT(platform_.Calls(), ::testing::Not(::testing::Contains(StartsWith("plugin"))));
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(UpdaterTest, FailureWhileInstallingADeltaNeverFallsBack) {
  platform_.OfferPackage(kFull, {{"a", "full"}});
  MakeTree(kInstall, {{"a", "old"}});
  const auto diffs = OfferDelta(kCreateNew, {{"in", "new"}});
  const HeldLock reader(kUsingLock, LOCK_SH);
  const FakeTime time;
  EXPECT_EQ(UpdateErrorOf([&] { RunUpdate(4, diffs); }),
            "Fail to diff update: Fail to lock /run/data_update/using_x.lock");
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
  const std::vector<std::string> calls = platform_.Calls();
  EXPECT_THAT(calls, ::testing::Contains("plugin action 4"));
  EXPECT_THAT(calls, ::testing::Not(::testing::Contains("plugin action 5")));
  EXPECT_EQ(calls.back(), "plugin exit");
  EXPECT_THAT(SyslogCapture::Texts(LOG_WARNING), IsEmpty());
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(UpdaterTest, FailingHooksDoNotStopAnUpdate) {
  platform_.OfferPackage(kFull, {{"a", "new"}});
  platform_.plugin_set_result = 1;
  platform_.plugin_action = [](int) { return 1; };
  EXPECT_THAT(Keys(RunUpdate(-1, {}).file_statuses), ElementsAre("a"));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}}));
  EXPECT_THAT(
      SyslogCapture::TextsWithoutPlace(LOG_ERR),
      ElementsAre("Failed to set plugin argument key=DATABASE value=x",
                  "Failed to set plugin argument key=CHANGED_FILES value=a",
                  "Failed to set plugin argument key=DELIMITER value=:",
                  "Failed to exec hook at action [4]", "Failed to exec hook at action [5]"));
}

TEST_F(UpdaterTest, EmptyDeltaChangesNothingAndCarriesTheNewVersion) {
  MakeTree(kInstall, {{"a", "old"}});
  EXPECT_EQ(RunUpdate(4, OfferDelta("{}")), DatabaseStatus(5, 1234567, {}));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
}

}  // namespace
}  // namespace tolm::testing

// What the installed tool does about operations that were cut short.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "operation/service.h"
#include "operation/settings_check.h"
#include "tests/support/child_process.h"
#include "tests/support/killed_run.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr char kState[] = "/var/lib/data_update";
constexpr char kTrust[] = "/var/lib/data_update/trust.json";
constexpr char kRecord[] = "/var/lib/data_update/oui/installed.json";
constexpr char kTemporary[] = "/volume1/@tmp/data_update";
constexpr char kDescription[] = "/var/cache/data_update/database_info.json";
constexpr char kUsingLock[] = "/run/data_update/using_oui.lock";

class RecoveryTest : public DeviceTest {
 protected:
  // As if an operation had died while it replaced files.
  void CutShort() {
    InstallFirst();
    WriteFile(prefix_ / "a.txt", "tw");
    WriteFile(mark_, "");
  }

  void ExpectSaid(const std::vector<std::string>& arguments, const std::string& err) {
    const CommandResult result = Tool(arguments);
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, err);
  }

  static std::string RecordedAsTheyAre(const std::string& count) {
    return "tolmdbud: oui: " + count +
           " files are recorded as they are, since nothing was known of them; \"tolmdbud fix "
           "--package oui\" compares them with the package\n";
  }

  // What an update does that decides what a power failure leaves: the mark, version.json, and what
  // is brought to the disk beside them, the directories also for other files.
  std::vector<std::string> CallsThatCount() {
    std::vector<std::string> kept;
    for (const std::string& call : TraceFileChanges({kTool, "update", "oui"})) {
      const std::string about = call.substr(call.find(' ') + 1);
      const std::string name = call.substr(0, call.find(' '));
      const bool is_directory = about == kState || about == version_file_.parent_path();
      const bool is_change = name == "write" || name == "rename" || name == "remove";
      const bool is_file = about == mark_ || about == version_file_ || about == aside_;
      if (name == "syncfs" || (name == "fsync" && (is_file || is_directory)) ||
          (is_change && is_file)) {
        kept.push_back(call);
      }
    }
    return kept;
  }
};

TEST_F(RecoveryTest, LeftOversAreRemovedAndSaid) {
  InstallFirst();
  WriteFile(fs::path(kTemporary) / "oui_sum/a_txt", "stale");
  WriteFile(fs::path(kTemporary) / "oui_full/stale", "stale");
  publisher_.Offer("oui", 2, {2});
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err,
            "tolmdbud: oui: removed what an earlier operation left in /volume1/@tmp/data_update\n");
  EXPECT_EQ(ReadTree(prefix_), second_);
  ExpectNothingLeft();
}

TEST_F(RecoveryTest, LeftOversAreRemovedAlsoWhenNothingIsToBeDone) {
  InstallFirst();
  WriteFile(fs::path(kTemporary) / "oui_v1", "stale");
  EXPECT_EQ(WithoutAge(Tool({"update", "oui"}).out), "oui: up to date\n");
  ExpectNothingLeft();
}

TEST_F(RecoveryTest, MarkLeadsToAFullInstallation) {
  for (const char* command : {"update", "fix"}) {
    SCOPED_TRACE(command);
    CutShort();
    WriteFile(prefix_ / "stray", "of another version");
    const std::string recorded = ReadFile(version_file_);
    const CommandResult result = Tool({command, "oui"});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_THAT(result.err, HasSubstr("oui: an earlier operation was cut short; version.json is "
                                      "set aside, for a full installation\n"));
    EXPECT_EQ(ReadTree(prefix_), first_);
    EXPECT_EQ(ReadFile(aside_), recorded);
    EXPECT_EQ(InstalledVersion("oui"), "1");
    ExpectNothingLeft();
  }
}

TEST_F(RecoveryTest, FirstInstallationThatChangedNothingIsNotCalledCutShort) {
  WriteFile(mark_, "");
  const CommandResult nothing = Tool({"update", "oui"});
  EXPECT_EQ(nothing.exit_status, 0);
  EXPECT_EQ(nothing.err, "");
  EXPECT_EQ(ReadTree(prefix_), first_);
  ExpectNothingLeft();

  fs::remove(version_file_);
  fs::remove_all(prefix_);
  WriteFile(prefix_ / "a.txt", "half");
  WriteFile(mark_, "");
  EXPECT_THAT(Tool({"update", "oui"}).err, HasSubstr("an earlier operation was cut short"));
  EXPECT_EQ(ReadTree(prefix_), first_);
  ExpectNothingLeft();
}

TEST_F(RecoveryTest, MarkStaysWhenTheFullInstallationFails) {
  CutShort();
  fs::remove(publisher_.FullPackage("oui", 1));
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 1);
  EXPECT_TRUE(fs::exists(mark_));
  publisher_.PackFull("oui", 1, first_);
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ReadTree(prefix_), first_);
  ExpectNothingLeft();
}

TEST_F(RecoveryTest, ForcedInstallationDoesNotTakeAwayAMarkThatItFound) {
  CutShort();
  const CommandResult result = Tool({"force-install", "oui"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("a forced installation does not repair that\n"));
  EXPECT_TRUE(fs::exists(mark_));
  EXPECT_EQ(Tool({"fix", "oui"}).out, "oui: repaired with 1\n");
  ExpectNothingLeft();
}

TEST_F(RecoveryTest, OperationThatFailsBeforeItChangesFilesLeavesNoMark) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  fs::remove(publisher_.FullPackage("oui", 2));
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 1);
  EXPECT_EQ(Tool({"force-install", "oui"}).exit_status, 1);
  EXPECT_FALSE(fs::exists(mark_));
  EXPECT_EQ(InstalledVersion("oui"), "1");
}

TEST_F(RecoveryTest, OperationThatFailsWhileItChangesFilesLeavesItsMark) {
  ScopedMount small = ScopedMount::Tmpfs(prefix_, 64 << 10);
  InstallFirst();
  publisher_.PackFull("oui", 2, {{"a.txt", std::string(1 << 20, 'a')}});
  publisher_.Offer("oui", 2);
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 1);
  EXPECT_TRUE(fs::exists(mark_));
  EXPECT_EQ(InstalledVersion("oui"), "1");
  small.Unmount();
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ReadTree(prefix_), (Tree{{"a.txt", std::string(1 << 20, 'a')}}));
  ExpectNothingLeft();
}

TEST_F(RecoveryTest, MarkStandsWhileAnOperationRuns) {
  InstallFirst();
  publisher_.Offer("oui", 2, {2});
  UniqueDescriptor reader(open(kUsingLock, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(reader.Get(), LOCK_SH | LOCK_NB), 0);
  RunningCommand update({kTool, "update", "oui"});
  ASSERT_TRUE(publisher_.Server().WaitForRequest("/packages/oui_d2"));
  EXPECT_TRUE(fs::exists(mark_));
  update.Process().Signal(SIGKILL);
  update.Process().Wait();
  EXPECT_TRUE(fs::exists(mark_));
  reader = UniqueDescriptor();
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ReadTree(prefix_), second_);
  ExpectNothingLeft();
}

TEST_F(RecoveryTest, VersionThatIsNoNumberIsSetAsideAndSaid) {
  InstallFirst();
  for (const char* version : {"abc", "", "99999999999"}) {
    const std::string damaged =
        std::string(R"({"data_version": ")") + version + R"(", "last_fetch_time": 0})";
    WriteFile(version_file_, damaged);
    const CommandResult result = Tool({"update", "oui"});
    EXPECT_EQ(result.exit_status, 0) << version;
    EXPECT_EQ(result.err,
              "tolmdbud: oui: the version in /var/lib/data_update/oui/version.json is no number; "
              "kept as version.json.aside\n");
    EXPECT_EQ(ReadFile(aside_), damaged);
    EXPECT_EQ(InstalledVersion("oui"), "1");
  }
}

TEST_F(RecoveryTest, DescriptionThatWasCutOffIsFetchedAnew) {
  InstallFirst();
  const std::string description = ReadFile(kDescription);
  WriteFile(kDescription, description.substr(0, description.size() / 2));
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("removed the unreadable /var/cache/data_update/"));
  EXPECT_EQ(ReadFile(kDescription), description);
}

TEST_F(RecoveryTest, OtherDatabasesAreNotTouched) {
  ConfigureDevice(publisher_, {{"geo", kOnVolume}, {"oui", kOnVolume}});
  publisher_.PackFull("geo", 1, {{"g", "geo"}});
  publisher_.Offer("geo", 1);
  ASSERT_EQ(Tool({"update", "geo"}).exit_status, 0);
  WriteFile("/var/lib/data_update/geo/recovery.mark", "");
  EXPECT_EQ(Tool({"update", "oui"}).err, "");
  EXPECT_TRUE(fs::exists("/var/lib/data_update/geo/recovery.mark"));
  EXPECT_EQ(InstalledVersion("geo"), "1");
}

TEST_F(RecoveryTest, StateThatCannotBeWrittenFailsBeforeAnythingIsChanged) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  const ScopedMount read_only = ScopedMount::ReadOnly("/var/lib/data_update");
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, AllOf(HasSubstr("recovery.mark"), HasSubstr("Read-only file system")));
  EXPECT_EQ(ReadTree(prefix_), first_);
}

TEST_F(RecoveryTest, EveryStepIsOnTheDiskBeforeTheNext) {
  fs::create_directories(version_file_.parent_path());
  WriteFile(prefix_ / "a.txt", "tw");
  WriteFile(version_file_, R"({"data_version": "abc", "last_fetch_time": 0})");
  const std::string state = kState;
  const std::string own = version_file_.parent_path();
  EXPECT_EQ(CallsThatCount(),
            (std::vector<std::string>{
                "rename " + aside_.string(), "fsync " + own, "fsync " + state,
                "fsync " + mark_.string(), "fsync " + own, "fsync " + state, "fsync " + state,
                "write " + version_file_.string(), "fsync " + own, "fsync " + state,
                "syncfs " + prefix_.string(), "fsync " + version_file_.string(),
                "remove " + mark_.string(), "fsync " + own, "fsync " + state, "fsync " + state}));
}

TEST_F(RecoveryTest, PipeInPlaceOfTheVersionIsSetAsideAndSaid) {
  InstallFirst();
  fs::remove(version_file_);
  ASSERT_EQ(mkfifo(version_file_.c_str(), 0600), 0);
  ExpectSaid({"update", "oui"},
             "tolmdbud: oui: /var/lib/data_update/oui/version.json is no regular file; kept as "
             "version.json.aside\n");
  EXPECT_TRUE(fs::is_fifo(aside_));
  EXPECT_EQ(InstalledVersion("oui"), "1");
  EXPECT_EQ(ReadTree(prefix_), first_);
}

TEST_F(RecoveryTest, VersionOfWhatWasNeverInstalledIsNotSetAside) {
  for (const char* text : {R"({"data_version": "-1", "last_fetch_time": 0})", R"({"data_)"}) {
    WriteFile(version_file_, text);
    ExpectSaid({"update", "oui"}, "");
    EXPECT_FALSE(fs::exists(aside_));
    EXPECT_EQ(InstalledVersion("oui"), "1");
  }
  // Nor what a record with that version was made for.
  std::string record = ReadFile(kRecord);
  const std::string version = "\"version\": ";
  ASSERT_NE(record.find(version + "1,"), std::string::npos);
  WriteFile(kRecord, record.insert(record.find(version) + version.size(), "-"));
  ExpectSaid({"update", "oui"}, "");
  EXPECT_FALSE(fs::exists(aside_));
}

TEST_F(RecoveryTest, DescriptionThatWasCutOffGoesBeforeAnythingElse) {
  InstallFirst();
  WriteFile(kDescription, ReadFile(kDescription).substr(0, 20));
  const ScopedMount read_only = ScopedMount::ReadOnly(kState);
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("removed the unreadable /var/cache/data_update/"));
  EXPECT_FALSE(fs::exists(kDescription));
}

TEST_F(RecoveryTest, HighestVersionThatWasLostIsThatOfWhatIsInstalled) {
  publisher_.Offer("oui", 2);
  for (const bool is_cut_short : {false, true}) {
    SCOPED_TRACE(is_cut_short);
    publisher_.Offer("oui", 2);
    ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
    fs::remove(kTrust);
    if (is_cut_short) {
      WriteFile(mark_, "");
    } else {
      ExpectSaid({"update", "oui"}, "");
      fs::remove(version_file_);
    }
    publisher_.Offer("oui", 1);
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(Tool({"update", "oui"}).exit_status, 1);
      EXPECT_EQ(ReadTree(prefix_), second_);
    }
  }
}

// It is no sign that nothing was changed.
TEST_F(RecoveryTest, MarkStaysWhereTheFilesCannotBeLookedAt) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  fs::remove(publisher_.FullPackage("oui", 2));
  const std::vector<std::string> command = {kTool, "update", "oui"};
  const BadDisk disk({prefix_.string()});
  const std::vector<std::string> calls = TraceDiskUse(command, disk, 1);
  const auto last = std::find_if(calls.rbegin(), calls.rend(), [](const std::string& call) {
    return call.rfind("open", 0) == 0;
  });
  ASSERT_NE(last, calls.rend());
  const BrokenRun run =
      RunOnBadDisk(command, disk, static_cast<std::size_t>(std::distance(last, calls.rend())));
  EXPECT_EQ(run.failed, *last);
  EXPECT_EQ(run.result.exit_status, 1);
  EXPECT_TRUE(fs::exists(mark_));
}

TEST_F(RecoveryTest, FileThatADiskDoesNotGiveIsReplaced) {
  InstallFirst();
  const std::vector<std::string> command = {kTool, "fix", "oui"};
  const BadDisk disk({prefix_.string()});
  const std::vector<std::string> calls = TraceDiskUse(command, disk);
  const auto first = std::find_if(calls.begin(), calls.end(), [this](const std::string& call) {
    return call.find((prefix_ / "a.txt").string()) != std::string::npos &&
           call.find("read") != std::string::npos;
  });
  ASSERT_NE(first, calls.end());
  const BrokenRun run = RunOnBadDisk(
      command, disk, static_cast<std::size_t>(std::distance(calls.begin(), first)) + 1);
  EXPECT_EQ(run.failed, *first);
  EXPECT_EQ(run.result.err,
            "tolmdbud: oui: an installed file cannot be read; the database is installed in full\n");
  EXPECT_EQ(run.result.out, "oui: repaired with 1\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
  ExpectNothingLeft();
}

TEST_F(RecoveryTest, FilesOfWhichNothingWasKnownAreCounted) {
  InstallFirst();
  fs::remove(kRecord);
  ExpectSaid({"update", "oui"}, "");  // version.json lists all of them.

  publisher_.Offer("oui", 2, {2});
  ExpectSaid({"update", "oui"}, "");
  fs::last_write_time(prefix_ / "a.txt", fs::file_time_type::clock::now());
  ExpectSaid({"update", "oui"}, "");
  fs::remove(kRecord);
  ExpectSaid({"update", "oui"}, RecordedAsTheyAre("1 of 2"));

  // Another program has installed since.
  WriteFile(version_file_, R"({"data_version": "2", "last_fetch_time": 0})");
  ExpectSaid({"update", "oui"}, RecordedAsTheyAre("2 of 2"));
  ExpectSaid({"update", "oui"}, "");
}

TEST_F(RecoveryTest, InstalledFilesAreClosedToOthersAlsoWhenNothingIsToBeDone) {
  InstallFirst();
  fs::permissions(prefix_ / "a.txt", fs::perms::others_write, fs::perm_options::add);
  ExpectSaid({"update", "oui"}, "");
  EXPECT_EQ(fs::status(prefix_ / "a.txt").permissions() & fs::perms::others_write, fs::perms::none);
}

TEST_F(RecoveryTest, UpdateExaminesTheFilesAndAForcedInstallationDoesNot) {
  InstallFirst();
  WriteFile(prefix_ / "a.txt", "damaged");
  ExpectSaid({"force-install", "oui"}, "");
  EXPECT_EQ(ReadTree(prefix_), first_);
  WriteFile(prefix_ / "sub/b.txt", "damaged");
  publisher_.Offer("oui", 2, {2});
  ExpectSaid({"update", "oui"},
             "tolmdbud: oui: sub/b.txt has another size; the database is installed in full\n");
  EXPECT_EQ(ReadTree(prefix_), second_);
}

TEST_F(RecoveryTest, WhatIsMadeIsForEverybodyToReadWhoeverStartsIt) {
  const CommandResult result =
      RunCommand({"sh", "-c", "umask 077; exec /usr/bin/tolmdbud update oui"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  for (const fs::path& directory :
       {prefix_, prefix_ / "sub", fs::path(kState), version_file_.parent_path()}) {
    EXPECT_EQ(fs::status(directory).permissions(), static_cast<fs::perms>(0755)) << directory;
  }
}

TEST_F(RecoveryTest, StateAndLocksAreForRootAloneToWrite) {
  fs::create_directories(version_file_.parent_path());
  fs::permissions(version_file_.parent_path(), fs::perms::all);
  InstallFirst();
  EXPECT_EQ(fs::status(version_file_.parent_path()).permissions(), static_cast<fs::perms>(0755));
  for (const char* lock : {"operator", "update_any", "update_oui", "fresh_info"}) {
    EXPECT_EQ(fs::status("/run/data_update/" + std::string(lock) + ".lock").permissions(),
              static_cast<fs::perms>(0600))
        << lock;
  }
  EXPECT_EQ(fs::status(kUsingLock).permissions(), static_cast<fs::perms>(0644));
}

TEST_F(RecoveryTest, DamagedSettingsAndWhatIsNotConfiguredAreRefusedBeforeAnythingIsMade) {
  const operation::Service service = operation::BuildService([](const std::string&) {});
  EXPECT_THROW(service.update->ForceInstall("none", 1), std::exception);
  EXPECT_FALSE(fs::exists("/run/data_update"));
  WriteFile("/usr/tolm/etc/data_update/data_update.conf", "{");
  EXPECT_THROW(service.update->ForceInstall("oui", 1), operation::DamagedSettings);
  EXPECT_FALSE(fs::exists("/run/data_update"));
  EXPECT_FALSE(fs::exists(kState));
}

TEST_F(RecoveryTest, WhatIsReportedIsLoggedAsAWarning) {
  InstallFirst();
  WriteFile(fs::path(kTemporary) / "oui_v1", "stale");
  std::vector<std::string> reported;
  const operation::Service service =
      operation::BuildService([&reported](const std::string& line) { reported.push_back(line); });
  service.update->UpdateProject("oui");
  EXPECT_THAT(reported, ::testing::SizeIs(1));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING), ::testing::IsSupersetOf(reported));
}

// By a plug-in, which is the last that runs: what was recorded is not on this one.
TEST_F(RecoveryTest, MarkStaysWhereAnotherVolumeHasTakenThePlace) {
  const fs::path plugin = "/usr/tolm/lib/plugins/database_autoupdate/version_change/mounts";
  WriteFile(plugin, "#!/bin/sh\n[ $1 = pre ] || mount -t tmpfs none /volume1\n");
  fs::permissions(plugin, fs::perms::owner_all);
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("oui: the volume /volume1 has gone away meanwhile"));
  EXPECT_TRUE(fs::exists(mark_));
  EXPECT_EQ(RunCommand({"umount", "/volume1"}).exit_status, 0);
}

}  // namespace
}  // namespace tolm::testing

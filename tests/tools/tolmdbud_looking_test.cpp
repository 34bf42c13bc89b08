// The commands that look: whole outputs and exit statuses.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "tests/support/opening_watch.h"
#include "tests/tools/golden.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr char kServiceOverrides[] = "/usr/tolm/etc/data_update/data_update.conf";

void AddHiddenDatabase(GoldenDevice& device) {
  ConfigureDevice(device.publisher, {{"geo", kOnRootFs}, {"oui", kOnVolume}});
  WriteFile(kOverrides, R"({"oui": {"auto_update": true}})");
}
constexpr char kHidden[] =
    "tolmdbud: geo is hidden: /usr/tolm/etc/data_update/databases.conf does not list it; do: "
    "tolmdbud schedule geo on\n";

class LookingTest : public GoldenTest {};

TEST_P(LookingTest, SaysExactlyThis) {
  Expect(GetParam());
}

const GoldenRow kListRows[] = {
    {"Names", {"list"}, Nothing, 0, "oui\n", ""},
    {"NamesAsJson",
     {"list", "--json"},
     Nothing,
     0,
     R"({
  "command" : "list",
  "databases" : 
  [
    {
      "name" : "oui"
    }
  ],
  "exit_status" : 0,
  "failures" : [],
  "format" : 1,
  "warnings" : []
}
)",
     ""},
    {"QuietIsSilent", {"list", "--quiet"}, Nothing, 0, "", ""},
    {"HiddenDatabaseIsWarnedOf", {"list"}, AddHiddenDatabase, 0, "oui\n", kHidden},
    {"QuietWarnsOfNothing", {"list", "-q"}, AddHiddenDatabase, 0, "", ""},
    {"DamagedOverrideIsWarnedOf",
     {"list"},
     [](GoldenDevice&) { WriteFile(kOverrides, "{"); },
     0,
     "oui\n",
     "tolmdbud: /usr/tolm/etc/data_update/databases.conf: line 1, column 2: Missing '}' or "
     "object member name\n"},
    {"DamagedServiceOverrideIsWarnedOf",
     {"list"},
     [](GoldenDevice&) { WriteFile(kServiceOverrides, "[]"); },
     0,
     "oui\n",
     "tolmdbud: /usr/tolm/etc/data_update/data_update.conf: holds no JSON object\n"},
    {"DamagedDefaultsFail",
     {"list"},
     [](GoldenDevice&) { WriteFile(kDatabaseDefaults, "{"); },
     1,
     "",
     "tolmdbud: Fail to decode: /usr/share/data_update/databases.conf\n"},
    {"FailureIsInTheDocument",
     {"list", "--json"},
     [](GoldenDevice&) { fs::remove(kDatabaseDefaults); },
     1,
     R"({
  "command" : "list",
  "databases" : [],
  "exit_status" : 1,
  "failures" : 
  [
    "File not exist: /usr/share/data_update/databases.conf"
  ],
  "format" : 1,
  "warnings" : []
}
)",
     "tolmdbud: File not exist: /usr/share/data_update/databases.conf\n"},
    {"NoNameIsTaken",
     {"list", "oui"},
     Nothing,
     2,
     "",
     "tolmdbud: The following argument was not expected: oui (--help shows the usage)\n"},
    {"UnknownCommandIsNamed",
     {"frob"},
     Nothing,
     2,
     "",
     "tolmdbud: The following argument was not expected: frob (--help shows the usage)\n"},
    {"CommandIsWanted",
     {},
     Nothing,
     2,
     "",
     "tolmdbud: a command is required (--help shows the usage)\n"},
};
INSTANTIATE_TEST_SUITE_P(List, LookingTest, ::testing::ValuesIn(kListRows), NameOf);

const GoldenRow kDirectoryRows[] = {
    {"OnTheVolume", {"directory", "oui"}, Nothing, 0, "/volume1/@database/autoupdate/oui\n", ""},
    {"AsJson",
     {"directory", "oui", "--json"},
     Install,
     0,
     R"({
  "command" : "directory",
  "directory" : "/volume1/@database/autoupdate/oui",
  "exit_status" : 0,
  "failures" : [],
  "format" : 1,
  "installed" : 70001,
  "name" : "oui",
  "volume" : "/volume1",
  "warnings" : []
}
)",
     ""},
    {"OnTheRootFileSystemWithoutAVolume",
     {"directory", "geo"},
     [](GoldenDevice& device) {
       ConfigureDevice(device.publisher, {{"geo", kOnRootFs}, {"oui", kOnVolume}}, "");
     },
     0,
     "/var/db/geo\n",
     ""},
    {"NoVolumeIsChosen",
     {"directory", "oui"},
     [](GoldenDevice& device) { device.WithoutAVolume(); },
     12,
     "",
     "tolmdbud: oui: no volume is chosen, nothing was done\n"},
    {"VolumeIsNotMounted",
     {"directory", "oui"},
     [](GoldenDevice& device) {
       ConfigureDevice(device.publisher, {{"oui", kOnVolume}}, "/volume9");
     },
     12,
     "",
     "tolmdbud: oui: /volume9 is chosen but not mounted; nothing was done\n"},
    {"UnknownName", {"directory", "nope"}, Nothing, 1, "", kUnknown},
};
INSTANTIATE_TEST_SUITE_P(Directory, LookingTest, ::testing::ValuesIn(kDirectoryRows), NameOf);

std::string StatusText(const std::string& rest) {
  return "volume       /volume1\noffers from  $TIME\noui\n" + rest;
}
constexpr char kPlaceAndSchedule[] =
    "  directory  /volume1/@database/autoupdate/oui\n  schedule   on\n";
constexpr char kUpdatedOnce[] = "  last run   $TIME update: updated, none to 70001\n";

const GoldenRow kStatusRows[] = {
    {"NotInstalled",
     {"status"},
     Nothing,
     0,
     StatusText("  installed  none\n  offered    70001\n  state      not installed\n"
                "  update     full package, size unknown\n" +
                std::string(kPlaceAndSchedule) + "  last run   none recorded\n"),
     ""},
    {"UpToDate",
     {"status", "oui"},
     Install,
     0,
     StatusText("  installed  70001\n  offered    70001\n  state      up to date\n"
                "  update     none needed\n" +
                std::string(kPlaceAndSchedule) + kUpdatedOnce),
     ""},
    {"DeltaAndItsSize",
     {"status"},
     [](GoldenDevice& device) {
       device.Install();
       device.Describe("\"70002\"",
                       R"(, "diff_files": {"70002": {"download_link": "x", "file_size": 1204}})");
     },
     0,
     StatusText("  installed  70001\n  offered    70002\n  state      update offered\n"
                "  update     1 delta, 1204 bytes\n" +
                std::string(kPlaceAndSchedule) + kUpdatedOnce),
     ""},
    {"FullPackageAndItsSize",
     {"status"},
     [](GoldenDevice& device) {
       device.Install();
       device.Describe("\"70002\"", R"(, "file_size": 8000000000, "deprecated": true)");
     },
     0,
     StatusText("  installed  70001\n  offered    70002 (deprecated)\n"
                "  state      update offered\n  update     full package, 8000000000 bytes\n" +
                std::string(kPlaceAndSchedule) + kUpdatedOnce),
     ""},
    {"OfflineAsksNobody",
     {"status", "--offline"},
     [](GoldenDevice& device) {
       device.Install();
       device.ServerIsGone();
     },
     0,
     "volume       /volume1\noffers from  none\noui\n  installed  70001\n"
     "  offered    unknown\n  state      unknown\n" +
         std::string(kPlaceAndSchedule) + kUpdatedOnce,
     ""},
    {"OfflineShowsOldOffers",
     {"status", "--offline"},
     [](GoldenDevice& device) {
       device.OfferSecond();
       ASSERT_EQ(Tool({"check"}).exit_status, 10);
       fs::last_write_time(kDescription, fs::file_time_type::clock::now() - std::chrono::hours(48));
     },
     0,
     StatusText("  installed  none\n  offered    70002\n  state      not installed\n"
                "  update     full package, size unknown\n" +
                std::string(kPlaceAndSchedule) + "  last run   none recorded\n"),
     ""},
    {"ServerThatFailsIsToldOnceAndTheRestIsShown",
     {"status"},
     [](GoldenDevice& device) {
       device.Install();
       device.ServerFails();
     },
     1,
     "volume       /volume1\noffers from  none\noui\n  installed  70001\n"
     "  offered    unknown\n  state      unknown\n" +
         std::string(kPlaceAndSchedule) + kUpdatedOnce,
     "tolmdbud: Fail to wget url: $URL/database_info/1?$QUERY (the server answers with an "
     "error)\n"},
    {"UnknownName",
     {"status", "nope"},
     Nothing,
     1,
     "volume       /volume1\noffers from  $TIME\n",
     kUnknown},
    {"NoVolume",
     {"status", "--offline"},
     [](GoldenDevice& device) { device.WithoutAVolume(); },
     0,
     "volume       none\noffers from  none\noui\n  installed  none\n  offered    unknown\n"
     "  state      not installed\n  directory  /@database/autoupdate/oui\n  schedule   on\n"
     "  last run   none recorded\n",
     ""},
    {"CutShort",
     {"status"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(kMark, "");
     },
     0,
     StatusText("  installed  70001\n  offered    70001\n  state      cut short\n"
                "  update     full package, size unknown\n" +
                std::string(kPlaceAndSchedule) + kUpdatedOnce),
     ""},
    {"MarkOfARunningOperationIsNoSign",
     {"status"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(kMark, "");
       device.Hold("/run/data_update/operator.lock");
     },
     0,
     StatusText("  installed  70001\n  offered    70001\n  state      up to date\n"
                "  update     none needed\n" +
                std::string(kPlaceAndSchedule) + kUpdatedOnce),
     ""},
    {"RecordThatIsNoJsonCountsAsNotInstalled",
     {"status"},
     [](GoldenDevice&) { WriteFile(kVersionFile, "{"); },
     0,
     StatusText("  installed  none\n  offered    70001\n  state      not installed\n"
                "  update     full package, size unknown\n" +
                std::string(kPlaceAndSchedule) + "  last run   none recorded\n"),
     ""},
    {"RecordedVersionIsNoNumber",
     {"status"},
     [](GoldenDevice&) {
       WriteFile(kVersionFile, R"({"data_version": "abc", "last_fetch_time": 0})");
     },
     1,
     "volume       /volume1\noffers from  $TIME\n",
     "tolmdbud: oui: the version recorded in version.json is no number\n"},
    {"OfferedVersionIsNoNumber",
     {"status"},
     [](GoldenDevice& device) { device.Describe("\"abc\""); },
     1,
     "volume       /volume1\noffers from  $TIME\n",
     "tolmdbud: oui: the version that the server offers is no number\n"},
    {"DatabaseIsNotOffered",
     {"status"},
     [](GoldenDevice& device) {
       device.publisher.Server().SetBody("/database_info/1",
                                         R"({"deprecated": false, "db_list": {}})");
     },
     1,
     "volume       /volume1\noffers from  $TIME\n",
     "tolmdbud: oui: Invalid json object for RemoteInfo\n"},
    {"DescriptionCutOff",
     {"status"},
     [](GoldenDevice& device) {
       device.publisher.Server().SetBody("/database_info/1", "\x1b[2J{");
     },
     1,
     "volume       /volume1\noffers from  none\noui\n  installed  none\n  offered    unknown\n"
     "  state      not installed\n" +
         std::string(kPlaceAndSchedule) + "  last run   none recorded\n",
     "tolmdbud: Fail to decode: /var/cache/data_update/database_info.json\n"},
    {"DamagedDestination",
     {"status"},
     [](GoldenDevice&) { ReplaceInFile(kDatabaseDefaults, "%VOLUME%", "%DISK%"); },
     1,
     "volume       /volume1\noffers from  $TIME\n",
     "tolmdbud: oui: Invalid value '%DISK%' for '%s/@database/autoupdate' field\n"},
    {"ScheduleIsOff",
     {"status", "oui"},
     [](GoldenDevice&) {
       GoldenDevice::MustRun({"schedule", "oui", "off"});
     },
     0,
     StatusText("  installed  none\n  offered    70001\n  state      not installed\n"
                "  update     full package, size unknown\n"
                "  directory  /volume1/@database/autoupdate/oui\n  schedule   off\n"
                "  last run   none recorded\n"),
     ""},
    {"LastRunFailed",
     {"status", "--offline"},
     [](GoldenDevice& device) {
       device.ServerIsGone();
       ASSERT_EQ(Tool({"update", "oui"}).exit_status, 1);
     },
     0,
     "volume       /volume1\noffers from  none\noui\n  installed  none\n  offered    unknown\n"
     "  state      not installed\n" +
         std::string(kPlaceAndSchedule) +
         "  last run   $TIME update: failed, Fail to wget url: "
         "http://127.0.0.1:1/database_info/1?$QUERY (the server is not reached or breaks off)\n",
     ""},
    {"AllAsJson",
     {"status", "--json"},
     [](GoldenDevice& device) {
       device.Install();
       device.Describe("\"70002\"",
                       R"(, "diff_files": {"70002": {"download_link": "x", "file_size": 1204}})");
     },
     0,
     R"({
  "command" : "status",
  "databases" : 
  [
    {
      "deprecated" : false,
      "directory" : "/volume1/@database/autoupdate/oui",
      "installed" : 70001,
      "last_run" : 
      {
        "bytes" : $N,
        "from" : null,
        "message" : "",
        "operation" : "update",
        "outcome" : "updated",
        "scheduled" : false,
        "seconds" : $N,
        "time" : "$TIME",
        "to" : 70001
      },
      "name" : "oui",
      "offered" : 70002,
      "scheduled" : true,
      "state" : "update-offered",
      "update" : 
      {
        "by" : "deltas",
        "bytes" : $N,
        "packages" : 1
      },
      "volume" : "/volume1"
    }
  ],
  "exit_status" : 0,
  "failures" : [],
  "format" : 1,
  "offers_from" : "$TIME",
  "volume" : "/volume1",
  "warnings" : []
}
)",
     ""},
    {"WhatIsUnknownIsNull",
     {"status", "--json"},
     [](GoldenDevice& device) {
       ConfigureDevice(device.publisher, {{"oui", kOnRootFs}}, "");
       device.ServerFails();
     },
     1,
     R"json({
  "command" : "status",
  "databases" : 
  [
    {
      "deprecated" : null,
      "directory" : "/var/db/oui",
      "installed" : null,
      "last_run" : null,
      "name" : "oui",
      "offered" : null,
      "scheduled" : true,
      "state" : "not-installed",
      "update" : null,
      "volume" : null
    }
  ],
  "exit_status" : 1,
  "failures" : 
  [
    "Fail to wget url: $URL/database_info/1?$QUERY (the server answers with an error)"
  ],
  "format" : 1,
  "offers_from" : null,
  "volume" : null,
  "warnings" : []
}
)json",
     "tolmdbud: Fail to wget url: $URL/database_info/1?$QUERY (the server answers with an "
     "error)\n"},
};
INSTANTIATE_TEST_SUITE_P(Status, LookingTest, ::testing::ValuesIn(kStatusRows), NameOf);

const GoldenRow kCheckRows[] = {
    {"UpToDate", {"check"}, Install, 0, "oui: up to date with 70001\n", ""},
    {"Offered",
     {"check", "oui"},
     [](GoldenDevice& device) {
       device.Install();
       device.OfferSecond();
     },
     10,
     "oui: 70002 is offered, 70001 is installed\n",
     ""},
    {"NotInstalled", {"check"}, Nothing, 10, "oui: 70001 is offered, none is installed\n", ""},
    {"OlderThanInstalledIsNoOffer",
     {"check"},
     [](GoldenDevice& device) {
       device.Install();
       device.Describe("\"70000\"");
     },
     0,
     "oui: up to date with 70001\n",
     ""},
    {"CutShort",
     {"check"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(kMark, "");
     },
     10,
     "oui: an operation was cut short, the next update installs 70001 in full\n",
     ""},
    {"QuietAnswersByTheStatusAlone", {"check", "--quiet"}, Nothing, 10, "", ""},
    {"FailureOfOneIsTheStatus",
     {"check", "nope", "oui"},
     Nothing,
     1,
     "oui: 70001 is offered, none is installed\n",
     kUnknown},
    {"ServerFails",
     {"check"},
     [](GoldenDevice& device) { device.ServerFails(); },
     1,
     "",
     "tolmdbud: Fail to wget url: $URL/database_info/1?$QUERY (the server answers with an "
     "error)\n"},
    {"ServerIsGone",
     {"check"},
     [](GoldenDevice& device) { device.ServerIsGone(); },
     1,
     "",
     "tolmdbud: Fail to wget url: http://127.0.0.1:1/database_info/1?$QUERY (the server is not "
     "reached or breaks off)\n"},
    {"DescriptionIsNoJson",
     {"check"},
     [](GoldenDevice& device) { device.publisher.Server().SetBody("/database_info/1", "<html>"); },
     1,
     "",
     "tolmdbud: Fail to decode: /var/cache/data_update/database_info.json\n"},
    {"NoRoomForTheDescription",
     {"check"},
     [](GoldenDevice& device) {
       device.publisher.Server().SetBody("/database_info/1", std::string(1 << 20, ' '));
       device.Mount(ScopedMount::Tmpfs("/var/cache/data_update", 64 << 10));
     },
     1,
     "",
     "tolmdbud: Fail to wget url: $URL/database_info/1?$QUERY (the server sends more than the "
     "62260 bytes that there are for it in /var/cache/data_update while five per cent stay "
     "free)\n"},
    {"EndlessDescriptionEnds",
     {"check"},
     [](GoldenDevice& device) {
       HttpAnswer answer;
       answer.without_length = true;
       answer.body = std::string(20 << 20, ' ');
       answer.pause_at = 17 << 20;
       device.publisher.Server().SetAnswer("/database_info/1", answer);
     },
     1,
     "",
     "tolmdbud: Fail to wget url: $URL/database_info/1?$QUERY (the server sends more than the "
     "4194304 bytes that a description may have)\n"},
    {"DamagedServiceConfiguration",
     {"check"},
     [](GoldenDevice&) { WriteFile(kServerDefaults, "{}"); },
     1,
     "",
     "tolmdbud: section-key: 'config'-'download_scheme' not found\n"},
    {"AsJson",
     {"check", "--json", "nope", "oui"},
     Nothing,
     1,
     R"({
  "command" : "check",
  "databases" : 
  [
    {
      "cut_short" : false,
      "installed" : null,
      "name" : "oui",
      "offered" : 70001,
      "update_offered" : true
    }
  ],
  "exit_status" : 1,
  "failures" : 
  [
    "nope: Project nope not supported"
  ],
  "format" : 1,
  "warnings" : []
}
)",
     kUnknown},
};
INSTANTIATE_TEST_SUITE_P(Check, LookingTest, ::testing::ValuesIn(kCheckRows), NameOf);

const GoldenRow kBusyRows[] = {
    {"Idle", {"busy"}, Nothing, 0, "idle\n", ""},
    {"IdleAfterAnOperation", {"busy", "oui"}, Install, 0, "idle\n", ""},
    {"BusyWithAny",
     {"busy"},
     [](GoldenDevice& device) { device.Hold("/run/data_update/update_any.lock"); },
     13,
     "busy\n",
     ""},
    {"BusyWithThisOne",
     {"busy", "oui"},
     [](GoldenDevice& device) { device.Hold("/run/data_update/update_oui.lock"); },
     13,
     "busy\n",
     ""},
    {"BusyWithAnotherOneOnly",
     {"busy", "oui"},
     [](GoldenDevice& device) { device.Hold("/run/data_update/update_any.lock"); },
     0,
     "idle\n",
     ""},
    {"QuietBusy",
     {"busy", "--quiet"},
     [](GoldenDevice& device) { device.Hold("/run/data_update/update_any.lock"); },
     13,
     "",
     ""},
    {"UnknownName", {"busy", "nope"}, Nothing, 1, "", kUnknown},
    {"BusyAsJson",
     {"busy", "--json"},
     [](GoldenDevice& device) { device.Hold("/run/data_update/update_any.lock"); },
     13,
     R"({
  "busy" : true,
  "command" : "busy",
  "exit_status" : 13,
  "failures" : [],
  "format" : 1,
  "warnings" : []
}
)",
     ""},
    {"VerboseShowsTheLog",
     {"busy", "oui", "--verbose"},
     Install,
     0,
     "idle\n",
     "[info] file_lock:$N Acquire lock on file: /run/data_update/update_oui.lock\n"
     "[info] file_lock:$N Release lock on file: /run/data_update/update_oui.lock\n"},
};
INSTANTIATE_TEST_SUITE_P(Busy, LookingTest, ::testing::ValuesIn(kBusyRows), NameOf);

constexpr char kFreshInfoLock[] = "/run/data_update/fresh_info.lock";

class CheckRefreshTest : public GoldenTest {};

TEST_F(CheckRefreshTest, AsksTheServerWhoseLastAnswerIsYoung) {
  device_.Install();
  const std::string path = "/database_info/1";
  const std::size_t asked = device_.publisher.Server().RequestCount(path);
  EXPECT_EQ(Tool({"check"}).exit_status, 0);
  EXPECT_EQ(device_.publisher.Server().RequestCount(path), asked);
  EXPECT_EQ(Tool({"check", "--refresh"}).exit_status, 0);
  EXPECT_EQ(device_.publisher.Server().RequestCount(path), asked + 1);
}

TEST_F(CheckRefreshTest, WaitsForWhoeverIsRefreshing) {
  device_.Install();
  UniqueDescriptor lock(open(kFreshInfoLock, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(lock.Get(), LOCK_EX | LOCK_NB), 0);
  const OpeningWatch watch(kFreshInfoLock);
  RunningCommand check({kTool, "check", "--refresh"});
  ASSERT_TRUE(watch.Wait());
  EXPECT_TRUE(fs::exists(kDescription)) << "it was dropped while another process reads it";
  lock = UniqueDescriptor();
  EXPECT_EQ(check.Wait().exit_status, 0);
}

TEST_F(CheckRefreshTest, InterruptedItEndsTheDownload) {
  const std::string path = "/database_info/1";
  device_.publisher.Server().Hang(path);
  for (const char* command : {"check", "status"}) {
    const std::size_t seen = device_.publisher.Server().RequestCount(path);
    RunningCommand check({kTool, command});
    ASSERT_TRUE(device_.publisher.Server().WaitForRequest(path, seen + 1));
    check.Process().Signal(SIGINT);
    const CommandResult result = check.Wait();
    EXPECT_EQ(result.exit_status, 130);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "tolmdbud: interrupted\n");
    EXPECT_FALSE(fs::exists(kDescription)) << "wget lives on, or what it left";
  }
}

TEST_F(CheckRefreshTest, InterruptedItStopsWaitingForAnotherProcess) {
  device_.Hold(kFreshInfoLock);
  const OpeningWatch watch(kFreshInfoLock);
  RunningCommand check({kTool, "check"});
  ASSERT_TRUE(watch.Wait());
  check.Process().Signal(SIGTERM);
  EXPECT_EQ(check.Wait().exit_status, 128 + SIGTERM);
}

// Whoever is not root. A user namespace of one user has nobody else, and tries nothing.
class OrdinaryUserTest : public GoldenTest {
 protected:
  static CommandResult AsNobody(std::vector<std::string> command) {
    const std::vector<std::string> nobody = {"setpriv", "--reuid",        "65534", "--regid",
                                             "65534",   "--clear-groups", kTool};
    command.insert(command.begin(), nobody.begin(), nobody.end());
    return RunCommand(command);
  }
  void SetUp() override {
    if (RunCommand({"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "true"})
            .exit_status != 0) {
      GTEST_SKIP() << "there is one user only";
    }
  }
};

constexpr char kNotRoot[] = "tolmdbud: this was not run as root; \"tolmdbud ";

TEST_F(OrdinaryUserTest, MayLook) {
  device_.Install();
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"list"},
                                             {"status"},
                                             {"status", "--offline"},
                                             {"check"},
                                             {"verify"},
                                             {"busy"},
                                             {"busy", "oui"},
                                             {"schedule"},
                                             {"volume", "show"},
                                             {"lock", "oui", "--", "true"}}) {
    const CommandResult result = AsNobody(command);
    EXPECT_EQ(result.exit_status, 0) << command.front();
    EXPECT_EQ(result.err, "") << command.front();
  }
}

TEST_F(OrdinaryUserTest, HearsThatAskingTheServerTakesRoot) {
  device_.Install();
  GoldenDevice::ForgetDescription();
  const CommandResult result = AsNobody({"check"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: Fail open lock file /run/data_update/fresh_info.lock\n" +
                            std::string(kNotRoot) +
                            "check --help\" says what needs root's rights\n");
}

TEST_F(OrdinaryUserTest, ChangesNothingAndHearsWhy) {
  device_.Install();
  const Tree before = ReadTree("/var/lib/data_update/oui");
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"update", "oui"},
                                             {"fix", "oui"},
                                             {"force-install", "oui"},
                                             {"verify", "--package"},
                                             {"schedule", "oui", "off"},
                                             {"check", "--refresh"}}) {
    const CommandResult result = AsNobody(command);
    EXPECT_EQ(result.exit_status, 1) << command.front();
    EXPECT_THAT(result.err, HasSubstr(kNotRoot + command.front() + " --help\"")) << command.front();
    EXPECT_EQ(CountLines(result.err), 2) << result.err;
  }
  EXPECT_EQ(ReadTree("/var/lib/data_update/oui"), before);
  EXPECT_FALSE(fs::exists(kOverrides));
}

TEST_F(OrdinaryUserTest, IsToldNothingAboutRootByACommandThatFailsUnderTheLock) {
  ASSERT_EQ(Tool({"init"}).exit_status, 0);
  const CommandResult result = AsNobody({"lock", "oui", "--", "false"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "");
}

// Output on a terminal, as script(1) gives it to a program.
class TerminalTest : public GoldenTest {
 protected:
  static std::string OnTerminal(const std::string& command,
                                const std::vector<std::string>& environment) {
    return RunCommand({"script", "-qec", command, "/dev/null"}, {environment, {}, ""}).out;
  }
};

TEST_F(TerminalTest, ColoursAreUsedOnATerminalThatWantsThem) {
  constexpr char kRed[] = "\033[31mtolmdbud:\033[0m nope: ";
  constexpr char kPlain[] = "tolmdbud: nope: ";
  const std::string command = std::string(kTool) + " busy nope";
  EXPECT_THAT(OnTerminal(command, {"TERM=xterm"}), HasSubstr(kRed));
  EXPECT_THAT(OnTerminal(command, {"TERM=xterm", "NO_COLOR="}), HasSubstr(kRed));
  EXPECT_EQ(OnTerminal(command, {"TERM=xterm", "NO_COLOR=1"}).find(kPlain), 0u);
  EXPECT_EQ(OnTerminal(command, {"TERM=dumb"}).find(kPlain), 0u);
  EXPECT_EQ(RunCommand({kTool, "busy", "nope"}, {{"TERM=xterm"}, {}, ""}).err.find(kPlain), 0u);
}

TEST_F(TerminalTest, NothingThatAServerSaysReachesTheTerminalAsAControl) {
  device_.Describe("\"70001\"");
  device_.publisher.Server().SetBody(
      "/database_info/1",
      R"({"deprecated": false, "db_list": {"oui": {"last_fetch_time": 0, "data_version": "70001",
          "download_link": "http://127.0.0.1:1/\u001b]0;x\u0007\u009b2J\n"}}})");
  for (const char* options : {"", " --verbose", " --json"}) {
    const std::string shown =
        OnTerminal(std::string(kTool) + " force-install oui" + options, {"TERM=xterm"});
    EXPECT_THAT(shown, HasSubstr("http://127.0.0.1:1/")) << options;
    EXPECT_EQ(shown.find("\033]"), std::string::npos) << options;
    EXPECT_EQ(shown.find('\a'), std::string::npos) << options;
    EXPECT_EQ(shown.find("\xC2\x9B"), std::string::npos) << options;
  }
}

}  // namespace
}  // namespace tolm::testing

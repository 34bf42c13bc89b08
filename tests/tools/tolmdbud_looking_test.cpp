// The commands that look: whole outputs and exit statuses.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>

#include "tests/support/opening_watch.h"
#include "tests/tools/golden.h"
#include "tests/tools/terminal.h"

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
  "reasons" : [],
  "warnings" : []
}
)",
     ""},
    {"QuietIsSilent", {"list", "--quiet"}, Nothing, 0, "", ""},
    {"HiddenDatabaseIsWarnedOf", {"list"}, AddHiddenDatabase, 0, "oui\n", kHidden},
    {"QuietWarnsOfNothing", {"list", "-q"}, AddHiddenDatabase, 0, "", ""},
    {"DamagedOverrideFails",
     {"list"},
     [](GoldenDevice&) { WriteFile(kOverrides, "{"); },
     1,
     "oui\n",
     "tolmdbud: /usr/tolm/etc/data_update/databases.conf: line 1, column 2: Missing '}' or "
     "object member name; no operation begins until that is mended\n"},
    {"QuietSaysWhyNoOperationBegins",
     {"list", "--quiet"},
     [](GoldenDevice&) { fs::create_directories("/usr/tolm/etc/volumes.conf"); },
     1,
     "",
     "tolmdbud: /usr/tolm/etc/volumes.conf: is no regular file; no operation begins until that is "
     "mended\n"},
    {"DamagedServiceOverrideFails",
     {"list"},
     [](GoldenDevice&) { WriteFile(kServiceOverrides, "[]"); },
     1,
     "oui\n",
     "tolmdbud: /usr/tolm/etc/data_update/data_update.conf: holds no JSON object; no operation "
     "begins until that is mended\n"},
    {"DamagedDefaultsFail",
     {"list"},
     [](GoldenDevice&) { WriteFile(kDatabaseDefaults, "{"); },
     1,
     "",
     "tolmdbud: /usr/share/data_update/databases.conf is damaged: line 1, column 2: Missing '}' or "
     "object member name" +
         kAnew},
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
    "not configured: /usr/share/data_update/databases.conf is missing; see tolmdbpub install-config"
  ],
  "format" : 1,
  "reasons" : 
  [
    {
      "reason" : "not-configured"
    }
  ],
  "warnings" : []
}
)",
     "tolmdbud: not configured: /usr/share/data_update/databases.conf is missing; see tolmdbpub "
     "install-config\n"},
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
  "reasons" : [],
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
     "tolmdbud: oui: no volume is chosen, nothing was done; \"tolmdbud volume show\" says what "
     "there is\n"},
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

constexpr char kHead[] =
    "volume       /volume1\noffers from  $TIME ($AGO ago)\nsigned       no\nnext run     unknown\n";
constexpr char kHeadWithoutOffers[] =
    "volume       /volume1\noffers from  none\nnext run     unknown\n";
constexpr char kNothingInstalled[] =
    "NAME  INSTALLED  OFFERED  AGE  COST     STATE          NEXT RUN\n"
    "oui           -    70001    -  full, ?  not installed  -\n";
constexpr char kNothingKnown[] =
    "NAME  INSTALLED  OFFERED  AGE  COST  STATE          NEXT RUN\n"
    "oui           -        -    -  -     not installed  -\n";
constexpr char kInstalledOnly[] =
    "NAME  INSTALLED  OFFERED        AGE  COST  STATE    NEXT RUN\n"
    "oui       70001        -  $AGE days  -     unknown  -\n";
constexpr char kInstalledAndOffered[] =
    "NAME  INSTALLED  OFFERED        AGE  COST  STATE       NEXT RUN\n"
    "oui       70001    70001  $AGE days  -     up to date  -\n";
constexpr char kUnreadable[] =
    "NAME  INSTALLED  OFFERED  AGE  COST     STATE       NEXT RUN\n"
    "oui           -    70001    -  full, ?  unreadable  -\n";
constexpr char kServerError[] =
    "tolmdbud: 500 Internal Server Error from $URL/database_info/1; the server is overloaded or "
    "broken: try later\n";
const std::string kBadDestination =
    "/usr/share/data_update/databases.conf or /usr/tolm/etc/data_update/databases.conf is damaged: "
    "install_dest is \"%DISK%\" and not %VOLUME% or %ROOTFS%" +
    kAnew;

void OfferDelta(GoldenDevice& device) {
  device.Install();
  device.Describe("\"70002\"",
                  R"(, "diff_files": {"70002": {"download_link": "x", "file_size": 1204}})");
}
void VolumeIsGone(GoldenDevice& device) {
  device.Install();
  ReplaceInFile(kServerDefaults, "/volume1", "/volume9");
}
// Besides "oui": one whose settings are damaged, and one that is offered too.
void OneOfThreeIsDamaged(GoldenDevice& device) {
  device.Install();
  ConfigureDevice(device.publisher, {{"bad", "%DISK%"}, {"oui", kOnVolume}, {"tz", kOnRootFs}});
  device.publisher.PackFull("tz", 80001, {{"zone", "z"}});
  device.publisher.PackFull("bad", 90001, {{"a", "a"}});
  device.publisher.Offer("tz", 80001);
  device.publisher.Offer("bad", 90001);
}
const GoldenRow kStatusRows[] = {
    {"NotInstalled", {"status"}, Nothing, 0, std::string(kHead) + kNothingInstalled, ""},
    {"UpToDate", {"status"}, Install, 0, std::string(kHead) + kInstalledAndOffered, ""},
    {"NamedOneInFull",
     {"status", "oui"},
     OfferDelta,
     0,
     std::string(kHead) +
         "oui\n  installed  70001\n  offered    70002\n  age        $AGE days, made $TIME\n"
         "  state      update offered\n  update     1 delta, 1.2 kB (1,204 bytes)\n"
         "  directory  /volume1/@database/autoupdate/oui\n  volume     /volume1\n"
         "  schedule   on\n  last run   $TIME update: updated, none to 70001, from $URL\n"
         "  floor      70001\n  record     current\n  locks      none held\n",
     ""},
    {"NamedOneThatHasNothing",
     {"status", "oui"},
     Nothing,
     0,
     std::string(kHead) + "oui\n  installed  none\n  offered    70001\n  age        unknown\n"
                          "  state      not installed\n  update     full package, size unknown\n"
                          "  directory  /volume1/@database/autoupdate/oui\n  volume     /volume1\n"
                          "  schedule   on\n  last run   none recorded\n"
                          "  floor      none\n  record     none\n  locks      none held\n",
     ""},
    {"DeltaAndItsSize",
     {"status"},
     OfferDelta,
     0,
     std::string(kHead) +
         "NAME  INSTALLED  OFFERED        AGE  COST             STATE           NEXT RUN\n"
         "oui       70001    70002  $AGE days  1 delta, 1.2 kB  update offered  -\n",
     ""},
    {"FullPackageAndItsSize",
     {"status"},
     [](GoldenDevice& device) {
       device.Install();
       device.Describe("\"70002\"", R"(, "file_size": 8000000000, "deprecated": true)");
     },
     0,
     std::string(kHead) +
         "NAME  INSTALLED  OFFERED        AGE  COST          STATE                       NEXT RUN\n"
         "oui       70001    70002  $AGE days  full, 8.0 GB  update offered, deprecated  -\n",
     ""},
    {"OfflineAsksNobody",
     {"status", "--offline"},
     [](GoldenDevice& device) {
       device.Install();
       device.ServerIsGone();
     },
     0,
     std::string(kHeadWithoutOffers) + kInstalledOnly,
     ""},
    {"OfflineShowsOldOffers",
     {"status", "--offline"},
     [](GoldenDevice& device) {
       device.OfferSecond();
       ASSERT_EQ(Tool({"check"}).exit_status, 10);
       fs::last_write_time(kDescription, fs::file_time_type::clock::now() - std::chrono::hours(48));
     },
     0,
     std::string(kHead) + "NAME  INSTALLED  OFFERED  AGE  COST     STATE          NEXT RUN\n"
                          "oui           -    70002    -  full, ?  not installed  -\n",
     ""},
    {"DescriptionFromTheFutureHasNoAge",
     {"status", "--offline"},
     [](GoldenDevice& device) {
       device.OfferSecond();
       ASSERT_EQ(Tool({"check"}).exit_status, 10);
       fs::last_write_time(kDescription, fs::file_time_type::clock::now() + std::chrono::hours(48));
     },
     0,
     "volume       /volume1\noffers from  $TIME (later than this machine's clock)\nsigned       "
     "no\n"
     "next run     unknown\n"
     "NAME  INSTALLED  OFFERED  AGE  COST     STATE          NEXT RUN\n"
     "oui           -    70002    -  full, ?  not installed  -\n",
     ""},
    {"ServerThatFailsIsToldOnceAndTheRestIsShown",
     {"status"},
     [](GoldenDevice& device) {
       device.Install();
       device.ServerFails();
     },
     1,
     std::string(kHeadWithoutOffers) + kInstalledOnly,
     kServerError},
    {"UnknownName", {"status", "nope"}, Nothing, 1, kHead, kUnknown},
    {"NoVolume",
     {"status", "--offline"},
     [](GoldenDevice& device) { device.WithoutAVolume(); },
     0,
     std::string("volume       none\noffers from  none\nnext run     unknown\n") + kNothingKnown,
     ""},
    {"VolumeIsNotMounted",
     {"status"},
     VolumeIsGone,
     0,
     "volume       /volume9 (not mounted)\noffers from  $TIME ($AGO ago)\nsigned       no\nnext "
     "run     unknown\n"
     "NAME  INSTALLED  OFFERED        AGE  COST  STATE           NEXT RUN\n"
     "oui       70001    70001  $AGE days  -     volume missing  -\n",
     ""},
    {"CutShort",
     {"status"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(kMark, "");
     },
     0,
     std::string(kHead) + "NAME  INSTALLED  OFFERED        AGE  COST     STATE      NEXT RUN\n"
                          "oui       70001    70001  $AGE days  full, ?  cut short  -\n",
     ""},
    {"MarkOfARunningOperationIsNoSignAndItsLockIsNamed",
     {"status", "oui"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(kMark, "");
       device.Hold("/run/data_update/operator.lock");
     },
     0,
     std::string(kHead) +
         "oui\n  installed  70001\n  offered    70001\n  age        $AGE days, made $TIME\n"
         "  state      up to date\n  update     none needed\n"
         "  directory  /volume1/@database/autoupdate/oui\n  volume     /volume1\n"
         "  schedule   on\n  last run   $TIME update: updated, none to 70001, from $URL\n"
         "  floor      70001\n  record     current\n"
         "  locks      operator.lock by process $N, tools_tolmdbud_\n",
     ""},
    {"RecordThatIsNoJsonCountsAsNotInstalled",
     {"status"},
     [](GoldenDevice&) { WriteFile(kVersionFile, "{"); },
     0,
     std::string(kHead) + kNothingInstalled,
     ""},
    {"RecordedVersionIsNoNumber",
     {"status"},
     [](GoldenDevice&) {
       WriteFile(kVersionFile, R"({"data_version": "abc", "last_fetch_time": 0})");
     },
     1,
     std::string(kHead) + kUnreadable,
     "tolmdbud: oui: the version recorded in version.json is no number\n"},
    {"OfferedVersionIsNoNumber",
     {"status"},
     [](GoldenDevice& device) { device.Describe("\"abc\""); },
     1,
     std::string(kHead) + kNothingKnown,
     "tolmdbud: oui: the description from $URL is damaged: the version that the server offers is "
     "no number" +
         kRightServer},
    {"NegativeVersionsAreNone",
     {"status"},
     [](GoldenDevice& device) {
       WriteFile(kVersionFile, R"({"data_version": "-7", "last_fetch_time": 0})");
       device.Describe("\"-5\"");
     },
     0,
     std::string(kHead) + kNothingKnown,
     ""},
    {"NegativeOfferIsNone",
     {"status"},
     [](GoldenDevice& device) {
       device.Install();
       device.Describe("\"-5\"");
     },
     0,
     std::string(kHead) + kInstalledOnly,
     ""},
    {"DatabaseIsNotOffered",
     {"status"},
     [](GoldenDevice& device) {
       device.publisher.Server().SetBody("/database_info/1",
                                         R"({"deprecated": false, "db_list": {"oui": null}})");
     },
     1,
     std::string(kHead) + kNothingKnown,
     "tolmdbud: oui: the description from $URL has no usable record of it" + kRightServer},
    {"DescriptionCutOff",
     {"status"},
     [](GoldenDevice& device) {
       device.publisher.Server().SetBody("/database_info/1", "\x1b[2J{");
     },
     1,
     std::string(kHeadWithoutOffers) + kNothingKnown,
     "tolmdbud: the answer from $URL/database_info/1 is no description of databases (it is no "
     "JSON)" +
         kRightServer},
    {"DamagedDestination",
     {"status"},
     [](GoldenDevice&) { ReplaceInFile(kDatabaseDefaults, "%VOLUME%", "%DISK%"); },
     1,
     std::string(kHead) + kUnreadable,
     "tolmdbud: oui: " + kBadDestination},
    {"DamagedOneIsSaidAndTheOthersAreShown",
     {"status"},
     OneOfThreeIsDamaged,
     1,
     std::string(kHead) + "NAME  INSTALLED  OFFERED        AGE  COST     STATE          NEXT RUN\n"
                          "bad           -    90001          -  full, ?  unreadable     -\n"
                          "oui       70001    70001  $AGE days  -        up to date     -\n"
                          "tz            -    80001          -  full, ?  not installed  -\n",
     "tolmdbud: bad: " + kBadDestination},
    {"SettingsOfAllAreDamagedAndTheRecordIsShown",
     {"status", "--offline"},
     [](GoldenDevice& device) {
       device.Install();
       GoldenDevice::ForgetDescription();
       WriteFile(kServerDefaults, "{}");
     },
     1,
     "volume       none\noffers from  none\nnext run     unknown\n"
     "NAME  INSTALLED  OFFERED  AGE  COST  STATE       NEXT RUN\n"
     "oui       70001        -    -  -     unreadable  -\n",
     "tolmdbud: /usr/share/data_update/data_update.conf is damaged: config.cur_volume is missing" +
         kAnew},
    {"SettingsWithWhichNoOperationBegins",
     {"status"},
     [](GoldenDevice& device) {
       device.Install();
       GoldenDevice::ForgetDescription();
       ReplaceInFile(kDatabaseDefaults, "\"install_dest\"",
                     "\"format_version\" : 1, \"install_dest\"");
     },
     1,
     std::string(kHeadWithoutOffers) + kInstalledOnly,
     "tolmdbud: /usr/share/data_update/databases.conf: oui.format_version must be a string; no "
     "operation begins until that is mended\n"},
    {"OverridesWithATrailingComma",
     {"status", "--quiet"},
     [](GoldenDevice&) { WriteFile(kServiceOverrides, R"({"config": {"db_netloc": "x",}})"); },
     1,
     "",
     "tolmdbud: /usr/tolm/etc/data_update/data_update.conf: line 1, column 30: Missing '}' or "
     "object member name; no operation begins until that is mended\n"},
    {"DefaultsWithATrailingComma",
     {"status"},
     [](GoldenDevice&) { WriteFile(kDatabaseDefaults, "{\n  \"oui\": {},\n}\n"); },
     1,
     "",
     "tolmdbud: /usr/share/data_update/databases.conf is damaged: line 3, column 1: Missing '}' or "
     "object member name" +
         kAnew},
    {"DefaultsWithAByteOrderMark",
     {"status"},
     [](GoldenDevice&) {
       WriteFile(kDatabaseDefaults, "\xEF\xBB\xBF" + ReadFile(kDatabaseDefaults));
     },
     1,
     "",
     "tolmdbud: /usr/share/data_update/databases.conf is damaged: line 1, column 1: a byte order "
     "mark stands there" +
         kAnew},
    {"OverrideOfADatabaseThatIsNotConfigured",
     {"status", "--offline"},
     [](GoldenDevice&) { WriteFile(kOverrides, R"({"oui": {}, "x": 5})"); },
     1,
     std::string(kHeadWithoutOffers) +
         "NAME  INSTALLED  OFFERED  AGE  COST  STATE          NEXT RUN\n"
         "oui           -        -    -  -     not installed  -\n"
         "x             -        -    -  -     unreadable     -\n",
     "tolmdbud: /usr/tolm/etc/data_update/databases.conf: x must be an object; the defaults count\n"
     "tolmdbud: x: /usr/tolm/etc/data_update/databases.conf lists x, which "
     "/usr/share/data_update/databases.conf does not have; take it out of the former\n"},
    {"ScheduleIsOff",
     {"status"},
     [](GoldenDevice&) {
       GoldenDevice::MustRun({"schedule", "oui", "off"});
     },
     0,
     std::string(kHead) + "NAME  INSTALLED  OFFERED  AGE  COST     STATE          NEXT RUN\n"
                          "oui           -    70001    -  full, ?  not installed  off\n",
     ""},
    {"LastRunFailedAndTheServerIsLeftAlone",
     {"status", "--offline", "oui"},
     [](GoldenDevice& device) {
       device.ServerIsGone();
       ASSERT_EQ(Tool({"update", "oui"}).exit_status, 1);
     },
     0,
     std::string(kHeadWithoutOffers) +
         "cool-down    127.0.0.1:1 until $TIME\n"
         "             after 1 failure; a run by hand does not wait\n"
         "oui\n  installed  none\n  offered    unknown\n  age        unknown\n"
         "  state      not installed\n  directory  /volume1/@database/autoupdate/oui\n"
         "  volume     /volume1\n  schedule   on\n"
         "  last run   $TIME update: failed, Fail to wget url: "
         "http://127.0.0.1:1/database_info/1?$QUERY (the server is not reached or breaks off)\n"
         "  floor      none\n  record     none\n  locks      none held\n",
     ""},
    {"NextRunIsTheTimers",
     {"status"},
     [](GoldenDevice&) { RunBySystemd(kWaitingTimer); },
     0,
     "volume       /volume1\noffers from  $TIME ($AGO ago)\nsigned       no\nnext run     $TIME "
     "(in $WAIT)\n"
     "NAME  INSTALLED  OFFERED  AGE  COST     STATE          NEXT RUN\n"
     "oui           -    70001    -  full, ?  not installed  in $WAIT\n",
     ""},
    {"TimerIsNotStarted",
     {"status"},
     [](GoldenDevice&) {
       RunBySystemd(
           "NextElapseUSecRealtime=\nId=tolmdbud-update.timer\nLoadState=loaded\n"
           "ActiveState=inactive\nUnitFileState=disabled");
     },
     0,
     std::string("volume       /volume1\noffers from  $TIME ($AGO ago)\nsigned       no\n"
                 "next run     none, tolmdbud-update.timer is not started\n") +
         kNothingInstalled,
     ""},
    {"CronHasTheRuns",
     {"status"},
     [](GoldenDevice& device) {
       device.Mount(ScopedMount::Tmpfs("/etc/cron.d", 64 << 10));
       WriteFile("/etc/cron.d/tolmdbud", "");
     },
     0,
     std::string("volume       /volume1\noffers from  $TIME ($AGO ago)\nsigned       no\n"
                 "next run     by cron, see /etc/cron.d/tolmdbud\n") +
         "NAME  INSTALLED  OFFERED  AGE  COST     STATE          NEXT RUN\n"
         "oui           -    70001    -  full, ?  not installed  cron\n",
     ""},
    {"SystemdThatFailsTellsNothing",
     {"status"},
     [](GoldenDevice&) {
       RunBySystemd(kWaitingTimer);
       WriteFile("/usr/bin/systemctl", "#!/bin/sh\necho Id=x; exit 1\n");
     },
     0,
     std::string(kHead) + kNothingInstalled,
     ""},
    {"AllAsJson",
     {"status", "--json"},
     [](GoldenDevice& device) {
       OfferDelta(device);
       RunBySystemd(kWaitingTimer);
     },
     0,
     R"({
  "command" : "status",
  "cool_down" : null,
  "databases" : 
  [
    {
      "age_seconds" : $N,
      "deprecated" : false,
      "directory" : "/volume1/@database/autoupdate/oui",
      "floor" : 70001,
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
        "server" : "$URL",
        "time" : "$TIME",
        "to" : 70001
      },
      "locks" : [],
      "name" : "oui",
      "next_run" : "$TIME",
      "offered" : 70002,
      "problem" : null,
      "record" : "current",
      "rollout" : null,
      "scheduled" : true,
      "state" : "update-offered",
      "update" : 
      {
        "by" : "deltas",
        "bytes" : $N,
        "packages" : 1
      },
      "volume" : "/volume1",
      "volume_missing" : false
    }
  ],
  "exit_status" : 0,
  "failures" : [],
  "format" : 1,
  "next_run" : "$TIME",
  "next_run_by" : "systemd",
  "offers_from" : "$TIME",
  "offers_problem" : null,
  "offers_signed" : null,
  "reasons" : [],
  "volume" : "/volume1",
  "warnings" : []
}
)",
     ""},
    {"WhatIsUnknownIsNull",
     {"status", "--json"},
     [](GoldenDevice& device) {
       ConfigureDevice(device.publisher, {{"bad", "%DISK%"}, {"oui", kOnRootFs}}, "");
       device.ServerFails();
       WriteFile("/var/lib/data_update/cooldown.json",
                 R"({"format": 1, "servers": {"127.0.0.1:)" +
                     std::to_string(device.publisher.Server().Port()) +
                     R"(": {"failures": 3, "attempted": 4000000000, "until": 4000000900,
                            "asked": true}, "other:80": {}}})");
     },
     1,
     R"json({
  "command" : "status",
  "cool_down" : 
  {
    "failures" : 3,
    "server" : "127.0.0.1:$PORT",
    "until" : "$TIME"
  },
  "databases" : 
  [
    {
      "age_seconds" : null,
      "deprecated" : null,
      "directory" : null,
      "floor" : null,
      "installed" : null,
      "last_run" : null,
      "locks" : [],
      "name" : "bad",
      "next_run" : null,
      "offered" : null,
      "problem" : "/usr/share/data_update/databases.conf or /usr/tolm/etc/data_update/databases.conf is damaged: install_dest is \"%DISK%\" and not %VOLUME% or %ROOTFS%; \"tolmdbpub install-config\" makes it anew",
      "record" : "none",
      "rollout" : null,
      "scheduled" : null,
      "state" : "unreadable",
      "update" : null,
      "volume" : null,
      "volume_missing" : null
    },
    {
      "age_seconds" : null,
      "deprecated" : null,
      "directory" : "/var/db/oui",
      "floor" : null,
      "installed" : null,
      "last_run" : null,
      "locks" : [],
      "name" : "oui",
      "next_run" : null,
      "offered" : null,
      "problem" : null,
      "record" : "none",
      "rollout" : null,
      "scheduled" : true,
      "state" : "not-installed",
      "update" : null,
      "volume" : null,
      "volume_missing" : false
    }
  ],
  "exit_status" : 1,
  "failures" : 
  [
    "500 Internal Server Error from $URL/database_info/1; the server is overloaded or broken: try later",
    "bad: /usr/share/data_update/databases.conf or /usr/tolm/etc/data_update/databases.conf is damaged: install_dest is \"%DISK%\" and not %VOLUME% or %ROOTFS%; \"tolmdbpub install-config\" makes it anew"
  ],
  "format" : 1,
  "next_run" : null,
  "next_run_by" : null,
  "offers_from" : null,
  "offers_problem" : "500 Internal Server Error from $URL/database_info/1; the server is overloaded or broken: try later",
  "offers_signed" : null,
  "reasons" : 
  [
    {
      "http_status" : 500,
      "reason" : "http-status"
    },
    {
      "reason" : "configuration-damaged"
    }
  ],
  "volume" : null,
  "warnings" : []
}
)json",
     std::string(kServerError) + "tolmdbud: bad: " + kBadDestination},
};
INSTANTIATE_TEST_SUITE_P(Status, LookingTest, ::testing::ValuesIn(kStatusRows), NameOf);

const GoldenRow kCheckRows[] = {
    {"UpToDate",
     {"check"},
     Install,
     0,
     "oui: up to date with 70001 as of $CLOCK (asked $AGO; --refresh asks now)\n",
     ""},
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
     "tolmdbud: 500 Internal Server Error from $URL/database_info/1; the server is overloaded or "
     "broken: try later\n"},
    {"ServerIsGone",
     {"check"},
     [](GoldenDevice& device) { device.ServerIsGone(); },
     1,
     "",
     "tolmdbud: 127.0.0.1:1 refuses the connection; no server runs there, or not at that port\n"},
    {"DescriptionIsNoJson",
     {"check"},
     [](GoldenDevice& device) { device.publisher.Server().SetBody("/database_info/1", "<html>"); },
     1,
     "",
     "tolmdbud: the answer from $URL/database_info/1 is no description of databases (it is a web "
     "page: a portal or proxy may be in the way)" +
         kRightServer},
    {"NoRoomForTheDescription",
     {"check"},
     [](GoldenDevice& device) {
       device.publisher.Server().SetBody("/database_info/1", std::string(1 << 20, ' '));
       device.Mount(ScopedMount::Tmpfs("/var/cache/data_update", 64 << 10));
     },
     1,
     "",
     "tolmdbud: no room on /var/cache/data_update: more is needed than the 62.3 kB free "
     "beyond the 5 % reserve; make room there\n"},
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
     "tolmdbud: $URL/database_info/1 is more than the 4194304 bytes that a description may "
     "have\n"},
    {"DamagedServiceConfiguration",
     {"check"},
     [](GoldenDevice&) { WriteFile(kServerDefaults, "{}"); },
     1,
     "",
     "tolmdbud: /usr/share/data_update/data_update.conf is damaged: config.download_scheme is "
     "missing" +
         kAnew},
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
    "nope: there is no such database; configured: oui"
  ],
  "format" : 1,
  "offers_from" : "$TIME",
  "offers_signed" : null,
  "reasons" : 
  [
    {
      "reason" : "unknown-database"
    }
  ],
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
  "reasons" : [],
  "warnings" : []
}
)",
     ""},
    {"VerboseShowsTheLog",
     {"busy", "oui", "-vv"},
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

// What `status` shows where there are so many columns.
class StatusWidthTest : public GoldenTest {
 protected:
  static constexpr char kLongName[] = "addresses-of-networks-with-their-owners-and-places";
  static constexpr char kForeignName[] = "z\u00f6nen";

  // Installed at version 1000004, with two deltas to the offered one.
  void Install(const std::vector<std::string>& names) {
    std::map<std::string, std::string> databases;
    std::string records;
    for (const std::string& name : names) {
      databases[name] = kOnVolume;
      WriteFile("/var/lib/data_update/" + name + "/version.json",
                R"({"data_version": "1000004", "last_fetch_time": 1700000000, "files": {}})");
      records += (records.empty() ? "\"" : ", \"") + name +
                 R"(": {"last_fetch_time": 1700000000, "download_link": "x",
                     "data_version": "1000006", "file_size": 8000000, "diff_files": {
                       "1000005": {"download_link": "x", "file_size": 3000000},
                       "1000006": {"download_link": "x", "file_size": 12345}}})";
    }
    ConfigureDevice(device_.publisher, databases);
    WriteFile(kDescription, R"({"deprecated": false, "db_list": {)" + records + "}}");
    RunBySystemd(kWaitingTimer);
  }

  static std::vector<std::string> Lines(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  static std::vector<std::string> OnTerminal(unsigned short columns) {
    TerminalCommand status({kTool, "status", "--offline"}, columns, {"TERM=xterm", "COLUMNS=7"});
    EXPECT_EQ(status.Wait(), 0);
    return Lines(status.Output());
  }

  static std::size_t WidthOf(const std::string& line) {
    return static_cast<std::size_t>(
        std::count_if(line.begin(), line.end(), [](char c) { return (c & 0xC0) != 0x80; }));
  }
};

TEST_F(StatusWidthTest, NoLineOfTheTableIsLongerThanTheTerminal) {
  Install({"geo", kLongName, kForeignName});
  struct Row {
    unsigned short columns;
    std::string headings;
    std::string long_name;
  };
  const std::string begin = "NAME +INSTALLED";
  for (const Row& row :
       {Row{160, begin + " +OFFERED +AGE  COST +STATE +NEXT RUN", kLongName},
        Row{100, begin + " +OFFERED +AGE  COST +STATE", "addresses-of-net...wners-and-places"},
        Row{80, begin + " +OFFERED  COST +STATE", "addresses-of...-and-places"},
        Row{60, begin + " +OFFERED  STATE", "addresses-.*\\.\\.\\..*places"},
        Row{32, begin + "  STATE", "a...s"}, Row{30, "NAM  INSTALLED  STATE", "add"}}) {
    const std::vector<std::string> lines = OnTerminal(row.columns);
    ASSERT_EQ(lines.size(), 8U) << row.columns;
    EXPECT_THAT(lines[4], ::testing::ContainsRegex("^" + row.headings)) << row.columns;
    EXPECT_THAT(lines[5], ::testing::ContainsRegex("^" + row.long_name + " ")) << row.columns;
    EXPECT_EQ(lines[6].find("geo "), 0U) << row.columns;
    EXPECT_EQ(lines[7].find(row.columns > 30 ? kForeignName : "z\u00f6n"), 0U) << row.columns;
    const std::size_t state_at = lines[6].find("update offered");
    EXPECT_NE(state_at, std::string::npos) << row.columns;
    for (std::size_t i = 4; i < lines.size(); ++i) {
      EXPECT_LE(WidthOf(lines[i]), row.columns) << lines[i];
    }
    EXPECT_EQ(lines[4].find("STATE"), state_at) << "columns stand below their headings";
  }
}

TEST_F(StatusWidthTest, FortyDatabasesAreFortyLines) {
  std::vector<std::string> names;
  for (int i = 10; i < 50; ++i) {
    names.push_back("database-" + std::to_string(i));
  }
  Install(names);
  for (const unsigned short columns : std::vector<unsigned short>{80, 100, 160}) {
    const std::vector<std::string> lines = OnTerminal(columns);
    ASSERT_EQ(lines.size(), 45U);
    for (std::size_t i = 0; i < names.size(); ++i) {
      EXPECT_EQ(lines[5 + i].find(names[i] + "    1000004  1000006"), 0U) << lines[5 + i];
      EXPECT_LE(WidthOf(lines[5 + i]), columns);
    }
    EXPECT_THAT(lines[5], HasSubstr("2 deltas, 3.0 MB  update offered"));
  }
}

TEST_F(StatusWidthTest, WithoutATerminalThereAreAHundredColumnsOrWhatColumnsSays) {
  Install({kLongName});
  const auto widest = [](const std::vector<std::string>& environment) {
    return RunCommand({kTool, "status", "--offline"}, {environment, {}, ""}).out;
  };
  for (const std::vector<std::string>& environment : {std::vector<std::string>{}, {"COLUMNS=x"}}) {
    const std::string told = widest(environment);
    EXPECT_EQ(told.find(kLongName), std::string::npos);
    EXPECT_THAT(told, HasSubstr("addresses-of"));
  }
  EXPECT_THAT(widest({"COLUMNS=160"}), HasSubstr(kLongName));
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
  for (const char* options : {"", " -v", " -vv", " --json"}) {
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

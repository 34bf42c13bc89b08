// update, fix and force-install: whole outputs and exit statuses, with every kind of failure.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/tools/golden.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

// A database before "oui" and one behind it.
void ThreeDatabases(GoldenDevice& device) {
  ConfigureDevice(device.publisher, {{"geo", kOnVolume}, {"oui", kOnVolume}, {"tz", kOnRootFs}});
  for (const char* name : {"geo", "tz"}) {
    device.publisher.PackFull(name, GoldenDevice::kFirst, {{"f", name}});
    device.publisher.Offer(name, GoldenDevice::kFirst);
  }
}
void LosePackage(GoldenDevice& device) {
  fs::remove(device.publisher.FullPackage("oui", GoldenDevice::kFirst));
}
const std::string kDamageFound =
    "tolmdbud: oui: a.txt has another size; the database is installed in full\n";

void DamageInstalledFile(GoldenDevice& device) {
  device.Install();
  WriteFile(GoldenDevice::Installed("a.txt"), "damaged");
}
// As a forced installation by an earlier release leaves it.
void ForgetWhatIsInstalled(GoldenDevice& device) {
  device.Install();
  WriteFile(kVersionFile, R"({"data_version": "70001", "last_fetch_time": 1700000000})");
}
void DamageUnrecordedFile(GoldenDevice& device) {
  ForgetWhatIsInstalled(device);
  WriteFile(GoldenDevice::Installed("a.txt"), "damaged");
  GoldenDevice::MustRun({"update", "oui"});
  GoldenDevice::MustRun({"verify"});
}
std::string NoPackage(const std::string& name = "oui") {
  return "tolmdbud: " + name + " 70001: 404 Not Found from $URL/packages/" + name +
         "_v70001; tolmdbud check --refresh asks what is offered now\n";
}

class OperationsTest : public GoldenTest {};

TEST_P(OperationsTest, SaysExactlyThis) {
  Expect(GetParam());
  EXPECT_FALSE(fs::exists(kTemporary));
}

const GoldenRow kUpdateRows[] = {
    {"First", {"update", "oui"}, Nothing, 0, "oui: updated to 70001\n", ""},
    {"UpToDate",
     {"update", "oui"},
     Install,
     0,
     "oui: up to date as of $CLOCK (asked $AGO; --refresh asks now)\n",
     ""},
    {"ByDelta",
     {"update", "--all"},
     [](GoldenDevice& device) {
       device.Install();
       device.OfferSecondByDelta();
     },
     0,
     "oui: updated to 70002\n",
     ""},
    {"VerboseTellsTheRoad",
     {"update", "oui", "-v"},
     Nothing,
     0,
     "oui: updated to 70001\n",
     "oui: update is asked for, nothing is installed\n"
     "downloaded $URL/database_info/1, $N B\n"
     "oui: next the full package 70001\n"
     "downloaded $URL/packages/oui_v70001, $N kB\n"
     "verified oui_v70001\n"
     "unpacked oui_v70001\n"
     "plug-ins before the change\n"
     "installing\n"
     "plug-ins after the change\n"},
    {"VerboseTellsARoadWithDeltas",
     {"update", "oui", "--verbose"},
     [](GoldenDevice& device) {
       device.Install();
       device.OfferSecondByDelta();
     },
     0,
     "oui: updated to 70002\n",
     "oui: update is asked for, 70001 is installed\n"
     "downloaded $URL/database_info/1, $N B\n"
     "oui: next delta 70002\n"
     "downloaded $URL/packages/oui_d70002, $N kB\n"
     "verified oui_d70002\n"
     "unpacked oui_d70002\n"
     "plug-ins before the change\n"
     "installing\n"
     "plug-ins after the change\n"},
    {"QuietSuccessIsSilent", {"update", "oui", "--quiet"}, Nothing, 0, "", ""},
    {"QuietFailureIsNot", {"update", "oui", "--quiet"}, LosePackage, 1, "", NoPackage()},
    {"NothingScheduled",
     {"update", "--all"},
     [](GoldenDevice&) {
       GoldenDevice::MustRun({"schedule", "oui", "off"});
     },
     0,
     "",
     ""},
    {"ServerFails",
     {"update", "oui"},
     [](GoldenDevice& device) { device.ServerFails(); },
     1,
     "",
     "tolmdbud: oui: 500 Internal Server Error from $URL/database_info/1; the server is overloaded "
     "or "
     "broken: try later\n"},
    {"ServerIsGone",
     {"update", "oui"},
     [](GoldenDevice& device) { device.ServerIsGone(); },
     1,
     "",
     "tolmdbud: oui: 127.0.0.1:1 refuses the connection; no server runs there, or not at that "
     "port\n"},
    {"PackageIsGone", {"update", "oui"}, LosePackage, 1, "", NoPackage()},
    {"BadSignature",
     {"update", "oui"},
     [](GoldenDevice& device) {
       ChangeByte(device.publisher.FullPackage("oui", GoldenDevice::kFirst), 10);
     },
     1,
     "",
     "tolmdbud: oui 70001: signed by \"CN=Database package signing $DATE\", who has signed another "
     "content than this one" +
         kCheckIt},
    {"ForeignSigner",
     {"update", "oui"},
     [](GoldenDevice&) {
       ASSERT_EQ(RunCommand({"/usr/bin/tolmdbpub", "keygen", "/tmp/other", "--no-passphrase"})
                     .exit_status,
                 0);
       fs::copy_file("/tmp/other/root.pem", "/usr/tolm/etc/keyring/6.pem",
                     fs::copy_options::overwrite_existing);
     },
     1,
     "",
     "tolmdbud: oui 70001: signed by \"CN=Database package signing $DATE\", which "
     "/usr/tolm/etc/keyring/6.pem does not trust; is it the right server, or has the publisher a "
     "new root?\n"},
    {"NoKeyring",
     {"update", "oui"},
     [](GoldenDevice&) { fs::remove("/usr/tolm/etc/keyring/6.pem"); },
     1,
     "",
     "tolmdbud: oui 70001: this machine has no usable keyring: /usr/tolm/etc/keyring/6.pem: No "
     "such file or directory; \"tolmdbpub install-config\" makes it\n"},
    {"NoRoomForTheUnpackedFiles",
     {"update", "oui"},
     [](GoldenDevice& device) {
       device.publisher.PackFull("oui", GoldenDevice::kFirst,
                                 {{"zeros", std::string(4 << 20, '\0')}});
       device.Mount(ScopedMount::Tmpfs("/volume1/@tmp", 1 << 20));
     },
     1,
     "",
     "tolmdbud: oui 70001: no room on /volume1/@tmp: unpacked it takes 4194304 bytes, free are $N; "
     "make room there\n"},
    {"LessThanFivePerCentWouldStayFree",
     {"update", "oui"},
     [](GoldenDevice& device) {
       device.publisher.PackFull("oui", GoldenDevice::kFirst,
                                 {{"zeros", std::string(1 << 20, '\0')}});
       device.Mount(ScopedMount::Tmpfs("/volume1", (2 << 20) + (64 << 10)));
     },
     1,
     "",
     "tolmdbud: oui: no room on /volume1: more is needed than the 2.1 MB free beyond the "
     "5 % reserve; make room there\n"},
    {"NoVolume",
     {"update", "oui"},
     [](GoldenDevice& device) { device.WithoutAVolume(); },
     12,
     "",
     "tolmdbud: oui: no volume is chosen, nothing was done; \"tolmdbud volume show\" says what "
     "there is\n"},
    {"NoVolumeForAll",
     {"update", "--all"},
     [](GoldenDevice& device) { device.WithoutAVolume(); },
     12,
     "",
     "tolmdbud: no volume is chosen, nothing was done; \"tolmdbud volume show\" says what there "
     "is\n"},
    {"UnknownName", {"update", "nope", "oui"}, Nothing, 1, "oui: updated to 70001\n", kUnknown},
    {"OperatorLockIsHeld",
     {"update", "oui"},
     [](GoldenDevice& device) {
       SkipWaits(device);
       device.Hold("/run/data_update/operator.lock");
     },
     1,
     "",
     "tolmdbud: oui: another operation does not end: /run/data_update/operator.lock is held by "
     "process $N, tools_tolmdbud_; try again when that has ended\n"},
    {"LibrarysLockIsHeld",
     {"update", "oui"},
     [](GoldenDevice& device) {
       SkipWaits(device);
       device.Hold("/run/data_update/update_oui.lock");
     },
     1,
     "",
     "tolmdbud: oui: another operation does not end: /run/data_update/update_oui.lock is held by "
     "process $N, tools_tolmdbud_; try again when that has ended\n"},
    {"ReaderDoesNotLetGo",
     {"update", "oui"},
     [](GoldenDevice& device) {
       SkipWaits(device);
       device.Hold("/run/data_update/using_oui.lock");
     },
     1,
     "",
     "tolmdbud: oui: readers do not let go of the database: /run/data_update/using_oui.lock is "
     "held by process $N, tools_tolmdbud_; end that process, or wait for it\n"},
    {"NoDatabases",
     {"update", "--all"},
     [](GoldenDevice&) { fs::remove(kDatabaseDefaults); },
     1,
     "",
     "tolmdbud: not configured: /usr/share/data_update/databases.conf is missing; see tolmdbpub "
     "install-config\n"},
    {"DamagedDatabases",
     {"update", "oui"},
     [](GoldenDevice&) { WriteFile(kDatabaseDefaults, "{"); },
     1,
     "",
     "tolmdbud: /usr/share/data_update/databases.conf: line 1, column 2: Missing '}' or object "
     "member name; nothing was done\n"},
    {"DamagedSettings",
     {"update", "oui"},
     [](GoldenDevice&) { WriteFile(kServerDefaults, "{"); },
     1,
     "",
     "tolmdbud: /usr/share/data_update/data_update.conf: line 1, column 2: Missing '}' or object "
     "member name; nothing was done\n"},
    {"SettingIsMissing",
     {"update", "oui"},
     [](GoldenDevice&) { ReplaceInFile(kServerDefaults, "db_netloc", "db_net"); },
     1,
     "",
     "tolmdbud: oui: /usr/share/data_update/data_update.conf is damaged: config.db_netloc is "
     "missing" +
         kAnew},
    {"DamagedDestination",
     {"update", "oui"},
     [](GoldenDevice&) { ReplaceInFile(kDatabaseDefaults, "%VOLUME%", "disk"); },
     1,
     "",
     "tolmdbud: oui: /usr/share/data_update/databases.conf or "
     "/usr/tolm/etc/data_update/databases.conf is damaged: install_dest is \"disk\" and not "
     "%VOLUME% or %ROOTFS%" +
         kAnew},
    {"DescriptionIsNoJson",
     {"update", "oui"},
     [](GoldenDevice& device) { device.publisher.Server().SetBody("/database_info/1", "<html>"); },
     1,
     "",
     "tolmdbud: oui: the answer from $URL/database_info/1 is no description of databases (it is a "
     "web page: a portal or proxy may be in the way)" +
         kRightServer},
    {"OfferedVersionIsNoNumber",
     {"update", "oui"},
     [](GoldenDevice& device) { device.Describe("\"abc\""); },
     1,
     "",
     "tolmdbud: oui: the description from $URL is damaged: the version that the server offers is "
     "no number" +
         kRightServer},
    {"DamagedRecordIsSetAside",
     {"update", "oui"},
     [](GoldenDevice&) {
       WriteFile(kVersionFile, R"({"data_version": "abc", "last_fetch_time": 0})");
     },
     0,
     "oui: updated to 70001\n",
     "tolmdbud: oui: the version in /var/lib/data_update/oui/version.json is no number; kept as "
     "version.json.aside\n"},
    {"CutShortOneIsRepaired",
     {"update", "oui"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(kMark, "");
     },
     0,
     "oui: repaired with 70001\n",
     "tolmdbud: oui: an earlier operation was cut short; version.json is set aside, for a full "
     "installation\n"},
    {"QuietRepairSaysNothing",
     {"update", "oui", "-q"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(kMark, "");
     },
     0,
     "",
     ""},
    {"AllEndsAtTheFirstFailure",
     {"update", "--all"},
     [](GoldenDevice& device) {
       ThreeDatabases(device);
       LosePackage(device);
     },
     1,
     "geo: updated to 70001\n",
     NoPackage()},
    {"KeepGoingTriesTheOthers",
     {"update", "--all", "--keep-going"},
     [](GoldenDevice& device) {
       ThreeDatabases(device);
       LosePackage(device);
     },
     1,
     "geo: updated to 70001\ntz: updated to 70001\n",
     NoPackage()},
    {"ScheduledRunIsHeldBackAfterAFailure",
     {"update", "--all", "--scheduled"},
     [](GoldenDevice& device) {
       LosePackage(device);
       ASSERT_EQ(Tool({"update", "--all", "--scheduled"}).exit_status, 1);
     },
     0,
     "skipped: the server 127.0.0.1:$PORT is left alone until $TIME after 1 failure\n",
     ""},
    {"NothingIsNamed",
     {"update"},
     Nothing,
     2,
     "",
     "tolmdbud: name a database or give --all (--help shows the usage)\n"},
    {"AllAndAName",
     {"update", "--all", "oui"},
     Nothing,
     2,
     "",
     "tolmdbud: NAME excludes --all (--help shows the usage)\n"},
    {"AsJson",
     {"update", "oui", "nope", "--json"},
     Nothing,
     1,
     R"({
  "command" : "update",
  "exit_status" : 1,
  "failures" : 
  [
    "nope: there is no such database; configured: oui"
  ],
  "format" : 1,
  "offers_from" : "$TIME",
  "reasons" : 
  [
    {
      "reason" : "unknown-database"
    }
  ],
  "results" : 
  [
    {
      "bytes" : $N,
      "database" : "oui",
      "fell_back" : null,
      "from" : null,
      "http_status" : null,
      "message" : "",
      "operation" : "update",
      "outcome" : "updated",
      "reason" : "",
      "seconds" : $N,
      "server" : "$URL",
      "to" : 70001
    }
  ],
  "warnings" : []
}
)",
     kUnknown},
};
INSTANTIATE_TEST_SUITE_P(Update, OperationsTest, ::testing::ValuesIn(kUpdateRows), NameOf);

const GoldenRow kFixRows[] = {
    {"Intact", {"fix", "oui"}, Install, 0, "oui: intact\n", ""},
    {"Damaged", {"fix", "oui"}, DamageInstalledFile, 0, "oui: repaired with 70001\n", kDamageFound},
    {"ByPackageIntact", {"fix", "oui", "--package"}, Install, 0, "oui: intact\n", ""},
    {"ByPackageWhatIsRecordedAsItIs",
     {"fix", "--all", "--package"},
     DamageUnrecordedFile,
     0,
     "oui: repaired with 70001\n",
     "tolmdbud: oui: a.txt: content differs; the database is installed in full\n"},
    {"ByPackageSaysWhichForeignFilesGo",
     {"fix", "oui", "--package"},
     [](GoldenDevice& device) {
       DamageUnrecordedFile(device);
       WriteFile(GoldenDevice::Installed("mine"), "x");
       WriteFile(GoldenDevice::Installed("sub/mine"), "x");
     },
     0,
     "oui: repaired with 70001\n",
     "tolmdbud: oui: a.txt: content differs; 2 files that are not in the package go (mine and 1 "
     "more); the database is installed in full\n"},
    {"ByPackageSaysHowManyFilesDiffer",
     {"fix", "oui", "--package"},
     [](GoldenDevice& device) {
       DamageUnrecordedFile(device);
       std::filesystem::remove(GoldenDevice::Installed("sub/b.txt"));
       WriteFile(GoldenDevice::Installed("mine"), "x");
     },
     0,
     "oui: repaired with 70001\n",
     "tolmdbud: oui: a.txt: content differs (and 1 more); 1 file that is not in the package goes "
     "(mine); the database is installed in full\n"},
    {"ByPackageWhatNothingIsRecordedOfIsCompared",
     {"fix", "oui", "--package"},
     ForgetWhatIsInstalled,
     0,
     "oui: intact\n",
     ""},
    {"ByPackageNeverInstalled",
     {"fix", "oui", "--package"},
     Nothing,
     0,
     "oui: repaired with 70001\n",
     ""},
    {"ByPackageThatIsGone",
     {"fix", "oui", "--package"},
     [](GoldenDevice& device) {
       DamageUnrecordedFile(device);
       LosePackage(device);
     },
     1,
     "",
     NoPackage()},
    {"WhatNothingIsRecordedOfIsSaid",
     {"fix", "oui"},
     ForgetWhatIsInstalled,
     0,
     "oui: intact\n",
     "tolmdbud: oui: 3 of 3 files are recorded as they are, since nothing was known of them; "
     "\"tolmdbud fix --package oui\" compares them with the package\n"},
    {"NeverInstalled", {"fix", "--all"}, Nothing, 0, "oui: repaired with 70001\n", ""},
    {"PackageIsGone",
     {"fix", "oui"},
     [](GoldenDevice& device) {
       DamageInstalledFile(device);
       LosePackage(device);
     },
     1,
     "",
     kDamageFound + NoPackage()},
    {"ServerIsAskedAlsoWhenNothingIsDamaged",
     {"fix", "oui"},
     [](GoldenDevice& device) {
       device.Install();
       device.ServerFails();
     },
     1,
     "",
     "tolmdbud: oui: 500 Internal Server Error from $URL/database_info/1; the server is overloaded "
     "or "
     "broken: try later\n"},
    {"BadSignature",
     {"fix", "oui"},
     [](GoldenDevice& device) {
       DamageInstalledFile(device);
       ChangeByte(device.publisher.FullPackage("oui", GoldenDevice::kFirst), 10);
     },
     1,
     "",
     kDamageFound +
         "tolmdbud: oui 70001: signed by \"CN=Database package signing $DATE\", who has signed "
         "another content than this one" +
         kCheckIt},
    {"NoVolume",
     {"fix", "oui"},
     [](GoldenDevice& device) { device.WithoutAVolume(); },
     12,
     "",
     "tolmdbud: oui: no volume is chosen, nothing was done; \"tolmdbud volume show\" says what "
     "there is\n"},
    {"UnknownName", {"fix", "nope"}, Nothing, 1, "", kUnknown},
    {"LockIsHeld",
     {"fix", "oui"},
     [](GoldenDevice& device) {
       SkipWaits(device);
       device.Hold("/run/data_update/update_any.lock");
     },
     1,
     "",
     "tolmdbud: oui: another operation does not end: /run/data_update/update_any.lock is held by "
     "process $N, tools_tolmdbud_; try again when that has ended\n"},
    {"DamagedSettings",
     {"fix", "--all"},
     [](GoldenDevice&) { WriteFile(kDatabaseDefaults, "[]"); },
     1,
     "",
     "tolmdbud: /usr/share/data_update/databases.conf: holds no JSON object; nothing was done\n"},
};
INSTANTIATE_TEST_SUITE_P(Fix, OperationsTest, ::testing::ValuesIn(kFixRows), NameOf);

const GoldenRow kForceInstallRows[] = {
    {"Newest", {"force-install", "oui"}, Nothing, 0, "oui: force-installed 70001\n", ""},
    {"TheOneBefore",
     {"force-install", "oui", "--version", "-1"},
     [](GoldenDevice& device) { device.OfferSecond(); },
     0,
     "oui: force-installed 70001\n",
     ""},
    {"VersionThatIsNotThere",
     {"force-install", "oui", "--version", "5"},
     Nothing,
     1,
     "",
     "tolmdbud: oui: 404 Not Found from $URL/packages/oui_v5; tolmdbud check --refresh asks what "
     "is offered now\n"},
    {"BadSignature",
     {"force-install", "oui"},
     [](GoldenDevice& device) {
       ChangeByte(device.publisher.FullPackage("oui", GoldenDevice::kFirst), 10);
     },
     1,
     "",
     "tolmdbud: oui 70001: signed by \"CN=Database package signing $DATE\", who has signed another "
     "content than this one" +
         kCheckIt},
    {"OverACutShortInstallation",
     {"force-install", "oui"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(kMark, "");
     },
     0,
     "oui: force-installed 70001\n",
     "tolmdbud: oui: an earlier operation was cut short; a forced installation does not repair "
     "that\n"},
    {"NoVolume",
     {"force-install", "oui"},
     [](GoldenDevice& device) { device.WithoutAVolume(); },
     12,
     "",
     "tolmdbud: oui: no volume is chosen, nothing was done; \"tolmdbud volume show\" says what "
     "there is\n"},
    {"UnknownName", {"force-install", "nope"}, Nothing, 1, "", kUnknown},
    {"LockIsHeld",
     {"force-install", "oui"},
     [](GoldenDevice& device) {
       SkipWaits(device);
       device.Hold("/run/data_update/using_oui.lock");
     },
     1,
     "",
     "tolmdbud: oui: readers do not let go of the database: /run/data_update/using_oui.lock is "
     "held by process $N, tools_tolmdbud_; end that process, or wait for it\n"},
    {"ServerIsGone",
     {"force-install", "oui"},
     [](GoldenDevice& device) { device.ServerIsGone(); },
     1,
     "",
     "tolmdbud: oui: 127.0.0.1:1 refuses the connection; no server runs there, or not at that "
     "port\n"},
    {"VersionIsNoNumber",
     {"force-install", "oui", "--version", "x"},
     Nothing,
     2,
     "",
     "tolmdbud: Could not convert: --version = x (--help shows the usage)\n"},
};
INSTANTIATE_TEST_SUITE_P(ForceInstall, OperationsTest, ::testing::ValuesIn(kForceInstallRows),
                         NameOf);

}  // namespace
}  // namespace tolm::testing

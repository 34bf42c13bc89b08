// doctor: each fault, made in earnest, is found by the check that is for it, and by no other.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <regex>
#include <sstream>

#include "tests/support/shifted_clock.h"
#include "tests/tools/golden.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr char kKeyring[] = "/usr/tolm/etc/keyring/6.pem";
constexpr char kRevocations[] = "/usr/tolm/etc/keyring/6.crl.pem";
// Where faults are made.
constexpr char kKept[] =
    "/usr/tolm/etc /usr/tolm/lib/plugins /usr/share/data_update /var/lib/data_update "
    "/var/cache/data_update /run/data_update /volume1";
const fs::path kPlugins = "/usr/tolm/lib/plugins/database_autoupdate/version_change";

void Shell(const std::string& script) {
  const CommandResult result = RunCommand({"sh", "-ec", script});
  ASSERT_EQ(result.exit_status, 0) << result.err;
}

// From now on the tool's clock says this.
void SetClock(GoldenDevice& device, std::time_t time) {
  device.environment = EnvironmentAt(time);
}

void ChangeMode(const fs::path& path, mode_t mode) {
  ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void AddPlugin(const std::string& name, mode_t mode) {
  WriteFile(kPlugins / name, "#!/bin/sh\n");
  ChangeMode(kPlugins / name, mode);
}

// One line each, in one order.
std::string Sorted(std::vector<std::string> lines) {
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (const std::string& line : lines) {
    text += line + '\n';
  }
  return text;
}

// What is done to a healthy device, and all lines that are not about what is well then.
struct Fault {
  std::string name;
  std::function<void(GoldenDevice&)> make;
  std::vector<std::string> found;
  int exit_status = 1;
};

// An installed database, with the timers and with a plug-in: there is nothing to be found.
class DoctorTest : public GoldenTest {
 protected:
  void SetUp() override {
    device_.Install();
    AddPlugin("good", 0755);
    RunBySystemd(kWaitingTimer);
  }

  // Everything that an installation has, with whatever a write would change.
  static std::string Everything() {
    return RunCommand({"sh", "-c",
                       "find /var /run /usr/tolm /usr/share/data_update /volume1 /volume2 "
                       "-printf '%p %y %m %U %s %i %T@ %C@\\n' | sort; ls -a /tmp"})
        .out;
  }

  // One after the other, on a device that is mended in between.
  template <std::size_t count>
  void ExpectEach(const Fault (&faults)[count]) {
    const std::string keep = "for d in " + std::string(kKept) +
                             "; do mkdir -p /tmp/healthy$d; cp -a $d/. /tmp/healthy$d/; done";
    const std::string mend = "for d in " + std::string(kKept) +
                             "; do find $d -mindepth 1 -delete; cp -a /tmp/healthy$d/. $d/; done; "
                             "rm -rf /tmp/ca";
    Shell(keep);
    for (const Fault& fault : faults) {
      SCOPED_TRACE(fault.name);
      Expect(fault);
      device_.environment.clear();
      device_.publisher.Offer("oui", GoldenDevice::kFirst);
      RunBySystemd(kWaitingTimer);
      Shell(mend);
    }
    EXPECT_EQ(Found(Doctor({})), "") << "the last one is not mended";
  }

  void Expect(const Fault& fault) {
    fault.make(device_);
    ASSERT_FALSE(HasFatalFailure());
    const std::string before = Everything();
    const CommandResult result = Doctor({});
    EXPECT_EQ(result.exit_status, fault.exit_status);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(Everything(), before) << "a look changes nothing";
    EXPECT_EQ(Found(result), Sorted(fault.found));
  }

  // The lines that say something else than that all is well, or was not looked at.
  std::string Found(const CommandResult& result) {
    std::istringstream in(NormalisedFurther(result.out));
    std::vector<std::string> found;
    for (std::string line; std::getline(in, line);) {
      if (line.compare(0, 2, "!!") == 0 || line.compare(0, 2, "--") == 0) {
        found.push_back(line);
      }
    }
    return Sorted(found);
  }

  std::string NormalisedFurther(const std::string& out) {
    std::string text =
        std::regex_replace(Normalised(out), std::regex(R"(process \d+)"), "process $$N");
    text = std::regex_replace(text, std::regex(R"(\d[\d.]* [kMG]?B free)"), "$$SIZE free");
    return std::regex_replace(text, std::regex(R"(\d{4}-\d\d-\d\d (is|should|ends|has))"),
                              "$$DAY $1");
  }

  CommandResult Doctor(std::vector<std::string> options) {
    options.insert(options.begin(), {kTool, "doctor"});
    return RunCommand(options, {device_.environment, {}, ""});
  }
};

TEST_F(DoctorTest, HealthyDeviceIsWellInEveryCheck) {
  const std::string before = Everything();
  const CommandResult result = Doctor({});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(Everything(), before) << "a look changes nothing";
  const std::string expected =
      R"(ok   configuration  1 database from $URL
ok   keyring        /usr/tolm/etc/keyring/6.pem: CN = Database package root $DAY is valid until $TIME
ok   clock          it says $TIME
ok   volume         /volume1: it is mounted, $SIZE free
ok   server         $URL/database_info/1 answers
ok   offers         every configured database is offered
ok   room           /volume1: $SIZE free beyond the 5 % reserve
ok   rights         what operations stand on is root's alone
ok   plug-ins       1 would be run
ok   timers         tolmdbud-update.timer: next run $TIME
ok   timers         tolmdbud-verify.timer: it is started
ok   records        no operation was cut short
ok   left-overs     there are no temporary files
ok   locks          nobody holds one
)";
  EXPECT_EQ(NormalisedFurther(result.out), expected);
}

TEST_F(DoctorTest, WhatItSaysToProgramsIsTheSame) {
  WriteFile(kMark, "");
  const CommandResult result = Doctor({"--json", "--offline"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.out, HasSubstr(R"(      "check" : "records",
      "message" : "an operation was cut short, files may be half replaced",
      "remedy" : "tolmdbud update oui",
      "state" : "problem",
      "subject" : "oui"
)"));
  for (const char* state : {"\"ok\"", "\"skipped\""}) {
    EXPECT_THAT(result.out, HasSubstr(std::string("\"state\" : ") + state));
  }
  EXPECT_THAT(result.out, HasSubstr("\"exit_status\" : 1"));
}

const Fault kSettingsFaults[] = {
    {"OverridesAreBroken",
     [](GoldenDevice&) { WriteFile(kOverrides, "{\n"); },
     {"!!   configuration  /usr/tolm/etc/data_update/databases.conf: line 2, column 1: Missing '}' "
      "or object member name; do: correct it"}},
    {"NothingIsConfigured",
     [](GoldenDevice&) { fs::remove(kServerDefaults); },
     {"!!   configuration  not configured: /usr/share/data_update/data_update.conf is missing; do: "
      "see tolmdbpub install-config"}},
    {"SettingsOfOneAreDamaged",
     [](GoldenDevice&) { ReplaceInFile(kDatabaseDefaults, "%VOLUME%", "%DISK%"); },
     {"!!   configuration  oui: /usr/share/data_update/databases.conf or "
      "/usr/tolm/etc/data_update/databases.conf is damaged: install_dest is \"%DISK%\" and not "
      "%VOLUME% or %ROOTFS%; do: \"tolmdbpub install-config\" makes it anew"}},
    {"DatabaseIsHidden",
     [](GoldenDevice& device) {
       ConfigureDevice(device.publisher, {{"geo", kOnRootFs}, {"oui", kOnVolume}});
       WriteFile(kOverrides, R"({"oui": {}})");
     },
     {"!!   hidden         geo: no command sees it, /usr/tolm/etc/data_update/databases.conf does "
      "not list it; do: tolmdbud schedule geo on"}},
};

const Fault kTrustFaults[] = {
    {"KeyringIsMissing",
     [](GoldenDevice&) { fs::remove(kKeyring); },
     {"!!   keyring        /usr/tolm/etc/keyring/6.pem: it is missing, no package can be verified; "
      "do: bring the publisher's present root certificate there (root.pem; tolmdbpub "
      "install-config)"}},
    {"KeyringIsEmpty",
     [](GoldenDevice&) { WriteFile(kKeyring, ""); },
     {"!!   keyring        /usr/tolm/etc/keyring/6.pem: it holds no certificate; do: bring the "
      "publisher's present root certificate there (root.pem; tolmdbpub install-config)"}},
    {"KeyringIsDamaged",
     [](GoldenDevice&) { ReplaceInFile(kKeyring, "MII", "M*I"); },
     {"!!   keyring        /usr/tolm/etc/keyring/6.pem: it is damaged, no package can be verified; "
      "do: bring the publisher's present root certificate there (root.pem; tolmdbpub "
      "install-config)"}},
    {"OthersCanWriteTheKeyring",
     [](GoldenDevice&) { ChangeMode(kKeyring, 0666); },
     {"!!   keyring        /usr/tolm/etc/keyring/6.pem can be written by everybody; do: chmod go-w "
      "/usr/tolm/etc/keyring/6.pem"}},
    {"CertificateEndsSoon",
     [](GoldenDevice&) {
       Shell(
           "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 "
           "-subj /CN=soon -keyout /tmp/key -out " +
           std::string(kKeyring));
     },
     {"!!   keyring        /usr/tolm/etc/keyring/6.pem: CN = soon ends on $TIME; do: bring the "
      "publisher's present root certificate there (root.pem; tolmdbpub install-config)"}},
    {"CertificateHasExpired",
     [](GoldenDevice& device) {
       Shell(
           "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 "
           "-subj /CN=gone -keyout /tmp/key -out " +
           std::string(kKeyring));
       SetClock(device, std::time(nullptr) + 31 * 86400);
     },
     {"!!   keyring        /usr/tolm/etc/keyring/6.pem: CN = gone has expired on $TIME: nothing "
      "that it vouches for is installed; do: bring the publisher's present root certificate there "
      "(root.pem; tolmdbpub install-config)"}},
    {"RevocationsAreOld",
     [](GoldenDevice& device) {
       Shell(
           "cd /tmp && : >index.txt && printf '[ca]\\ndefault_ca=r\\n[r]\\ndatabase=index.txt\\n"
           "default_md=sha256\\n' >ca.conf && openssl ca -config ca.conf -gencrl -crldays 1 "
           "-cert " +
           (device.publisher.Keys() / "root.pem").string() + " -keyfile " +
           (device.publisher.Keys() / "root.key").string() + " -out " + kRevocations);
       SetClock(device, std::time(nullptr) + 2 * 86400);
     },
     {"!!   revocations    /usr/tolm/etc/keyring/6.crl.pem: the list of CN = Database package root "
      "$DAY should have been replaced on $TIME: later revocations are not known; do: bring the "
      "publisher's present revocation list there (without that file nothing counts as "
      "revoked)"}},
    {"RevocationsAreDamaged",
     [](GoldenDevice&) { WriteFile(kRevocations, "-----BEGIN X509 CRL-----\n***\n"); },
     {"!!   revocations    /usr/tolm/etc/keyring/6.crl.pem: it is damaged, no package can be "
      "verified; do: bring the publisher's present revocation list there (without that file "
      "nothing "
      "counts as revoked)"}},
    {"RevocationsAreEmpty",
     [](GoldenDevice&) { WriteFile(kRevocations, ""); },
     {"!!   revocations    /usr/tolm/etc/keyring/6.crl.pem: it holds no revocation list, no "
      "package can be verified; do: bring the publisher's present revocation list there (without "
      "that file nothing counts as revoked)"}},
    {"KeyringIsTooLarge",
     [](GoldenDevice&) { WriteFile(kKeyring, ReadFile(kKeyring) + std::string(1 << 20, '\n')); },
     {"!!   keyring        /usr/tolm/etc/keyring/6.pem: it is larger than 1048576 bytes, no "
      "package can be verified; do: bring the publisher's present root certificate there "
      "(root.pem; tolmdbpub install-config)"}},
    {"ClockIsBeforeTheInstalledData",
     [](GoldenDevice&) { ReplaceInFile(kVersionFile, "1700000000", "2100000000"); },
     {"--   records        oui: another program has installed since installed.json was made; do: "
      "tolmdbud fix oui",
      "!!   clock          it says $TIME, before the installed data of oui was made ($TIME): "
      "certificates of servers and ages are judged wrongly; do: set the clock"}},
    {"ServerWasAskedInTheFuture",
     [](GoldenDevice&) {
       fs::last_write_time(kDescription, fs::file_time_type::clock::now() + std::chrono::hours(2));
     },
     {"!!   clock          it says $TIME, before the server was last asked ($TIME): certificates "
      "of servers and ages are judged wrongly; do: set the clock"}},
};

const Fault kGroundFaults[] = {
    {"NoVolumeIsChosen",
     [](GoldenDevice& device) { device.WithoutAVolume(); },
     {"!!   volume         none is chosen, nothing is updated; do: tolmdbud init, which says what "
      "keeps it from choosing one"}},
    {"VolumeIsNotMounted",
     [](GoldenDevice&) { ReplaceInFile(kServerDefaults, "/volume1", "/volume9"); },
     {"!!   volume         /volume9: it is chosen and not mounted, nothing is updated; do: mount "
      "it; when it is gone for good: tolmdbud volume unmounting /volume9"}},
    {"VolumeIsClosedToServices",
     [](GoldenDevice&) { WriteFile("/volume1/.no-services", ""); },
     {"!!   volume         /volume1: it is closed to services by .no-services; do: mend that, or "
      "choose another: tolmdbud volume unmounting /volume1"}},
    {"GroundOfTheVolumeIsEverybodys",
     [](GoldenDevice&) { ChangeMode("/volume1/@database", 0777); },
     {"!!   volume         /volume1/@database can be written by everybody; do: chmod go-w "
      "/volume1/@database"}},
    {"NoRoomForTheUpdate",
     [](GoldenDevice& device) {
       device.Describe("\"70002\"", R"(, "file_size": 8000000000000000)");
     },
     {"!!   room           /volume1: 8000000 GB needed, $SIZE free beyond the 5 % reserve; do: "
      "make room there"}},
    {"StateDirectoryIsEverybodys",
     [](GoldenDevice&) { ChangeMode("/var/lib/data_update", 0777); },
     {"!!   rights         /var/lib/data_update can be written by everybody; do: chmod go-w "
      "/var/lib/data_update"}},
    {"LockIsEverybodysToHold",
     [](GoldenDevice&) { ChangeMode("/run/data_update/operator.lock", 0644); },
     {"!!   rights         /run/data_update/operator.lock: others can open it, and hold up every "
      "operation for ever; do: chmod 600 /run/data_update/operator.lock"}},
    {"HistoryIsEverybodysToWrite",
     [](GoldenDevice&) { ChangeMode("/var/lib/data_update/history.jsonl", 0666); },
     {"!!   rights         /var/lib/data_update/history.jsonl: others can write it; do: chmod 644 "
      "/var/lib/data_update/history.jsonl"}},
    {"FloorsAreEverybodysToRead",
     [](GoldenDevice&) { ChangeMode("/var/lib/data_update/trust.json", 0644); },
     {"!!   rights         /var/lib/data_update/trust.json: it is for root's eyes only; do: chmod "
      "600 /var/lib/data_update/trust.json"}},
};

const Fault kServerFaults[] = {
    {"ServerAnswersWithAnError",
     [](GoldenDevice& device) { device.ServerFails(); },
     {"!!   server         500 Internal Server Error from $URL/database_info/1; do: the server is "
      "overloaded or broken: try later"}},
    {"ServerIsGone",
     [](GoldenDevice& device) { device.ServerIsGone(); },
     {"!!   server         127.0.0.1:1 refuses the connection; do: no server runs there, or not at "
      "that port"}},
    {"AnswerIsSomethingElse",
     [](GoldenDevice& device) {
       device.publisher.Server().SetBody("/database_info/1", "<html>Log in first</html>");
     },
     {"!!   server         what it answers is no description: a page of something in between, or a "
      "wrong db_ver?; do: curl -v \"$URL/database_info/1\" shows more"}},
    {"DatabaseIsNotOffered",
     [](GoldenDevice& device) {
       device.publisher.Server().SetBody("/database_info/1", R"({"db_list": {}})");
     },
     {"!!   offers         oui: the description from $URL has no usable record of it; do: is that "
      "the right server (db_netloc in /usr/share/data_update/data_update.conf)? The publisher's "
      "\"tolmdbpub check\" tells what it has"}},
};

const Fault kOtherFaults[] = {
    {"PluginIsNotExecutable",
     [](GoldenDevice&) { AddPlugin("bad", 0644); },
     {"!!   plug-ins       "
      "/usr/tolm/lib/plugins/database_autoupdate/version_change/bad: it is not run, since it is "
      "not executable; do: chmod 755 "
      "/usr/tolm/lib/plugins/database_autoupdate/version_change/bad, or remove it"}},
    {"OthersCanWriteThePlugin",
     [](GoldenDevice&) { AddPlugin("bad", 0777); },
     {"!!   plug-ins       /usr/tolm/lib/plugins/database_autoupdate/version_change/bad can be "
      "written by everybody; do: chmod go-w "
      "/usr/tolm/lib/plugins/database_autoupdate/version_change/bad"}},
    {"OperationWasCutShort",
     [](GoldenDevice&) { WriteFile(kMark, ""); },
     {"!!   records        oui: an operation was cut short, files may be half replaced; do: "
      "tolmdbud update oui"}},
    {"RecordedVersionIsNoNumber",
     [](GoldenDevice&) { ReplaceInFile(kVersionFile, "70001", "abc"); },
     {"!!   records        oui: the version recorded in version.json is no number; do: tolmdbud "
      "update oui, which installs in full",
      "--   records        oui: another program has installed since installed.json was made; do: "
      "tolmdbud fix oui"}},
    {"RecordOfFilesIsDamaged",
     [](GoldenDevice&) { WriteFile("/var/lib/data_update/oui/installed.json", "{"); },
     {"!!   records        oui: installed.json is damaged; do: tolmdbud fix oui"}},
    {"TimersAreOff",
     [](GoldenDevice&) {
       RunBySystemd("Id=tolmdbud-update.timer\nLoadState=loaded\nUnitFileState=disabled");
     },
     {"--   timers         tolmdbud-update.timer: it is not enabled; do: systemctl enable --now "
      "tolmdbud-update.timer"},
     0},
    {"NothingBeginsRuns",
     [](GoldenDevice&) { fs::remove_all("/run/systemd"); },
     {"--   timers         systemd does not run this machine, and there is no "
      "/etc/cron.d/tolmdbud: nothing is known to begin runs"},
     0},
    {"SystemdDoesNotAnswer",
     [](GoldenDevice&) { WriteFile("/usr/bin/systemctl", "#!/bin/sh\nexit 1\n"); },
     {"--   timers         systemd runs this machine and did not answer: nothing is known of the "
      "timers; do: systemctl list-timers, which says more"},
     0},
    {"ServerIsLeftAlone",
     [](GoldenDevice&) {
       WriteFile("/var/lib/data_update/cooldown.json",
                 R"({"format": 1, "servers": {"old.example.org:80": {"failures": 3,
                     "attempted": 4000000000, "until": 4000000900, "asked": true}}})");
     },
     {"--   cool-down      old.example.org:80: scheduled runs leave it alone until $TIME after 3 "
      "failures in a row; do: tolmdbud update --all, which does not wait"},
     0},
    {"TemporaryFilesAreLeft",
     [](GoldenDevice&) { WriteFile("/volume1/@tmp/data_update/oui_v70001", "x"); },
     {"--   left-overs     /volume1/@tmp/data_update: an operation that was ended has left "
      "temporary files; do: nothing, the next operation removes them"},
     0},
    {"OperationRuns",
     [](GoldenDevice& device) { device.Hold("/run/data_update/operator.lock"); },
     {"--   locks          /run/data_update/operator.lock: process $N, tools_tolmdbud_, holds it: "
      "an operation runs"},
     0},
};

TEST_F(DoctorTest, FindsEachFaultOfSettings) {
  ExpectEach(kSettingsFaults);
}
TEST_F(DoctorTest, FindsEachFaultOfTheKeyringAndTheClock) {
  ExpectEach(kTrustFaults);
}
TEST_F(DoctorTest, FindsEachFaultOfTheVolumeAndOfRights) {
  ExpectEach(kGroundFaults);
}
TEST_F(DoctorTest, FindsEachFaultOfTheServer) {
  ExpectEach(kServerFaults);
}
TEST_F(DoctorTest, FindsEachFaultOfPluginsAndRecordsAndNotesTheRest) {
  ExpectEach(kOtherFaults);
}

// Whether the keyring counts as well depends on whether it is older than the build.
TEST_F(DoctorTest, ClockThatWasNeverSetIsFound) {
  SetClock(device_, 1000);
  const CommandResult result = Doctor({"--offline"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(Found(result),
              HasSubstr("!!   clock          it says $TIME, before this program was built ($TIME): "
                        "certificates of servers and ages are judged wrongly; do: set the clock"));
}

TEST_F(DoctorTest, LastRunThatFailedIsFoundUntilOneSucceeds) {
  const std::string own = ReadFile(kKeyring);
  Shell(
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 3000 "
      "-subj /CN=other -keyout /tmp/key -out " +
      std::string(kKeyring));
  device_.OfferSecond();
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 1);
  const CommandResult result = Doctor({"--offline"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(Found(result), ::testing::MatchesRegex(
                                 "!!   last-run       oui: update failed on .TIME: .*6.pem.*\n"));
  WriteFile(kKeyring, own);
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(Found(Doctor({"--offline"})), "");
}

// What an operation would put aside, and what was put aside.
TEST_F(DoctorTest, StateThatIsLostIsFound) {
  struct Row {
    std::string file;
    std::string text;
    std::string found;
    int exit_status;
  };
  const std::string trust = "/var/lib/data_update/trust.json";
  for (const Row& row :
       {Row{trust, "x", "!!   records        " + trust + ": line 1, column 1", 1},
        Row{trust, R"({"format": 2})", "!!   records        " + trust + ": it has another form", 1},
        Row{kVersionFile, R"({"data_ver)", "!!   records        oui: version.json: line 1", 1},
        Row{kVersionFile, "", "!!   records        oui: version.json: is empty", 1},
        Row{kVersionFile, "{}", "!!   records        oui: version.json: ", 1},
        Row{trust + ".aside", "x", "--   records        " + trust + ".aside: ", 0},
        Row{std::string(kVersionFile) + ".aside", "x",
            "--   records        " + std::string(kVersionFile) + ".aside: ", 0}}) {
    SCOPED_TRACE(row.found);
    const bool was_there = fs::exists(row.file);
    const std::string before = was_there ? ReadFile(row.file) : "";
    WriteFile(row.file, row.text);
    const CommandResult result = Doctor({"--offline"});
    EXPECT_EQ(result.exit_status, row.exit_status);
    EXPECT_THAT(Found(result), HasSubstr(row.found));
    if (row.file == trust) {
      EXPECT_THAT(Tool({"status", "--offline", "oui"}).out,
                  HasSubstr("floor      unknown, trust.json is damaged\n"));
    }
    was_there ? WriteFile(row.file, before) : static_cast<void>(fs::remove(row.file));
  }
}

// Whoever is not root. A user namespace of one user has nobody else, and tries nothing.
TEST_F(DoctorTest, AccountHearsWhatItMayNotLookAt) {
  const std::vector<std::string> account = {"setpriv", "--reuid", "65534",
                                            "--regid", "65534",   "--clear-groups"};
  std::vector<std::string> command = account;
  command.push_back("true");
  if (RunCommand(command).exit_status != 0) {
    GTEST_SKIP() << "there is one user only";
  }
  ChangeMode("/volume1/@database", 0700);
  const std::string before = Everything();
  command = account;
  command.insert(command.end(), {kTool, "doctor"});
  const CommandResult result = RunCommand(command);
  EXPECT_EQ(result.exit_status, 0) << result.out;
  EXPECT_THAT(result.out, HasSubstr("??   volume         /volume1: it needs root's rights to look "
                                    "at: "));
  EXPECT_THAT(result.out, HasSubstr("ok   server "));
  EXPECT_EQ(Everything(), before);
}

// Whoever opens a pipe waits for its other end, and hears no signal.
TEST_F(DoctorTest, PipesInPlaceOfFilesEndNoLook) {
  const std::string state = "/var/lib/data_update/";
  for (const std::string& file :
       {std::string(kKeyring), std::string(kRevocations), std::string(kVersionFile),
        state + "oui/installed.json", state + "trust.json", state + "history.jsonl",
        state + "cooldown.json", std::string(kDescription)}) {
    SCOPED_TRACE(file);
    const bool was_there = fs::exists(file);
    if (was_there) {
      fs::rename(file, file + ".kept");
    }
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    for (const char* command : {"doctor --offline", "status --offline oui"}) {
      EXPECT_NE(RunCommand({"sh", "-c", std::string("timeout -s KILL 3 tolmdbud ") + command})
                    .exit_status,
                137)
          << command;
    }
    const std::string name = fs::path(file).filename();
    const bool is_sought =
        name != "history.jsonl" && name != "cooldown.json" && name != "database_info.json";
    if (is_sought) {
      EXPECT_THAT(Found(Doctor({"--offline"})),
                  AllOf(HasSubstr(name),
                        HasSubstr(name == "installed.json" ? "is damaged" : "is no regular file")));
    }
    fs::remove(file);
    if (was_there) {
      fs::rename(file + ".kept", file);
    }
  }
}

TEST_F(DoctorTest, InterruptedItEndsTheRequest) {
  const std::string path = "/database_info/1";
  const std::size_t seen = device_.publisher.Server().RequestCount(path);
  device_.publisher.Server().Hang(path);
  RunningCommand doctor({kTool, "doctor"});
  ASSERT_TRUE(device_.publisher.Server().WaitForRequest(path, seen + 1));
  doctor.Process().Signal(SIGINT);
  const CommandResult result = doctor.Wait();
  EXPECT_EQ(result.exit_status, 130);
  EXPECT_EQ(result.err, "tolmdbud: interrupted\n");
  EXPECT_THAT(RunCommand({"ls", "/tmp"}).out, ::testing::Not(HasSubstr("tolmdbud-doctor")));
}

}  // namespace
}  // namespace tolm::testing

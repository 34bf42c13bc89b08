// schedule, init, volume and lock: whole outputs and exit statuses, and what is written.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/tools/golden.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;

void ThreeDatabases(GoldenDevice& device) {
  ConfigureDevice(device.publisher, {{"geo", kOnRootFs}, {"oui", kOnVolume}, {"tz", kOnVolume}});
}
void WithoutAVolume(GoldenDevice& device) {
  device.WithoutAVolume();
}
void OneVolume(GoldenDevice&) {
  WriteFile("/usr/tolm/etc/volumes.conf", "/volume1\n");
}

class SettingsTest : public GoldenTest {};

TEST_P(SettingsTest, SaysExactlyThis) {
  Expect(GetParam());
}

const GoldenRow kScheduleRows[] = {
    {"AllAreShown", {"schedule"}, ThreeDatabases, 0, "geo: on\noui: on\ntz: on\n", ""},
    {"OneIsShown", {"schedule", "tz"}, ThreeDatabases, 0, "tz: on\n", ""},
    {"TurnedOff", {"schedule", "geo", "off"}, ThreeDatabases, 0, "geo: off\n", ""},
    {"TurnedOn",
     {"schedule", "geo", "on"},
     [](GoldenDevice& device) {
       ThreeDatabases(device);
       GoldenDevice::MustRun({"schedule", "geo", "off"});
     },
     0,
     "geo: on\n",
     ""},
    {"QuietSaysNothing", {"schedule", "oui", "off", "--quiet"}, Nothing, 0, "", ""},
    {"AsJson",
     {"schedule", "oui", "off", "--json"},
     Nothing,
     0,
     R"({
  "command" : "schedule",
  "databases" : 
  [
    {
      "name" : "oui",
      "scheduled" : false
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
    {"UnknownName", {"schedule", "nope", "off"}, Nothing, 1, "", kUnknown},
    {"UnknownSetting",
     {"schedule", "oui", "maybe"},
     Nothing,
     2,
     "",
     "tolmdbud: SETTING: maybe not in {on,off} (--help shows the usage)\n"},
    {"DirectoryCannotBeWritten",
     {"schedule", "oui", "off"},
     [](GoldenDevice& device) {
       fs::create_directories("/usr/tolm/etc/data_update");
       device.Mount(ScopedMount::Bind("/usr/tolm/etc", "/usr/tolm/etc"));
       device.Mount(ScopedMount::ReadOnly("/usr/tolm/etc/data_update"));
     },
     1,
     "",
     "tolmdbud: oui: Fail to write: /usr/tolm/etc/data_update/databases.conf.new\n"},
    {"SettingsLockIsHeld",
     {"schedule", "oui", "off"},
     [](GoldenDevice& device) {
       SkipWaits(device);
       device.Hold("/run/data_update/config.lock");
     },
     1,
     "",
     "tolmdbud: oui: another operation does not end: /run/data_update/config.lock is held by "
     "process $N, tools_tolmdbud_; try again when that has ended\n"},
};
INSTANTIATE_TEST_SUITE_P(Schedule, SettingsTest, ::testing::ValuesIn(kScheduleRows), NameOf);

const GoldenRow kVolumeRows[] = {
    {"InitChoosesAVolume", {"init"}, WithoutAVolume, 0, "volume: /volume1\n", ""},
    {"InitAsJson",
     {"init", "--json"},
     WithoutAVolume,
     0,
     R"({
  "command" : "init",
  "exit_status" : 0,
  "failures" : [],
  "format" : 1,
  "reasons" : [],
  "volume" : "/volume1",
  "warnings" : []
}
)",
     ""},
    {"InitWithoutAnyVolume",
     {"init"},
     [](GoldenDevice& device) {
       device.WithoutAVolume();
       WriteFile("/usr/tolm/etc/volumes.conf", "");
     },
     0,
     "volume: none\n",
     ""},
    {"InitWithDamagedConfiguration",
     {"init"},
     [](GoldenDevice&) { WriteFile(kDatabaseDefaults, "["); },
     1,
     "",
     "tolmdbud: /usr/share/data_update/databases.conf: line 1, column 2: Syntax error: value, "
     "object or array expected.; nothing was done\n"},
    {"InitWhereNoLockCanBeMade",
     {"init"},
     [](GoldenDevice& device) {
       fs::create_directories("/run/data_update");
       device.Mount(ScopedMount::ReadOnly("/run/data_update"));
     },
     1,
     "",
     "tolmdbud: Fail to make /run/data_update/operator.lock: Read-only file system\n"},
    {"Show",
     {"volume", "show"},
     OneVolume,
     0,
     "chosen: /volume1\n/volume1  suitable  $N bytes available\n",
     ""},
    {"ShowAsJson",
     {"volume", "show", "--json"},
     OneVolume,
     0,
     R"({
  "command" : "volume show",
  "exit_status" : 0,
  "failures" : [],
  "format" : 1,
  "problem" : null,
  "reasons" : [],
  "volume" : "/volume1",
  "volumes" : 
  [
    {
      "available_bytes" : $N,
      "obstacle" : null,
      "path" : "/volume1",
      "problem" : null,
      "suitable" : true
    }
  ],
  "warnings" : []
}
)",
     ""},
    {"ShowSaysWhyNot",
     {"volume", "show"},
     [](GoldenDevice& device) {
       WriteFile("/usr/tolm/etc/volumes.conf", "/volume*\n/mnt/*\n");
       ReplaceInFile(kDatabaseDefaults, "\"install_dest\"",
                     "\"min_rsv_space_inbytes\": 3000000, \"install_dest\"");
       WriteFile("/volume2/.no-services", "");
       for (const char* name : {"/mnt/ro", "/mnt/small", "/mnt/users"}) {
         device.Mount(
             ScopedMount::Tmpfs(name, name == std::string("/mnt/small") ? 1 << 20 : 4 << 20));
       }
       device.Mount(ScopedMount::ReadOnly("/mnt/ro"));
       fs::permissions("/mnt/users", fs::perms::all);
     },
     0,
     "chosen: /volume1\n"
     "/volume1  suitable  $N bytes available\n"
     "/volume2  not suitable  $N bytes available: it holds .no-services, or its root cannot be "
     "looked at\n"
     "/mnt/small  not suitable  $N bytes available: there is too little room: 3.0 MB needed "
     "(min_rsv_space_inbytes of all databases), 1.0 MB available\n"
     "/mnt/users  not suitable  $N bytes available: /mnt/users can be written by everybody (chmod "
     "go-w /mnt/users)\n"
     "/mnt/ro  not suitable  $N bytes available: it is mounted read-only\n",
     ""},
    {"ShowSaysThatTheChosenOneIsGone",
     {"volume", "show"},
     [](GoldenDevice&) { WriteFile("/usr/tolm/etc/volumes.conf", "/disk*\n"); },
     0,
     "chosen: /volume1 (/volume1 is mounted but no volume: no pattern in "
     "/usr/tolm/etc/volumes.conf matches it)\n"
     "nothing is mounted that volumes.conf names (without it, /volume[0-9]*)\n",
     ""},
    {"MountedWhereNothingIs",
     {"volume", "mounted", "/nonsense"},
     Nothing,
     1,
     "",
     "tolmdbud: /nonsense is no mounted volume; \"tolmdbud volume show\" names those there are\n"},
    {"MountedWhatIsNoVolume",
     {"volume", "mounted", "/mnt/disk", "--json"},
     [](GoldenDevice& device) {
       device.WithoutAVolume();
       device.Mount(ScopedMount::Tmpfs("/mnt/disk", 1 << 20));
     },
     1,
     R"({
  "command" : "volume mounted",
  "exit_status" : 1,
  "failures" : 
  [
    "/mnt/disk is mounted but no volume: no pattern in /usr/tolm/etc/volumes.conf matches it; \"tolmdbud volume show\" names those there are"
  ],
  "format" : 1,
  "reasons" : 
  [
    {
      "reason" : "no-volume"
    }
  ],
  "warnings" : []
}
)",
     "tolmdbud: /mnt/disk is mounted but no volume: no pattern in /usr/tolm/etc/volumes.conf "
     "matches it; "
     "\"tolmdbud volume show\" names those there are\n"},
    {"Mounted",
     {"volume", "mounted", "/volume2"},
     WithoutAVolume,
     0,
     "volume: /volume2 (was none)\n",
     ""},
    {"MountedAsJson",
     {"volume", "mounted", "/volume2", "--json"},
     WithoutAVolume,
     0,
     R"({
  "before" : null,
  "command" : "volume mounted",
  "exit_status" : 0,
  "failures" : [],
  "format" : 1,
  "reasons" : [],
  "volume" : "/volume2",
  "warnings" : []
}
)",
     ""},
    {"MountedWithOneChosen",
     {"volume", "mounted", "/volume2"},
     Nothing,
     0,
     "volume: /volume1\n",
     ""},
    {"MountedButUnsuitable",
     {"volume", "mounted", "/volume2"},
     [](GoldenDevice& device) {
       device.WithoutAVolume();
       WriteFile("/volume2/.no-services", "");
     },
     0,
     "volume: none\n",
     ""},
    {"MountedButSettingsCannotBeWritten",
     {"volume", "mounted", "/volume2"},
     [](GoldenDevice& device) {
       device.WithoutAVolume();
       fs::create_directories("/usr/tolm/etc/data_update");
       device.Mount(ScopedMount::Bind("/usr/tolm/etc", "/usr/tolm/etc"));
       device.Mount(ScopedMount::ReadOnly("/usr/tolm/etc/data_update"));
     },
     1,
     "",
     "tolmdbud: /volume2 is suitable and could not be chosen, see the system log\n"},
    {"RelativePath",
     {"volume", "mounted", "volume2"},
     Nothing,
     2,
     "",
     "tolmdbud: PATH: must be an absolute path: volume2 (--help shows the usage)\n"},
    {"Unmounting",
     {"volume", "unmounting", "/volume1"},
     [](GoldenDevice& device) { device.Install(); },
     0,
     "volume: /volume2 (was /volume1)\n",
     ""},
    {"UnmountingTheLastOne",
     {"volume", "unmounting", "/volume1", "--json"},
     [](GoldenDevice& device) {
       OneVolume(device);
       device.Install();
     },
     0,
     R"({
  "before" : "/volume1",
  "command" : "volume unmounting",
  "exit_status" : 0,
  "failures" : [],
  "format" : 1,
  "reasons" : [],
  "volume" : null,
  "warnings" : []
}
)",
     ""},
    {"UnmountingWhileAnOperationDoesNotEnd",
     {"volume", "unmounting", "/volume1"},
     [](GoldenDevice& device) {
       SkipWaits(device);
       device.Hold("/run/data_update/operator.lock");
     },
     1,
     "",
     "tolmdbud: another operation does not end: /run/data_update/operator.lock is held by process "
     "$N, tools_tolmdbud_; try again when that has ended\n"},
    {"NoEvent",
     {"volume"},
     Nothing,
     2,
     "",
     "tolmdbud: A subcommand is required (--help shows the usage)\n"},
};
INSTANTIATE_TEST_SUITE_P(Volume, SettingsTest, ::testing::ValuesIn(kVolumeRows), NameOf);

const GoldenRow kLockRows[] = {
    {"CommandSpeaksForItself",
     {"lock", "oui", "--", "sh", "-c", "echo out; echo err >&2; exit 11"},
     [](GoldenDevice&) { GoldenDevice::MustRun({"init"}); },
     11,
     "out\n",
     "err\n"},
    {"NoLockFileYet",
     {"lock", "oui", "--", "echo"},
     Nothing,
     1,
     "",
     "tolmdbud: oui: the database is not configured or has no lock file yet (tolmdbud init makes "
     "it)\n"},
    {"UnknownName",
     {"lock", "nope", "--", "echo"},
     [](GoldenDevice&) { GoldenDevice::MustRun({"init"}); },
     1,
     "",
     "tolmdbud: nope: the database is not configured or has no lock file yet (tolmdbud init makes "
     "it)\n"},
    {"HeldByAnInstaller",
     {"lock", "oui", "--wait", "5", "--", "echo"},
     [](GoldenDevice& device) {
       SkipWaits(device);
       GoldenDevice::MustRun({"init"});
       device.Hold("/run/data_update/using_oui.lock");
     },
     1,
     "",
     "tolmdbud: oui: the lock was not had within 5 s\n"},
    {"CommandIsNotFound",
     {"lock", "oui", "--", "/no/such"},
     [](GoldenDevice&) { GoldenDevice::MustRun({"init"}); },
     127,
     "",
     "tolmdbud: /no/such: No such file or directory\n"},
    {"CommandCannotBeRun",
     {"lock", "oui", "--", "/etc"},
     [](GoldenDevice&) { GoldenDevice::MustRun({"init"}); },
     126,
     "",
     "tolmdbud: /etc: Permission denied\n"},
    {"HasNoJson",
     {"lock", "oui", "--json", "--", "echo"},
     Nothing,
     2,
     "",
     "tolmdbud: The following arguments were not expected: -- --json (--help shows the usage)\n"},
};
INSTANTIATE_TEST_SUITE_P(Lock, SettingsTest, ::testing::ValuesIn(kLockRows), NameOf);

class ScheduleTest : public GoldenTest {};

TEST_F(ScheduleTest, FirstOverrideHidesNoDatabase) {
  ThreeDatabases(device_);
  GoldenDevice::MustRun({"schedule", "oui", "off"});
  const CommandResult list = Tool({"list"});
  EXPECT_EQ(list.out, "geo\noui\ntz\n");
  EXPECT_EQ(list.err, "");
  EXPECT_EQ(Tool({"schedule"}).out, "geo: on\noui: off\ntz: on\n");
  EXPECT_EQ(ReadFile(kOverrides),
            "{\n\t\"geo\" : \n\t{\n\t\t\"auto_update\" : true\n\t},\n"
            "\t\"oui\" : \n\t{\n\t\t\"auto_update\" : false\n\t},\n"
            "\t\"tz\" : \n\t{\n\t\t\"auto_update\" : true\n\t}\n}\n");
}

TEST_F(ScheduleTest, PresentSettingsAreKept) {
  ThreeDatabases(device_);
  ReplaceInFile(kDatabaseDefaults, "\"install_dest\"", "\"auto_update\" : false, \"install_dest\"");
  ASSERT_EQ(Tool({"schedule"}).out, "geo: off\noui: on\ntz: on\n");
  GoldenDevice::MustRun({"schedule", "tz", "off"});
  EXPECT_EQ(Tool({"schedule"}).out, "geo: off\noui: on\ntz: off\n");
}

TEST_F(ScheduleTest, OtherOverridesOwnerAndModeAreKept) {
  ThreeDatabases(device_);
  WriteFile(kOverrides, R"({"oui": {"install_dest": "%ROOTFS%"}, "tz": {}})");
  ASSERT_EQ(chmod(kOverrides, 0640), 0);
  GoldenDevice::MustRun({"schedule", "oui", "off"});
  EXPECT_THAT(Tool({"status", "--offline", "oui"}).out, HasSubstr("/var/db/oui"));
  EXPECT_EQ(fs::status(kOverrides).permissions(), fs::perms(0640));
}

// A database comes after somebody has turned another one off.
class HiddenDatabaseTest : public GoldenTest {
 protected:
  static constexpr char kHidden[] =
      "tolmdbud: tz is hidden: /usr/tolm/etc/data_update/databases.conf does not list it; do: "
      "tolmdbud schedule tz on\n";

  void SetUp() override {
    ConfigureDevice(device_.publisher, {{"geo", kOnRootFs}, {"oui", kOnVolume}});
    GoldenDevice::MustRun({"schedule", "geo", "off"});
    ThreeDatabases(device_);
    device_.publisher.PackFull("tz", 80001, {{"zone", "z"}});
    device_.publisher.Offer("tz", 80001);
  }
};

TEST_F(HiddenDatabaseTest, IsWarnedOfByWhateverPassesItOver) {
  struct Row {
    std::vector<std::string> command;
    std::string out;
    int exit_status;
  };
  for (const Row& row :
       {Row{{"list"}, "geo\noui\n", 0}, Row{{"schedule"}, "geo: off\noui: on\n", 0},
        Row{{"update", "--all"}, "oui: updated to 70001\n", 0},
        Row{{"fix", "--all", "--keep-going"}, "oui: intact\n", 0},
        Row{{"check", "oui"},
            "oui: up to date with 70001 as of $CLOCK (asked $AGO; --refresh asks "
            "now)\n",
            0}}) {
    const CommandResult result = Tool(row.command);
    EXPECT_EQ(result.exit_status, row.exit_status) << row.command.front();
    EXPECT_EQ(Normalised(result.out), row.out) << row.command.front();
    EXPECT_EQ(result.err, kHidden) << row.command.front();
  }
  EXPECT_THAT(Tool({"status"}).err, HasSubstr(kHidden));
  const CommandResult update = Tool({"update", "tz"});
  EXPECT_EQ(update.exit_status, 1);
  EXPECT_THAT(update.err, HasSubstr(kHidden));
}

TEST_F(HiddenDatabaseTest, IsScheduledAndThenUpdated) {
  const CommandResult scheduled = Tool({"schedule", "tz", "on"});
  EXPECT_EQ(scheduled.exit_status, 0);
  EXPECT_EQ(scheduled.out, "tz: on\n");
  EXPECT_EQ(scheduled.err, "");
  EXPECT_EQ(Tool({"list"}).out, "geo\noui\ntz\n");
  EXPECT_EQ(Tool({"schedule"}).out, "geo: off\noui: on\ntz: on\n");
  const CommandResult update = Tool({"update", "--all"});
  EXPECT_EQ(update.out, "oui: updated to 70001\ntz: updated to 80001\n");
  EXPECT_EQ(update.err, "");
}

TEST_F(HiddenDatabaseTest, IsBroughtAlongByAnySettingWithItsOwnDefault) {
  ReplaceInFile(kDatabaseDefaults, "\"tz\" : \n\t{", "\"tz\" : \n\t{\"auto_update\" : false,");
  const CommandResult result = Tool({"schedule", "oui", "off"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "tolmdbud: tz was hidden and is listed from now on\n");
  EXPECT_EQ(Tool({"schedule"}).out, "geo: off\noui: off\ntz: off\n");
}

TEST_F(HiddenDatabaseTest, IsTurnedOffAsWell) {
  EXPECT_EQ(Tool({"schedule", "tz", "off"}).out, "tz: off\n");
  EXPECT_EQ(Tool({"schedule"}).out, "geo: off\noui: on\ntz: off\n");
}

TEST_F(HiddenDatabaseTest, NameThatNobodyListsIsStillUnknown) {
  const std::string before = ReadFile(kOverrides);
  EXPECT_EQ(Tool({"schedule", "nope", "on"}).exit_status, 1);
  EXPECT_EQ(ReadFile(kOverrides), before);
}

TEST_F(ScheduleTest, LinkedFileIsReplacedBehindTheLink) {
  WriteFile("/usr/tolm/etc/real.conf", "{}");
  fs::create_directories("/usr/tolm/etc/data_update");
  fs::create_symlink("../real.conf", kOverrides);
  GoldenDevice::MustRun({"schedule", "oui", "off"});
  EXPECT_TRUE(fs::is_symlink(kOverrides));
  EXPECT_THAT(ReadFile("/usr/tolm/etc/real.conf"), HasSubstr("false"));
}

TEST_F(ScheduleTest, DamagedOverridesAreKeptAside) {
  WriteFile(kOverrides, "{damaged");
  const CommandResult result = Tool({"schedule", "oui", "off"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "tolmdbud: " + std::string(kOverrides) +
                            ": line 1, column 2: Missing '}' or object member name\n");
  EXPECT_EQ(ReadFile(std::string(kOverrides) + ".aside"), "{damaged");
  EXPECT_EQ(Tool({"schedule"}).out, "oui: off\n");
  EXPECT_EQ(Tool({"schedule"}).err, "");
  WriteFile(kOverrides, "{damaged again");
  EXPECT_EQ(Tool({"schedule", "oui", "on"}).exit_status, 0);
  EXPECT_EQ(ReadFile(std::string(kOverrides) + ".aside"), "{damaged");
  EXPECT_EQ(ReadFile(std::string(kOverrides) + ".aside.2"), "{damaged again");
}

// What an operator's editor may leave of the file that holds the mirror and the chosen volume.
constexpr char kServiceOverrides[] = "/usr/tolm/etc/data_update/data_update.conf";
constexpr char kWithoutBrace[] =
    "{\n  \"config\": {\n    \"db_netloc\": \"mirror.example.org\",\n"
    "    \"cur_volume\": \"/volume1\"\n}\n";

class BrokenSettingsTest : public GoldenTest {};

TEST_F(BrokenSettingsTest, MissingBraceEndsEveryWriterAndStaysAsItIs) {
  device_.WithoutAVolume();
  WriteFile(kServiceOverrides, kWithoutBrace);
  const std::string line = "tolmdbud: " + std::string(kServiceOverrides) +
                           ": line 6, column 1: Missing ',' or '}' in object declaration; nothing "
                           "was done\n";
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"init"},
                                             {"update", "oui"},
                                             {"update", "--all"},
                                             {"update", "--all", "--scheduled"},
                                             {"update", "--all", "--keep-going"},
                                             {"fix", "oui"},
                                             {"force-install", "oui"},
                                             {"verify"},
                                             {"verify", "oui", "--package"},
                                             {"check"},
                                             {"volume", "mounted", "/volume1"},
                                             {"volume", "unmounting", "/volume1"}}) {
    SCOPED_TRACE(command.front() + ' ' + command.back());
    const CommandResult result = Tool(command);
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, line);
    EXPECT_EQ(ReadFile(kServiceOverrides), kWithoutBrace);
  }
  EXPECT_TRUE(fs::exists("/run/data_update/using_oui.lock")) << "readers lock all the same";
  EXPECT_EQ(device_.publisher.Server().Requests().size(), 0u);
  EXPECT_THAT(Tool({"update", "oui", "--json"}).out,
              AllOf(HasSubstr("\"results\" : []"), HasSubstr("line 6, column 1")));
}

struct BrokenFile {
  std::string name;
  std::function<void()> breaks;
  std::string says;
};

class BrokenFileTest : public ::testing::TestWithParam<BrokenFile> {};

TEST_P(BrokenFileTest, EndsAnUpdateInWords) {
  GoldenDevice device;
  GetParam().breaks();
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: " + GetParam().says + "; nothing was done\n");
}

const BrokenFile kBrokenFiles[] = {
    {"OverridesOfDatabases", [] { WriteFile(kOverrides, "{\"oui\": {},,}"); },
     "/usr/tolm/etc/data_update/databases.conf: line 1, column 12: Missing '}' or object member "
     "name"},
    {"EmptyDefaults", [] { WriteFile(kDatabaseDefaults, ""); },
     "/usr/share/data_update/databases.conf: is empty"},
    {"DirectoryForAFile", [] { fs::create_directories(kServiceOverrides); },
     "/usr/tolm/etc/data_update/data_update.conf: is no regular file"},
    {"PipeForAFile",
     [] {
       fs::create_directories("/usr/tolm/etc/data_update");
       ASSERT_EQ(mkfifo(kServiceOverrides, 0600), 0);
     },
     "/usr/tolm/etc/data_update/data_update.conf: is no regular file"},
    {"LinkToNowhere",
     [] {
       fs::create_directories("/usr/tolm/etc/data_update");
       fs::create_symlink("/nowhere", kServiceOverrides);
     },
     "/usr/tolm/etc/data_update/data_update.conf: cannot be read: No such file or directory"},
    {"ListForAnObject", [] { WriteFile(kDatabaseDefaults, "[]"); },
     "/usr/share/data_update/databases.conf: holds no JSON object"},
    {"NumberForAString",
     [] { WriteFile(kServerDefaults, R"({"config": {"cur_volume": "/volume1", "db_ver": 1}})"); },
     "/usr/share/data_update/data_update.conf: config.db_ver must be a string"},
    {"OperatorsOwn", [] { WriteFile("/usr/tolm/etc/data_update/operation.conf", "{\n"); },
     "/usr/tolm/etc/data_update/operation.conf: line 2, column 1: Missing '}' or object member "
     "name"},
    {"VolumePatterns", [] { fs::create_directories("/usr/tolm/etc/volumes.conf"); },
     "/usr/tolm/etc/volumes.conf: is no regular file"},
};
INSTANTIATE_TEST_SUITE_P(Rows, BrokenFileTest, ::testing::ValuesIn(kBrokenFiles),
                         [](const auto& row) { return row.param.name; });

TEST_F(BrokenSettingsTest, WrongValueIsWarnedOfAndTheDefaultCounts) {
  WriteFile(kServiceOverrides, R"({"config": {"cur_volume": 5}})");
  WriteFile(kOverrides, R"({"oui": {"auto_update": "no"}})");
  WriteFile("/usr/tolm/etc/volumes.conf", "# disks\n/volume1\nvolume2\n");
  const CommandResult result = Tool({"check"});
  EXPECT_EQ(result.exit_status, 10);
  EXPECT_EQ(result.err,
            "tolmdbud: /usr/tolm/etc/data_update/data_update.conf: config.cur_volume must be a "
            "string; the default counts\n"
            "tolmdbud: /usr/tolm/etc/data_update/databases.conf: oui.auto_update must be true or "
            "false; the default counts\n"
            "tolmdbud: /usr/tolm/etc/volumes.conf: line 3: the pattern matches no volume, since it "
            "does not begin with /\n");
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
}

// What a full disk, or a kill at the wrong moment, leaves of a file that is written in place.
TEST_F(BrokenSettingsTest, EmptyOverridesAreWarnedOfAndTheDefaultsCount) {
  WriteFile(kServiceOverrides, "");
  WriteFile(kOverrides, "");
  const CommandResult result = Tool({"check"});
  EXPECT_EQ(result.exit_status, 10);
  EXPECT_EQ(result.err,
            "tolmdbud: /usr/tolm/etc/data_update/data_update.conf: is empty; the defaults count\n"
            "tolmdbud: /usr/tolm/etc/data_update/databases.conf: is empty; the defaults count\n");
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(Tool({"schedule", "oui", "off"}).out, "oui: off\n");
  EXPECT_FALSE(fs::exists(std::string(kOverrides) + ".aside")) << "there is nothing to keep";
}

TEST_F(BrokenSettingsTest, ChoiceThatTheFullDiskRefusedIsAFailureAndIsMadeLater) {
  device_.WithoutAVolume();
  const ScopedMount small = ScopedMount::Tmpfs("/usr/tolm/etc/data_update", 8 << 10);
  const fs::path filler = "/usr/tolm/etc/data_update/other";
  WriteFile(filler, std::string(8 << 10, 'x'));
  const CommandResult full = Tool({"init"});
  EXPECT_EQ(full.exit_status, 1);
  EXPECT_EQ(full.out, "");
  EXPECT_EQ(full.err,
            "tolmdbud: /volume1 is suitable and could not be chosen, see the system log\n");
  ASSERT_EQ(fs::file_size(kServiceOverrides), 0u);
  fs::remove(filler);
  const CommandResult init = Tool({"init"});
  EXPECT_EQ(init.exit_status, 0) << init.err;
  EXPECT_EQ(init.out, "volume: /volume1\n");
  const CommandResult update = Tool({"update", "oui"});
  EXPECT_EQ(update.exit_status, 0);
  EXPECT_EQ(update.err, "");
}

TEST_F(ScheduleTest, FullDiskLeavesTheSettingsAsTheyWere) {
  ThreeDatabases(device_);
  const ScopedMount small = ScopedMount::Tmpfs("/usr/tolm/etc/data_update", 8 << 10);
  GoldenDevice::MustRun({"schedule", "oui", "off"});
  const std::string before = ReadFile(kOverrides);
  WriteFile("/usr/tolm/etc/data_update/other", std::string(4 << 10, 'x'));
  const CommandResult result = Tool({"schedule", "oui", "on"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: oui: Fail to write: " + std::string(kOverrides) + ".new\n");
  EXPECT_EQ(ReadFile(kOverrides), before);
  EXPECT_FALSE(fs::exists(std::string(kOverrides) + ".new"));
}

class HelpTest : public GoldenTest {};

TEST_F(HelpTest, OutputThatCannotBeWrittenIsAFailure) {
  for (const char* command : {"list", "status --json", "update oui"}) {
    const CommandResult result =
        RunCommand({"sh", "-c", std::string(kTool) + ' ' + command + " >/dev/full"});
    EXPECT_EQ(result.exit_status, 1) << command;
    EXPECT_EQ(result.err, "tolmdbud: standard output cannot be written\n") << command;
  }
}

TEST_F(HelpTest, EveryCommandHasExamplesAndSaysWhoMayRunIt) {
  const std::vector<std::vector<std::string>> commands = {{"init"},
                                                          {"list"},
                                                          {"status"},
                                                          {"check"},
                                                          {"doctor"},
                                                          {"update"},
                                                          {"fix"},
                                                          {"verify"},
                                                          {"force-install"},
                                                          {"lock"},
                                                          {"busy"},
                                                          {"schedule"},
                                                          {"volume", "show"},
                                                          {"volume", "mounted"},
                                                          {"volume", "unmounting"}};
  for (std::vector<std::string> command : commands) {
    std::string called = "  tolmdbud";
    for (const std::string& word : command) {
      called += ' ' + word;
    }
    command.push_back("--help");
    const CommandResult result = Tool(command);
    EXPECT_EQ(result.exit_status, 0) << called;
    EXPECT_EQ(result.err, "") << called;
    EXPECT_THAT(result.out, HasSubstr("Examples:\n" + called)) << called;
    EXPECT_THAT(result.out, ::testing::AnyOf(HasSubstr("root"), HasSubstr("Anyone may run it")))
        << called;
    const bool speaks_itself = command.front() != "lock";
    EXPECT_EQ(result.out.find("--json") != std::string::npos, speaks_itself) << called;
  }
}

TEST_F(HelpTest, ExitStatusesAreTheDocumentedOnes) {
  const std::string help = Tool({"--help"}).out;
  for (const char* status :
       {"0 ", "1 ", "2 ", "10 ", "11 ", "12 ", "13 ", "126 ", "127 ", "128+N "}) {
    EXPECT_THAT(help, HasSubstr("\n  " + std::string(status))) << status;
  }
}

}  // namespace
}  // namespace tolm::testing

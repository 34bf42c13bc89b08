// verify: whole outputs and exit statuses, and that nothing is changed or left.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/journal_socket.h"
#include "tests/support/wait.h"
#include "tests/tools/golden.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kHeldLock[] = "/run/data_update/update_any.lock";
constexpr char kPackage[] = "/packages/oui_v70001";

void ForceInstall(GoldenDevice&) {
  GoldenDevice::MustRun({"force-install", "oui"});
}
void Damage(const std::string& file) {
  ASSERT_TRUE(fs::exists(GoldenDevice::Installed(file)));
  WriteFile(GoldenDevice::Installed(file), "damaged");
}

class VerifyTest : public GoldenTest {
 protected:
  struct State {
    Tree installed;
    Tree records;
    bool operator==(const State& other) const {
      return installed == other.installed && records == other.records;
    }
  };
  static State Present() {
    State state{fs::exists("/volume1/@database") ? ReadTree("/volume1/@database") : Tree(),
                fs::exists("/var/lib/data_update") ? ReadTree("/var/lib/data_update") : Tree()};
    // What a verification has found is for those who watch the device.
    state.records.erase("geo/verified.json");
    state.records.erase("oui/verified.json");
    return state;
  }
};

TEST_P(VerifyTest, SaysExactlyThisAndChangesNothing) {
  GoldenRow row = GetParam();
  if (row.arrange) {
    row.arrange(device_);
  }
  row.arrange = nullptr;
  const State before = Present();
  Expect(row);
  EXPECT_TRUE(Present() == before);
  EXPECT_FALSE(fs::exists(kTemporary));
  for (const char* lock : {"operator", "update_any", "update_oui", "fresh_info"}) {
    const std::string file = std::string("/run/data_update/") + lock + ".lock";
    const bool is_held_by_the_test = row.name == "LockIsHeld" && file == kHeldLock;
    EXPECT_TRUE(!fs::exists(file) || IsFree(file) || is_held_by_the_test) << file;
  }
}

const GoldenRow kRows[] = {
    {"Intact", {"verify"}, Install, 0, "oui: intact, checked 3 of 3 files\n", ""},
    {"NotInstalled", {"verify"}, Nothing, 0, "oui: not installed\n", ""},
    {"QuietIntact", {"verify", "oui", "--quiet"}, Install, 0, "", ""},
    {"EachDamagedFileIsNamed",
     {"verify", "oui"},
     [](GoldenDevice& device) {
       device.Install();
       Damage("sub/b.txt");
       fs::remove(GoldenDevice::Installed("a.txt"));
       fs::remove(GoldenDevice::Installed("gone.txt"));
       ASSERT_EQ(mkfifo(GoldenDevice::Installed("gone.txt").c_str(), 0600), 0);
     },
     11,
     "oui: damaged, checked 3 of 3 files\n  a.txt: missing\n  gone.txt: not a regular file\n"
     "  sub/b.txt: content differs\n",
     ""},
    {"QuietDamageIsToldByTheStatusAlone",
     {"verify", "-q"},
     [](GoldenDevice& device) {
       device.Install();
       Damage("a.txt");
     },
     11,
     "",
     ""},
    {"FilesOnAReadOnlyFileSystem",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       device.Mount(ScopedMount::Bind(kVolumePrefix, kVolumePrefix));
       device.Mount(ScopedMount::ReadOnly(kVolumePrefix / "oui"));
     },
     0,
     "oui: intact, checked 3 of 3 files\n",
     ""},
    {"DamageOfWhatTheDeltaDidNotTouch",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       device.OfferSecondByDelta();
       GoldenDevice::MustRun({"update", "oui"});
       Damage("sub/b.txt");
     },
     11,
     "oui: damaged, checked 2 of 2 files\n  sub/b.txt: content differs\n",
     ""},
    {"DamageOfWhatTheDeltaTouched",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       device.OfferSecondByDelta();
       GoldenDevice::MustRun({"update", "oui"});
       Damage("a.txt");
     },
     11,
     "oui: damaged, checked 2 of 2 files\n  a.txt: content differs\n",
     ""},
    {"AfterAForcedInstallation",
     {"verify"},
     ForceInstall,
     0,
     "oui: intact, checked 3 of 3 files\n",
     ""},
    {"DamageAfterAForcedInstallation",
     {"verify"},
     [](GoldenDevice& device) {
       ForceInstall(device);
       Damage("sub/b.txt");
     },
     11,
     "oui: damaged, checked 3 of 3 files\n  sub/b.txt: content differs\n",
     ""},
    {"FilesThatRunAsTheirOwner",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       ASSERT_EQ(chmod((kVolumePrefix / "oui/a.txt").c_str(), 04755), 0);
     },
     11,
     "oui: damaged, checked 3 of 3 files\n  a.txt: has the mode 4755 in place of 644\n",
     ""},
    {"LinkInAFilesPlace",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       fs::rename(kVolumePrefix / "oui/a.txt", kVolumePrefix / "a.txt");
       fs::create_symlink("../a.txt", kVolumePrefix / "oui/a.txt");
     },
     11,
     "oui: damaged, checked 3 of 3 files\n  a.txt: of another type\n",
     ""},
    {"WithoutTheRecordWhatTheVersionFileListsIsCompared",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       device.OfferSecondByDelta();
       GoldenDevice::MustRun({"update", "oui"});
       fs::remove("/var/lib/data_update/oui/installed.json");
     },
     0,
     "oui: not compared, checked 1 of 2 files\n"
     "  nothing is recorded of 1 file; \"tolmdbud verify --package oui\" compares, \"tolmdbud fix "
     "--package oui\" repairs\n",
     ""},
    {"NothingIsIntactOfWhichNothingIsRecorded",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(kVersionFile, R"({"data_version": "70001", "last_fetch_time": 1700000000})");
       Damage("a.txt");
     },
     0,
     "oui: not compared, checked 0 of 3 files\n"
     "  nothing is recorded of 3 files; \"tolmdbud verify --package oui\" compares, \"tolmdbud fix "
     "--package oui\" repairs\n",
     ""},
    {"VolumeIsNotMounted",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       ConfigureDevice(device.publisher, {{"oui", kOnVolume}}, "/volume7");
     },
     12,
     "",
     "tolmdbud: oui: /volume7 is chosen but not mounted; nothing was done\n"},
    {"PackageNeedsTheMountedVolume",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       ConfigureDevice(device.publisher, {{"oui", kOnRootFs}});
       device.Install();
       ConfigureDevice(device.publisher, {{"oui", kOnRootFs}}, "/volume7");
     },
     12,
     "",
     "tolmdbud: oui: /volume7 is chosen but not mounted; nothing was done\n"},
    {"RootFileSystemNeedsNoMountedVolume",
     {"verify"},
     [](GoldenDevice& device) {
       ConfigureDevice(device.publisher, {{"geo", kOnRootFs}, {"oui", kOnVolume}});
       device.publisher.PackFull("geo", GoldenDevice::kFirst, {{"f", "x"}});
       device.publisher.Offer("geo", GoldenDevice::kFirst);
       GoldenDevice::MustRun({"update", "--all"});
       ConfigureDevice(device.publisher, {{"geo", kOnRootFs}, {"oui", kOnVolume}}, "/volume7");
     },
     12,
     "geo: intact, checked 1 of 1 files\n",
     "tolmdbud: oui: /volume7 is chosen but not mounted; nothing was done\n"},
    {"CutShort",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(kMark, "");
     },
     11,
     "oui: damaged, an operation was cut short, checked 3 of 3 files\n",
     ""},
    {"FirstInstallationCutShort",
     {"verify"},
     [](GoldenDevice&) { WriteFile(kMark, ""); },
     11,
     "oui: damaged, an operation was cut short\n",
     ""},
    {"ServerIsNotNeeded",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       device.ServerIsGone();
     },
     0,
     "oui: intact, checked 3 of 3 files\n",
     ""},
    {"UnknownName",
     {"verify", "nope", "oui"},
     Install,
     1,
     "oui: intact, checked 3 of 3 files\n",
     kUnknown},
    {"NoVolume",
     {"verify"},
     [](GoldenDevice& device) {
       device.Install();
       device.WithoutAVolume();
     },
     12,
     "",
     "tolmdbud: oui: no volume is chosen\n"},
    {"RootFileSystemNeedsNoVolume",
     {"verify"},
     [](GoldenDevice& device) {
       ConfigureDevice(device.publisher, {{"oui", kOnRootFs}}, "");
     },
     0,
     "oui: not installed\n",
     ""},
    {"DamagedRecord",
     {"verify"},
     [](GoldenDevice&) {
       WriteFile(kVersionFile, R"({"data_version": "abc", "last_fetch_time": 0})");
     },
     1,
     "",
     "tolmdbud: oui: the version recorded in version.json is no number\n"},
    {"AsJson",
     {"verify", "--json"},
     [](GoldenDevice& device) {
       device.Install();
       Damage("a.txt");
     },
     11,
     R"({
  "against" : "record",
  "command" : "verify",
  "databases" : 
  [
    {
      "checked_files" : 3,
      "cut_short" : false,
      "damaged" : 
      [
        {
          "file" : "a.txt",
          "problem" : "content differs"
        }
      ],
      "foreign" : [],
      "installed" : 70001,
      "installed_files" : 3,
      "name" : "oui",
      "not_compared" : 0,
      "state" : "damaged"
    }
  ],
  "exit_status" : 11,
  "failures" : [],
  "format" : 1,
  "reasons" : [],
  "warnings" : []
}
)",
     ""},
    {"PackageIntact",
     {"verify", "--package"},
     ForceInstall,
     0,
     "oui: intact, checked 3 of 3 files\n",
     ""},
    {"PackageFindsEveryDamage",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       ForceInstall(device);
       Damage("a.txt");
       fs::remove(GoldenDevice::Installed("sub/b.txt"));
       WriteFile(GoldenDevice::Installed("other"), "");
     },
     11,
     "oui: damaged, checked 3 of 4 files\n  a.txt: content differs\n  sub/b.txt: missing\n"
     "  other: not in the package\n",
     ""},
    {"ForeignFilesAreNoDamage",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(GoldenDevice::Installed("other"), "");
     },
     0,
     "oui: intact, checked 3 of 4 files\n  other: not in the package\n",
     ""},
    {"PackageOfAnOlderVersionThanTheOfferedOne",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       device.Install();
       device.OfferSecond();
     },
     0,
     "oui: intact, checked 3 of 3 files\n",
     ""},
    {"PackageOfTheVersionAfterADelta",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       device.Install();
       device.OfferSecondByDelta();
       GoldenDevice::MustRun({"update", "oui"});
       Damage("sub/b.txt");
     },
     11,
     "oui: damaged, checked 2 of 2 files\n  sub/b.txt: content differs\n",
     ""},
    {"PackageIsNotAskedForWhenNothingIsInstalled",
     {"verify", "--package"},
     [](GoldenDevice& device) { device.ServerIsGone(); },
     0,
     "oui: not installed\n",
     ""},
    {"LeftOversAreNoPartOfThePackage",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       device.Install();
       WriteFile(fs::path(kTemporary) / "oui_full/stale", "");
     },
     0,
     "oui: intact, checked 3 of 3 files\n",
     ""},
    {"PackageIsGone",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       device.Install();
       fs::remove(device.publisher.FullPackage("oui", GoldenDevice::kFirst));
     },
     1,
     "",
     "tolmdbud: oui 70001: 404 Not Found from $URL/packages/oui_v70001; tolmdbud check --refresh "
     "asks what is offered now\n"},
    {"PackageWithABadSignature",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       device.Install();
       ChangeByte(device.publisher.FullPackage("oui", GoldenDevice::kFirst), 10);
     },
     1,
     "",
     "tolmdbud: oui 70001: signed by \"CN=Database package signing $DATE\", who has signed another "
     "content than this one" +
         kCheckIt},
    {"PackageOfAnotherVersion",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       device.Install();
       device.OfferSecond();
       fs::copy_file(device.publisher.FullPackage("oui", GoldenDevice::kSecond),
                     device.publisher.FullPackage("oui", GoldenDevice::kFirst),
                     fs::copy_options::overwrite_existing);
     },
     1,
     "",
     "tolmdbud: oui 70001: it is of another version: sealed as version 70002, wanted as version "
     "70001" +
         kCheckIt},
    {"DescriptionIsNotToBeHad",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       device.Install();
       device.ServerFails();
     },
     1,
     "",
     "tolmdbud: oui: 500 Internal Server Error from $URL/database_info/1; the server is overloaded "
     "or "
     "broken: try later\n"},
    {"LockIsHeld",
     {"verify", "oui", "--package"},
     [](GoldenDevice& device) {
       device.Install();
       SkipWaits(device);
       device.Hold(kHeldLock);
     },
     1,
     "",
     "tolmdbud: oui: another operation does not end: /run/data_update/update_any.lock is held by "
     "process $N, tools_tolmdbud_; try again when that has ended\n"},
    {"PackageWithoutAVolume",
     {"verify", "--package"},
     [](GoldenDevice& device) {
       ConfigureDevice(device.publisher, {{"oui", kOnRootFs}}, "");
     },
     12,
     "",
     "tolmdbud: oui: no volume is chosen\n"},
};
INSTANTIATE_TEST_SUITE_P(, VerifyTest, ::testing::ValuesIn(kRows), NameOf);

class VerifyPackageTest : public GoldenTest {};

TEST_F(VerifyPackageTest, FullVolumeEndsTheDownloadAndLeavesNothing) {
  device_.Install();
  WriteFile(device_.publisher.FullPackage("oui", GoldenDevice::kFirst), std::string(4 << 20, 'x'));
  const ScopedMount small = ScopedMount::Tmpfs("/volume1/@tmp", 2 << 20);
  const CommandResult result = Tool({"verify", "oui", "--package"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(Normalised(result.err),
              AllOf(StartsWith("tolmdbud: oui 70001: no room on /volume1/@tmp: more is needed "
                               "than the "),
                    EndsWith(" free beyond the 5 % reserve; make room there\n")));
  EXPECT_TRUE(fs::is_empty("/volume1/@tmp"));
}

TEST_F(VerifyPackageTest, InterruptedItCleansUp) {
  device_.Install();
  device_.publisher.Server().Hang(kPackage);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const std::size_t seen = device_.publisher.Server().RequestCount(kPackage);
    RunningCommand verify({kTool, "verify", "--package", "--json"});
    ASSERT_TRUE(device_.publisher.Server().WaitForRequest(kPackage, seen + 1));
    EXPECT_FALSE(IsFree("/run/data_update/update_any.lock"));
    EXPECT_FALSE(IsFree("/run/data_update/update_oui.lock"));
    EXPECT_FALSE(IsFree("/run/data_update/operator.lock"));
    verify.Process().Signal(signal);
    const CommandResult result = verify.Wait();
    EXPECT_EQ(result.exit_status, 128 + signal);
    EXPECT_EQ(result.err, "tolmdbud: interrupted\n");
    EXPECT_THAT(result.out, HasSubstr("\"exit_status\" : " + std::to_string(128 + signal)));
    EXPECT_FALSE(fs::exists(kTemporary));
    EXPECT_TRUE(IsFree("/run/data_update/update_any.lock"));
  }
  device_.publisher.Server().Reset(kPackage);
  EXPECT_EQ(Tool({"verify", "--package"}).exit_status, 0);
}

TEST_F(VerifyPackageTest, SqliteFileThatADeltaPatchedIsWhatTheDeltaRecorded) {
  const auto make_table = [](const std::string& file, const std::string& sql) {
    fs::create_directories(fs::path(file).parent_path());
    ASSERT_EQ(RunCommand({"sqlite3", file, sql}).exit_status, 0);
  };
  const std::string start = "CREATE TABLE t (a); INSERT INTO t VALUES (1);";
  make_table("/tmp/one.db", start);
  make_table("/tmp/two.db", start + "INSERT INTO t VALUES (2); PRAGMA user_version = 7;");
  device_.publisher.PackFull("oui", GoldenDevice::kFirst, {{"t.db", ReadFile("/tmp/one.db")}});
  device_.Install();
  device_.publisher.PackFull("oui", GoldenDevice::kSecond, {{"t.db", ReadFile("/tmp/two.db")}});
  device_.publisher.PackDelta("oui", GoldenDevice::kSecond,
                              R"({"/t.db": {"operation": "update", "input_file": "s.sqlitediff"}})",
                              {{"s.sqlitediff", "INSERT INTO t VALUES (2);\n"}});
  device_.publisher.Offer("oui", GoldenDevice::kSecond, {GoldenDevice::kSecond});
  GoldenDevice::MustRun({"update", "oui"});
  ASSERT_EQ(device_.publisher.Server().RequestCount("/packages/oui_v70002"), 0u);
  ASSERT_NE(ReadFile(GoldenDevice::Installed("t.db")), ReadFile("/tmp/two.db"));

  EXPECT_EQ(Tool({"verify", "--package"}).out, "oui: intact, checked 1 of 1 files\n");
  ReplaceInFile(kVersionFile, "/t.db", "/u.db");
  EXPECT_EQ(Tool({"verify", "--package"}).out,
            "oui: damaged, checked 1 of 1 files\n"
            "  t.db: content differs, as an SQLite file also does after a delta\n");
  ReplaceInFile(kVersionFile, "/u.db", "/t.db");
  const fs::path installed = GoldenDevice::Installed("t.db");
  ChangeByte(installed, fs::file_size(installed) - 1);
  EXPECT_EQ(Tool({"verify", "--package"}).exit_status, 11);
}

TEST_F(VerifyPackageTest, WhatItHasFoundIsRememberedAndToldToTheJournal) {
  device_.Install();
  Damage("a.txt");
  const JournalSocket journal;
  EXPECT_EQ(Tool({"verify", "--package"}).exit_status, 11);
  EXPECT_THAT(ReadFile("/var/lib/data_update/oui/verified.json"),
              AllOf(HasSubstr("\"checked_files\" : 3,"), HasSubstr("\"damaged_files\" : 1,")));
  const std::vector<JournalEntry> entries = journal.Entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].at("TOLMDBUD_EXPLANATION"), "a.txt: content differs");
}

TEST_F(VerifyTest, FlippedByteAfterAForcedInstallationIsFoundAndRepaired) {
  ForceInstall(device_);
  const fs::path file = GoldenDevice::Installed("a.txt");
  const auto time = fs::last_write_time(file);
  const std::string good = ReadFile(file);
  WriteFile(file, "onf");
  fs::last_write_time(file, time);
  EXPECT_EQ(Tool({"verify"}).exit_status, 11);
  EXPECT_EQ(Tool({"fix", "oui"}).out, "oui: repaired with 70001\n");
  EXPECT_EQ(ReadFile(file), good);
  EXPECT_EQ(Tool({"verify"}).out, "oui: intact, checked 3 of 3 files\n");
}

TEST_F(VerifyTest, OfManyFilesAllThatAreDamagedAreToldInTheOrderOfTheirNames) {
  Tree tree;
  std::string expected = "oui: damaged, checked 900 of 900 files\n";
  for (int i = 100; i < 1000; ++i) {
    const std::string name = "d" + std::to_string(i % 7) + "/f" + std::to_string(i);
    tree[name] = "content " + std::to_string(i);
  }
  device_.publisher.PackFull("oui", GoldenDevice::kFirst, tree);
  device_.Install();
  EXPECT_EQ(Tool({"verify"}).out, "oui: intact, checked 900 of 900 files\n");
  int number = 0;
  for (const auto& [name, content] : tree) {
    if (number++ % 11 == 0) {
      Damage(name);
      expected += "  " + name + ": content differs\n";
    }
  }
  EXPECT_EQ(Tool({"verify"}).out, expected);
}

TEST_F(VerifyTest, UncomparedFilesHaveAStateOfTheirOwnInTheDocument) {
  device_.Install();
  WriteFile(kVersionFile, R"({"data_version": "70001", "last_fetch_time": 1700000000})");
  EXPECT_THAT(Tool({"verify", "--json"}).out,
              AllOf(HasSubstr("\"not_compared\" : 3"), HasSubstr("\"state\" : \"not-compared\"")));
}

}  // namespace
}  // namespace tolm::testing

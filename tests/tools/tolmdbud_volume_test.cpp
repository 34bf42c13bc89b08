// tolmdbud init, volume and force-install.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/mounts.h"
#include "tests/support/opening_watch.h"
#include "tests/support/unique_descriptor.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr char kUsingLock[] = "/run/data_update/using_oui.lock";
constexpr char kOperatorLock[] = "/run/data_update/operator.lock";

class VolumeCommandTest : public DeviceTest {
 protected:
  void WithoutAVolume() { ConfigureDevice(publisher_, {{"oui", kOnVolume}}, ""); }

  std::string ChosenVolume() {
    const std::string shown = Tool({"volume", "show"}).out;
    return shown.substr(0, shown.find('\n'));
  }
};

TEST_F(VolumeCommandTest, InitChoosesAVolumeAndMakesTheReadersLocks) {
  WithoutAVolume();
  EXPECT_FALSE(fs::exists(kUsingLock));
  const CommandResult result = Tool({"init"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "volume: /volume1\n");
  EXPECT_TRUE(fs::is_directory(kVolumePrefix));
  EXPECT_TRUE(IsFree(kUsingLock));
  EXPECT_EQ(Tool({"init"}).out, "volume: /volume1\n");
}

TEST_F(VolumeCommandTest, InitLeavesAReadersLockAlone) {
  ASSERT_EQ(Tool({"init"}).exit_status, 0);
  const UniqueDescriptor reader(open(kUsingLock, O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(reader.Get(), LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(Tool({"init"}).exit_status, 0);
  EXPECT_FALSE(IsFree(kUsingLock)) << "another file has taken its name";
}

const std::vector<std::string> kHalfWritten = {
    "/usr/tolm/etc/data_update/databases.conf.new", "/var/lib/data_update/trust.json.new",
    "/var/lib/data_update/revocations.pem.new",     "/var/lib/data_update/history.jsonl.new",
    "/var/lib/data_update/cooldown.json.new",       "/var/lib/data_update/move.json.new",
    "/var/lib/data_update/oui/installed.json.new",  "/var/lib/data_update/oui/verified.json.new"};

TEST_F(VolumeCommandTest, InitRemovesWhatWasHalfWritten) {
  InstallFirst();
  for (const std::string& file : kHalfWritten) {
    WriteFile(file, "half");
  }
  WriteFile("/var/lib/data_update/oui/other.new", "somebody's");
  EXPECT_EQ(Tool({"init"}).exit_status, 0);
  for (const std::string& file : kHalfWritten) {
    EXPECT_FALSE(fs::exists(file)) << file;
  }
  EXPECT_TRUE(fs::exists("/var/lib/data_update/oui/other.new"));
}

TEST_F(VolumeCommandTest, InitLeavesWhatSomebodyIsWriting) {
  InstallFirst();
  for (const char* lock : {kOperatorLock, "/run/data_update/config.lock",
                           "/run/data_update/notes.lock", "/run/data_update/fresh_info.lock"}) {
    const UniqueDescriptor writer(open(lock, O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(writer.Get(), LOCK_EX | LOCK_NB), 0) << lock;
    for (const std::string& file : kHalfWritten) {
      WriteFile(file, "half");
    }
    EXPECT_EQ(Tool({"init"}).exit_status, 0);
    for (const std::string& file : kHalfWritten) {
      EXPECT_TRUE(fs::exists(file)) << file << ", " << lock;
    }
  }
}

TEST_F(VolumeCommandTest, ShowNamesTheChosenOneAndTheOthers) {
  WriteFile("/volume2/.no-services", "");
  const CommandResult result = Tool({"volume", "show"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.out, HasSubstr("chosen: /volume1\n"));
  EXPECT_THAT(result.out, HasSubstr("/volume1  suitable  "));
  EXPECT_THAT(result.out, HasSubstr("/volume2  not suitable  "));
}

TEST_F(VolumeCommandTest, MountedVolumeIsChosenWhenThereIsNone) {
  WithoutAVolume();
  const CommandResult result = Tool({"volume", "mounted", "/volume2/"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "volume: /volume2 (was none)\n");
  EXPECT_TRUE(fs::is_directory("/volume2/@database/autoupdate"));
  EXPECT_EQ(Tool({"volume", "mounted", "/volume1"}).out, "volume: /volume2\n");
}

TEST_F(VolumeCommandTest, DatabasesMoveWhenTheirVolumeGoesAway) {
  InstallFirst();
  const CommandResult result = Tool({"volume", "unmounting", "/volume1"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "volume: /volume2 (was /volume1)\n");
  EXPECT_EQ(ReadTree("/volume2/@database/autoupdate/oui"), first_);
  EXPECT_FALSE(fs::exists(kVolumePrefix));
  publisher_.Offer("oui", 2, {2});
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ReadTree("/volume2/@database/autoupdate/oui"), second_);
}

TEST_F(VolumeCommandTest, DatabasesThatStayedBehindAreInstalledOnTheNewlyChosenVolume) {
  const std::map<std::string, std::string> databases = {
      {"geo", kOnRootFs}, {"oui", kOnVolume}, {"tz", kOnVolume}};
  ConfigureDevice(publisher_, databases);
  for (const char* name : {"geo", "tz"}) {
    publisher_.PackFull(name, 1, {{"f", name}});
    publisher_.Offer(name, 1);
  }
  ASSERT_EQ(Tool({"update", "--all"}).exit_status, 0);
  WriteFile("/usr/tolm/etc/volumes.conf", "/volume2\n");
  EXPECT_EQ(Tool({"update", "--all"}).exit_status, 12) << "/volume1 is no volume any more";
  ConfigureDevice(publisher_, databases, "");
  ASSERT_EQ(Tool({"init"}).out, "volume: /volume2\n");
  EXPECT_EQ(Tool({"verify"}).exit_status, 11);
  const CommandResult update = Tool({"update", "--all"});
  EXPECT_EQ(update.exit_status, 0) << update.err;
  EXPECT_EQ(WithoutAge(update.out), "geo: up to date\noui: repaired with 1\ntz: repaired with 1\n");
  EXPECT_EQ(ReadTree("/volume2/@database/autoupdate/oui"), first_);
  EXPECT_EQ(ReadTree("/volume2/@database/autoupdate/tz"), (Tree{{"f", "tz"}}));
  EXPECT_EQ(Tool({"verify"}).exit_status, 0);
}

TEST_F(VolumeCommandTest, OtherVolumeGoingAwayIsOfNoInterest) {
  InstallFirst();
  EXPECT_EQ(Tool({"volume", "unmounting", "/volume2"}).out, "volume: /volume1\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
}

TEST_F(VolumeCommandTest, WithoutAnotherVolumeUpdatesStop) {
  InstallFirst();
  WriteFile("/usr/tolm/etc/volumes.conf", "/volume1\n");
  const CommandResult result = Tool({"volume", "unmounting", "/volume1"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "volume: none (was /volume1)\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 12);
  EXPECT_EQ(Tool({"volume", "mounted", "/volume1"}).out, "volume: /volume1 (was none)\n");
}

TEST_F(VolumeCommandTest, OccupiedTargetKeepsTheDatabasesWhereTheyAre) {
  InstallFirst();
  WriteFile("/volume2/@database/autoupdate/other", "");
  const CommandResult result = Tool({"volume", "unmounting", "/volume1"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err,
            "tolmdbud: databases stayed in /volume1/@database/autoupdate, see the system log\n");
  EXPECT_EQ(ChosenVolume(), "chosen: none");
  EXPECT_EQ(ReadTree(prefix_), first_);
}

TEST_F(VolumeCommandTest, MoveThatFailsIsReported) {
  InstallFirst();
  const ScopedMount small = ScopedMount::Tmpfs("/volume2", 16 << 10);
  WriteFile(prefix_ / "big", std::string(1 << 20, 'x'));
  const CommandResult result = Tool({"volume", "unmounting", "/volume1"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("databases stayed in /volume1/@database/autoupdate"));
}

TEST_F(VolumeCommandTest, VolumeIsNotMovedUnderARunningOperation) {
  publisher_.Server().Hang("/packages/oui_v1", ReadFile(publisher_.FullPackage("oui", 1)));
  RunningCommand update({kTool, "update", "oui"});
  ASSERT_TRUE(publisher_.Server().WaitForRequest("/packages/oui_v1"));
  const OpeningWatch watch(kOperatorLock);
  RunningCommand unmounting({kTool, "volume", "unmounting", "/volume1"});
  ASSERT_TRUE(watch.Wait());
  publisher_.Server().Release();
  EXPECT_EQ(update.Wait().exit_status, 0);
  EXPECT_EQ(unmounting.Wait().out, "volume: /volume2 (was /volume1)\n");
  EXPECT_EQ(ReadTree("/volume2/@database/autoupdate/oui"), first_);
}

TEST_F(VolumeCommandTest, WrongUsageExitsWithTwo) {
  const std::vector<std::vector<std::string>> wrong = {{"volume"},
                                                       {"volume", "unknown"},
                                                       {"volume", "mounted"},
                                                       {"volume", "unmounting"},
                                                       {"volume", "mounted", "/a", "/b"},
                                                       {"volume", "show", "/a"},
                                                       {"volume", "mounted", "volume1"},
                                                       {"init", "extra"}};
  for (const auto& arguments : wrong) {
    EXPECT_EQ(Tool(arguments).exit_status, 2) << ::testing::PrintToString(arguments);
  }
}

using ForceInstallCommandTest = DeviceTest;

TEST_F(ForceInstallCommandTest, NewestByDefault) {
  const CommandResult result = Tool({"force-install", "oui"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "oui: force-installed 1\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
  ExpectNothingLeft();
}

TEST_F(ForceInstallCommandTest, RelativeAndAbsoluteVersions) {
  // Texts that occur nowhere else in the link, as every occurrence is replaced.
  publisher_.PackFull("oui", 1000001, first_);
  publisher_.PackFull("oui", 1000002, second_);
  publisher_.Offer("oui", 1000002);
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(Tool({"force-install", "oui", "--version", "-1"}).out,
            "oui: force-installed 1000001\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_EQ(InstalledVersion("oui"), "1000001");
  EXPECT_EQ(Tool({"force-install", "oui", "--version=1000002"}).out,
            "oui: force-installed 1000002\n");
  Tree both = first_;  // What the package lacks stays.
  both["a.txt"] = "two";
  EXPECT_EQ(ReadTree(prefix_), both);
}

TEST_F(ForceInstallCommandTest, VersionThatIsNotOnTheServerIsAFailedDownload) {
  publisher_.PackFull("oui", 1000001, first_);
  publisher_.Offer("oui", 1000001);
  InstallFirst();
  const CommandResult result = Tool({"force-install", "oui", "--version", "1000007"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: oui: 404 Not Found from " +
                            publisher_.Server().Url("/packages/oui_v1000007") +
                            "; tolmdbud check --refresh asks what is offered now\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
  ExpectNothingLeft();
}

TEST_F(ForceInstallCommandTest, UnknownDatabaseIsRefused) {
  const CommandResult result = Tool({"force-install", "../oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: ../oui: there is no such database; configured: oui\n");
}

TEST_F(ForceInstallCommandTest, WithoutAVolumeNothingIsDone) {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}}, "");
  const CommandResult result = Tool({"force-install", "oui"});
  EXPECT_EQ(result.exit_status, 12);
  EXPECT_EQ(result.err,
            "tolmdbud: oui: no volume is chosen, nothing was done; \"tolmdbud volume show\" says "
            "what there is\n");
}

TEST_F(ForceInstallCommandTest, WrongUsageExitsWithTwo) {
  EXPECT_EQ(Tool({"force-install"}).exit_status, 2);
  EXPECT_EQ(Tool({"force-install", "oui", "--version", "new"}).exit_status, 2);
  EXPECT_EQ(Tool({"force-install", "oui", "geo"}).exit_status, 2);
}

}  // namespace
}  // namespace tolm::testing

// What the installed tool does about operations that were cut short.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>

#include <filesystem>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/mounts.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;

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

}  // namespace
}  // namespace tolm::testing

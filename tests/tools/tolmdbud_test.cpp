// The installed tool, as an operator runs it: real packages, real downloads, real locks.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/statvfs.h>

#include <filesystem>
#include <fstream>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/mounts.h"
#include "tests/support/publisher.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string Random(std::size_t size) {
  std::ifstream in("/dev/urandom", std::ios::binary);
  std::string bytes(size, '\0');
  in.read(bytes.data(), static_cast<std::streamsize>(size));
  return bytes;
}

using TolmdbudTest = DeviceTest;

TEST_F(TolmdbudTest, ListNamesTheDatabasesSorted) {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}, {"geo", kOnRootFs}});
  const CommandResult result = Tool({"list"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "geo\noui\n");
}

TEST_F(TolmdbudTest, StatusShowsInstalledAndOffered) {
  InstallFirst();
  publisher_.Offer("oui", 2, {2});
  const CommandResult result = Tool({"status", "oui"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.out, AllOf(HasSubstr("installed  1\n"), HasSubstr("offered    2\n"),
                                HasSubstr("state      update offered\n"),
                                HasSubstr("directory  /volume1/@database/autoupdate/oui\n")));
}

TEST_F(TolmdbudTest, FirstUpdateInstallsInFull) {
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "oui: updated to 1\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_EQ(InstalledVersion("oui"), "1");
  ExpectNothingLeft();
}

TEST_F(TolmdbudTest, LaterUpdateTakesTheDelta) {
  InstallFirst();
  publisher_.Offer("oui", 2, {2});
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(ReadTree(prefix_), second_);
  EXPECT_EQ(publisher_.Server().RequestCount("/packages/oui_v2"), 0u);
  EXPECT_EQ(publisher_.Server().RequestCount("/packages/oui_d2"), 1u);
  ExpectNothingLeft();
}

TEST_F(TolmdbudTest, BrokenDeltaFallsBackToTheFullPackage) {
  InstallFirst();
  publisher_.PackDelta("oui", 2, R"({"/a.txt": {"operation": "rename"}})", {});
  publisher_.Offer("oui", 2, {2});
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ReadTree(prefix_), second_);
  EXPECT_EQ(publisher_.Server().RequestCount("/packages/oui_v2"), 1u);
  ExpectNothingLeft();
}

TEST_F(TolmdbudTest, UpToDateDatabaseIsLeftAlone) {
  InstallFirst();
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(WithoutAge(result.out), "oui: up to date\n");
  EXPECT_EQ(publisher_.Server().RequestCount("/packages/oui_v1"), 1u);
}

TEST_F(TolmdbudTest, FixRepairsADamagedFile) {
  InstallFirst();
  WriteFile(prefix_ / "a.txt", "damaged");
  const CommandResult result = Tool({"fix", "oui"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "oui: repaired with 1\n");
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_EQ(Tool({"fix", "oui"}).out, "oui: intact\n");
}

TEST_F(TolmdbudTest, DatabaseOnTheRootFileSystemIsUpdatedFromAnotherVolume) {
  ConfigureDevice(publisher_, {{"oui", kOnRootFs}});
  struct statvfs volume;
  struct statvfs root;
  ASSERT_EQ(statvfs("/volume1", &volume), 0);
  fs::create_directories("/var/db");
  ASSERT_EQ(statvfs("/var/db", &root), 0);
  ASSERT_NE(volume.f_fsid, root.f_fsid);

  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ReadTree("/var/db/oui"), first_);
  publisher_.Offer("oui", 2, {2});
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ReadTree("/var/db/oui"), second_);
  EXPECT_EQ(publisher_.Server().RequestCount("/packages/oui_v2"), 0u);
}

TEST_F(TolmdbudTest, AllStopsAtTheFirstFailure) {
  ConfigureDevice(publisher_, {{"a", kOnVolume}, {"oui", kOnVolume}, {"z", kOnVolume}});
  publisher_.PackFull("a", 1, {{"f", "a"}});
  publisher_.Offer("a", 1);
  fs::remove(publisher_.FullPackage("oui", 1));
  const CommandResult result = Tool({"update", "--all"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, "a: updated to 1\n");
  EXPECT_EQ(result.err, "tolmdbud: oui 1: 404 Not Found from " +
                            publisher_.Server().Url("/packages/oui_v1") +
                            "; tolmdbud check --refresh asks what is offered now\n");
  EXPECT_EQ(InstalledVersion("a"), "1");
}

TEST_F(TolmdbudTest, NamedDatabasesAreTriedAfterAFailure) {
  const CommandResult result = Tool({"update", "unknown", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: unknown: there is no such database; configured: oui\n");
  EXPECT_EQ(result.out, "oui: updated to 1\n");
}

TEST_F(TolmdbudTest, WithoutAVolumeNothingIsDoneAndThatIsAFailure) {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}}, "");
  for (const char* what : {"oui", "--all"}) {
    const CommandResult result = Tool({"update", what});
    EXPECT_EQ(result.exit_status, 12) << what;
    EXPECT_THAT(result.err, HasSubstr("no volume is chosen")) << what;
  }
}

TEST_F(TolmdbudTest, NothingIsWrittenBelowTheMountPointOfAVolumeThatIsNotMounted) {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}}, "/volume9");
  fs::create_directory("/volume9");
  for (const char* command : {"update", "fix", "force-install"}) {
    const CommandResult result = Tool({command, "oui"});
    EXPECT_EQ(result.exit_status, 12) << command;
    EXPECT_EQ(result.err, "tolmdbud: oui: /volume9 is chosen but not mounted; nothing was done\n");
    EXPECT_TRUE(fs::is_empty("/volume9")) << command;
  }
}

TEST_F(TolmdbudTest, RecordedVersionThatIsNoNumberIsNamed) {
  InstallFirst();
  WriteFile(version_file_, R"({"data_version": "abc", "last_fetch_time": 0})");
  const CommandResult result = Tool({"status"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: oui: the version recorded in version.json is no number\n");
}

TEST_F(TolmdbudTest, OfferedVersionThatIsNoNumberIsNamed) {
  HttpAnswer answer;
  answer.body =
      R"({"deprecated": false, "db_list": {"oui": {"data_version": "abc", "last_fetch_time": 0,
    "download_link": "http://localhost/"}}})";
  publisher_.Server().SetAnswer("/database_info/1", answer);
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err,
              StartsWith("tolmdbud: oui: the description from " + publisher_.Server().Url("") +
                         " is damaged: the version that the server offers is no number;"));
}

TEST_F(TolmdbudTest, MissingConfigurationIsNamed) {
  fs::remove("/usr/share/data_update/databases.conf");
  const CommandResult result = Tool({"list"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err,
            "tolmdbud: not configured: /usr/share/data_update/databases.conf is missing; see "
            "tolmdbpub install-config\n");
}

TEST_F(TolmdbudTest, WrongUsageExitsWithTwo) {
  const std::vector<std::vector<std::string>> wrong = {
      {}, {"update"}, {"fix"}, {"update", "--all", "oui"}, {"unknown"}, {"list", "extra"}};
  for (const auto& arguments : wrong) {
    const CommandResult result = Tool(arguments);
    EXPECT_EQ(result.exit_status, 2) << ::testing::PrintToString(arguments);
    EXPECT_NE(result.err, "") << ::testing::PrintToString(arguments);
  }
  EXPECT_EQ(Tool({"--help"}).exit_status, 0);
}

TEST_F(TolmdbudTest, CacheIsFreshAfterADownloadWhateverTheServersDate) {
  HttpAnswer answer;
  answer.body = R"({"deprecated": false, "db_list": {"oui": {"data_version": "1",
    "last_fetch_time": 0, "download_link": ")" +
                publisher_.Server().Url("/packages/oui_v1") + R"("}}})";
  answer.headers = {{"Last-Modified", "Thu, 01 Jan 2015 00:00:00 GMT"}};
  publisher_.Server().SetAnswer("/database_info/1", answer);
  ASSERT_EQ(Tool({"status"}).exit_status, 0);
  ASSERT_EQ(Tool({"status"}).exit_status, 0);
  EXPECT_EQ(publisher_.Server().RequestCount("/database_info/1"), 1u);
}

TEST_F(TolmdbudTest, DescriptionThatIsMissingForAMomentIsAskedForOnceMore) {
  HttpAnswer none;
  none.status = 404;
  publisher_.Server().SetHandler("/database_info/1", [this, none](const HttpRequest&) {
    publisher_.Offer("oui", 1);
    return none;
  });
  const CommandResult result = Tool({"update", "--all", "--scheduled", "--verbose"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("oui: updated to 1\n"));
  EXPECT_THAT(result.err, HasSubstr("asked for once more"));
  EXPECT_EQ(publisher_.Server().RequestCount("/database_info/1"), 2u);
  EXPECT_EQ(WithoutAge(Tool({"update", "--all", "--scheduled"}).out), "oui: up to date\n")
      << "the server is not left alone";
}

TEST_F(TolmdbudTest, DescriptionIsAskedForTwiceAtMostAndOnceWhereTheServerHasTrouble) {
  std::size_t asked = 0;
  for (const auto& [status, requests] :
       std::vector<std::pair<int, std::size_t>>{{404, 2}, {403, 1}, {500, 1}, {503, 1}}) {
    HttpAnswer failure;
    failure.status = status;
    publisher_.Server().SetAnswer("/database_info/1", failure);
    EXPECT_EQ(Tool({"update", "oui"}).exit_status, 1);
    EXPECT_EQ(publisher_.Server().RequestCount("/database_info/1"), asked + requests) << status;
    asked += requests;
  }
}

TEST_F(TolmdbudTest, KilledWhileTheDownloadHangsItLeavesTheLocksFree) {
  publisher_.Server().Hang("/packages/oui_v1");
  RunningCommand update({kTool, "update", "oui"});
  ASSERT_TRUE(publisher_.Server().WaitForRequest("/packages/oui_v1"));
  EXPECT_FALSE(IsFree("/run/data_update/update_any.lock"));
  EXPECT_FALSE(IsFree("/run/data_update/update_oui.lock"));
  update.Process().Signal(SIGKILL);
  EXPECT_EQ(update.Process().Wait(), 128 + SIGKILL);
  // wget still runs and hangs; it holds nothing.
  EXPECT_TRUE(IsFree("/run/data_update/update_any.lock"));
  EXPECT_TRUE(IsFree("/run/data_update/update_oui.lock"));
}

TEST_F(TolmdbudTest, InterruptedDownloadEndsThroughTheErrorPath) {
  publisher_.Server().Hang("/packages/oui_v1");
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const std::size_t seen = publisher_.Server().RequestCount("/packages/oui_v1");
    RunningCommand update({kTool, "update", "oui"});
    ASSERT_TRUE(publisher_.Server().WaitForRequest("/packages/oui_v1", seen + 1));
    EXPECT_TRUE(fs::exists("/volume1/@tmp/data_update"));
    update.Process().Signal(signal);
    const CommandResult result = update.Wait();
    EXPECT_EQ(result.exit_status, 128 + signal);
    EXPECT_THAT(result.err, HasSubstr("interrupted"));
    ExpectNothingLeft();
  }
}

TEST_F(TolmdbudTest, InstallerWaitsForAReader) {
  InstallFirst();
  publisher_.Offer("oui", 2, {2});
  UniqueDescriptor reader(open("/run/data_update/using_oui.lock", O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(reader.Get(), LOCK_SH | LOCK_NB), 0);
  RunningCommand update({kTool, "update", "oui"});
  // The plan is complete when the work copies are, and the installer then asks for the lock.
  ASSERT_TRUE(publisher_.Server().WaitForRequest("/packages/oui_d2"));
  ASSERT_TRUE(WaitUntil([] { return !fs::exists("/volume1/@tmp/data_update/oui_delta_2"); }));
  EXPECT_TRUE(update.Process().IsRunning());
  EXPECT_EQ(ReadTree(prefix_), first_);
  reader = UniqueDescriptor();
  EXPECT_EQ(update.Wait().exit_status, 0);
  EXPECT_EQ(ReadTree(prefix_), second_);
}

TEST_F(TolmdbudTest, PackageOfAForeignSignerIsRefused) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  const fs::path other = "/tmp/other";
  ASSERT_EQ(RunCommand({"/usr/bin/tolmdbpub", "keygen", other, "--no-passphrase"}).exit_status, 0);
  MakeTree("/tmp/evil", {{"a.txt", "evil"}});
  fs::remove(publisher_.FullPackage("oui", 2));
  ASSERT_EQ(RunCommand({"/usr/bin/tolmdbpub", "pack", "/tmp/evil", publisher_.FullPackage("oui", 2),
                        "--name", "oui", "--kind", "full", "--version", "2", "--key",
                        other / "signing.key", "--cert", other / "signing.pem"})
                .exit_status,
            0);
  ExpectRefusedUpdate(HasSubstr("tolmarchive_open /volume1/@tmp/data_update/oui_v2 failed, ret: "));
}

TEST_F(TolmdbudTest, OldPackageServedAsANewOneIsRefused) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  fs::copy_file(publisher_.FullPackage("oui", 1), publisher_.FullPackage("oui", 2),
                fs::copy_options::overwrite_existing);
  ExpectRefusedUpdate(HasSubstr("tolmarchive_open"));
}

TEST_F(TolmdbudTest, DamagedPackagesAreRefused) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  const std::string good = ReadFile(publisher_.FullPackage("oui", 2));
  std::string flipped = good;
  flipped[flipped.size() / 3] = static_cast<char>(flipped[flipped.size() / 3] ^ 1);
  const std::map<std::string, std::string> damaged = {
      {"FlippedByte", flipped},
      {"Truncated", good.substr(0, good.size() / 2)},
      {"Empty", ""},
      {"Html", "<html>not found</html>"}};
  for (const auto& [name, content] : damaged) {
    SCOPED_TRACE(name);
    WriteFile(publisher_.FullPackage("oui", 2), content);
    ExpectRefusedUpdate(HasSubstr("tolmarchive_open"));
  }
}

class FullVolumeTest : public TolmdbudTest {
 protected:
  // The volume holds the package and about half of what is in it.
  static constexpr std::uint64_t kVolumeBytes = 6 << 20;
  static constexpr std::size_t kFileBytes = 4 << 20;
};

TEST_F(FullVolumeTest, VolumeThatFillsUpWhileUnpackingFailsTheUpdate) {
  InstallFirst();
  publisher_.PackFull("oui", 2, {{"big", Random(kFileBytes)}});
  publisher_.Offer("oui", 2);
  const ScopedMount small = ScopedMount::Tmpfs("/volume1/@tmp", kVolumeBytes);
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("oui 2: no room on /volume1/@tmp: "));
  EXPECT_THAT(LastMessage(), HasSubstr("tolmarchive_extract /volume1/@tmp/data_update/oui_v2 "));
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_EQ(InstalledVersion("oui"), "1");
  EXPECT_TRUE(fs::is_empty("/volume1/@tmp"));
}

TEST_F(FullVolumeTest, VolumeTooSmallForTheDownloadFailsTheUpdate) {
  InstallFirst();
  publisher_.PackFull("oui", 2, {{"big", Random(kFileBytes)}});
  publisher_.Offer("oui", 2);
  const ScopedMount small = ScopedMount::Tmpfs("/volume1/@tmp", kFileBytes / 2);
  ExpectRefusedUpdate(HasSubstr("Fail to wget url"));
}

TEST_F(FullVolumeTest, TargetThatFillsUpWhileCopyingIsReportedAndRepairedLater) {
  InstallFirst();
  publisher_.PackFull("oui", 2, {{"big", Random(kFileBytes)}});
  publisher_.Offer("oui", 2);
  {
    // The space rule looks at the volume; the install directory is a smaller file system of its
    // own.
    const ScopedMount small = ScopedMount::Tmpfs(prefix_, kFileBytes / 2);
    const CommandResult result = Tool({"update", "oui"});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.err,
                AllOf(HasSubstr("Fail to full update: "), HasSubstr("No space left on device")));
    EXPECT_EQ(InstalledVersion("oui"), "1");
  }
  EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ListTree(prefix_), std::vector<std::string>{"big"});
  EXPECT_EQ(InstalledVersion("oui"), "2");
}

TEST_F(FullVolumeTest, SpaceRuleRefusesBeforeAnythingIsInstalled) {
  // Room for the package, the unpacked file and the installed file, but not for five per cent more.
  const ScopedMount small = ScopedMount::Tmpfs("/volume1", 3 * kFileBytes + kFileBytes / 8);
  publisher_.PackFull("oui", 1, {{"big", Random(kFileBytes)}});
  publisher_.Offer("oui", 1);
  const CommandResult result = Tool({"update", "oui"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, StartsWith("tolmdbud: oui: no room on /volume1: more is needed than "));
  EXPECT_EQ(LastMessage(), "Disk space is too low");
  EXPECT_EQ(InstalledVersion("oui"), "");
  EXPECT_EQ(ListTree(prefix_), std::vector<std::string>{});
  ExpectNothingLeft();
}

}  // namespace
}  // namespace tolm::testing

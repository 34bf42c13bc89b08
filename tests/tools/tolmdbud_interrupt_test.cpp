// The installed tool, ended by a signal: what it has not installed yet leaves nothing behind, what
// it has begun to install is finished.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/package/payload_builder.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/noise.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr int kInterrupted = 128 + SIGINT;
const fs::path kPlugins = "/usr/tolm/lib/plugins/database_autoupdate/version_change";
const fs::path kTemporary = "/volume1/@tmp/data_update";

std::uint64_t SizeOf(const fs::path& file) {
  std::error_code missing;
  const std::uint64_t size = fs::file_size(file, missing);
  return missing ? 0 : size;
}

class TolmdbudInterruptTest : public DeviceTest {
 protected:
  HttpServer& Server() { return publisher_.Server(); }

  // Runs the tool until it has asked for a path that hangs, and then ends it by the signal.
  CommandResult SignalAtRequest(const std::string& path, const std::vector<std::string>& arguments,
                                int signal = SIGINT) {
    std::vector<std::string> command = {kTool};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const std::size_t seen = Server().RequestCount(path);
    RunningCommand running(command);
    EXPECT_TRUE(Server().WaitForRequest(path, seen + 1));
    running.Process().Signal(signal);
    return running.Wait();
  }

  static void AddPlugin(const std::string& script) {
    WriteFile(kPlugins / "plugin", "#!/bin/sh\n" + script);
    fs::permissions(kPlugins / "plugin", fs::perms::owner_all);
  }

  // The person's next try, with an honest server.
  void ExpectNextRunToInstall(const Tree& files, const std::string& version) {
    const CommandResult result = Tool({"update", "oui"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(ReadTree(prefix_), files);
    EXPECT_EQ(InstalledVersion("oui"), version);
  }
};

TEST_F(TolmdbudInterruptTest, TransferInterruptedAtTenMomentsLeavesNothing) {
  constexpr std::uint64_t kBytes = 1 << 20;
  constexpr std::uint64_t kMoments = 10;
  const Tree large = {{"large", Noise(kBytes)}};
  InstallFirst();
  publisher_.PackFull("oui", 2, large);
  publisher_.Offer("oui", 2);
  for (std::uint64_t moment = 0; moment < kMoments; ++moment) {
    SCOPED_TRACE(moment);
    HttpAnswer slow;
    slow.body_file = publisher_.FullPackage("oui", 2);
    slow.pause_at = moment * kBytes / kMoments;
    Server().SetAnswer("/packages/oui_v2", slow);
    const std::size_t seen = Server().RequestCount("/packages/oui_v2");
    RunningCommand update({kTool, "update", "oui"});
    ASSERT_TRUE(Server().WaitForRequest("/packages/oui_v2", seen + 1));
    ASSERT_TRUE(WaitUntil([&] { return SizeOf(kTemporary / "oui_v2") == *slow.pause_at; }));
    update.Process().Signal(SIGINT);
    const CommandResult result = update.Wait();
    EXPECT_EQ(result.exit_status, kInterrupted);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "tolmdbud: oui: interrupted\n");
    EXPECT_EQ(ReadTree(prefix_), first_);
    EXPECT_EQ(InstalledVersion("oui"), "1");
    ExpectNothingLeft();
  }
  Server().Reset("/packages/oui_v2");
  ExpectNextRunToInstall(large, "2");
}

TEST_F(TolmdbudInterruptTest, InterruptedDescriptionIsAskedForAgain) {
  Server().Hang("/database_info/1");
  EXPECT_EQ(SignalAtRequest("/database_info/1", {"update", "oui"}).exit_status, kInterrupted);
  ExpectNothingLeft();
  EXPECT_FALSE(fs::exists("/var/cache/data_update/database_info.json"));
  publisher_.Offer("oui", 1);
  ExpectNextRunToInstall(first_, "1");
}

TEST_F(TolmdbudInterruptTest, PauseBeforeTheDescriptionIsAskedForAgainIsEnded) {
  HttpAnswer none;
  none.status = 404;
  Server().SetAnswer("/database_info/1", none);
  RunningCommand update({kTool, "update", "oui", "--verbose"});
  ASSERT_TRUE(WaitUntil([&] { return update.Err().find("once more") != std::string::npos; }));
  update.Process().Signal(SIGINT);
  EXPECT_EQ(update.Wait().exit_status, kInterrupted);
  EXPECT_EQ(Server().RequestCount("/database_info/1"), 1u);
}

TEST_F(TolmdbudInterruptTest, InterruptedDeltaIsNotFollowedByTheFullPackage) {
  InstallFirst();
  publisher_.Offer("oui", 2, {2});
  Server().Hang("/packages/oui_d2");
  EXPECT_EQ(SignalAtRequest("/packages/oui_d2", {"update", "oui"}).exit_status, kInterrupted);
  EXPECT_EQ(Server().RequestCount("/packages/oui_v2"), 0u);
  EXPECT_EQ(ReadTree(prefix_), first_);
  ExpectNothingLeft();
  Server().Reset("/packages/oui_d2");
  ExpectNextRunToInstall(second_, "2");
}

TEST_F(TolmdbudInterruptTest, EndOfTheServiceIsAnInterruptionToo) {
  Server().Hang("/packages/oui_v1");
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"update", "--all", "--scheduled"}, {"fix", "oui"}, {"force-install", "oui"}}) {
    SCOPED_TRACE(arguments.front());
    const CommandResult result = SignalAtRequest("/packages/oui_v1", arguments, SIGTERM);
    EXPECT_EQ(result.exit_status, 128 + SIGTERM);
    EXPECT_EQ(result.err, "tolmdbud: oui: interrupted\n");
    ExpectNothingLeft();
    EXPECT_FALSE(fs::exists(version_file_));
  }
}

TEST_F(TolmdbudInterruptTest, InstallationThatHasBegunIsFinishedWithItsHooks) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  AddPlugin("echo $ACTION >> /tmp/actions\n[ $ACTION = post ] || read line < /tmp/gate\n");
  ASSERT_EQ(mkfifo("/tmp/gate", 0600), 0);
  RunningCommand update({kTool, "update", "oui"});
  ASSERT_TRUE(WaitUntil([] { return SizeOf("/tmp/actions") != 0; }));
  update.Process().Signal(SIGINT);
  WriteFile("/tmp/gate", "go on\n");
  const CommandResult result = update.Wait();
  EXPECT_EQ(result.exit_status, kInterrupted);
  EXPECT_EQ(result.out, "oui: updated to 2\n");
  EXPECT_EQ(result.err, "tolmdbud: interrupted\n");
  EXPECT_EQ(ReadFile("/tmp/actions"), "pre\npost\n");
  EXPECT_EQ(ReadTree(prefix_), second_);
  EXPECT_EQ(InstalledVersion("oui"), "2");
  ExpectNothingLeft();
}

struct Wait {
  std::string name;
  std::string lock;
  std::vector<std::string> command;
  int signal = SIGINT;
  std::string says = "tolmdbud: oui: interrupted\n";
};

class InterruptedWaitTest : public TolmdbudInterruptTest,
                            public ::testing::WithParamInterface<Wait> {};

TEST_P(InterruptedWaitTest, EndsAndLeavesNothing) {
  constexpr std::chrono::seconds kPatience(20);  // Locks are waited for ten minutes.
  InstallFirst();
  publisher_.Offer("oui", 2);
  const Tree before = ReadTree(prefix_);
  {
    const UniqueDescriptor held(
        open(GetParam().lock.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(held.Get(), LOCK_EX | LOCK_NB), 0);
    std::vector<std::string> command = {kTool};
    command.insert(command.end(), GetParam().command.begin(), GetParam().command.end());
    RunningCommand running(command);
    // The locks of readers are opened, for a moment, before anything is downloaded.
    const bool is_for_readers = GetParam().name.rfind("Readers", 0) == 0;
    ASSERT_TRUE(!is_for_readers || Server().WaitForRequest("/packages/oui_v2", 1, kPatience));
    ASSERT_TRUE(
        WaitUntil([&] { return HasOpen(running.Process().Pid(), GetParam().lock); }, kPatience));
    running.Process().Signal(GetParam().signal);
    const bool ended = WaitUntil([&] { return !running.Process().IsRunning(); }, kPatience);
    EXPECT_TRUE(ended);
    if (!ended) {
      running.Process().Signal(SIGKILL);
    }
    const CommandResult result = running.Wait();
    EXPECT_EQ(result.exit_status, 128 + GetParam().signal);
    EXPECT_EQ(result.err, GetParam().says);
  }
  EXPECT_EQ(ReadTree(prefix_), before);
  ExpectNothingLeft();
  EXPECT_TRUE(IsFree("/run/data_update/using_oui.lock"));
  const CommandResult next = Tool({"update", "oui"});
  EXPECT_EQ(next.out, "oui: updated to 2\n");
  EXPECT_EQ(next.err, "");
}

const std::string kLocks = "/run/data_update/";
const Wait kWaits[] = {
    {"AnyByUpdate", kLocks + "update_any.lock", {"update", "oui"}},
    {"AnyByFix", kLocks + "update_any.lock", {"fix", "oui"}, SIGTERM},
    {"AnyByForceInstall", kLocks + "update_any.lock", {"force-install", "oui"}},
    {"DatabaseByUpdate", kLocks + "update_oui.lock", {"update", "oui"}},
    {"DescriptionByUpdate", kLocks + "fresh_info.lock", {"update", "oui"}},
    {"ReadersByUpdate", kLocks + "using_oui.lock", {"update", "oui"}},
    {"ReadersByForceInstall", kLocks + "using_oui.lock", {"force-install", "oui"}, SIGTERM},
    {"InstallerByAReader", kLocks + "using_oui.lock", {"lock", "oui", "--", "true"}, SIGINT, ""},
};
INSTANTIATE_TEST_SUITE_P(Rows, InterruptedWaitTest, ::testing::ValuesIn(kWaits),
                         [](const auto& row) { return row.param.name; });

// Whether anything is there of a member's content, which is prepared aside.
bool IsUnpacking(const fs::path& directory) {
  std::error_code gone;
  for (fs::recursive_directory_iterator at(directory, gone), end; !gone && at != end;
       at.increment(gone)) {
    if (SizeOf(at->path()) != 0 && !fs::is_directory(at->path(), gone)) {
      return true;
    }
  }
  return false;
}

TEST_F(TolmdbudInterruptTest, UnpackingIsGivenUp) {
  // Slow to unpack, and soon packed.
  const std::string large(128 << 20, '\0');
  InstallFirst();
  PayloadBuilder payload(PayloadBuilder::Filter::kGzip);
  payload.Seal(R"({"name":"oui","kind":"full","version":2})");
  for (const char* name : {"1", "2", "3"}) {
    payload.File(name, large);
  }
  publisher_.PackPayload(payload.Finish(), publisher_.FullPackage("oui", 2));
  publisher_.Offer("oui", 2);
  RunningCommand update({kTool, "update", "oui", "-vv"});
  ASSERT_TRUE(WaitUntil([] { return IsUnpacking(kTemporary / "oui_full"); }));
  update.Process().Signal(SIGINT);
  const CommandResult result = update.Wait();
  EXPECT_EQ(result.exit_status, kInterrupted);
  EXPECT_THAT(result.err, HasSubstr("payload: Operation canceled (error 11)"));
  EXPECT_EQ(ReadTree(prefix_), first_);
  ExpectNothingLeft();
  publisher_.PackFull("oui", 2, second_);
  ExpectNextRunToInstall(second_, "2");
}

TEST_F(TolmdbudInterruptTest, NextDatabaseIsNotBegun) {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}, {"z", kOnVolume}});
  publisher_.PackFull("z", 1, {{"f", "z"}});
  publisher_.Offer("z", 1);
  Server().Hang("/packages/oui_v1");
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"update", "oui", "z"}, {"update", "--all"}, {"update", "--all", "--keep-going"}}) {
    const CommandResult result = SignalAtRequest("/packages/oui_v1", arguments);
    EXPECT_EQ(result.exit_status, kInterrupted);
    EXPECT_EQ(result.err, "tolmdbud: oui: interrupted\n");
    EXPECT_EQ(Server().RequestCount("/packages/z_v1"), 0u);
  }
}

TEST_F(TolmdbudInterruptTest, InterruptionIsInTheHistory) {
  Server().Hang("/packages/oui_v1");
  EXPECT_EQ(SignalAtRequest("/packages/oui_v1", {"update", "oui"}).exit_status, kInterrupted);
  EXPECT_THAT(ReadFile("/var/lib/data_update/history.jsonl"),
              HasSubstr(R"("outcome":"interrupted")"));
}

TEST_F(TolmdbudInterruptTest, PersonsInterruptionHoldsNoScheduledRunBack) {
  Server().Hang("/packages/oui_v1");
  EXPECT_EQ(SignalAtRequest("/packages/oui_v1", {"update", "oui"}).exit_status, kInterrupted);
  Server().Reset("/packages/oui_v1");
  EXPECT_EQ(Tool({"update", "--all", "--scheduled"}).out, "oui: updated to 1\n");
}

}  // namespace
}  // namespace tolm::testing

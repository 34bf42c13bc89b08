// The installed tool, ended by SIGKILL at every kind of step of every operation: the next one must
// end with exactly the right files whatever was left behind.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/operation/versioned_device.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/killed_run.h"
#include "tests/support/moments.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

constexpr char kRun[] = "/run/data_update";
constexpr int kKilled = 128 + SIGKILL;

std::vector<std::string> HeldLocks() {
  std::vector<std::string> held;
  for (const std::string& name : fs::exists(kRun) ? ListTree(kRun) : std::vector<std::string>()) {
    const fs::path file = fs::path(kRun) / name;
    if (!IsFree(file)) {
      held.push_back(file);
    }
  }
  return held;
}

// The numbers from 1 of the calls to be killed before: so many of them, evenly spread, with the
// first and the last one; and every one before which a child was started, which then runs on.
std::set<std::size_t> ChooseMoments(const std::vector<std::string>& calls, std::size_t count) {
  std::set<std::size_t> moments;
  for (std::size_t i = 0; i < count; ++i) {
    moments.insert(1 + i * (calls.size() - 1) / (count - 1));
  }
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].rfind("after posix_spawn", 0) == 0) {
      moments.insert(i + 1);
    }
  }
  return moments;
}

class KillTest : public VersionedDeviceTest {
 protected:
  // Enough files for as many moments; tiny ones would only take time.
  KillTest() : VersionedDeviceTest({10000, 10, 0}) {}

  void SetUp() override {
    AdoptOrphans();
    VersionedDeviceTest::SetUp();
  }

  void ExpectNewVersionAndNoLocks() {
    ExpectNewVersion();
    EXPECT_EQ(HeldLocks(), std::vector<std::string>{});
  }

  // What the killed one has started may go on meanwhile, and has ended when this returns.
  void ExpectRecoveryBy(const std::vector<std::vector<std::string>>& commands) {
    EXPECT_EQ(HeldLocks(), std::vector<std::string>{}) << "of a dead process";
    for (const std::vector<std::string>& command : commands) {
      const CommandResult result = Tool(command);
      EXPECT_EQ(result.exit_status, 0) << command.front() << ": " << result.err;
    }
    ExpectNewVersionAndNoLocks();
    WaitForOrphans();
    ExpectNewVersionAndNoLocks();
  }

  using Recovery = std::function<std::vector<std::vector<std::string>>(std::size_t moment)>;

  // Kills the command at many moments, each time from the state that is installed now.
  void KillEverywhere(const std::vector<std::string>& arguments, const Recovery& recovery) {
    std::vector<std::string> command = {kTool};
    command.insert(command.end(), arguments.begin(), arguments.end());
    Keep();
    Restore();
    const std::vector<std::string> calls = TraceFileChanges(command);
    ASSERT_GE(calls.size(), 100u);
    const std::set<std::size_t> moments = ChooseMoments(calls, Moments(kMoments, calls.size()));
    std::cout << calls.size() << " calls, killed at " << moments.size() << " of them\n";
    std::size_t row = 0;
    for (const std::size_t moment : moments) {
      SCOPED_TRACE("killed before call " + std::to_string(moment) + ": " + calls[moment - 1]);
      Restore();
      EXPECT_EQ(RunUntilFileChange(command, moment).exit_status, kKilled);
      ExpectRecoveryBy(recovery(row++));
    }
  }

  static constexpr std::size_t kMoments = 40;
};

TEST_F(KillTest, UpdateByDeltas) {
  Install(kOld);
  OfferNewByDeltas();
  KillEverywhere({"update", "oui"}, [](std::size_t) -> std::vector<std::vector<std::string>> {
    return {{"update", "oui"}};
  });
}

TEST_F(KillTest, UpdateInFull) {
  Install(kOld);
  OfferNewInFull();
  KillEverywhere({"update", "oui"}, [](std::size_t) -> std::vector<std::vector<std::string>> {
    return {{"update", "oui"}};
  });
}

TEST_F(KillTest, Fix) {
  Install(kNew);
  WriteFile(prefix_ / "a.bin", "damaged");
  fs::remove(prefix_ / "keep/3");
  KillEverywhere({"fix", "oui"}, [](std::size_t row) -> std::vector<std::vector<std::string>> {
    if (row % 2 == 0) {
      return {{"fix", "oui"}};
    }
    return {{"fix", "oui"}, {"update", "oui"}};
  });
}

TEST_F(KillTest, ForceInstall) {
  Install(kNew);
  // One that was killed when it was as good as done is no damage: it takes an update to go on.
  KillEverywhere({"force-install", "oui", "--version", std::to_string(kOther)},
                 [](std::size_t row) -> std::vector<std::vector<std::string>> {
                   if (row % 2 == 0) {
                     return {{"fix", "oui"}, {"update", "oui"}};
                   }
                   return {{"update", "oui"}};
                 });
}

class KilledUnpackingTest : public VersionedDeviceTest {
 protected:
  KilledUnpackingTest() : VersionedDeviceTest({2000, 1, 0}) {}

  void SetUp() override {
    AdoptOrphans();
    VersionedDeviceTest::SetUp();
    Install(kOld);
    old_ = ReadTree(prefix_);
    OfferNewInFull();
    Keep();
    Restore();
  }

  // Every name is a file's of one of the versions, with all of its content, or a temporary one.
  void ExpectWholeFiles() {
    for (const auto& [name, content] : ReadTree(prefix_)) {
      if (fs::path(name).filename().string().rfind(".tolmpkg-", 0) == 0) {
        continue;
      }
      const auto is_of = [&entry_name = name, &entry = content](const Tree& tree) {
        const auto found = tree.find(entry_name);
        return found != tree.end() && found->second == entry;
      };
      EXPECT_TRUE(is_of(old_) || is_of(new_)) << name << ", " << content.size() << " bytes";
    }
  }

  Tree old_;
};

TEST_F(KilledUnpackingTest, LeavesWholeFilesAtEveryCall) {
  const std::vector<std::string> command = {kTool, "force-install", "oui", "--version",
                                            std::to_string(kNew)};
  const std::vector<std::string> calls = TraceFileChanges(command);
  std::size_t killed = 0;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].find(' ' + prefix_.string() + '/') == std::string::npos) {
      continue;
    }
    SCOPED_TRACE("killed before call " + std::to_string(i + 1) + ": " + calls[i]);
    Restore();
    EXPECT_EQ(RunUntilFileChange(command, i + 1).exit_status, kKilled);
    ExpectWholeFiles();
    // What the dead one left is no obstacle.
    EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
    ExpectNewVersion();
    ++killed;
  }
  EXPECT_GE(killed, 20u);
}

// Into an empty directory, out of a payload that is read once.
class KilledUnpackingAtOnceTest : public VersionedDeviceTest {
 protected:
  KilledUnpackingAtOnceTest() : VersionedDeviceTest({2000, 1, 0}) {}

  void SetUp() override {
    AdoptOrphans();
    publisher_.SetCompression("xz");
    VersionedDeviceTest::SetUp();
    OfferNewInFull();
  }
};

TEST_F(KilledUnpackingAtOnceTest, LeavesNothingThatTheNextForcedInstallationCounts) {
  const std::vector<std::string> command = {kTool, "force-install", "oui", "--version",
                                            std::to_string(kNew)};
  Clear();
  const std::vector<std::string> calls = TraceFileChanges(command);
  std::size_t killed = 0;
  std::size_t left = 0;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].find(' ' + prefix_.string() + '/') == std::string::npos) {
      continue;
    }
    SCOPED_TRACE("killed before call " + std::to_string(i + 1) + ": " + calls[i]);
    Clear();
    EXPECT_EQ(RunUntilFileChange(command, i + 1).exit_status, kKilled);
    for (const std::string& name : ListTree(prefix_)) {
      left += name.rfind(".tolmpkg-", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(RunCommand(command).exit_status, 0);
    EXPECT_EQ(ReadTree(prefix_), new_);
    EXPECT_THAT(ReadFile("/var/lib/data_update/oui/installed.json"),
                ::testing::Not(::testing::HasSubstr("tolmpkg")));
    ++killed;
  }
  EXPECT_GE(killed, 20u);
  EXPECT_GE(left, 10u) << "it was not unpacked at once";
}

// What a power failure may not take back any more.
class VolumeChoiceTest : public VersionedDeviceTest {
 protected:
  static constexpr char kSettings[] = "/usr/tolm/etc/data_update/data_update.conf";

  void SetUp() override { ConfigureDevice(publisher_, {{"oui", kOnVolume}}); }

  static void ChooseNone() { WriteFile(kSettings, R"({"config": {"cur_volume": ""}})"); }

  // The calls after the last one that writes the settings.
  static std::vector<std::string> AfterTheChoice(const std::vector<std::string>& calls) {
    std::size_t after = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
      after = calls[i].find(kSettings) != std::string::npos && calls[i].find("fsync") != 0 ? i + 1
                                                                                           : after;
    }
    EXPECT_GT(after, 0u) << "nothing was chosen";
    return {calls.begin() + static_cast<std::ptrdiff_t>(after), calls.end()};
  }

  static void ExpectOnTheDisk(const std::vector<std::string>& calls, const std::string& volume) {
    EXPECT_THAT(AfterTheChoice(calls),
                ::testing::IsSupersetOf({"syncfs " + volume, std::string("fsync ") + kSettings,
                                         "fsync " + fs::path(kSettings).parent_path().string()}));
  }
};

TEST_F(VolumeChoiceTest, IsOnTheDiskWithWhatWasMoved) {
  ChooseNone();
  ExpectOnTheDisk(TraceFileChanges({kTool, "init"}), "/volume1");
  WriteFile(prefix_ / "file", "moved");
  ExpectOnTheDisk(TraceFileChanges({kTool, "volume", "unmounting", "/volume1"}), "/volume2");
}

TEST_F(VolumeChoiceTest, IsOnTheDiskAfterAMount) {
  ChooseNone();
  ExpectOnTheDisk(TraceFileChanges({kTool, "volume", "mounted", "/volume2"}), "/volume2");
}

// A child of the killed one that still runs during the next operation, and writes.
class OrphanTest : public KillTest {
 protected:
  void SetUp() override {
    KillTest::SetUp();
    Install(kOld);
    OfferNewByDeltas();
    Keep();
    ASSERT_EQ(mkfifo(kGate, 0600), 0);
  }

  static void KillUpdateWhen(const std::function<bool()>& reached) {
    RunningCommand update({kTool, "update", "oui"});
    ASSERT_TRUE(WaitUntil(reached));
    update.Process().Signal(SIGKILL);
    EXPECT_EQ(update.Process().Wait(), kKilled);
  }

  // The first answer stops half-way, for the killed update's download.
  void StallOnce(const std::string& path, const std::string& content) {
    HttpAnswer half;
    half.body = content.substr(0, content.size() / 2);
    half.stated_length = content.size();
    half.pause_at = half.body.size();
    HttpAnswer whole;
    whole.body = content;
    const auto first = std::make_shared<std::atomic<bool>>(true);
    publisher_.Server().SetHandler(
        path, [=](const HttpRequest&) { return first->exchange(false) ? half : whole; });
  }

  // Kills an update while it downloads `content` from `path` to `file`. The download goes on and is
  // tried again at the same time as the next update, or only after it.
  void KillWhileDownloading(const std::string& path, const std::string& content,
                            const fs::path& file) {
    for (const bool at_once : {false, true}) {
      SCOPED_TRACE(at_once ? "the download goes on at once" : "the download goes on later");
      Restore();
      StallOnce(path, content);
      const auto has_half = [&] {
        return fs::exists(file) && fs::file_size(file) == content.size() / 2;
      };
      KillUpdateWhen(has_half);
      if (at_once) {
        publisher_.Server().Release();
      }
      EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
      ExpectNewVersionAndNoLocks();
      publisher_.Server().Release();
      WaitForOrphans();
      ExpectNewVersionAndNoLocks();
    }
  }

  // A program that on its first run when `condition` holds waits for OpenGate(), and then does what
  // it is for.
  static void InstallWaitingProgram(const fs::path& path, const std::string& condition,
                                    const std::string& command) {
    fs::remove(path);
    WriteFile(path, "#!/bin/sh\nif " + condition +
                        " && [ ! -e /tmp/waits ]; then : >/tmp/waits; : </tmp/gate; fi\nexec " +
                        command + "\n");
    fs::permissions(path, fs::perms::owner_all);
  }
  static bool ProgramWaits() { return fs::exists("/tmp/waits"); }
  static void OpenGate() { EXPECT_TRUE(UniqueDescriptor(open(kGate, O_WRONLY | O_CLOEXEC))); }

  void KillWhileProgramWaits() {
    Restore();
    KillUpdateWhen(ProgramWaits);
    EXPECT_EQ(HeldLocks(), std::vector<std::string>{});
    EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
    ExpectNewVersionAndNoLocks();
    OpenGate();
    WaitForOrphans();
    ExpectNewVersionAndNoLocks();
  }

  static constexpr char kGate[] = "/tmp/gate";
};

TEST_F(OrphanTest, DownloadOfTheDescription) {
  fs::remove_all("/var/cache/data_update");
  ASSERT_EQ(Tool({"status"}).exit_status, 0);
  const std::string description = ReadFile("/var/cache/data_update/database_info.json");
  KillWhileDownloading("/database_info/1", description,
                       "/var/cache/data_update/database_info.json.new");
  EXPECT_EQ(ReadFile("/var/cache/data_update/database_info.json"), description);
}

TEST_F(OrphanTest, DownloadOfADelta) {
  const fs::path package = publisher_.DeltaPackage("oui", kNew);
  KillWhileDownloading(Publisher::PathOf(package), ReadFile(package),
                       "/volume1/@tmp/data_update/oui_d" + std::to_string(kNew));
}

TEST_F(OrphanTest, DownloadOfAFullPackage) {
  OfferNewInFull();
  const fs::path package = publisher_.FullPackage("oui", kNew);
  KillWhileDownloading(Publisher::PathOf(package), ReadFile(package),
                       "/volume1/@tmp/data_update/oui_v" + std::to_string(kNew));
}

TEST_F(OrphanTest, Decoder) {
  InstallWaitingProgram("/usr/tolm/sbin/tolmdbudvcdiff", "true",
                        R"(/usr/bin/xdelta3 -d -f -s "$2" "$4" "$3")");
  KillWhileProgramWaits();
}

TEST_F(OrphanTest, PluginBeforeTheChange) {
  InstallWaitingProgram(kPlugins / "waiting", "[ $1 = pre ]", "/usr/bin/true");
  KillWhileProgramWaits();
}

TEST_F(OrphanTest, PluginAfterTheChange) {
  InstallWaitingProgram(kPlugins / "waiting", "[ $1 = post ]", "/usr/bin/true");
  KillWhileProgramWaits();
}

}  // namespace
}  // namespace tolm::testing

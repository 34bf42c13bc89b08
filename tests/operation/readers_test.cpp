// Programs that read a database while the installed tool replaces it: what they read is always one
// version, and what they owe the tool in return is a pause.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <map>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dataupdate/project_lock.h"
#include "tests/operation/three_versions.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/wait.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

constexpr char kUsingLock[] = "/run/data_update/using_oui.lock";
constexpr char kEnough[] = "/tmp/enough";  // Its existence ends the readers.
constexpr int kMixture = 0;                // In place of a version.

using Digests = std::map<std::string, std::string>;  // by file

Digests DigestsOf(const fs::path& directory) {
  Digests digests;
  for (const std::string& name : ListTree(directory)) {
    if (name.back() != '/') {
      digests[name] = Sha384Hex(directory / name);
    }
  }
  return digests;
}

// Known before anything is installed.
std::map<int, Digests> DigestsOfAllVersions() {
  std::map<int, Digests> known;
  for (const int version : kVersions) {
    const fs::path directory = "/tmp/known/" + std::to_string(version);
    MakeTree(directory, FilesOf(version));
    known[version] = DigestsOf(directory);
  }
  return known;
}

// Reads all files of the database.
int ReadVersion(const std::map<int, Digests>& known) {
  try {
    const Digests read = DigestsOf(kVolumePrefix / "oui");
    for (const auto& [version, digests] : known) {
      if (read == digests) {
        return version;
      }
    }
    std::cerr << "no version has all of these: " << ::testing::PrintToString(read) << std::endl;
  } catch (const std::exception& error) {
    std::cerr << "a file went away while it was read: " << error.what() << std::endl;
  }
  return kMixture;
}

using Counts = std::map<int, int>;  // whole sets read, by version

std::string ToText(const Counts& counts) {
  std::string text;
  for (const auto& [version, count] : counts) {
    text += std::to_string(version) + ' ' + std::to_string(count) + ' ';
  }
  return text;
}

Counts FromText(const std::string& text) {
  Counts counts;
  std::istringstream in(text);
  for (int version = 0; in >> version;) {
    in >> counts[version];
  }
  return counts;
}

// One reader's life: from the parent's word on, until there is enough.
int ReadAgainAndAgain(const EventChannel& parent, const std::map<int, Digests>& known) {
  constexpr int kWaitSeconds = 60;
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // Or it would outlive a parent that is killed.
  parent.Receive();
  Counts counts;
  while (!fs::exists(kEnough)) {
    const int lock = TOLMDBUDGetFileLock("oui", kWaitSeconds);
    if (lock < 0) {
      std::cerr << "the lock was not had: " << lock << std::endl;
      return EXIT_FAILURE;
    }
    ++counts[ReadVersion(known)];
    TOLMDBUDReleaseFileLock(lock);
    if (counts.size() == 1 && counts.begin()->second == 1) {
      parent.Send("reading");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  parent.Send(ToText(counts));
  return EXIT_SUCCESS;
}

// Reader processes, which are made before the threads of a publisher's server, and so before the
// database.
class ReaderProcesses {
 protected:
  ReaderProcesses() {
    for (int i = 0; i < kReaders; ++i) {
      readers_.emplace_back(
          [this](const EventChannel& parent) { return ReadAgainAndAgain(parent, known_); });
    }
  }

  // Returns when each has read a whole set.
  void StartReading() {
    for (ForkedChild& reader : readers_) {
      reader.Channel().Send("read");
    }
    for (ForkedChild& reader : readers_) {
      ASSERT_EQ(reader.Channel().Receive(), "reading");
    }
  }

  std::vector<Counts> StopReading() {
    WriteFile(kEnough, "");
    std::vector<Counts> results;
    for (ForkedChild& reader : readers_) {
      results.push_back(FromText(reader.Channel().Receive().value_or("")));
      EXPECT_EQ(reader.Process().Wait(), EXIT_SUCCESS);
    }
    return results;
  }

  static constexpr int kReaders = 20;
  const std::map<int, Digests> known_ = DigestsOfAllVersions();

 private:
  std::vector<ForkedChild> readers_;
};

struct Step {
  std::vector<std::string> command;
  std::vector<int> deltas;  // On offer, with the newest version.
  int version;              // What is installed then,
  std::string package;      // and the last package that was asked for.
};

class ReadersTest : protected ReaderProcesses, public ThreeVersionsTest {
 protected:
  void ExpectInstallation(const Step& step) {
    publisher_.Offer("oui", kNewest, step.deltas);
    const CommandResult result = Tool(step.command);
    EXPECT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(publisher_.Server().Requests().back().path, "/packages/oui_" + step.package);
    ExpectWhole(step.version);
  }
};

int SetsIn(const Counts& counts) {
  return std::accumulate(counts.begin(), counts.end(), 0,
                         [](int sum, const auto& entry) { return sum + entry.second; });
}

TEST_F(ReadersTest, TwentyReadersOfADatabaseThatIsReplacedFiftyTimesSeeNoMixture) {
  constexpr std::size_t kInstallations = 50;
  constexpr int kLeastSets = 5;  // Read by each, while there were so many installations.
  const std::vector<Step> steps = {
      {{"force-install", "oui", "--version", std::to_string(kOldest)}, {}, kOldest, "v70001"},
      {{"update", "oui"}, {kMiddle, kNewest}, kNewest, "d70003"},
      {{"force-install", "oui", "--version", "-1"}, {}, kMiddle, "v70002"},
      {{"update", "oui"}, {}, kNewest, "v70003"}};
  Install(kNewest);
  StartReading();
  for (std::size_t i = 0; i < kInstallations && !HasFailure(); ++i) {
    SCOPED_TRACE("installation " + std::to_string(i));
    ExpectInstallation(steps[i % steps.size()]);
  }
  std::vector<int> sets;
  for (const Counts& counts : StopReading()) {
    SCOPED_TRACE("a reader's versions and how often it read them: " + ToText(counts));
    EXPECT_EQ(counts.count(kMixture), 0u);
    EXPECT_GE(counts.size(), 2u);
    sets.push_back(SetsIn(counts));
    EXPECT_GE(sets.back(), kLeastSets);
  }
  std::cout << kReaders << " readers read " << std::accumulate(sets.begin(), sets.end(), 0)
            << " whole sets, the slowest " << *std::min_element(sets.begin(), sets.end()) << '\n';
}

using OverlappingReadersTest = ThreeVersionsTest;

bool HasOpen(pid_t process, const fs::path& file) {
  std::error_code ignored;  // One that is closed meanwhile.
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
    if (fs::read_symlink(entry.path(), ignored) == file) {
      return true;
    }
  }
  return false;
}

// How often the process has gone to sleep so far.
int PausesOf(pid_t process) {
  const std::string status = ReadFile("/proc/" + std::to_string(process) + "/status");
  const std::string key = "\nvoluntary_ctxt_switches:";
  return std::stoi(status.substr(status.find(key) + key.size()));
}

TEST_F(OverlappingReadersTest, KeepAnInstallerWaitingUntilTheyPause) {
  constexpr int kAttempts = 20;  // In vain, each followed by a pause.
  for (const std::vector<int>& deltas : {std::vector<int>{kMiddle, kNewest}, {}}) {
    SCOPED_TRACE(deltas.empty() ? "in full" : "by deltas");
    Install(kOldest);
    publisher_.Offer("oui", kNewest, deltas);
    int lock = TOLMDBUDGetFileLock("oui", 0);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(fcntl(lock, F_SETFD, FD_CLOEXEC), 0);  // Or the tool would have it open, too.
    RunningCommand update({kTool, "update", "oui"});
    const pid_t installer = update.Process().Pid();
    ASSERT_TRUE(WaitUntil([&] { return HasOpen(installer, kUsingLock); }));
    const int pauses = PausesOf(installer);
    int turns = 0;
    while (update.Process().IsRunning() && PausesOf(installer) < pauses + kAttempts) {
      const int next = TOLMDBUDGetFileLock("oui", 0);
      ASSERT_GE(next, 0) << "an installer that waits keeps no reader out";
      TOLMDBUDReleaseFileLock(lock);
      lock = next;
      ++turns;
    }
    std::cout << turns << " overlapping locks kept an installer waiting\n";
    EXPECT_TRUE(update.Process().IsRunning());
    EXPECT_TRUE(ReadTree(prefix_) == FilesOf(kOldest));
    TOLMDBUDReleaseFileLock(lock);
    EXPECT_EQ(update.Wait().exit_status, 0);
    ExpectWhole(kNewest);
  }
}

}  // namespace
}  // namespace tolm::testing

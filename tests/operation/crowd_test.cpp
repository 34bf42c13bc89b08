// Operations on one database that are started at the same moment in processes of their own: each
// waits for the others, and what is installed is one version, as if they had been started in turn.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <list>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/operation/three_versions.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/moments.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::EndsWith;

constexpr char kGate[] = "/tmp/gate";

// Whether the process is blocked in flock().
bool WaitsForALock(pid_t process) {
  std::istringstream locks(ReadFile("/proc/locks"));
  for (std::string line; std::getline(locks, line);) {
    std::istringstream in(line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
    if (words.size() > 5 && words[1] == "->" && words[5] == std::to_string(process)) {
      return true;
    }
  }
  return false;
}

// Runs the tool several times at once.
std::vector<CommandResult> RunTogether(const std::vector<std::vector<std::string>>& commands) {
  UniqueDescriptor gate(open(kGate, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(flock(gate.Get(), LOCK_EX), 0);
  std::list<RunningCommand> running;
  for (const std::vector<std::string>& command : commands) {
    // When the gate opens, this program becomes the tool.
    std::vector<std::string> arguments = {"flock", "--shared", "--no-fork", kGate, kTool};
    arguments.insert(arguments.end(), command.begin(), command.end());
    running.emplace_back(arguments);
  }
  EXPECT_TRUE(WaitUntil([&] {
    return std::all_of(running.begin(), running.end(), [](RunningCommand& command) {
      return WaitsForALock(command.Process().Pid());
    });
  }));
  gate.Close();
  std::vector<CommandResult> results;
  for (RunningCommand& command : running) {
    results.push_back(command.Wait());
  }
  return results;
}

struct Round {
  std::string damaged_file;
  int damage;  // 0: another content, 1: emptied, 2: gone
  std::vector<int> deltas;
  std::string forced;  // As the operator gives it,
  int forced_version;  // and the version that it is.
};

Round RoundOf(int number) {
  static const std::vector<std::string> files = {"blocks.bin", "countries.csv", "index/index.bin",
                                                 "index/names.txt", "notes.txt"};
  Round round;
  round.damaged_file = files[static_cast<std::size_t>(number) % files.size()];
  round.damage = number % 3;
  if (number % 2 == 0) {
    round.deltas = {kMiddle, kNewest};
  }
  const bool relative = number / 2 % 2 == 0;
  round.forced = relative ? "-1" : std::to_string(kOldest);
  round.forced_version = relative ? kMiddle : kOldest;
  return round;
}

void Damage(const fs::path& file, int damage) {
  switch (damage) {
    case 0:
      return WriteFile(file, "damaged");
    case 1:
      return WriteFile(file, "");
    default:
      fs::remove(file);
  }
}

class CrowdTest : public ThreeVersionsTest {
 protected:
  // Two updates, a fix and a forced installation; returns how many of them installed the newest
  // version. There is no refusal: the wait for the others is long enough for all of them.
  int RunCrowd(const Round& round) {
    const std::vector<CommandResult> results =
        RunTogether({{"update", "oui"},
                     {"update", "oui"},
                     {"fix", "oui"},
                     {"force-install", "oui", "--version", round.forced}});
    const std::string newest = std::to_string(kNewest) + '\n';
    for (const CommandResult& result : results) {
      EXPECT_EQ(result.exit_status, 0);
      EXPECT_THAT(result.err, AnyOf("", EndsWith("; the database is installed in full\n")));
      EXPECT_LE(CountLines(result.err), 1);
    }
    for (const CommandResult& update : {results[0], results[1]}) {
      EXPECT_THAT(WithoutAge(update.out), AnyOf("oui: updated to " + newest, "oui: up to date\n"));
    }
    EXPECT_THAT(results[2].out, AnyOf("oui: repaired with " + newest, "oui: intact\n"));
    EXPECT_EQ(results[3].out,
              "oui: force-installed " + std::to_string(round.forced_version) + '\n');
    return static_cast<int>(std::count_if(results.begin(), results.end(), [&](const auto& result) {
      return result.out.find(newest) != std::string::npos;
    }));
  }
};

TEST_F(CrowdTest, FourOperationsAtOnceEndInOneWholeVersion) {
  // After 60 rounds they repeat; the first 20 have every damage of every file, and each way of
  // the rest several times.
  const int rounds = static_cast<int>(Moments(20, 60));
  std::map<std::string, int> endings;
  for (int number = 0; number < rounds && !HasFailure(); ++number) {
    const Round round = RoundOf(number);
    SCOPED_TRACE("round " + std::to_string(number) + ", damaged: " + round.damaged_file);
    Install(kOldest);
    publisher_.Offer("oui", kNewest, round.deltas);
    Damage(prefix_ / round.damaged_file, round.damage);
    const int newest_installed = RunCrowd(round);
    const bool forced_at_last = InstalledVersion("oui") != std::to_string(kNewest);
    ExpectWhole(forced_at_last ? round.forced_version : kNewest);
    // A second time only after the forced installation.
    EXPECT_THAT(newest_installed, AnyOf(1, forced_at_last ? 1 : 2));
    EXPECT_EQ(Tool({"fix", "oui"}).out, "oui: intact\n");
    EXPECT_EQ(Tool({"update", "oui"}).exit_status, 0);
    ExpectWhole(kNewest);
    ++endings[(forced_at_last ? "forced" : "newest") + std::string(", newest installed ") +
              std::to_string(newest_installed) + " times"];
  }
  for (const auto& [ending, count] : endings) {
    std::cout << ending << ": " << count << " rounds\n";
  }
}

}  // namespace
}  // namespace tolm::testing

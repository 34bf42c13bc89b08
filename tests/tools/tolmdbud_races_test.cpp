// The installed tool at work while an ordinary account swaps, as fast as it can, whatever it may on
// the way to the tool's files. TOLM_RACE_ROUNDS says how often each of these races is run.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/publisher.h"
#include "tests/support/unique_descriptor.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

constexpr char kForeign[] = "put here by an ordinary account";
constexpr char kCanary[] = "for nobody but root to read";
constexpr char kStop[] = "/tmp/stop";  // Its existence ends an assault.
constexpr char kUsingLock[] = "/run/data_update/using_oui.lock";
constexpr char kOutside[] = "/tmp/outside";
constexpr char kSecret[] = "/tmp/outside/secret";
constexpr char kOtherRecord[] = "/var/lib/data_update/other/version.json";
constexpr char kOverrides[] = "/usr/tolm/etc/data_update";

// ---- The attacker ----

// Names in unpacked trees and of work copies alike.
constexpr std::array kNames = {"a.txt", "b.txt", "c.txt", "_a_txt", "_b_txt", "_c_txt"};

void MakeForeignFiles(const fs::path& directory) {
  mkdir(directory.c_str(), 0777);
  for (const char* name : kNames) {
    const fs::path path = directory / name;
    const UniqueDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0755));
    if (file) {
      (void)!write(file.Get(), kForeign, sizeof kForeign - 1);
      fchmod(file.Get(), 04755);
    }
  }
}

void MakeLinksToTheSecret(const fs::path& directory) {
  mkdir(directory.c_str(), 0777);
  for (const char* name : kNames) {
    (void)!symlink(kSecret, (directory / name).c_str());
  }
}

constexpr unsigned kDecoys = 4;

// What is to stand in a target's place, made beside it.
void MakeDecoy(const fs::path& decoy, unsigned kind) {
  if (access(decoy.c_str(), F_OK) == 0) {
    return;
  }
  mkdir(decoy.parent_path().parent_path().c_str(), 0777);
  mkdir(decoy.parent_path().c_str(), 0777);
  switch (kind) {
    case 0:
      (void)!symlink(kOutside, decoy.c_str());
      break;
    case 1:
      (void)!symlink("/var/lib", decoy.c_str());
      break;
    case 2:
      MakeForeignFiles(decoy);
      break;
    default:
      MakeLinksToTheSecret(decoy);
  }
}

// Twice the same one brings back what was there.
void Swap(const fs::path& target, unsigned kind) {
  const fs::path decoy = target.parent_path() / ("decoy" + std::to_string(kind));
  MakeDecoy(decoy, kind);
  if (renameat2(AT_FDCWD, decoy.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) != 0 &&
      errno == ENOENT) {
    renameat2(AT_FDCWD, decoy.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
  }
}

// Until it is told to stop. For a while it reads the database, as every account may, which keeps
// the tool waiting between what it prepares and what it installs.
void Assail(const fs::path& target) {
  using Clock = std::chrono::steady_clock;
  std::minstd_rand random(std::random_device{}());
  UniqueDescriptor lock(open(kUsingLock, O_RDONLY | O_CLOEXEC));
  flock(lock.Get(), LOCK_SH | LOCK_NB);
  const auto release = Clock::now() + std::chrono::milliseconds(random() % 150);
  while (access(kStop, F_OK) != 0) {
    if (Clock::now() > release) {
      lock.Close();
    }
    Swap(target, static_cast<unsigned>(random() % kDecoys));
    usleep(static_cast<useconds_t>(random() % 300));
  }
}

/// Forked before there are other threads, and so before the publisher's server.
class Attacker {
 public:
  Attacker()
      : account_(ForkOrdinaryAccount([](EventChannel& test) {
          while (const auto target = test.Receive()) {
            test.Send("begins");
            Assail(*target);
            test.Send("ended");
          }
          return 0;
        })) {}

  void Begin(const fs::path& target) {
    fs::remove(kStop);
    account_.Channel().Send(target);
    ASSERT_EQ(account_.Channel().Receive(), "begins");
  }
  void End() {
    WriteFile(kStop, "");
    ASSERT_EQ(account_.Channel().Receive(), "ended");
  }

 private:
  ForkedChild account_;
};

// ---- The scene ----

struct Opening {
  std::string name;
  mode_t volume_mode;
  mode_t temporary_mode;  ///< Of @tmp, which root has made; 0: there is none.
};

struct Operation {
  std::string name;
  std::vector<std::string> command;
  bool by_delta;
  bool damaged;
  bool moves;  ///< All databases to the other volume.
};

using Row = std::tuple<Opening, Operation>;

std::string NameOfRow(const ::testing::TestParamInfo<Row>& info) {
  return std::get<Operation>(info.param).name + "Where" + std::get<Opening>(info.param).name;
}

unsigned Rounds() {
  const char* rounds = std::getenv("TOLM_RACE_ROUNDS");
  return rounds == nullptr ? 10 : static_cast<unsigned>(std::stoul(rounds));
}

Tree FilesOf(const std::string& version) {
  Tree files = {{"a.txt", "a of " + version}, {"b.txt", "b of " + version}, {"c.txt", "c"}};
  for (int i = 0; i < 8; ++i) {
    files["more/" + std::to_string(i)] = version + std::string(10000, 'm');
  }
  files["more/"] = "";
  return files;
}

// One line for each thing there is below, with the time of its last change: what was made and
// removed again shows in its directory.
using Fingerprint = std::set<std::string>;

void AddTo(Fingerprint& fingerprint, const fs::path& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    return;
  }
  fingerprint.insert(path.string() + ", mode " + std::to_string(status.st_mode) + ", owner " +
                     std::to_string(status.st_uid) + ", changed " +
                     std::to_string(status.st_ctim.tv_sec) + '.' +
                     std::to_string(status.st_ctim.tv_nsec));
  if (S_ISDIR(status.st_mode)) {
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
      AddTo(fingerprint, entry.path());
    }
  }
}

// All of it besides what the tool itself records, of which only the names at the top count.
Fingerprint Elsewhere() {
  Fingerprint fingerprint;
  AddTo(fingerprint, kOutside);
  AddTo(fingerprint, kOtherRecord);
  for (const fs::directory_entry& entry : fs::directory_iterator("/var/lib")) {
    fingerprint.insert(entry.path());
  }
  return fingerprint;
}

std::string Differences(const Fingerprint& before, const Fingerprint& after) {
  std::string differences;
  for (const std::string& line : before) {
    differences += after.count(line) == 0 ? "was: " + line + '\n' : "";
  }
  for (const std::string& line : after) {
    differences += before.count(line) == 0 ? "is:  " + line + '\n' : "";
  }
  return differences;
}

class RaceTest : private Attacker, public ::testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    if (!HasOrdinaryAccount()) {
      GTEST_SKIP() << kNoOrdinaryAccount;
    }
    ConfigureDevice(publisher_, {{"oui", kOnVolume}});
    publisher_.PackFull("oui", 1, one_);
    publisher_.PackFull("oui", 2, two_);
    PackDelta();
    publisher_.Offer("oui", 1);
    ASSERT_EQ(Tool({"init"}).exit_status, 0);
    ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
    for (const char* directory : {"data_update", "oui", "oui_full", "oui_sum", "autoupdate/oui"}) {
      WriteFile(fs::path(kOutside) / directory / "a.txt", "precious");
    }
    WriteFile(kSecret, kCanary);
    fs::permissions(kSecret, fs::perms::owner_read | fs::perms::owner_write);
    WriteFile(kOtherRecord, "of another database");
    fs::create_directory("/tmp/kept");
    fs::copy("/volume1/@database", "/tmp/kept/database", fs::copy_options::recursive);
    fs::copy("/var/lib/data_update", "/tmp/kept/lib", fs::copy_options::recursive);
    publisher_.Offer("oui", 2, operation_.by_delta ? std::vector<int>{2} : std::vector<int>{});
  }

  /// The directories and links that the account goes for, one a round. A move reads no others.
  std::vector<fs::path> Targets() const {
    std::vector<fs::path> targets = {kVolumePrefix.parent_path(), kVolumePrefix};
    if (!operation_.moves) {
      const fs::path temporary = "/volume1/@tmp/data_update";
      const fs::path prepared = temporary / (operation_.by_delta ? "oui_sum" : "oui_full");
      targets.insert(targets.begin(), {prepared, temporary, temporary.parent_path(), prepared});
      targets.push_back(prefix_);
    }
    return targets;
  }

  void RunRound(unsigned round) {
    const std::vector<fs::path> targets = Targets();
    const fs::path& target = targets[round % targets.size()];
    fresh_ = !operation_.moves && round / targets.size() % 2 == 1;
    SCOPED_TRACE("round " + std::to_string(round) + " against " + target.string() +
                 (fresh_ ? ", nothing installed" : ""));
    Reset();
    const UniqueDescriptor installed(open(prefix_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const Fingerprint elsewhere = Elsewhere();
    Begin(target);
    const CommandResult result = RunTool();
    End();
    EXPECT_TRUE(result.exit_status == 0 || result.exit_status == 1)
        << result.exit_status << ": " << result.err;
    EXPECT_EQ(Differences(elsewhere, Elsewhere()), "");
    ExpectNothingTaken("/volume1");
    ExpectNothingTaken("/volume2");
    ExpectInstalled(installed, result);
  }

 private:
  void PackDelta() {
    std::string patches;
    Tree inputs;
    for (const auto& [name, content] : two_) {
      if (name.back() != '/') {
        const std::string input = "input" + std::to_string(inputs.size());
        patches += (patches.empty() ? "\"/" : ", \"/") + name +
                   R"(": {"operation": "create", "input_file": ")" + input + "\"}";
        inputs[input] = content;
      }
    }
    publisher_.PackDelta("oui", 2, "{" + patches + "}", inputs);
  }

  void Reset() const {
    for (const fs::path directory : {"/volume1", "/volume2", "/var/lib/data_update", kOverrides}) {
      if (fs::exists(directory)) {
        for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
          fs::remove_all(entry);
        }
      }
    }
    fs::copy("/tmp/kept/lib", "/var/lib/data_update", fs::copy_options::recursive);
    if (fresh_) {
      fs::remove_all("/var/lib/data_update/oui");
    } else {
      fs::copy("/tmp/kept/database", "/volume1/@database", fs::copy_options::recursive);
    }
    if (operation_.damaged && !fresh_) {
      WriteFile(prefix_ / "a.txt", "damaged");
    }
    ASSERT_EQ(chmod("/volume1", opening_.volume_mode), 0);
    if (opening_.temporary_mode != 0) {
      ASSERT_EQ(mkdir("/volume1/@tmp", 0755), 0);
      ASSERT_EQ(chmod("/volume1/@tmp", opening_.temporary_mode), 0);
    }
  }

  CommandResult RunTool() const {
    std::vector<std::string> command = {kTool};
    command.insert(command.end(), operation_.command.begin(), operation_.command.end());
    RunningCommand tool(command);
    if (!WaitUntil([&] { return !tool.Process().IsRunning(); })) {
      ADD_FAILURE() << "it hangs";
      tool.Process().Signal(SIGKILL);
    }
    return tool.Wait();
  }

  // What root owns holds nothing of the account's and nothing that the account may not read, and
  // is no set-id file. What the account has put there itself is the account's.
  static void ExpectNothingTaken(const fs::path& volume) {
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(volume)) {
      struct stat status {};
      ASSERT_EQ(lstat(entry.path().c_str(), &status), 0) << entry.path();
      if (status.st_uid != 0) {
        EXPECT_NE(volume, "/volume2") << entry.path() << " is not root's";
      } else if (S_ISREG(status.st_mode)) {
        EXPECT_EQ(status.st_mode & (S_ISUID | S_ISGID), 0u) << entry.path();
        const std::string content = ReadFile(entry.path());
        EXPECT_NE(content, kForeign) << entry.path();
        EXPECT_NE(content, kCanary) << entry.path();
      }
    }
  }

  void ExpectRootsOnly(const fs::path& directory) const {
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
      struct stat status {};
      ASSERT_EQ(lstat(entry.path().c_str(), &status), 0) << entry.path();
      EXPECT_EQ(status.st_uid, 0u) << entry.path();
    }
  }

  // Where it was, whatever it is called now, unless the tool has moved it.
  void ExpectInstalled(const UniqueDescriptor& installed, const CommandResult& result) {
    const fs::path original = "/proc/self/fd/" + std::to_string(installed.Get()) + "/";
    const bool succeeded = result.exit_status == 0;
    if (operation_.moves) {
      const fs::path moved = "/volume2/@database/autoupdate/oui";
      const fs::path place = succeeded || fs::exists(moved) ? moved : original;
      ASSERT_TRUE(fs::is_directory(place)) << place << ": " << result.out;
      EXPECT_EQ(Names(ReadTree(place)), Names(one_)) << place;
      EXPECT_TRUE(ReadTree(place) == one_) << place;
      return;
    }
    if (succeeded) {
      const fs::path place = fresh_ ? prefix_ : original;
      EXPECT_EQ(InstalledVersion("oui"), "2");
      ASSERT_TRUE(fs::is_directory(place)) << place;
      EXPECT_EQ(Names(ReadTree(place)), Names(two_)) << place;
      EXPECT_TRUE(ReadTree(place) == two_) << place;
      ExpectRootsOnly(place);
    } else if (!fresh_) {
      const Tree present = ReadTree(original);
      EXPECT_TRUE(present == Before() || present == two_)
          << ::testing::PrintToString(Names(present)) << result.err;
    }
  }

  Tree Before() const {
    Tree before = one_;
    if (operation_.damaged) {
      before["a.txt"] = "damaged";
    }
    return before;
  }

  static std::vector<std::string> Names(const Tree& tree) {
    std::vector<std::string> names;
    for (const auto& entry : tree) {
      names.push_back(entry.first);
    }
    return names;
  }

  const fs::path prefix_ = kVolumePrefix / "oui";
  const Tree one_ = FilesOf("one");
  const Tree two_ = FilesOf("two");
  const Opening opening_ = std::get<Opening>(GetParam());
  const Operation operation_ = std::get<Operation>(GetParam());
  bool fresh_ = false;
  Publisher publisher_;
};

TEST_P(RaceTest, GivesAnAccountNothing) {
  const unsigned rounds = Rounds();
  for (unsigned round = 0; round < rounds && !HasFailure(); ++round) {
    RunRound(round);
  }
}

const Opening kVolumeForAll = {"VolumeIsForAll", 0777, 0};
const Opening kVolumeSticky = {"VolumeIsForAllAndSticky", 01777, 0};
const Opening kTemporarySticky = {"TemporaryIsForAllAndSticky", 0755, 01777};

const Operation kOperations[] = {
    {"UpdateByDelta", {"update", "oui"}, true, false, false},
    {"UpdateInFull", {"update", "oui"}, false, false, false},
    {"Fix", {"fix", "oui"}, false, true, false},
    {"ForceInstall", {"force-install", "oui"}, false, false, false},
};
const Operation kMove = {"Unmounting", {"volume", "unmounting", "/volume1"}, false, false, true};

INSTANTIATE_TEST_SUITE_P(Attacks, RaceTest,
                         ::testing::Combine(::testing::Values(kVolumeForAll, kVolumeSticky,
                                                              kTemporarySticky),
                                            ::testing::ValuesIn(kOperations)),
                         NameOfRow);
INSTANTIATE_TEST_SUITE_P(AttacksOnMoves, RaceTest,
                         ::testing::Combine(::testing::Values(kVolumeForAll, kVolumeSticky),
                                            ::testing::Values(kMove)),
                         NameOfRow);

}  // namespace
}  // namespace tolm::testing

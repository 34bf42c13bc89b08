// The daemon that README.md shows, built as any user builds it, against what is installed; and what
// one process does after an operation of its own was ended.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "operation/interrupt.h"
#include "operation/run.h"
#include "operation/service.h"
#include "tests/support/killed_run.h"
#include "tests/support/mounts.h"
#include "tests/support/shifted_clock.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// The name by which the library that kills knows it.
constexpr char kDaemon[] = "/tmp/daemon";
constexpr char kSource[] = "/tmp/daemon.cpp";
constexpr char kLibraryAlone[] = "/tmp/alone";
constexpr char kVolume[] = "/volume1";
constexpr std::time_t kDay = 24 * 60 * 60;

std::string Noise(std::size_t size) {
  std::mt19937 random(1);
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    byte = static_cast<char>(random());
  }
  return bytes;
}

// The outcomes in the history, in their order.
std::vector<std::string> Outcomes() {
  std::vector<std::string> outcomes;
  std::istringstream lines(ReadFile("/var/lib/data_update/history.jsonl"));
  const std::string key = "\"outcome\":\"";
  for (std::string line; std::getline(lines, line);) {
    const std::size_t begin = line.find(key) + key.size();
    outcomes.push_back(line.substr(begin, line.find('"', begin) - begin));
  }
  return outcomes;
}

class DaemonTest : public DeviceTest {
 protected:
  void SetUp() override {
    source_ = Build("1", kDaemon, "tolmoperation");
    DeviceTest::SetUp();
  }

  // Builds README's program of that number; returns its source.
  static std::string Build(const std::string& number, const std::string& program,
                           const std::string& library) {
    const CommandResult source =
        RunCommand({TOLM_TEST_SOURCE_DIR "/tests/support/readme_program", number});
    EXPECT_EQ(source.exit_status, 0) << source.err;
    WriteFile(kSource, source.out);
    const CommandResult built = RunCommand(
        {"/bin/sh", "-c",
         TOLM_TEST_CXX " -std=c++17 -Wall -Wextra -Werror " TOLM_TEST_CXX_FLAGS " -o " + program +
             ' ' + kSource + " $(pkg-config --cflags --libs " + library + ')'});
    EXPECT_EQ(built.exit_status, 0) << built.err;
    return source.out;
  }

  static void UnreachableServer() {
    constexpr char kSettings[] = "/usr/share/data_update/data_update.conf";
    const std::string settings = ReadFile(kSettings);
    const std::size_t port = settings.find("127.0.0.1:") + 10;
    WriteFile(kSettings,
              settings.substr(0, port) + '1' + settings.substr(settings.find('"', port)));
  }

  // A day later no server is left alone any more.
  static CommandResult RunADayLater() {
    CommandOptions options;
    options.environment = EnvironmentAt(std::time(nullptr) + kDay);
    return RunCommand({kDaemon}, options);
  }

  // As before the first run, but for the history.
  static void Forget() {
    fs::remove_all("/volume1/@database");
    fs::remove_all("/volume1/@tmp");
    fs::remove_all("/run/data_update");  // Lock files are made by calls, too.
    fs::remove_all("/var/lib/data_update/oui");
    fs::remove("/var/lib/data_update/cooldown.json");
    fs::remove("/var/cache/data_update/database_info.json");
  }

  std::string source_;
};

TEST_F(DaemonTest, MainHasAtMostTwentyFiveLines) {
  const std::string main = source_.substr(source_.find("int main("));
  EXPECT_LE(CountLines(main), 25) << main;
  EXPECT_THAT(main, HasSubstr("catch (const std::exception&"));
}

TEST_F(DaemonTest, ScheduledDatabasesAreUpdated) {
  const CommandResult first = RunCommand({kDaemon});
  EXPECT_EQ(first.exit_status, 0) << first.err;
  EXPECT_EQ(first.out, "oui: updated to 1\n");
  EXPECT_EQ(first.err, "");
  EXPECT_EQ(RunCommand({kDaemon}).out, "oui: up to date\n");
  publisher_.Offer("oui", 2, {2});
  EXPECT_EQ(RunCommand({kDaemon}).out, "oui: updated to 2\n");
  EXPECT_EQ(ReadTree(prefix_), second_);
  EXPECT_THAT(Outcomes(), ElementsAre("updated", "up-to-date", "updated"));
  ExpectNothingLeft();
}

TEST_F(DaemonTest, ServerThatIsDownIsSaidRememberedAndLeftAlone) {
  UnreachableServer();
  const CommandResult down = RunCommand({kDaemon});
  EXPECT_EQ(down.exit_status, 1);
  EXPECT_EQ(down.out, "");
  EXPECT_THAT(down.err, StartsWith("oui: "));
  EXPECT_EQ(CountLines(down.err), 1);
  const CommandResult next = RunCommand({kDaemon});
  EXPECT_EQ(next.exit_status, 0);
  EXPECT_EQ(next.err, "");
  EXPECT_THAT(Outcomes(), ElementsAre("failed", "skipped"));
  ExpectNothingLeft();
}

TEST_F(DaemonTest, LibraryAloneSaysThatTheServerIsDown) {
  ConfigureDevice(publisher_, {{"vendors", kOnVolume}});
  UnreachableServer();
  Build("2", kLibraryAlone, "tolmdbud");
  const CommandResult down = RunCommand({kLibraryAlone});
  EXPECT_EQ(down.exit_status, 1);
  EXPECT_THAT(down.err, StartsWith("Fail to wget url: http://127.0.0.1:1/"));
  EXPECT_EQ(CountLines(down.err), 1) << down.err;
}

TEST_F(DaemonTest, KilledWhileItDownloadsOrInstallsItRepairsLater) {
  const std::vector<std::string> calls = TraceFileChanges({kDaemon});
  ASSERT_EQ(ReadTree(prefix_), first_);
  const auto is_installing = [this](const std::string& call) {
    return call.find(prefix_.string() + '/') != std::string::npos;
  };
  const auto installing = std::find_if(calls.begin(), calls.end(), is_installing);
  ASSERT_NE(installing, calls.end());
  const auto downloading = std::find(calls.begin(), calls.end(), "after posix_spawn /usr/bin/wget");
  ASSERT_NE(downloading, calls.end());
  AdoptOrphans();
  for (const auto position : {downloading, installing, installing + 1, installing + 2}) {
    SCOPED_TRACE(*position);
    Forget();
    const auto number = static_cast<std::size_t>(position - calls.begin()) + 1;
    EXPECT_EQ(RunUntilFileChange({kDaemon}, number).exit_status, 128 + 9);
    WaitForOrphans();
    // What has not said that it succeeded counts as a failure of the server.
    const CommandResult held_back = RunCommand({kDaemon});
    EXPECT_EQ(held_back.exit_status, 0);
    EXPECT_EQ(held_back.out, "");
    EXPECT_EQ(Outcomes().back(), "skipped");
    const CommandResult next = RunADayLater();
    EXPECT_EQ(next.exit_status, 0) << next.err;
    EXPECT_EQ(next.out, "oui: updated to 1\n");
    EXPECT_EQ(Outcomes().back(), "updated");
    EXPECT_EQ(ReadTree(prefix_), first_);
    ExpectNothingLeft();
  }
}

TEST_F(DaemonTest, FullVolumeIsSaidAndRoomIsAllThatIsMissing) {
  const ScopedMount small = ScopedMount::Tmpfs(kVolume, 4 << 20);
  ASSERT_EQ(RunCommand({kDaemon}).exit_status, 0);
  const Tree large = {{"a.txt", Noise(1 << 20)}};
  publisher_.PackFull("oui", 2, large);
  publisher_.Offer("oui", 2);
  const fs::path filler = fs::path(kVolume) / "filler";
  WriteFile(filler, std::string(3 << 20, 'x'));
  const CommandResult full = RunCommand({kDaemon});
  EXPECT_EQ(full.exit_status, 1);
  EXPECT_EQ(full.out, "");
  EXPECT_THAT(full.err, AllOf(StartsWith("oui: "), HasSubstr(" (the server sends more than the ")));
  EXPECT_EQ(CountLines(full.err), 1);
  EXPECT_EQ(ReadTree(prefix_), first_);
  EXPECT_EQ(InstalledVersion("oui"), "1");
  ExpectNothingLeft();
  fs::remove(filler);
  EXPECT_EQ(RunADayLater().out, "oui: updated to 2\n");
  EXPECT_EQ(ReadTree(prefix_), large);
  EXPECT_THAT(Outcomes(), ElementsAre("updated", "failed", "updated"));
  ExpectNothingLeft();
}

// As Interrupt demands, before the threads of the server begin.
class SignalsBlocked {
 protected:
  SignalsBlocked() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

// The operations in this very process, one after the other.
class LongLivedTest : private SignalsBlocked, public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    InstallFirst();
  }

  static void Update(const operation::Service& service) {
    operation::Run run(service, false, false);
    const operation::HistoryEntry& entry = run.Update("oui");
    EXPECT_EQ(entry.outcome, operation::kUpdated) << entry.message;
  }
};

TEST_F(LongLivedTest, WhatOneSignalEndedIsAllowedAgainToTheNext) {
  const operation::Service service = operation::BuildService([](const std::string&) {});
  {
    const operation::Interrupt first;
    ASSERT_EQ(kill(getpid(), SIGTERM), 0);
    while (operation::Interrupt::Received() == 0) {
      sched_yield();
    }
  }
  publisher_.Offer("oui", 2, {2});
  const operation::Interrupt second;
  ASSERT_NO_THROW(Update(service));
  EXPECT_EQ(ReadTree(prefix_), second_);
}

TEST_F(LongLivedTest, RepairThatDidNotBeginDemandsNothingOfTheNextOperation) {
  const char* const settings = "/usr/tolm/etc/data_update/operation.conf";
  const operation::Service service = operation::BuildService([](const std::string&) {});
  WriteFile(prefix_ / "a.txt", "damaged");
  // While it compares; it notices before it repairs.
  publisher_.Server().SetHandler("/packages/oui_v1", [&](const HttpRequest&) {
    WriteFile(settings, "{");
    HttpAnswer answer;
    answer.body_file = publisher_.FullPackage("oui", 1);
    return answer;
  });
  operation::Run run(service, false, false);
  EXPECT_THROW(run.FixByPackage("oui"), std::exception);
  EXPECT_EQ(ReadFile(prefix_ / "a.txt"), "damaged");
  fs::remove(settings);
  WriteFile(prefix_ / "a.txt", "one");
  publisher_.Offer("oui", 2, {2});
  ASSERT_NO_THROW(Update(service));
  EXPECT_EQ(publisher_.Server().RequestCount("/packages/oui_v2"), 0u);
  EXPECT_EQ(ReadTree(prefix_), second_);
}

}  // namespace
}  // namespace tolm::testing

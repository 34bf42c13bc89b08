// The installed tool as a timer runs it: a server that fails is left alone for a while, and never
// for ever.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/shifted_clock.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kDescriptionPath[] = "/database_info/1";
constexpr char kPackagePath[] = "/packages/oui_v1";
constexpr char kHistory[] = "/var/lib/data_update/history.jsonl";
constexpr char kCoolDowns[] = "/var/lib/data_update/cooldown.json";
constexpr std::time_t kMinute = 60;
constexpr std::time_t kHour = 60 * kMinute;
constexpr std::time_t kDay = 24 * kHour;
const std::vector<std::string> kScheduled = {"update", "--all", "--scheduled"};
const std::vector<std::string> kByHand = {"update", "--all"};

CommandOptions AtTime(std::time_t now) {
  CommandOptions options;
  options.environment = EnvironmentAt(now);
  return options;
}

// The outcomes of all entries, in their order.
std::vector<std::string> Outcomes() {
  std::vector<std::string> outcomes;
  std::istringstream lines(ReadFile(kHistory));
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream text(line);
    Json::Value entry;
    text >> entry;
    outcomes.push_back(entry["outcome"].asString());
  }
  return outcomes;
}

class TolmdbudScheduledTest : public DeviceTest {
 protected:
  HttpServer& Server() { return publisher_.Server(); }

  void FailDescription() {
    HttpAnswer failure;
    failure.status = 503;
    Server().SetAnswer(kDescriptionPath, failure);
  }

  // The tool at the test's time.
  CommandResult Run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), kTool);
    return RunCommand(arguments, AtTime(now_));
  }

  std::size_t Requests() { return Server().Requests().size(); }

  // How often the path is requested in a day.
  std::size_t RequestsInADay(const char* path, const std::vector<std::string>& command,
                             std::time_t interval) {
    fs::remove(kCoolDowns);
    const std::size_t before = Server().RequestCount(path);
    for (std::time_t passed = 0; passed < kDay; passed += interval) {
      Run(command);
      now_ += interval;
    }
    return Server().RequestCount(path) - before;
  }

  // Waits of any length that chance chooses leave room for 8 to 11 attempts; a run every hour may
  // miss the first of them.
  void ExpectADayToBeQuiet(const std::string& what, const char* path) {
    for (const std::time_t interval : {5 * kMinute, kHour}) {
      const std::size_t held_back = RequestsInADay(path, kScheduled, interval);
      std::cout << what << ", a run every " << interval / kMinute
                << " minutes for a day: asked for " << held_back << " times\n";
      EXPECT_GE(held_back, 5u);
      EXPECT_LE(held_back, 11u);
    }
    // Without the cool-down every run asks.
    EXPECT_EQ(RequestsInADay(path, kByHand, kHour), static_cast<std::size_t>(kDay / kHour));
  }

  std::time_t now_ = std::time(nullptr);
};

TEST_F(TolmdbudScheduledTest, ServerThatFailedIsLeftAloneAndThatIsNoFailure) {
  FailDescription();
  EXPECT_EQ(Run(kScheduled).exit_status, 1);
  EXPECT_EQ(Requests(), 1u);
  for (int i = 0; i < 3; ++i) {
    now_ += kMinute;
    const CommandResult result = Run(kScheduled);
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_THAT(result.out,
                AllOf(StartsWith("skipped: the server 127.0.0.1:"),
                      HasSubstr(" is left alone until "), EndsWith(" after 1 failure\n")));
    EXPECT_EQ(result.err, "");
  }
  EXPECT_EQ(Requests(), 1u);
  EXPECT_THAT(Outcomes(), ElementsAre("failed", "skipped"));
}

// ---- The hours of the day ----

// From so many minutes after now on, for an hour, in a zone without a clock change.
std::string HoursFrom(std::time_t now, std::time_t minutes) {
  std::string text;
  for (const std::time_t at : {now + minutes * kMinute, now + (minutes + 60) * kMinute}) {
    char time[sizeof "22:00"];
    tm parts{};
    std::strftime(time, sizeof time, "%H:%M", gmtime_r(&at, &parts));
    text += (text.empty() ? "" : "-") + std::string(time);
  }
  return text;
}

void SetHours(const std::string& hours) {
  WriteFile("/usr/tolm/etc/data_update/operation.conf", "{\"download_hours\": \"" + hours + "\"}");
}

TEST_F(TolmdbudScheduledTest, OutsideOfTheHoursNobodyIsAskedAndThatIsNoFailure) {
  setenv("TZ", "UTC0", 1);
  const std::string hours = HoursFrom(now_, 120);
  SetHours(hours);
  const CommandResult result = Run(kScheduled);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out,
            "skipped: scheduled runs download at " + hours + " (download_hours) only\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(Requests(), 0u);
  EXPECT_THAT(Outcomes(), ElementsAre("skipped"));
  now_ += 150 * kMinute;
  EXPECT_EQ(Run(kScheduled).out, "oui: updated to 1\n");
}

TEST_F(TolmdbudScheduledTest, RunByHandGoesOnOutsideOfTheHoursAndSaysSoWhenAsked) {
  setenv("TZ", "UTC0", 1);
  SetHours(HoursFrom(now_, 120));
  const CommandResult quiet = Run({"update", "oui"});
  EXPECT_EQ(quiet.out, "oui: updated to 1\n");
  EXPECT_EQ(quiet.err, "");
  EXPECT_THAT(Run({"update", "oui", "--verbose"}).err,
              HasSubstr("(download_hours) only, this one goes on\n"));
}

// ---- The server ----

TEST_F(TolmdbudScheduledTest, ItIsAskedAgainWhenTheTimeIsUp) {
  FailDescription();
  EXPECT_EQ(Run(kScheduled).exit_status, 1);
  now_ += 15 * kMinute;
  EXPECT_EQ(Run(kScheduled).exit_status, 1);
  EXPECT_EQ(Requests(), 2u);
  now_ += 14 * kMinute;
  EXPECT_THAT(Run(kScheduled).out, EndsWith(" after 2 failures in a row\n"));
  now_ += 16 * kMinute;
  publisher_.Offer("oui", 1);
  EXPECT_EQ(Run(kScheduled).out, "oui: updated to 1\n");
  now_ += 2 * kHour;
  FailDescription();
  EXPECT_EQ(Run(kScheduled).exit_status, 1);
  now_ += kMinute;
  EXPECT_THAT(Run(kScheduled).out, EndsWith(" after 1 failure\n"));
}

TEST_F(TolmdbudScheduledTest, PersonIsNotHeldBackAndItsSuccessEndsTheWait) {
  FailDescription();
  EXPECT_EQ(Run(kScheduled).exit_status, 1);
  EXPECT_EQ(Run(kByHand).exit_status, 1);
  EXPECT_EQ(Requests(), 2u);
  EXPECT_THAT(Run(kScheduled).out, EndsWith(" after 2 failures in a row\n"));
  publisher_.Offer("oui", 1);
  EXPECT_EQ(Run(kByHand).out, "oui: updated to 1\n");
  EXPECT_EQ(WithoutAge(Run(kScheduled).out), "oui: up to date\n");
}

TEST_F(TolmdbudScheduledTest, PackageThatIsRefusedCountsLikeAServerThatIsDown) {
  WriteFile(publisher_.FullPackage("oui", 1), "no package");
  EXPECT_EQ(Run(kScheduled).exit_status, 1);
  EXPECT_EQ(Server().RequestCount(kPackagePath), 1u);
  now_ += kMinute;
  EXPECT_THAT(Run(kScheduled).out, StartsWith("skipped: "));
  EXPECT_EQ(Server().RequestCount(kPackagePath), 1u);
}

TEST_F(TolmdbudScheduledTest, RunThatIsKilledCountsAsAFailure) {
  Server().Hang(kPackagePath);
  RunningCommand run({kTool, "update", "--all", "--scheduled"}, AtTime(now_));
  ASSERT_TRUE(Server().WaitForRequest(kPackagePath));
  run.Process().Signal(SIGKILL);
  run.Wait();
  Server().Reset(kPackagePath);
  EXPECT_THAT(Run(kScheduled).out, StartsWith("skipped: "));
  EXPECT_EQ(Server().RequestCount(kPackagePath), 1u);
}

TEST_F(TolmdbudScheduledTest, RunThatTheServiceEndsCountsAsAFailure) {
  Server().Hang(kPackagePath);
  RunningCommand run({kTool, "update", "--all", "--scheduled"}, AtTime(now_));
  ASSERT_TRUE(Server().WaitForRequest(kPackagePath));
  run.Process().Signal(SIGTERM);
  EXPECT_EQ(run.Wait().exit_status, 128 + SIGTERM);
  EXPECT_THAT(Run(kScheduled).out, StartsWith("skipped: "));
}

TEST_F(TolmdbudScheduledTest, FailureBeforeAnyRequestSaysNothingAboutTheServer) {
  ConfigureDevice(publisher_, {{"oui", kOnVolume}}, "");
  EXPECT_EQ(Run(kScheduled).exit_status, 12);
  EXPECT_EQ(Run({"update", "unknown"}).exit_status, 1);
  EXPECT_FALSE(fs::exists(kCoolDowns));
}

TEST_F(TolmdbudScheduledTest, DamagedFileHoldsNobodyBack) {
  for (const char* damaged : {"", "{", "[]", "garbage"}) {
    WriteFile(kCoolDowns, damaged);
    const CommandResult result = Run(kScheduled);
    EXPECT_EQ(result.exit_status, 0) << damaged;
    EXPECT_EQ(ReadFile(std::string(kCoolDowns) + ".aside"), damaged);
  }
}

TEST_F(TolmdbudScheduledTest, ClockThatWasPutBackHoldsNobodyForEver) {
  FailDescription();
  EXPECT_EQ(Run(kScheduled).exit_status, 1);
  publisher_.Offer("oui", 1);
  now_ -= 400 * kDay;
  EXPECT_THAT(Run(kScheduled).out, StartsWith("skipped: "));
  now_ += 15 * kMinute;
  EXPECT_EQ(Run(kScheduled).out, "oui: updated to 1\n");
}

TEST_F(TolmdbudScheduledTest, AttemptThatCannotBeWrittenDownIsNotMade) {
  WriteFile(std::string(kCoolDowns) + ".new/in the way", "");
  for (const std::vector<std::string>& command : {kScheduled, kByHand}) {
    const CommandResult result = Run(command);
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.err,
                HasSubstr("oui: not begun: Fail to open /var/lib/data_update/cooldown.json"));
  }
  EXPECT_EQ(Requests(), 0u);
}

TEST_F(TolmdbudScheduledTest, SkippedRunIsNamedInTheDocument) {
  FailDescription();
  EXPECT_EQ(Run(kScheduled).exit_status, 1);
  const CommandResult result = Run({"update", "--all", "--scheduled", "--json"});
  EXPECT_EQ(result.exit_status, 0);
  Json::Value document;
  std::istringstream(result.out) >> document;
  EXPECT_THAT(document["skipped"].asString(), HasSubstr(" is left alone until "));
  EXPECT_EQ(document["results"].size(), 0u);
  EXPECT_EQ(Run({"update", "--all", "--scheduled", "--quiet"}).out, "");
}

TEST_F(TolmdbudScheduledTest, ItIsForAllDatabasesOnly) {
  EXPECT_EQ(Run({"update", "oui", "--scheduled"}).exit_status, 2);
  EXPECT_EQ(Run({"fix", "--all", "--scheduled"}).exit_status, 2);
}

TEST_F(TolmdbudScheduledTest, TimerAndPersonAtOnceUpdateOnce) {
  Server().Hang(kPackagePath, ReadFile(publisher_.FullPackage("oui", 1)));
  RunningCommand timer({kTool, "update", "--all", "--scheduled"}, AtTime(now_));
  ASSERT_TRUE(Server().WaitForRequest(kPackagePath));
  RunningCommand person({kTool, "update", "oui"}, AtTime(now_));
  Server().Release();
  EXPECT_EQ(timer.Wait().out, "oui: updated to 1\n");
  const CommandResult result = person.Wait();
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(WithoutAge(result.out), "oui: up to date\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(Server().RequestCount(kPackagePath), 1u);
  EXPECT_FALSE(Run(kScheduled).out.find("skipped") != std::string::npos);
}

TEST_F(TolmdbudScheduledTest, ServerThatIsDownForADayIsNotStormed) {
  FailDescription();
  ExpectADayToBeQuiet("The server answers 503", kDescriptionPath);
}

TEST_F(TolmdbudScheduledTest, PackageThatIsRefusedForADayIsNotFetchedAllTheTime) {
  WriteFile(publisher_.FullPackage("oui", 1), "no package");
  ExpectADayToBeQuiet("The package is refused", kPackagePath);
}

}  // namespace
}  // namespace tolm::testing

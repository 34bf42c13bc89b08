#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "base/rules.h"
#include "bench/fleet/chance.h"
#include "bench/fleet/simulation.h"

namespace tolm::fleet {
namespace {

constexpr Seconds kHour = 3600;

// Everybody asks at midnight, and has the newest of two releases' predecessor.
Scenario AllAtMidnight(std::uint32_t devices, Seconds days) {
  Scenario scenario;
  scenario.devices = devices;
  scenario.seconds = days * kDay;
  scenario.line_bytes_per_second = 1000000;
  scenario.description_bytes = 1000;
  scenario.releases = {{1, 0, 500000, std::nullopt, {}, kNever, 0},
                       {2, 0, 500000, 20000, {}, kNever, 0}};
  scenario.start = {{1.0, 1}};
  return scenario;
}

Result RunOf(const Scenario& scenario) {
  return Simulation(scenario).Run();
}

std::int64_t AllRequests(const Result& result) {
  return result.all.requests[kDescription] + result.all.requests[kDelta] +
         result.all.requests[kFull];
}

void ExpectNoByteIsLost(const Result& result) {
  const auto& received = result.received_bytes;
  EXPECT_EQ(result.all.sent_bytes, received[kDescription] + received[kDelta] + received[kFull] +
                                       result.wasted_bytes + result.under_way_bytes);
}

TEST(FleetSimulation, RequestsAreOneDescriptionEachDayAndOneDeltaForEachRelease) {
  Scenario scenario = AllAtMidnight(1000, 3);
  scenario.releases.push_back({3, kDay + kHour, 500000, 30000, {}, kNever, 0});
  const Result result = RunOf(scenario);
  EXPECT_EQ(result.all.runs, 3000);
  EXPECT_EQ(result.all.succeeded, 3000);
  EXPECT_EQ(result.all.requests[kDescription], 3000);
  EXPECT_EQ(result.all.requests[kDelta], 2000);
  EXPECT_EQ(result.all.requests[kFull], 0);
  EXPECT_EQ(result.all.sent_bytes, 3000 * 1000 + 1000 * 20000 + 1000 * 30000);
  EXPECT_EQ(result.requests.value, 1000);
  EXPECT_EQ(result.requests.at % kDay, 0) << "each run begins with its description";
  ExpectNoByteIsLost(result);
}

TEST(FleetSimulation, WhoHasNothingOrTooOldAVersionComesInFull) {
  Scenario scenario = AllAtMidnight(1000, 1);
  scenario.releases = {{1, 0, 1000, std::nullopt, {}, kNever, 0},
                       {2, 0, 1000, 400, {}, kNever, 0},
                       {3, 0, 1000, 400, {}, kNever, 0},
                       {4, 0, 1000, 300, {}, kNever, 0}};
  for (const int version : {0, 1, 2, 3, 4}) {
    scenario.start = {{1.0, version}};
    const Result result = RunOf(scenario);
    const int deltas = version >= 2 ? 4 - version : 0;
    EXPECT_EQ(result.all.requests[kDelta], 1000 * deltas) << version;
    EXPECT_EQ(result.all.requests[kFull], version < 2 ? 1000 : 0) << version;
  }
}

TEST(FleetSimulation, OfferedDeltasMakeTheDescriptionLarger) {
  Scenario scenario = AllAtMidnight(1, 1);
  scenario.description_delta_bytes = 70;
  EXPECT_EQ(RunOf(scenario).received_bytes[kDescription], 1070);
  scenario.releases.back().description_bytes = 1234;
  EXPECT_EQ(RunOf(scenario).received_bytes[kDescription], 1234) << "told by the scenario";
}

TEST(FleetSimulation, ADescriptionCountsForAnHour) {
  Scenario scenario = AllAtMidnight(100, 1);
  scenario.timer.period = kHour / 2;
  // At 0:00 and, since an hour is not more than an hour, at 1:30, 3:00 and so on; the first second
  // is gone when the answer is there.
  EXPECT_EQ(RunOf(scenario).all.runs, 4800);
  EXPECT_EQ(RunOf(scenario).all.requests[kDescription], 100 * 16);
  scenario.timer.period = 2 * kHour;
  EXPECT_EQ(RunOf(scenario).all.requests[kDescription], 100 * 12);
}

TEST(FleetSimulation, DelaysSpreadRunsEvenlyAndAreTheSameEachDay) {
  Scenario scenario = AllAtMidnight(10000, 2);
  scenario.timer.delay = 6 * kHour;
  scenario.timer.fixed = true;
  scenario.series_seconds = kHour;
  const Result result = RunOf(scenario);
  ASSERT_EQ(result.series.size(), 48u);
  for (std::size_t hour = 0; hour < 24; ++hour) {
    const std::int64_t runs = result.series[hour].runs;
    EXPECT_EQ(runs, result.series[hour + 24].runs) << hour;
    if (hour < 6) {
      EXPECT_NEAR(static_cast<double>(runs), 10000.0 / 6, 150) << hour;
    } else {
      EXPECT_EQ(runs, 0) << hour;
    }
  }
}

TEST(FleetSimulation, MidnightIsThatOfTheZone) {
  Scenario scenario = AllAtMidnight(1000, 1);
  scenario.zones = {{0.5, 2 * kHour}, {0.5, -5 * kHour}};
  scenario.series_seconds = kHour;
  const Result result = RunOf(scenario);
  EXPECT_NEAR(static_cast<double>(result.series[22].runs), 500, 60);
  EXPECT_NEAR(static_cast<double>(result.series[5].runs), 500, 60);
  EXPECT_EQ(result.all.runs, 1000);
}

TEST(FleetSimulation, ASleeperRunsWhenItWakesAndOneThatWasOffAfterItsDelay) {
  Scenario scenario = AllAtMidnight(1000, 2);
  scenario.timer.delay = 6 * kHour;
  scenario.timer.fixed = true;
  scenario.timer.persistent = true;
  scenario.series_seconds = kHour;
  scenario.presence.spread = 0;
  scenario.presence.asleep = 1;
  const Result asleep = RunOf(scenario);
  EXPECT_EQ(asleep.series[8].runs, 1000);
  EXPECT_EQ(asleep.all.runs, 2000);
  scenario.presence.asleep = 0;
  scenario.presence.off = 1;
  const Result off = RunOf(scenario);
  EXPECT_EQ(off.all.runs, 2000);
  for (std::size_t hour = 8; hour < 14; ++hour) {
    EXPECT_NEAR(static_cast<double>(off.series[hour].runs), 1000.0 / 6, 45) << hour;
  }
  scenario.presence.until = 10 * kHour;  // On for less time than a delay may be.
  EXPECT_NEAR(static_cast<double>(RunOf(scenario).all.runs), 2 * 1000.0 / 3, 90);
  scenario.timer.persistent = false;
  EXPECT_EQ(RunOf(scenario).all.runs, 0);
}

TEST(FleetSimulation, WhoIsAwayComesBackWithWhatItHad) {
  Scenario scenario = AllAtMidnight(1000, 4);
  scenario.timer.persistent = true;
  scenario.presence.away = 0.2;
  scenario.presence.back = 2 * kDay + kHour;
  const Result result = RunOf(scenario);
  EXPECT_EQ(result.all.requests[kDelta], 1000);
  const auto at = [&](Seconds time) {
    return result.releases[1].devices[static_cast<std::size_t>(time / 60)];
  };
  EXPECT_NEAR(at(kDay), 800, 40);
  EXPECT_LT(at(2 * kDay + kHour - 60), 850u);
  EXPECT_EQ(at(2 * kDay + kHour + 60), 1000u);
}

TEST(FleetSimulation, StagesTakeTheirSharesOfTenThousandIdentifiers) {
  Scenario scenario = AllAtMidnight(10000, 3);
  scenario.timer.period = kHour;
  scenario.series_seconds = kHour;
  scenario.start = {};
  scenario.releases.push_back(
      {3, 30, 500000, 1000, {{0.01, 6 * kHour}, {0.1, 18 * kHour}, {1, kDay}}, kNever, 0});
  const Result result = RunOf(scenario);
  const auto& have = result.releases[2].devices;
  EXPECT_EQ(have[0], 0u) << "asked before it was there";
  EXPECT_NEAR(have[5], 100, 100);
  EXPECT_GT(have[5], 0u);
  EXPECT_NEAR(have[23], 1000, 100);
  EXPECT_EQ(have[26], 10000u);
}

TEST(FleetSimulation, AStoppedPlanGoesNoFurther) {
  Scenario scenario = AllAtMidnight(10000, 3);
  scenario.timer.period = kHour;
  scenario.start = {};
  scenario.releases.push_back(
      {3, 0, 500000, 1000, {{0.01, 6 * kHour}, {0.1, 18 * kHour}, {1, kDay}}, 12 * kHour, 0});
  const Result result = RunOf(scenario);
  EXPECT_NEAR(result.releases[2].count, 1000, 100);
  EXPECT_EQ(result.all.requests[kDelta], result.releases[2].count);
}

TEST(FleetSimulation, RolloutSettingsMoveDevicesInAPlan) {
  const auto reached = [](Rollout rollout, Seconds at) {
    Scenario scenario = AllAtMidnight(1000, 3);
    scenario.timer.period = kHour;
    scenario.start = {};
    scenario.rollout = rollout;
    scenario.releases.push_back({3, 0, 500000, 1000, {{0.1, kDay}, {1, kDay}}, kNever, 0});
    return RunOf(scenario).releases[2].devices[static_cast<std::size_t>(at / 60)];
  };
  EXPECT_EQ(reached({1, 0, 0}, kHour), 1000u) << "early";
  EXPECT_EQ(reached({0, 1, 0}, kDay - 60), 0u) << "late";
  EXPECT_EQ(reached({0, 1, 0}, kDay + 2 * kHour), 1000u) << "late";
  EXPECT_EQ(reached({0, 0, 1}, 2 * kDay - 60), 0u) << "stable";
  EXPECT_EQ(reached({0, 0, 1}, 2 * kDay + 2 * kHour), 1000u) << "stable";
}

TEST(FleetSimulation, PositionsAreEvenAndOthersForEachRelease) {
  Scenario scenario = AllAtMidnight(10000, 1);
  std::array<int, 10> tenths{};
  int both = 0;
  for (std::uint32_t device = 0; device < scenario.devices; ++device) {
    const double position = PositionOf(scenario, device, 7);
    ++tenths[static_cast<std::size_t>(position * 10)];
    both += position < 0.1 && PositionOf(scenario, device, 8) < 0.1 ? 1 : 0;
  }
  for (const int tenth : tenths) {
    EXPECT_NEAR(tenth, 1000, 100);
  }
  EXPECT_NEAR(both, 100, 40) << "not the same devices are the first each time";
}

TEST(FleetSimulation, CoolDownsHoldRunsBackTwiceAsLongEachTime) {
  for (int failures = 1; failures <= 10; ++failures) {
    const Seconds longest = std::min<Seconds>(rules::kCoolDownLongestSeconds,
                                              rules::kCoolDownFirstSeconds << (failures - 1));
    EXPECT_EQ(CoolDownSeconds(failures, 0), longest / 2);
    EXPECT_EQ(CoolDownSeconds(failures, 0.9999999), longest - 1);
  }
  Scenario scenario = AllAtMidnight(1, 1);
  scenario.timer.period = 15 * 60;
  scenario.outages = {{0, kDay}};
  const Result result = RunOf(scenario);
  EXPECT_EQ(result.all.runs + result.all.held_back, 96);
  EXPECT_EQ(result.all.refused, result.all.runs);
  // 15 min, 30 min, 1, 2, 4 hours and then 8 are the longest; a wait is at least half of that.
  EXPECT_GE(result.all.runs, 6);
  EXPECT_LE(result.all.runs, 11);
  scenario.cool_down = false;
  EXPECT_EQ(RunOf(scenario).all.runs, 96);
}

TEST(FleetSimulation, ADeltaThatIsRefusedLeadsToTheFullPackage) {
  Scenario scenario = AllAtMidnight(1, 1);
  scenario.line_bytes_per_second = 1000;  // The delta takes 20 s.
  scenario.outages = {{5, 10}};
  std::vector<std::string> road;
  const auto note = [&](Seconds now, std::uint32_t, const char* what, int value) {
    road.push_back(std::to_string(now) + ' ' + what + ' ' + std::to_string(value));
  };
  const Result result = Simulation(scenario, note).Run();
  EXPECT_EQ(road, (std::vector<std::string>{"0 run 1", "0 description 0", "1 delta 2",
                                            "6 refused 2", "7 refused 2", "7 failed 1"}));
  EXPECT_EQ(result.wasted_bytes, 4000);
  ExpectNoByteIsLost(result);
}

TEST(FleetSimulation, AServerSharesItsBytesAndNoneIsLost) {
  Scenario scenario = AllAtMidnight(1000, 1);
  scenario.server.bytes_per_second = 100000;  // 20 MB take 200 s, and their descriptions 10.
  scenario.series_seconds = 1;
  const Result result = RunOf(scenario);
  ExpectNoByteIsLost(result);
  EXPECT_EQ(result.all.succeeded, 1000);
  EXPECT_LE(result.bytes.value, 100000 + 1000) << "what could not be shared is for the next second";
  EXPECT_NEAR(static_cast<double>(result.releases[1].after[2]), 210, 3);
}

TEST(FleetSimulation, DownloadsBelowTheLeastPaceAreGivenUpAfterFiveMinutes) {
  Scenario scenario = AllAtMidnight(1000, 1);
  scenario.start = {{1.0, 0}};
  scenario.server.bytes_per_second = 1000 * 1000;  // Not 1024 for each.
  scenario.seconds = 2 * kHour;
  const Result result = RunOf(scenario);
  EXPECT_EQ(result.all.given_up, 1000);
  EXPECT_EQ(result.all.failed, 1000);
  EXPECT_NEAR(static_cast<double>(result.wasted_bytes), 300e6, 3e6);
  ExpectNoByteIsLost(result);
}

TEST(FleetSimulation, RequestsBeyondThoseOfASecondWaitAndAreGivenUpInTheEnd) {
  Scenario scenario = AllAtMidnight(1000, 1);
  scenario.start = {};
  scenario.server.requests_per_second = 50;
  const Result in_time = RunOf(scenario);
  EXPECT_EQ(in_time.all.succeeded, 1000);
  EXPECT_EQ(in_time.all.given_up, 0);
  scenario.server.requests_per_second = 10;  // After 60 s 600 were answered.
  const Result too_late = RunOf(scenario);
  EXPECT_GT(too_late.all.given_up, 0);
  EXPECT_EQ(too_late.all.runs, 1000);
  EXPECT_EQ(too_late.all.succeeded + too_late.all.failed, 1000);
}

TEST(FleetSimulation, ConnectionsBeyondTheLimitAreResetAndTriedThreeTimes) {
  Scenario scenario = AllAtMidnight(1000, 1);
  scenario.start = {};
  scenario.line_bytes_per_second = 10;  // A description takes 100 s.
  scenario.server.connections = 300;
  const Result result = RunOf(scenario);
  EXPECT_EQ(AllRequests(result), 300);
  EXPECT_EQ(result.all.reset, 3 * 700);
  EXPECT_EQ(result.all.failed, 700);
}

TEST(FleetSimulation, ASiteAsksOnceForAllItsDevices) {
  Scenario scenario = AllAtMidnight(1000, 2);
  scenario.devices_at_site = 100;
  const Result result = RunOf(scenario);
  EXPECT_EQ(result.all.succeeded, 2000);
  EXPECT_EQ(result.releases[1].count, 1000u);
  EXPECT_EQ(result.all.requests[kDescription], 2 * 10);
  EXPECT_EQ(result.all.requests[kDelta], 10);
  EXPECT_EQ(result.all.sent_bytes, 20 * 1000 + 10 * 20000);
  EXPECT_EQ(result.all.site_bytes, 2 * 990 * 1000 + 990 * 20000);
  ExpectNoByteIsLost(result);
}

TEST(FleetSimulation, ASiteGivesAnOldDescriptionWhileTheServerIsAway) {
  Scenario scenario = AllAtMidnight(100, 2);
  scenario.devices_at_site = 100;
  scenario.outages = {{kHour, 2 * kDay}};
  const Result result = RunOf(scenario);
  EXPECT_EQ(result.all.refused, 100);
  EXPECT_EQ(result.all.failed, 0);
  EXPECT_EQ(result.all.succeeded, 200);
}

TEST(FleetSimulation, TheSameSeedGivesTheSameResultAndAnotherAnother) {
  Scenario scenario = AllAtMidnight(2000, 2);
  scenario.timer.delay = 6 * kHour;
  scenario.presence.off = 0.3;
  scenario.presence.asleep = 0.3;
  scenario.server.bytes_per_second = 20000;
  scenario.outages = {{2 * kHour, 3 * kHour}};
  const auto trace_of = [](const Scenario& one) {
    std::vector<std::string> trace;
    Simulation(one, [&](Seconds now, std::uint32_t device, const char* what, int value) {
      trace.push_back(std::to_string(now) + ' ' + std::to_string(device) + ' ' + what + ' ' +
                      std::to_string(value));
    }).Run();
    return trace;
  };
  const std::vector<std::string> first = trace_of(scenario);
  EXPECT_GT(first.size(), 4000u);
  EXPECT_EQ(trace_of(scenario), first);
  scenario.seed = 2;
  EXPECT_NE(trace_of(scenario), first);
}

TEST(FleetSimulation, AScenarioIsReadWhole) {
  const std::string unit =
      "[Timer]\nOnCalendar=daily\nRandomizedDelaySec=1h 30min\nPersistent=yes\n";
  const Scenario scenario = ParseScenario(
      R"({"devices": 5, "seconds": 60, "description_bytes": 7, "timer": {"period": 3600},
          "releases": [{"version": 1, "full_bytes": 10},
                       {"version": 2, "at": 5, "full_bytes": 10, "delta_bytes": 2,
                        "plan": [{"share": 0.1, "seconds": 10}], "stopped": 12}]})",
      unit);
  EXPECT_EQ(scenario.timer.period, kHour);
  EXPECT_EQ(scenario.timer.delay, 5400);
  EXPECT_TRUE(scenario.timer.persistent);
  ASSERT_EQ(scenario.releases.size(), 2u);
  EXPECT_EQ(scenario.releases[1].stopped, 12);
  EXPECT_EQ(scenario.releases[1].plan.at(0).seconds, 10);
}

TEST(FleetSimulation, AScenarioThatIsAmissIsRefusedWithTheMember) {
  const std::string unit = "[Timer]\nOnCalendar=daily\n";
  const std::map<std::string, std::string> texts{
      {"is no JSON", "{"},
      {"scenario.devices: is missing", "{}"},
      {"scenario.devices: must be a whole number", R"({"devices": 0})"},
      {"scenario.seeds: is not known",
       R"({"devices": 1, "seconds": 1, "description_bytes": 1, "seeds": 1,
           "releases": [{"version": 1, "full_bytes": 1}]})"},
      {"releases: the first one",
       R"({"devices": 1, "seconds": 1, "description_bytes": 1, "releases": []})"},
      {"scenario.releases[1].at", R"({"devices": 1, "seconds": 1, "description_bytes": 1,
           "releases": [{"version": 1, "full_bytes": 1},
                        {"version": 2, "full_bytes": 1, "at": "noon"}]})"},
      {"scenario.outages[1].from: must be a whole number from 9 to",
       R"({"devices": 1, "seconds": 1, "description_bytes": 1,
           "outages": [{"from": 5, "until": 9}, {"from": 8, "until": 12}],
           "releases": [{"version": 1, "full_bytes": 1}]})"},
      {"zones: the shares are more than 1",
       R"({"devices": 1, "seconds": 1, "description_bytes": 1,
           "zones": [{"share": 0.6, "seconds": 0}, {"share": 0.6, "seconds": 1}],
           "releases": [{"version": 1, "full_bytes": 1}]})"},
  };
  for (const auto& [reason, text] : texts) {
    try {
      ParseScenario(text, unit);
      ADD_FAILURE() << "not refused: " << reason;
    } catch (const std::runtime_error& error) {
      EXPECT_NE(std::string(error.what()).find(reason), std::string::npos) << error.what();
    }
  }
}

}  // namespace
}  // namespace tolm::fleet

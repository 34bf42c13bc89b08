// What the simulated fleet does by rules of its own is compared with what devices and publishers
// do.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "base/paths.h"
#include "bench/fleet/chance.h"
#include "bench/fleet/device_rules.h"
#include "bench/fleet/offers.h"
#include "bench/fleet/scenario.h"
#include "offer/rollout.h"
#include "operation/cool_down.h"
#include "publish/catalog.h"
#include "tests/support/files.h"

namespace tolm::fleet {
namespace {

using testing::ReadFile;

std::string SourceFile(const std::string& path) {
  return ReadFile(std::string(TOLM_TEST_SOURCE_DIR) + '/' + path);
}

TEST(FleetRules, CoolDownsLastAsLongAsOnDevices) {
  for (const double chance : {0.0, 0.25, 0.9999}) {
    std::int64_t now = 1795255200;
    std::filesystem::remove(paths::kCoolDowns);
    for (int failures = 1; failures <= 12; ++failures) {
      operation::CoolDown device(
          "example.org:80", operation::CoolDownTimes(), [&] { return now; },
          [&] { return chance; });
      device.BeginAttempt();
      const auto held = device.Ask();
      ASSERT_TRUE(held);
      EXPECT_EQ(CoolDownSeconds(failures, chance), held->until - now) << failures << ' ' << chance;
      now = held->until;
    }
  }
}

TEST(FleetRules, ChainsAreTrimmedAsThePublisherDoes) {
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    publish::Database database;
    std::vector<Release> releases;
    int version = 1;
    int chain_from = 0;
    for (std::uint64_t i = 0; i < 12; ++i) {
      const auto draw = [&](std::uint64_t number) { return Chance(seed, i, Draw::kStart, number); };
      version += draw(0) < 0.05 ? 2 : 1;
      Release release;
      release.version = version;
      release.full_bytes = 1 + static_cast<std::int64_t>(draw(1) * 1000);
      publish::Release published;
      published.version = version;
      published.full.size_bytes = static_cast<std::uint64_t>(release.full_bytes);
      if (draw(2) < 0.9) {
        release.delta_bytes = 1 + static_cast<std::int64_t>(draw(3) * 300);
        published.delta.emplace();
        published.delta->package.size_bytes = static_cast<std::uint64_t>(*release.delta_bytes);
      }
      releases.push_back(release);
      database.releases.push_back(published);
      publish::TrimChain(database, 70, 99);
      chain_from = ChainFrom(releases, releases.size(), 70, chain_from);
      std::vector<int> expected;
      for (const publish::Release* offered : publish::OfferedChain(database)) {
        expected.push_back(offered->version);
      }
      std::vector<int> offered;
      for (int one = chain_from + 1; one <= version; ++one) {
        offered.push_back(one);
      }
      EXPECT_EQ(offered, expected) << "seed " << seed << ", release " << i;
    }
  }
}

TEST(FleetRules, PlansReachDevicesAsTheSignedTextSays) {
  constexpr std::int64_t kStart = 1795255200;
  const offer::RolloutPlan plan{kStart, {{100, 21600}, {1000, 64800}, {10000, 0}}, {}, false};
  Release release;
  release.plan = {{0.01, 21600}, {0.1, 64800}, {1, kDay}};
  for (Seconds since = -600; since < 2 * kDay - 600; since += 600) {
    const int share = offer::ShareAt(plan, kStart + since);
    const auto reached = ReachedShare(release, since);
    ASSERT_TRUE(reached) << since;
    EXPECT_EQ(std::lround(*reached * offer::kWholeShare), share) << since;
    if (since < 0) {
      continue;  // Before its time nobody is asked.
    }
    // "early" is the first position, "late" the last one, "stable" beyond all.
    EXPECT_EQ(Takes(RolloutKind::kEarly, 0.5, *reached), share > 0) << since;
    EXPECT_EQ(Takes(RolloutKind::kLate, 0.5, *reached), share > offer::kWholeShare - 1) << since;
    EXPECT_FALSE(Takes(RolloutKind::kStable, 0, *reached)) << since;
    for (const int position : {0, 99, 100, 999, 1000, 9999}) {
      EXPECT_EQ(Takes(RolloutKind::kNormal, (position + 0.5) / offer::kWholeShare, *reached),
                share > position)
          << since << ' ' << position;
    }
  }
}

TEST(FleetRules, PositionsOfDevicesAreAsEvenAsThoseThatAreDrawn) {
  Scenario scenario;
  constexpr std::uint32_t kDevices = 10000;
  constexpr std::uint32_t kOneInAHundred = kDevices / 100;
  for (const double share : {0.01, 0.1, 0.5}) {
    int real = 0;
    int drawn = 0;
    for (std::uint32_t device = 0; device < kDevices; ++device) {
      const std::string identifier = std::to_string(1000000000000000 + device);
      real += offer::PositionOf(identifier, "vendors", 31) < share * offer::kWholeShare ? 1 : 0;
      drawn += PositionOf(scenario, device, 31) < share ? 1 : 0;
    }
    EXPECT_NEAR(real, share * kDevices, kOneInAHundred) << share;
    EXPECT_NEAR(drawn, share * kDevices, kOneInAHundred) << share;
  }
}

TEST(FleetRules, TheShippedTimerIsUnderstood) {
  const std::string unit = SourceFile("packaging/systemd/tolmdbud-update.timer");
  const Timer timer = ParseTimer(unit);
  EXPECT_EQ(timer.period, unit.find("OnCalendar=daily") != std::string::npos ? kDay : 0);
  std::smatch hours;
  ASSERT_TRUE(std::regex_search(unit, hours, std::regex("RandomizedDelaySec=([0-9]+)h\n")));
  EXPECT_EQ(timer.delay, std::stoi(hours[1]) * 3600);
  EXPECT_EQ(timer.fixed, unit.find("\nFixedRandomDelay=yes\n") != std::string::npos);
  EXPECT_EQ(timer.persistent, unit.find("\nPersistent=yes\n") != std::string::npos);
}

TEST(FleetRules, DownloadsAreTriedAndWaitedForAsOnDevices) {
  const std::string simulation = SourceFile("bench/fleet/simulation.cpp");
  const auto number = [](const std::string& text, const char* pattern) {
    std::smatch match;
    return std::regex_search(text, match, std::regex(pattern)) ? std::stoi(match[1]) : -1;
  };
  EXPECT_GT(number(simulation, "kTries = ([0-9]+);"), 0);
  EXPECT_EQ(number(simulation, "kTries = ([0-9]+);"),
            number(SourceFile("src/io_utils.cpp"), "\"--tries=([0-9]+)\""));
  EXPECT_GT(number(simulation, "kReadSeconds = ([0-9]+);"), 0);
  EXPECT_EQ(number(simulation, "kReadSeconds = ([0-9]+);"),
            number(SourceFile("packaging/wgetrc"), "read_timeout = ([0-9]+)"));
}

TEST(FleetRules, ATimerThatIsNotUnderstoodIsRefused) {
  EXPECT_THROW(ParseTimer("[Timer]\nOnCalendar=Mon *-*-* 03:00\n"), std::runtime_error);
  EXPECT_THROW(ParseTimer("[Timer]\nOnCalendar=daily\nRandomizedDelaySec=6 moons\n"),
               std::runtime_error);
  EXPECT_THROW(ParseTimer("[Timer]\nRandomizedDelaySec=6h\n"), std::runtime_error);
  EXPECT_THROW(ParseTimer("[Timer]\nOnCalendar=daily\nOnBootSec=5\n"), std::runtime_error);
}

}  // namespace
}  // namespace tolm::fleet

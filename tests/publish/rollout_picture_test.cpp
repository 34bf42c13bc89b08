#include "publish/rollout_picture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>

namespace tolm::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kStart = 1800000000;  // 2027-01-15 08:00

// Over in 12 days.
offer::RolloutPlan Plan() {
  offer::RolloutPlan plan;
  plan.start = kStart;
  plan.steps = {{50, 4 * kDay}, {2500, 8 * kDay}, {10000, 0}};
  return plan;
}

std::string Drawn(const offer::RolloutPlan& plan, std::int64_t now) {
  report::Html html;
  publish::DrawRollout(html, "id", 7, plan, now);
  return html.Document();
}

TEST(RolloutPictureTest, SharesAreSaidInPercent) {
  for (const auto& [share, text] : std::map<int, std::string>{{0, "no device"},
                                                              {1, "0.01 % of the devices"},
                                                              {50, "0.5 % of the devices"},
                                                              {2500, "25 % of the devices"},
                                                              {9999, "99.99 % of the devices"},
                                                              {10000, "all devices"}}) {
    EXPECT_EQ(publish::ShareOfDevices(share), text);
  }
}

TEST(RolloutPictureTest, StepsBeginAtTheirSecond) {
  offer::RolloutPlan plan = Plan();
  const auto text = [&](std::int64_t later) { return publish::RolloutText(plan, kStart + later); };
  EXPECT_EQ(text(0),
            "has reached 0.5 % of the devices; 25 % of the devices from "
            "2027-01-19 08:00 on");
  EXPECT_EQ(text(4 * kDay - 1), text(0));
  EXPECT_EQ(text(4 * kDay),
            "has reached 25 % of the devices; all devices from 2027-01-27 08:00 on");
  EXPECT_EQ(text(12 * kDay), "has reached all devices");
  plan.held = kStart + 4 * kDay;
  EXPECT_EQ(text(4 * kDay), "is held since 2027-01-19 08:00 at 25 % of the devices");
  EXPECT_EQ(text(4 * kDay - 1),
            "has reached 0.5 % of the devices; 25 % of the devices from "
            "2027-01-19 08:00 on")
      << "by a clock that is behind it is not held yet";
}

TEST(RolloutPictureTest, EveryStepIsDrawnAndNowIsMarked) {
  EXPECT_THAT(
      Drawn(Plan(), kStart + 7 * kDay),
      AllOf(HasSubstr("<p>Version 7 has reached 25 % of the devices; all devices from 2027-01-27 "
                      "08:00 on.</p>"),
            HasSubstr("<div class=\"pictures\">"),
            HasSubstr("<figcaption>Version 7: share of the devices</figcaption>"),
            HasSubstr("<title id=\"id-t\">Version 7: share of the devices</title>"),
            HasSubstr("<desc id=\"id-d\">Share of the devices that are offered it, by time: "
                      "2027-01-15 08:00 0.5 %; 2027-01-19 08:00 25 %; 2027-01-27 08:00 100 %."
                      "</desc>"),
            // Of 14 days: the last step is drawn as long as a sixth of the others.
            HasSubstr("d=\"M0 1000H0V995H285.7V750H857.1V0H1000V1000z\""),
            HasSubstr("class=\"now\" x1=\"50%\""), HasSubstr(">2027-01-15</text>"),
            HasSubstr(">2027-01-29</text>")));
}

TEST(RolloutPictureTest, LastStepIsDrawnAsADayAtLeast) {
  offer::RolloutPlan plan = Plan();
  plan.steps = {{2500, kDay}, {10000, 0}};
  EXPECT_THAT(Drawn(plan, kStart),
              AllOf(HasSubstr("d=\"M0 1000H0V750H500V0H1000V1000z\""),
                    HasSubstr(">2027-01-17</text>"), Not(HasSubstr("class=\"now\""))));
}

TEST(RolloutPictureTest, HeldOneIsMarkedWhereItStandsAndAStoppedOneNowhere) {
  offer::RolloutPlan plan = Plan();
  plan.held = kStart + 7 * kDay;
  EXPECT_THAT(Drawn(plan, kStart + 10 * kDay),
              AllOf(HasSubstr("<p>Version 7 is held since 2027-01-22 08:00 at 25 % of the devices."
                              "</p>"),
                    HasSubstr("class=\"now\" x1=\"50%\"")));
  plan.stopped = true;
  EXPECT_THAT(Drawn(plan, kStart + 10 * kDay),
              AllOf(HasSubstr("<p class=\"warning\">Version 7 is stopped: no further device is "
                              "offered it.</p>"),
                    HasSubstr("<figure>"), Not(HasSubstr("class=\"now\""))));
  plan.steps.clear();
  EXPECT_THAT(Drawn(plan, kStart), AllOf(HasSubstr("is stopped"), Not(HasSubstr("<figure>"))));
}

}  // namespace
}  // namespace tolm::testing

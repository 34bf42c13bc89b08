#include "report/chart.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tolm::testing {
namespace {

using report::Bar;
using report::BarChart;
using report::Html;
using report::Quantity;
using report::QuantityText;
using report::StepChart;
using report::TicksTo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(ChartTest, QuantitiesAreReadAtAGlance) {
  EXPECT_EQ(QuantityText(Quantity::kBytes, 0), "0 B");
  EXPECT_EQ(QuantityText(Quantity::kBytes, 4000000), "4 MB");
  EXPECT_EQ(QuantityText(Quantity::kBytes, 4210000), "4.2 MB");
  EXPECT_EQ(QuantityText(Quantity::kCount, 12345), "12,345");
  EXPECT_EQ(QuantityText(Quantity::kSeconds, 1.25), "1.2 s");
  EXPECT_EQ(QuantityText(Quantity::kSeconds, 125), "2 min");
}

TEST(ChartTest, ScalesGoInRoundStepsToAtLeastTheMost) {
  EXPECT_THAT(TicksTo(Quantity::kCount, 0), ElementsAre(0, 1));
  EXPECT_THAT(TicksTo(Quantity::kCount, 3), ElementsAre(0, 1, 2, 3));
  EXPECT_THAT(TicksTo(Quantity::kBytes, 812), ElementsAre(0, 500, 1000));
  EXPECT_THAT(TicksTo(Quantity::kBytes, 8.2e6), ElementsAre(0, 5e6, 10e6));
  EXPECT_THAT(TicksTo(Quantity::kSeconds, 100), ElementsAre(0, 30, 60, 90, 120));
  EXPECT_THAT(TicksTo(Quantity::kSeconds, 20000), ElementsAre(0, 7200, 14400, 21600));
}

std::string Drawn(const BarChart& chart) {
  Html html;
  Draw(html, chart);
  return html.Document();
}

BarChart TwoBars() {
  return {"c",
          "Sizes",
          "Size by version.",
          Quantity::kBytes,
          {{"full", "good"}, {"bad", "withdrawn"}},
          {{"7", {100, 0}}, {"8", {20, 60}}}};
}

TEST(ChartTest, BarsAreAsHighAsTheirValuesAndStandOnEachOther) {
  const std::string drawn = Drawn(TwoBars());
  // Of 1000 units, which are 100 bytes; bars are 8 of 10 wide.
  EXPECT_THAT(drawn,
              HasSubstr("<path class=\"full\" d=\"M1 1000v-1000h8v1000zM11 1000v-200h8v200z\"/>"));
  EXPECT_THAT(drawn, HasSubstr("<path class=\"bad\" d=\"M11 800v-600h8v600z\"/>"));
}

TEST(ChartTest, WhatIsShownIsSaidInWords) {
  const std::string drawn = Drawn(TwoBars());
  EXPECT_THAT(drawn, HasSubstr("<title id=\"c-t\">Sizes</title>"));
  EXPECT_THAT(drawn, HasSubstr("<desc id=\"c-d\">Size by version. 2 bars: least 80 B (8), most "
                               "100 B (7), last 80 B (8).</desc>"));
  EXPECT_THAT(drawn, HasSubstr("withdrawn</li>"));
}

TEST(ChartTest, LegendNamesWhatIsThereAndNothingElse) {
  BarChart chart = TwoBars();
  chart.bars.pop_back();
  EXPECT_THAT(Drawn(chart), Not(HasSubstr("legend")));
  chart.bars[0].values = {0, 1};
  EXPECT_THAT(Drawn(chart), HasSubstr("withdrawn</li>"));
  EXPECT_THAT(Drawn(chart), Not(HasSubstr("good</li>")));
}

TEST(ChartTest, WhatIsNotNothingIsSeen) {
  BarChart chart = TwoBars();
  chart.bars.push_back({"9", {0.001, 0}});
  EXPECT_THAT(Drawn(chart), HasSubstr("M21 1000v-9h8v9z"));
}

TEST(ChartTest, ManyBarsAreOneOutline) {
  BarChart chart{"c", "t", "d.", Quantity::kCount, {{"full", "all"}}, {}};
  for (int at = 0; at < 100; ++at) {
    chart.bars.push_back({std::to_string(at), {at == 50 ? 0.0 : at == 51 ? 1.0 : 2.0}});
  }
  const std::string drawn = Drawn(chart);
  EXPECT_THAT(drawn, HasSubstr("d=\"M0 1000V0h10V0h10"));
  EXPECT_THAT(drawn, HasSubstr("V0h10H500V1000zM510 1000V500h10V0h10"));
}

TEST(ChartTest, NothingIsDrawnOfNothing) {
  EXPECT_EQ(Drawn({"c", "t", "d", Quantity::kCount, {{"full", "all"}}, {}}), "<!DOCTYPE html>\n");
}

TEST(ChartTest, StepsRiseAtTheirTimesAndNowIsMarked) {
  Html html;
  Draw(html,
       StepChart{"c", "Share", "In words.", {{1000000, 0.1}, {1500000, 1}}, 2000000, 1250000});
  const std::string drawn = html.Document();
  EXPECT_THAT(drawn, HasSubstr("d=\"M0 1000H0V900H500V0H1000V1000z\""));
  EXPECT_THAT(drawn, HasSubstr("<line class=\"now\" x1=\"25%\" x2=\"25%\""));
  EXPECT_THAT(drawn, HasSubstr("<desc id=\"c-d\">In words.</desc>"));
}

}  // namespace
}  // namespace tolm::testing

#include "report/open_metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

namespace tolm::report {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

constexpr MetricFamily kAge{"age_seconds", "How old it is."};
constexpr MetricFamily kCount{"things", "How many there are."};

std::string SampleOf(double value) {
  OpenMetrics metrics;
  metrics.Add(kCount, {}, value);
  const std::string text = metrics.Text();
  const std::string head = "# TYPE things gauge\n# HELP things How many there are.\nthings ";
  EXPECT_EQ(text.substr(0, head.size()), head);
  return text.substr(head.size(), text.size() - head.size() - std::string("\n# EOF\n").size());
}

std::string LabelOf(const std::string& value) {
  OpenMetrics metrics;
  metrics.Add(kCount, {{"name", value}}, 1);
  const std::string text = metrics.Text();
  const std::size_t begin = text.find("{name=\"") + 7;
  return text.substr(begin, text.find("\"} 1\n") - begin);
}

TEST(OpenMetricsTest, NothingIsAWholeText) {
  EXPECT_EQ(OpenMetrics().Text(), "# EOF\n");
}

TEST(OpenMetricsTest, SamplesOfOneNameStandTogetherBelowTheirHead) {
  OpenMetrics metrics;
  metrics.Add(kAge, {{"database", "geo"}}, 3);
  metrics.Add(kCount, {}, 1);
  metrics.Add(kAge, {{"database", "oui"}, {"operation", "fix"}}, 4.5);
  EXPECT_EQ(metrics.Text(),
            "# TYPE age_seconds gauge\n"
            "# UNIT age_seconds seconds\n"
            "# HELP age_seconds How old it is.\n"
            "age_seconds{database=\"geo\"} 3\n"
            "age_seconds{database=\"oui\",operation=\"fix\"} 4.5\n"
            "# TYPE things gauge\n"
            "# HELP things How many there are.\n"
            "things 1\n"
            "# EOF\n");
}

TEST(OpenMetricsTest, CommonLabelsStandBehindEachOfThem) {
  OpenMetrics metrics(MetricLabels{{"path", "/srv/\"a"}});
  metrics.Add(kCount, {}, 1);
  metrics.Add(kAge, {{"database", "geo"}}, 3);
  EXPECT_THAT(metrics.Text(), HasSubstr("\nthings{path=\"/srv/\\\"a\"} 1\n"));
  EXPECT_THAT(metrics.Text(), HasSubstr("\nage_seconds{database=\"geo\",path=\"/srv/\\\"a\"} 3\n"));
}

TEST(OpenMetricsTest, WhatWasSaidIsNotSaidTwice) {
  OpenMetrics metrics;
  metrics.Add(kAge, {{"database", "geo"}}, 3);
  metrics.Add(kAge, {{"database", "geo"}}, 4);
  EXPECT_THAT(metrics.Text(), HasSubstr("age_seconds{database=\"geo\"} 3\n# EOF\n"));
}

TEST(OpenMetricsTest, WholeNumbersHaveAllTheirDigits) {
  EXPECT_EQ(SampleOf(0), "0");
  EXPECT_EQ(SampleOf(-1), "-1");
  EXPECT_EQ(SampleOf(1795255200), "1795255200");
  EXPECT_EQ(SampleOf(5000000000000), "5000000000000");
}

TEST(OpenMetricsTest, OtherNumbersAreAsShortAsTheyCanBe) {
  EXPECT_EQ(SampleOf(0.1), "0.1");
  EXPECT_EQ(SampleOf(1.25), "1.25");
  EXPECT_EQ(SampleOf(1e300), "1e+300");
  EXPECT_EQ(SampleOf(std::nan("")), "NaN");
  EXPECT_EQ(SampleOf(std::numeric_limits<double>::infinity()), "+Inf");
  EXPECT_EQ(SampleOf(-std::numeric_limits<double>::infinity()), "-Inf");
}

TEST(OpenMetricsTest, LabelsMayHoldWhateverSomebodyHasSent) {
  EXPECT_EQ(LabelOf("a\\b\"c\nd"), R"(a\\b\"c\nd)");
  EXPECT_EQ(LabelOf("M\xc3\xbcller"), "M\xc3\xbcller");
  EXPECT_EQ(LabelOf("\x1b[2J"), R"(\\x1b[2J)");
  EXPECT_EQ(LabelOf("\xff\xc3\xbc\r"), R"(\\xff\\xc3\\xbc\\x0d)");
  EXPECT_EQ(LabelOf(std::string("a\0b", 3)), R"(a\\x00b)");
}

TEST(OpenMetricsTest, NamesThatAreNoneAreRefusedAndLeaveNothing) {
  OpenMetrics metrics;
  for (const char* name : {"", "9a", "a-b", "A", "a b", "a{", "\xc3\xbc"}) {
    EXPECT_THROW(metrics.Add({name, "x"}, {}, 1), std::invalid_argument) << name;
    EXPECT_THROW(metrics.Add(kCount, {{name, "x"}}, 1), std::invalid_argument) << name;
  }
  EXPECT_EQ(metrics.Text(), "# EOF\n");
}

}  // namespace
}  // namespace tolm::report

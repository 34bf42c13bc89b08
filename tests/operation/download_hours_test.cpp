#include "operation/download_hours.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace tolm::operation {
namespace {

std::time_t LocalTime(int hour, int minute) {
  tm local{};
  local.tm_year = 126;
  local.tm_mon = 5;
  local.tm_mday = 15;
  local.tm_hour = hour;
  local.tm_min = minute;
  local.tm_isdst = -1;
  return std::mktime(&local);
}

struct Row {
  std::string name;
  std::string hours;
  int hour;
  int minute;
  bool is_held;
};

class DownloadHoursTableTest : public ::testing::TestWithParam<Row> {};

TEST_P(DownloadHoursTableTest, HoldInLocalTime) {
  const Row& row = GetParam();
  for (const char* zone : {"UTC0", "XXX-9", "YYY5"}) {
    setenv("TZ", zone, 1);
    tzset();
    EXPECT_EQ(DownloadHours::Parse(row.hours)->Hold(LocalTime(row.hour, row.minute)), row.is_held)
        << zone;
  }
}

const Row kRows[] = {
    {"FirstMinute", "09:30-17:00", 9, 30, true},
    {"BeforeIt", "09:30-17:00", 9, 29, false},
    {"LastMinute", "09:30-17:00", 16, 59, true},
    {"BehindIt", "09:30-17:00", 17, 0, false},
    {"BeforeMidnight", "22:00-06:00", 23, 59, true},
    {"AtMidnight", "22:00-06:00", 0, 0, true},
    {"EndOverMidnight", "22:00-06:00", 6, 0, false},
    {"NoonOverMidnight", "22:00-06:00", 12, 0, false},
    {"BeginOverMidnight", "22:00-06:00", 22, 0, true},
    {"ToMidnight", "20:00-00:00", 23, 59, true},
    {"FromMidnight", "00:00-05:00", 0, 0, true},
};
INSTANTIATE_TEST_SUITE_P(Hours, DownloadHoursTableTest, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& row) { return row.param.name; });

TEST(DownloadHoursTest, WhatIsNoneIsNotParsed) {
  for (const char* text :
       {"", "22:00", "22:00-", "22:00-6:00", "22:00-06:00 ", "24:00-06:00", "22:60-06:00",
        "22.00-06.00", "22:00 06:00", "06:00-06:00", "-1:00-06:00", "2200-0600", "+1:00-06:00"}) {
    EXPECT_FALSE(DownloadHours::Parse(text)) << text;
  }
}

}  // namespace
}  // namespace tolm::operation

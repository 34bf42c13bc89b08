#include "base/utc_time.h"

#include <array>
#include <climits>
#include <cstddef>

namespace tolm::base {
namespace {

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
constexpr int kMonths = 12;
constexpr std::int64_t kFirstYear = 1900;  // of std::tm
// The calendar repeats after 400 years.
constexpr std::int64_t kCycleYears = 400;
constexpr std::int64_t kCycleDays = 146097;

std::int64_t DivideDown(std::int64_t number, std::int64_t by) {
  return number / by - (number % by < 0 ? 1 : 0);
}

bool IsLeap(std::int64_t year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// From the first of January 1970 to that of the year.
std::int64_t DaysBefore(std::int64_t year) {
  const auto days_since_year_1 = [](std::int64_t of) {
    const std::int64_t past = of - 1;
    return past * 365 + DivideDown(past, 4) - DivideDown(past, 100) + DivideDown(past, 400);
  };
  return days_since_year_1(year) - days_since_year_1(1970);
}

int DaysOf(int month, std::int64_t year) {
  constexpr std::array<int, kMonths> kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return kDays[static_cast<std::size_t>(month)] + (month == 1 && IsLeap(year) ? 1 : 0);
}

}  // namespace

std::int64_t UtcSeconds(const std::tm& parts) {
  const std::int64_t year = kFirstYear + parts.tm_year + DivideDown(parts.tm_mon, kMonths);
  const auto month = static_cast<int>(parts.tm_mon - DivideDown(parts.tm_mon, kMonths) * kMonths);
  std::int64_t days = DaysBefore(year) + parts.tm_mday - 1;
  for (int past = 0; past < month; ++past) {
    days += DaysOf(past, year);
  }
  return days * kDay + parts.tm_hour * kHour + parts.tm_min * kMinute + parts.tm_sec;
}

std::optional<std::tm> UtcParts(std::int64_t seconds) {
  std::int64_t days = DivideDown(seconds, kDay);
  const std::int64_t rest = (seconds % kDay + kDay) % kDay;
  const std::int64_t cycle = DivideDown(days, kCycleDays);
  days -= cycle * kCycleDays;
  std::int64_t year = 1970 + days / 366;  // One or two too early at most.
  while (DaysBefore(year + 1) <= days) {
    ++year;
  }
  days -= DaysBefore(year);
  std::tm parts{};
  while (days >= DaysOf(parts.tm_mon, year)) {
    days -= DaysOf(parts.tm_mon++, year);
  }
  year += cycle * kCycleYears - kFirstYear;
  if (year < INT_MIN || year > INT_MAX) {
    return std::nullopt;
  }
  parts.tm_year = static_cast<int>(year);
  parts.tm_mday = static_cast<int>(days) + 1;
  parts.tm_hour = static_cast<int>(rest / kHour);
  parts.tm_min = static_cast<int>(rest % kHour / kMinute);
  parts.tm_sec = static_cast<int>(rest % kMinute);
  return parts;
}

std::optional<std::int64_t> ParseUtcTime(const std::string& text) {
  constexpr std::size_t kLength = 20;  // strptime() takes blanks and missing zeros.
  std::tm parts{};
  const char* const end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (end == nullptr || *end != '\0' || text.size() != kLength || text.find(' ') != text.npos) {
    return std::nullopt;
  }
  return UtcSeconds(parts);
}

std::string FormatUtcTime(std::int64_t seconds, const char* format) {
  const std::optional<std::tm> parts = UtcParts(seconds);
  std::array<char, 64> text{};
  if (!parts || std::strftime(text.data(), text.size(), format, &*parts) == 0) {
    return "?";
  }
  return text.data();
}

}  // namespace tolm::base

#include "operation/download_hours.h"

#include <algorithm>
#include <cctype>
#include <ctime>

namespace tolm::operation {
namespace {

constexpr int kMinutesPerHour = 60;
constexpr int kHoursPerDay = 24;
constexpr std::size_t kTimeLength = 5;  // "22:00"

// Minutes since midnight; nothing for what is no time.
std::optional<int> MinuteOf(const std::string& time) {
  constexpr std::size_t kColonAt = 2;
  if (time.size() != kTimeLength || time[kColonAt] != ':' ||
      std::count_if(time.begin(), time.end(), [](unsigned char c) { return std::isdigit(c); }) !=
          kTimeLength - 1) {
    return std::nullopt;
  }
  const int hour = std::stoi(time.substr(0, kColonAt));
  const int minute = std::stoi(time.substr(kColonAt + 1));
  return hour < kHoursPerDay && minute < kMinutesPerHour
             ? std::make_optional(hour * kMinutesPerHour + minute)
             : std::nullopt;
}

}  // namespace

std::optional<DownloadHours> DownloadHours::Parse(const std::string& text) {
  if (text.size() != 2 * kTimeLength + 1 || text[kTimeLength] != '-') {
    return std::nullopt;
  }
  const std::optional<int> begin = MinuteOf(text.substr(0, kTimeLength));
  const std::optional<int> end = MinuteOf(text.substr(kTimeLength + 1));
  return begin && end && *begin != *end ? std::make_optional(DownloadHours(text, *begin, *end))
                                        : std::nullopt;
}

bool DownloadHours::Hold(std::int64_t moment) const {
  const auto time = static_cast<std::time_t>(moment);
  tm local{};
  localtime_r(&time, &local);
  const int minute = local.tm_hour * kMinutesPerHour + local.tm_min;
  return begin_minute_ < end_minute_ ? minute >= begin_minute_ && minute < end_minute_
                                     : minute >= begin_minute_ || minute < end_minute_;
}

}  // namespace tolm::operation

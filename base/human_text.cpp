#include "base/human_text.h"

#include <algorithm>
#include <cstdio>

#include "base/utc_time.h"

namespace tolm::base {
namespace {

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

}  // namespace

SizeUnit UnitFor(std::uint64_t bytes) {
  for (const SizeUnit unit : {SizeUnit{1e9, "GB"}, SizeUnit{1e6, "MB"}, SizeUnit{1e3, "kB"}}) {
    if (static_cast<double>(bytes) >= unit.bytes) {
      return unit;
    }
  }
  return {1, "B"};
}

std::string InUnit(std::uint64_t bytes, const SizeUnit& unit) {
  if (unit.bytes == 1) {
    return std::to_string(bytes);
  }
  const double value = static_cast<double>(bytes) / unit.bytes;
  char text[32];
  std::snprintf(text, sizeof text, value < 100 ? "%.1f" : "%.0f", value);
  return text;
}

std::string HumanSize(std::uint64_t bytes) {
  const SizeUnit unit = UnitFor(bytes);
  return InUnit(bytes, unit) + ' ' + unit.name;
}

std::string Grouped(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t at = text.size(); at > 3;) {
    at -= 3;
    text.insert(at, ",");
  }
  return text;
}

std::string HumanDuration(std::int64_t seconds) {
  seconds = std::max<std::int64_t>(seconds, 0);
  if (seconds < kMinute) {
    return std::to_string(seconds) + " s";
  }
  if (seconds < kHour) {
    return std::to_string(seconds / kMinute) + " min";
  }
  if (seconds < 2 * kDay) {
    return std::to_string(seconds / kHour) + " h";
  }
  return std::to_string(seconds / kDay) + " days";
}

std::string UtcMinutes(std::int64_t seconds) {
  return FormatUtcTime(seconds, "%Y-%m-%d %H:%M");
}

}  // namespace tolm::base

#include "base/human_text.h"

#include <algorithm>
#include <cstdio>

namespace tolm::base {
namespace {

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

struct Unit {
  double bytes;
  const char* name;
};

}  // namespace

std::string HumanSize(std::uint64_t bytes) {
  for (const Unit unit : {Unit{1e9, "GB"}, Unit{1e6, "MB"}, Unit{1e3, "kB"}}) {
    const double value = static_cast<double>(bytes) / unit.bytes;
    if (value >= 1) {
      char text[40];
      std::snprintf(text, sizeof text, value < 100 ? "%.1f %s" : "%.0f %s", value, unit.name);
      return text;
    }
  }
  return std::to_string(bytes) + " B";
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

}  // namespace tolm::base

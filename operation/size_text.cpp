#include "operation/size_text.h"

#include <cstdio>

namespace tolm::operation {

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

std::string SizeText(std::uint64_t bytes) {
  const SizeUnit unit = UnitFor(bytes);
  return InUnit(bytes, unit) + ' ' + unit.name;
}

}  // namespace tolm::operation

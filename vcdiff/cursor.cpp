#include "vcdiff/cursor.h"

namespace tolm::vcdiff {

Cursor::Checked Cursor::CheckedInteger(const std::uint8_t* next, const std::uint8_t* end,
                                       const Place& place) {
  const std::uint8_t* const start = next;
  std::uint64_t value = 0;
  for (;;) {
    if (next == end) {
      const auto there = static_cast<std::size_t>(next - start);
      ThrowTruncated(place, there + 1, there);
    }
    if (static_cast<std::size_t>(next - start) == kMaxIntegerBytes || value > (UINT64_MAX >> 7)) {
      ThrowOverlong(place);
    }
    const std::uint8_t digit = *next++;
    value = value << 7 | (digit & 0x7fU);
    if (digit < 0x80) {
      return {value, next};
    }
  }
}

}  // namespace tolm::vcdiff

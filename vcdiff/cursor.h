#ifndef TOLM_VCDIFF_CURSOR_H_
#define TOLM_VCDIFF_CURSOR_H_

#include <cstddef>
#include <cstdint>

#include "vcdiff/error.h"

namespace tolm::vcdiff {

/// The longest integer that is accepted: ten digits of seven bits hold any 64-bit value.
inline constexpr std::size_t kMaxIntegerBytes = 10;

/// Reads forward through bytes in memory and never beyond them. Both the bytes and the origin must
/// outlive it. Every call that reads throws Error(kBadInput) and names the field when the bytes do
/// not suffice.
class Cursor {
 public:
  Cursor() = default;
  Cursor(const std::uint8_t* data, std::size_t size, const Origin& origin)
      : begin_(data), position_(data), end_(data + size), origin_(&origin) {}

  std::size_t Left() const { return static_cast<std::size_t>(end_ - position_); }
  /// Bytes read so far.
  std::size_t Position() const { return static_cast<std::size_t>(position_ - begin_); }
  Place PlaceOf(const char* field) const { return PlaceAt(Position(), field); }
  Place PlaceAt(std::uint64_t position, const char* field) const {
    return {*origin_, position, field};
  }

  [[gnu::always_inline]] std::uint8_t Byte(const char* field) {
    if (position_ == end_) {
      ThrowTruncated(PlaceOf(field), 1, 0);
    }
    return *position_++;
  }

  /// RFC 3284, section 2: digits of base 128, the most significant first, each but the last with
  /// its high bit set.
  [[gnu::always_inline]] std::uint64_t Integer(const char* field) {
    if (position_ != end_ && *position_ < 0x80) {
      return *position_++;
    }
    return LongInteger(field);
  }

  [[gnu::always_inline]] const std::uint8_t* Take(std::uint64_t size, const char* field) {
    if (size > Left()) {
      ThrowTruncated(PlaceOf(field), size, Left());
    }
    const std::uint8_t* taken = position_;
    position_ += static_cast<std::size_t>(size);
    return taken;
  }

 private:
  // Nine digits cannot overflow; with ten bytes left none of them needs a look at the end.
  [[gnu::always_inline]] std::uint64_t LongInteger(const char* field) {
    if (Left() >= kMaxIntegerBytes) {
      std::uint64_t value = 0;
      for (std::size_t i = 0; i < kMaxIntegerBytes - 1; ++i) {
        const std::uint8_t digit = position_[i];
        value = value << 7 | (digit & 0x7fU);
        if (digit < 0x80) {
          position_ += i + 1;
          return value;
        }
      }
    }
    const Checked result = CheckedInteger(position_, end_, PlaceOf(field));
    position_ = result.next;
    return result.value;
  }

  struct Checked {
    std::uint64_t value;
    const std::uint8_t* next;
  };
  // Static: a cursor whose address is not passed on can be kept in registers.
  static Checked CheckedInteger(const std::uint8_t* next, const std::uint8_t* end,
                                const Place& place);

  const std::uint8_t* begin_ = nullptr;
  const std::uint8_t* position_ = nullptr;
  const std::uint8_t* end_ = nullptr;
  const Origin* origin_ = nullptr;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_CURSOR_H_

#ifndef TOLM_VCDIFF_ADDRESS_CACHE_H_
#define TOLM_VCDIFF_ADDRESS_CACHE_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "vcdiff/cursor.h"

namespace tolm::vcdiff {

/// Decodes the addresses of copies (RFC 3284, section 5.3). Reset for each window.
class AddressCache {
 public:
  /// The sizes together are at most 254, the number of modes left for them.
  AddressCache(unsigned int near, unsigned int same)
      : near_(near), same_(same * std::size_t{256}) {}

  void Reset() {
    std::fill(near_.begin(), near_.end(), 0);
    std::fill(same_.begin(), same_.end(), 0);
    next_ = 0;
  }

  /// Reads the address of a copy at @p here, in the numbering that puts the source segment before
  /// the target window. @p mode must exist. The result is below @p here. Throws Error(kBadInput).
  [[gnu::always_inline]] std::uint64_t Decode(unsigned int mode, std::uint64_t here,
                                              Cursor& addresses) {
    const std::size_t start = addresses.Position();
    const std::uint64_t address = Read(mode, here, addresses, start);
    if (address >= here) {
      ThrowAbove(addresses.PlaceAt(start, kField), address, here - (here > 0 ? 1 : 0));
    }
    Remember(address);
    return address;
  }

 private:
  static constexpr char kField[] = "COPY address";
  static constexpr unsigned int kSelf = 0;
  static constexpr unsigned int kHere = 1;

  [[gnu::always_inline]] std::uint64_t Read(unsigned int mode, std::uint64_t here,
                                            Cursor& addresses, std::size_t start) {
    if (mode >= 2 + near_.size()) {
      const std::size_t row = mode - 2 - near_.size();
      return same_[row * 256 + addresses.Byte(kField)];
    }
    const std::uint64_t value = addresses.Integer(kField);
    // Every remembered address is below here, so neither difference is below zero.
    const std::uint64_t base = mode > kHere ? near_[mode - 2] : 0;
    const std::uint64_t limit = here - base;
    if (value > limit) {
      ThrowAbove(addresses.PlaceAt(start, kField), value, limit);
    }
    return mode == kHere ? here - value : base + value;
  }

  [[gnu::always_inline]] void Remember(std::uint64_t address) {
    if (!near_.empty()) {
      near_[next_] = address;
      next_ = next_ + 1 == near_.size() ? 0 : next_ + 1;
    }
    if (same_.size() == kUsualSame) {
      same_[static_cast<std::size_t>(address % kUsualSame)] = address;
    } else if (!same_.empty()) {
      same_[static_cast<std::size_t>(address % same_.size())] = address;
    }
  }

  // A division by a constant is a multiplication.
  static constexpr std::size_t kUsualSame = 3 * 256;

  std::vector<std::uint64_t> near_;
  std::vector<std::uint64_t> same_;
  std::size_t next_ = 0;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_ADDRESS_CACHE_H_

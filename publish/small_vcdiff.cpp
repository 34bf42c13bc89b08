#include "publish/small_vcdiff.h"

#include <libdeflate.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

namespace tolm::publish {
namespace {

// RFC 3284, 5.3 and 5.6: the default code table and caches.
constexpr std::uint8_t kAddOfAnySize = 1;
constexpr std::size_t kLongestAddInCode = 17;
constexpr std::uint8_t kCopyOfAnySize = 19;
constexpr std::uint8_t kCopyCodesPerMode = 16;
constexpr std::size_t kShortestCopy = 4;
constexpr std::size_t kLongestCopyInCode = 18;
constexpr std::size_t kNear = 4;
constexpr std::size_t kSame = 3;
constexpr std::uint8_t kSelfMode = 0;
constexpr std::uint8_t kHereMode = 1;
constexpr std::uint8_t kFirstNearMode = 2;
constexpr std::uint8_t kFirstSameMode = kFirstNearMode + kNear;

constexpr char kHeader[] = {'\xd6', '\xc3', '\xc4', 0, 0};
constexpr std::uint8_t kSourceAndChecksum = 0x01 | 0x04;

// Places that begin alike and are looked at for one match.
constexpr int kMostCandidates = 64;
// A match that saves less costs more than it saves once the package is compressed.
constexpr std::size_t kLeastGain = 3;
// A match of this length is not put off for a longer one.
constexpr std::size_t kLongEnough = 64;

std::size_t IntegerBytes(std::size_t value) {
  std::size_t bytes = 1;
  for (; value >= 0x80; value >>= 7) {
    ++bytes;
  }
  return bytes;
}

void AddInteger(std::string& to, std::size_t value) {
  for (std::size_t left = IntegerBytes(value); left-- > 0;) {
    to += static_cast<char>((value >> (7 * left) & 0x7f) | (left > 0 ? 0x80 : 0));
  }
}

struct Address {
  std::uint8_t mode = kSelfMode;
  std::size_t value = 0;
  bool is_byte = false;  // instead of an integer

  std::size_t Bytes() const { return is_byte ? 1 : IntegerBytes(value); }
};

class AddressCache {
 public:
  // The shortest form.
  Address FormOf(std::size_t address, std::size_t here) const {
    const std::size_t slot = address % same_.size();
    if (same_[slot] == address) {
      return {static_cast<std::uint8_t>(kFirstSameMode + slot / 256), slot % 256, true};
    }
    Address best = {kSelfMode, address, false};
    const auto offer = [&best](std::uint8_t mode, std::size_t value) {
      if (IntegerBytes(value) < best.Bytes()) {
        best = {mode, value, false};
      }
    };
    for (std::size_t i = 0; i < near_.size(); ++i) {
      if (near_[i] <= address) {
        offer(static_cast<std::uint8_t>(kFirstNearMode + i), address - near_[i]);
      }
    }
    offer(kHereMode, here - address);
    return best;
  }

  void Update(std::size_t address) {
    near_[next_] = address;
    next_ = (next_ + 1) % near_.size();
    same_[address % same_.size()] = address;
  }

 private:
  std::array<std::size_t, kNear> near_{};
  std::size_t next_ = 0;
  std::array<std::size_t, kSame * 256> same_{};
};

// The sections of the window.
class Instructions {
 public:
  void Add(const char* data, std::size_t size) {
    if (size == 0) {
      return;
    }
    data_.append(data, size);
    const bool is_in_code = size <= kLongestAddInCode;
    codes_ += static_cast<char>(is_in_code ? kAddOfAnySize + size : kAddOfAnySize);
    if (!is_in_code) {
      AddInteger(codes_, size);
    }
  }

  void Copy(std::size_t address, std::size_t size, std::size_t here) {
    const Address form = cache_.FormOf(address, here);
    cache_.Update(address);
    const bool is_in_code = size <= kLongestCopyInCode;
    const std::size_t code = kCopyOfAnySize + form.mode * kCopyCodesPerMode +
                             (is_in_code ? size - kShortestCopy + 1 : 0);
    codes_ += static_cast<char>(code);
    if (!is_in_code) {
      AddInteger(codes_, size);
    }
    if (form.is_byte) {
      addresses_ += static_cast<char>(form.value);
    } else {
      AddInteger(addresses_, form.value);
    }
  }

  // What such a copy needs.
  std::size_t CostOf(std::size_t address, std::size_t size, std::size_t here) const {
    return 1 + (size > kLongestCopyInCode ? IntegerBytes(size) : 0) +
           cache_.FormOf(address, here).Bytes();
  }

  const std::string& data() const { return data_; }
  const std::string& codes() const { return codes_; }
  const std::string& addresses() const { return addresses_; }

 private:
  std::string data_;
  std::string codes_;
  std::string addresses_;
  AddressCache cache_;
};

struct Match {
  std::size_t address = 0;
  std::size_t size = 0;
  std::size_t gain = 0;  // bytes that it saves
};

class Encoder {
 public:
  Encoder(const std::string& source, const std::string& target)
      : source_size_(source.size()), content_(source + target), previous_(content_.size(), kNone) {
    latest_.fill(kNone);
  }

  std::string Encode() {
    while (known_ < source_size_) {
      Know();
    }
    std::size_t at = source_size_;
    std::size_t unsent = at;
    while (at < content_.size()) {
      KnowUpTo(at);
      Match match = Find(at);
      if (match.gain == 0) {
        ++at;
        continue;
      }
      // One that begins a byte later may be worth more.
      while (match.size < kLongEnough) {
        KnowUpTo(at + 1);
        const Match later = Find(at + 1);
        if (later.gain <= match.gain + 1) {
          break;
        }
        match = later;
        ++at;
      }
      instructions_.Add(content_.data() + unsent, at - unsent);
      instructions_.Copy(match.address, match.size, at);
      at += match.size;
      unsent = at;
    }
    instructions_.Add(content_.data() + unsent, at - unsent);
    return Delta();
  }

 private:
  static constexpr std::uint32_t kNone = UINT32_MAX;
  static constexpr int kHashBits = 15;

  std::size_t HashAt(std::size_t at) const {
    std::uint32_t bytes = 0;
    std::memcpy(&bytes, content_.data() + at, sizeof bytes);
    return bytes * 2654435761U >> (32 - kHashBits);
  }

  void Know() {
    if (known_ + kShortestCopy <= content_.size()) {
      std::uint32_t& latest = latest_[HashAt(known_)];
      previous_[known_] = latest;
      latest = static_cast<std::uint32_t>(known_);
    }
    ++known_;
  }

  void KnowUpTo(std::size_t end) {
    while (known_ < end) {
      Know();
    }
  }

  std::size_t Common(std::size_t address, std::size_t at) const {
    // A copy from the source ends with it.
    const std::size_t most = std::min(
        content_.size() - at, address < source_size_ ? source_size_ - address : content_.size());
    const char* const left = content_.data() + address;
    return static_cast<std::size_t>(std::mismatch(left, left + most, content_.data() + at).first -
                                    left);
  }

  Match Find(std::size_t at) const {
    Match best;
    if (at + kShortestCopy > content_.size()) {
      return best;
    }
    std::uint32_t address = latest_[HashAt(at)];
    for (int i = 0; i < kMostCandidates && address != kNone; ++i, address = previous_[address]) {
      const std::size_t size = Common(address, at);
      if (size < kShortestCopy || size <= best.size) {
        continue;
      }
      const std::size_t cost = instructions_.CostOf(address, size, at);
      if (size > cost + kLeastGain && size - cost > best.gain) {
        best = {address, size, size - cost};
      }
    }
    return best;
  }

  std::string Delta() const {
    const std::string& data = instructions_.data();
    const std::string& codes = instructions_.codes();
    const std::string& addresses = instructions_.addresses();
    const std::size_t target_size = content_.size() - source_size_;
    std::string window;
    AddInteger(window, target_size);
    window += '\0';  // nothing is compressed
    for (const std::string* section : {&data, &codes, &addresses}) {
      AddInteger(window, section->size());
    }
    const std::uint32_t sum = libdeflate_adler32(1, content_.data() + source_size_, target_size);
    for (int shift = 24; shift >= 0; shift -= 8) {
      window += static_cast<char>(sum >> shift & 0xff);
    }
    window += data + codes + addresses;
    std::string delta(kHeader, sizeof kHeader);
    delta += static_cast<char>(kSourceAndChecksum);
    AddInteger(delta, source_size_);
    AddInteger(delta, 0);  // where the segment begins
    AddInteger(delta, window.size());
    return delta + window;
  }

  const std::size_t source_size_;
  const std::string content_;            // as addresses count: the source, then the target
  std::vector<std::uint32_t> previous_;  // place that begins alike, of each
  std::array<std::uint32_t, std::size_t{1} << kHashBits> latest_{};
  std::size_t known_ = 0;  // places that matches are looked for in
  Instructions instructions_;
};

}  // namespace

std::string EncodeSmallVcdiff(const std::string& source, const std::string& target) {
  return Encoder(source, target).Encode();
}

}  // namespace tolm::publish

#include "base/percent.h"

#include <charconv>
#include <cstddef>

namespace tolm::base {

std::string PercentDecoded(const std::string& text) {
  constexpr std::size_t kDigits = 2;
  constexpr int kHexadecimal = 16;
  std::string decoded;
  for (std::size_t at = 0; at < text.size(); ++at) {
    unsigned char byte = 0;
    const char* const digits = text.data() + at + 1;
    if (text[at] == '%' && at + kDigits < text.size() &&
        std::from_chars(digits, digits + kDigits, byte, kHexadecimal).ptr == digits + kDigits) {
      decoded += static_cast<char>(byte);
      at += kDigits;
    } else {
      decoded += text[at];
    }
  }
  return decoded;
}

}  // namespace tolm::base

#include "base/digest.h"

#include <array>

namespace tolm::base {

// These calls are deprecated by their library but are what this system's digests are defined by.
// They are used here only.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

Sha384::Sha384() {
  SHA384_Init(&context_);
}

void Sha384::Add(const void* data, std::size_t size) {
  SHA384_Update(&context_, data, size);
}

std::string Sha384::Hex() {
  std::array<unsigned char, SHA384_DIGEST_LENGTH> digest;
  SHA384_Final(digest.data(), &context_);
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : digest) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

#pragma GCC diagnostic pop

}  // namespace tolm::base

#ifndef TOLM_SUPPORT_NOISE_H_
#define TOLM_SUPPORT_NOISE_H_

#include <cstdint>
#include <random>
#include <string>

namespace tolm::testing {

/// Bytes that nothing compresses; the same seed gives the same.
inline std::string Noise(std::size_t size, unsigned seed = 1) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    byte = static_cast<char>(random());
  }
  return bytes;
}

/// Rows of a number each, as binary databases have them, which xz makes much smaller than zstd
/// does.
inline std::string Numbers(std::size_t size, unsigned seed = 1) {
  std::mt19937 random(seed);
  std::string bytes;
  for (std::uint32_t value = 0; bytes.size() < size;) {
    value += static_cast<std::uint32_t>(random() % 200);
    for (int shift = 0; shift < 32; shift += 8) {
      bytes.push_back(static_cast<char>(value >> shift));
    }
  }
  return bytes;
}

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_NOISE_H_

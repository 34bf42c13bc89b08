#ifndef TOLM_SUPPORT_NOISE_H_
#define TOLM_SUPPORT_NOISE_H_

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

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_NOISE_H_

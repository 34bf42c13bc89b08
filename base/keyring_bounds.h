#ifndef TOLM_BASE_KEYRING_BOUNDS_H_
#define TOLM_BASE_KEYRING_BOUNDS_H_

#include <cstddef>

namespace tolm::rules {

/// With a larger file of trusted certificates, or of revocations, no package is verified.
inline constexpr std::size_t kKeyringBytes = 1024 * 1024;
inline constexpr std::size_t kRevocationBytes = 16 * 1024 * 1024;

}  // namespace tolm::rules

#endif  // TOLM_BASE_KEYRING_BOUNDS_H_

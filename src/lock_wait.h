#ifndef TOLM_SRC_LOCK_WAIT_H_
#define TOLM_SRC_LOCK_WAIT_H_

#include <cstdint>

namespace tolm::dataupdate {

/// How long the service's own operations wait for a lock.
inline constexpr std::uint32_t kLockWaitSeconds = 600;

/// The pause between two attempts at a lock.
inline constexpr std::uint32_t kLockPollMicroseconds = 100000;

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_LOCK_WAIT_H_

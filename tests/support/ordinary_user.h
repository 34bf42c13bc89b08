#ifndef TOLM_SUPPORT_ORDINARY_USER_H_
#define TOLM_SUPPORT_ORDINARY_USER_H_

#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <system_error>

#include "tests/support/child_process.h"

namespace tolm::testing {

inline constexpr uid_t kOrdinaryUser = 1000;

/// From now on this process is an account without any rights of its own. Throws std::system_error
/// where there is one user only.
inline void BecomeOrdinaryUser() {
  if (setgroups(0, nullptr) != 0 || setgid(kOrdinaryUser) != 0 || setuid(kOrdinaryUser) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot become another user");
  }
}

/// Whether another user can be had: a user namespace of one user has nobody else.
inline bool HasOrdinaryUser() {
  ForkedChild child([](EventChannel&) {
    try {
      BecomeOrdinaryUser();
      return 0;
    } catch (const std::system_error&) {
      return 1;
    }
  });
  return child.Process().Wait() == 0;
}

/// Runs it as that user, in a process of its own. Returns what it returns.
inline int AsOrdinaryUser(const std::function<int()>& action) {
  ForkedChild child([&](EventChannel&) {
    BecomeOrdinaryUser();
    return action();
  });
  return child.Process().Wait();
}

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_ORDINARY_USER_H_

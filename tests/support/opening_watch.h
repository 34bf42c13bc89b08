#ifndef TOLM_SUPPORT_OPENING_WATCH_H_
#define TOLM_SUPPORT_OPENING_WATCH_H_

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>

#include <string>

#include "tests/support/unique_descriptor.h"

namespace tolm::testing {

/// Sees that somebody opens a file from now on.
class OpeningWatch {
 public:
  explicit OpeningWatch(const std::string& file) : watch_(inotify_init1(IN_CLOEXEC)) {
    EXPECT_GE(inotify_add_watch(watch_.Get(), file.c_str(), IN_OPEN), 0);
  }

  [[nodiscard]] bool Wait() const {
    constexpr int kTimeoutMilliseconds = 60000;
    pollfd event{watch_.Get(), POLLIN, 0};
    return poll(&event, 1, kTimeoutMilliseconds) == 1;
  }

  /// Whether somebody has opened it up to now.
  [[nodiscard]] bool HasSeen() const {
    pollfd event{watch_.Get(), POLLIN, 0};
    return poll(&event, 1, 0) == 1;
  }

 private:
  UniqueDescriptor watch_;
};

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_OPENING_WATCH_H_

#ifndef TOLM_OPERATION_WAIT_WATCH_H_
#define TOLM_OPERATION_WAIT_WATCH_H_

#include <functional>
#include <memory>
#include <string>

#include "operation/export.h"

namespace tolm::operation {

/// While it exists, its listener is told when this process has waited for a lock of the system's
/// for two seconds, with who holds it, and when it goes on: once each for one wait. It looks from
/// outside, so it sees the library's waits as well: a lock's file is open here and held elsewhere.
/// The listener is called by a thread of this object and must not throw. The thread takes no
/// signals.
class TOLM_OPERATION_API WaitWatch {
 public:
  using Listener = std::function<void(const std::string& line)>;
  /// Throws std::system_error when the thread cannot be started.
  explicit WaitWatch(Listener listener);
  ~WaitWatch();
  WaitWatch(const WaitWatch&) = delete;
  WaitWatch& operator=(const WaitWatch&) = delete;

 private:
  class TOLM_OPERATION_PRIVATE Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_WAIT_WATCH_H_

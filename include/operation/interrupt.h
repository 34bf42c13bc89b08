#ifndef TOLM_OPERATION_INTERRUPT_H_
#define TOLM_OPERATION_INTERRUPT_H_

#include <memory>
#include <stdexcept>

#include "operation/export.h"

namespace tolm::operation {

/// Turns SIGINT, SIGTERM and SIGHUP into the end of the running operation through its own error
/// path: the running download and the unpacking of a package are ended and no other starts, no lock
/// is waited for any more (nor for readers), temporary data is removed and locks are released,
/// while an installation of files that has begun is finished. Blocks the three signals in
/// the calling thread, so make one before any other thread exists, and only one at a time; destroy
/// it in the same thread. What an earlier one has ended may begin again. Starts a thread. Throws
/// std::system_error when that fails.
class TOLM_OPERATION_API Interrupt {
 public:
  Interrupt();
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  /// The first signal that was received while there has been one of these objects, 0 when there was
  /// none. Any thread may ask. No operation begins or goes on once there is one: a daemon ends.
  static int Received() noexcept;

 private:
  class TOLM_OPERATION_PRIVATE Implementation;
  std::unique_ptr<Implementation> implementation_;
};

/// Thrown where a signal has ended an operation that the library does not end by itself.
class TOLM_OPERATION_API Interrupted : public std::runtime_error {
 public:
  Interrupted() : runtime_error("interrupted") {}
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_INTERRUPT_H_

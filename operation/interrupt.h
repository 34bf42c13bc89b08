#ifndef TOLM_OPERATION_INTERRUPT_H_
#define TOLM_OPERATION_INTERRUPT_H_

#include <atomic>
#include <csignal>
#include <stdexcept>
#include <thread>

namespace tolm::operation {

/// Turns SIGINT, SIGTERM and SIGHUP into the end of the running operation through its own error
/// path: the running download is ended and no other starts, temporary data is removed and locks are
/// released, while an installation of files that has begun is finished. Blocks the three signals in
/// the calling thread, so make one before any other thread exists, and only one.
class Interrupt {
 public:
  Interrupt();
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  /// The first signal that was received while there has been one of these objects, 0 when there was
  /// none. Any thread may ask.
  static int Received() { return signal_; }

 private:
  void Wait();

  sigset_t signals_;
  sigset_t previous_;
  inline static std::atomic<int> signal_{0};
  std::atomic<bool> done_{false};
  std::thread waiter_;
};

/// Thrown where a signal has ended an operation that the library does not end by itself.
class Interrupted : public std::runtime_error {
 public:
  Interrupted() : runtime_error("interrupted") {}
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_INTERRUPT_H_

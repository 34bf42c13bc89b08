#ifndef TOLM_BASE_NO_SIGNALS_H_
#define TOLM_BASE_NO_SIGNALS_H_

#include <csignal>

namespace tolm::base {

/// While it lives, the calling thread hears no signals, and neither do the threads that it starts,
/// as long as they live: signals are for the thread that waits for them. Destroy it in the thread
/// that made it.
class NoSignals {
 public:
  NoSignals() noexcept;
  ~NoSignals();
  NoSignals(const NoSignals&) = delete;
  NoSignals& operator=(const NoSignals&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace tolm::base

#endif  // TOLM_BASE_NO_SIGNALS_H_

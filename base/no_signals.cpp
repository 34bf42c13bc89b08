#include "base/no_signals.h"

#include <pthread.h>

namespace tolm::base {

NoSignals::NoSignals() noexcept {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before_);
}

NoSignals::~NoSignals() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace tolm::base

#include "operation/interrupt.h"

#include <initializer_list>

#include "tolm/exec.h"

namespace tolm::operation {

Interrupt::Interrupt() {
  signal_ = 0;
  sigemptyset(&signals_);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    sigaddset(&signals_, number);
  }
  pthread_sigmask(SIG_BLOCK, &signals_, &previous_);
  waiter_ = std::thread(&Interrupt::Wait, this);
}

Interrupt::~Interrupt() {
  done_ = true;
  pthread_kill(waiter_.native_handle(), SIGTERM);  // only to wake it
  waiter_.join();
  pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

void Interrupt::Wait() {
  int number = 0;
  while (sigwait(&signals_, &number) == 0 && !done_) {
    int none = 0;
    signal_.compare_exchange_strong(none, number);
    TLIBCExecCancel(1);
  }
}

}  // namespace tolm::operation

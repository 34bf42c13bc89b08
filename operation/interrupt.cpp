#include "operation/interrupt.h"

#include <atomic>
#include <csignal>
#include <initializer_list>
#include <thread>

#include "tolm/exec.h"

namespace tolm::operation {
namespace {

std::atomic<int> received{0};

}  // namespace

class Interrupt::Implementation {
 public:
  Implementation() {
    received = 0;
    sigemptyset(&signals_);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
      sigaddset(&signals_, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals_, &previous_);
    try {
      waiter_ = std::thread(&Implementation::Wait, this);
    } catch (...) {
      pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
      throw;
    }
  }

  ~Implementation() {
    done_ = true;
    pthread_kill(waiter_.native_handle(), SIGTERM);  // only to wake it
    waiter_.join();
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }

  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

 private:
  void Wait() {
    int number = 0;
    while (sigwait(&signals_, &number) == 0 && !done_) {
      int none = 0;
      received.compare_exchange_strong(none, number);
      TLIBCExecCancel(1);
    }
  }

  sigset_t signals_;
  sigset_t previous_;
  std::atomic<bool> done_{false};
  std::thread waiter_;
};

Interrupt::Interrupt() : implementation_(std::make_unique<Implementation>()) {}

Interrupt::~Interrupt() = default;

int Interrupt::Received() noexcept {
  return received;
}

}  // namespace tolm::operation

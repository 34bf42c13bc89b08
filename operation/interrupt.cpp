#include "operation/interrupt.h"

#include <atomic>
#include <csignal>
#include <initializer_list>
#include <string>
#include <thread>

#include "base/paths.h"
#include "dataupdate/file_lock.h"
#include "tolm/archive.h"
#include "tolm/exec.h"

#pragma weak tolmarchive_cancel

namespace tolm::operation {
namespace {

std::atomic<int> received{0};

// An appliance's own platform may be without the second one.
void CancelCalls(int cancelled) {
  TLIBCExecCancel(cancelled);
  if (tolmarchive_cancel != nullptr) {
    tolmarchive_cancel(cancelled);
  }
}

// Settings are written in one go, and notes of what was done, where nobody waits for long.
bool MayEndWait(const std::string& lock) {
  return received != 0 && lock != paths::kConfigLock && lock != paths::kNotesLock;
}

}  // namespace

class Interrupt::Implementation {
 public:
  Implementation() {
    received = 0;
    CancelCalls(0);  // What the one before has ended.
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
    dataupdate::SetLockWaitQuestion(MayEndWait);
  }

  ~Implementation() {
    dataupdate::SetLockWaitQuestion(nullptr);
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
      CancelCalls(1);
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

#include "base/parallel.h"

#include <sched.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "base/no_signals.h"

namespace tolm::base {
namespace {

class Queue {
 public:
  Queue(std::size_t count, const std::function<void(std::size_t)>& work)
      : count_(count), work_(work) {}

  void RunToTheEnd() {
    for (std::size_t number = Take(); number < count_; number = Take()) {
      try {
        work_(number);
      } catch (...) {
        Fail(number, std::current_exception());
      }
    }
  }

  void Rethrow() const {
    if (failure_) {
      std::rethrow_exception(failure_);
    }
  }

 private:
  std::size_t Take() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return failure_ ? count_ : next_ < count_ ? next_++ : count_;
  }

  void Fail(std::size_t number, std::exception_ptr failure) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!failure_ || number < failed_) {
      failed_ = number;
      failure_ = std::move(failure);
    }
  }

  const std::size_t count_;
  const std::function<void(std::size_t)>& work_;
  std::mutex mutex_;
  std::size_t next_ = 0;
  std::size_t failed_ = 0;
  std::exception_ptr failure_;
};

// As many as the system gives, but one at least.
std::vector<std::thread> StartThreads(Queue& queue, std::size_t wanted) {
  const NoSignals quiet;
  std::vector<std::thread> threads;
  try {
    while (threads.size() < wanted) {
      threads.emplace_back([&queue] { queue.RunToTheEnd(); });
    }
  } catch (const std::system_error&) {
    if (threads.empty()) {
      throw;
    }
  }
  return threads;
}

}  // namespace

int DefaultJobs() {
  cpu_set_t usable;
  CPU_ZERO(&usable);
  return sched_getaffinity(0, sizeof usable, &usable) == 0 ? std::max(CPU_COUNT(&usable), 1) : 1;
}

void ForEach(std::size_t count, int jobs, const std::function<void(std::size_t)>& work) {
  Queue queue(count, work);
  const std::size_t wanted = std::min(count, static_cast<std::size_t>(std::max(jobs, 1)));
  if (wanted <= 1) {
    queue.RunToTheEnd();
  } else {
    for (std::thread& thread : StartThreads(queue, wanted)) {
      thread.join();
    }
  }
  queue.Rethrow();
}

}  // namespace tolm::base

#include "publish/work_budget.h"

#include <algorithm>

namespace tolm::publish {

WorkBudget::WorkBudget(int jobs, std::uint64_t memory_bytes)
    : jobs_(std::max(jobs, 1)), memory_bytes_(memory_bytes) {}

std::uint64_t WorkBudget::waiting() {
  const std::lock_guard<std::mutex> guard(mutex_);
  return waiting_;
}

void WorkBudget::Stop() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    is_stopped_ = true;
  }
  changed_.notify_all();
}

WorkBudget::Share::Share(WorkBudget& budget, std::uint64_t memory_bytes)
    : budget_(budget), memory_bytes_(std::min(memory_bytes, budget.memory_bytes_)) {
  std::unique_lock<std::mutex> lock(budget_.mutex_);
  const std::uint64_t number = budget_.asked_++;
  ++budget_.waiting_;
  budget_.changed_.wait(lock, [&] {
    return budget_.is_stopped_ ||
           (number == budget_.admitted_ && budget_.working_ < budget_.jobs_ &&
            memory_bytes_ <= budget_.memory_bytes_ - budget_.taken_bytes_);
  });
  --budget_.waiting_;
  if (budget_.is_stopped_) {
    throw Stopped();
  }
  ++budget_.admitted_;
  ++budget_.working_;
  budget_.taken_bytes_ += memory_bytes_;
  lock.unlock();
  budget_.changed_.notify_all();  // It is the next one's turn to look.
}

WorkBudget::Share::~Share() {
  {
    const std::lock_guard<std::mutex> guard(budget_.mutex_);
    --budget_.working_;
    budget_.taken_bytes_ -= memory_bytes_;
  }
  budget_.changed_.notify_all();
}

void WorkBudget::Share::GiveBackMemory() {
  {
    const std::lock_guard<std::mutex> guard(budget_.mutex_);
    budget_.taken_bytes_ -= memory_bytes_;
    memory_bytes_ = 0;
  }
  budget_.changed_.notify_all();
}

}  // namespace tolm::publish

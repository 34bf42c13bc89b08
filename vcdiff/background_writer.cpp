#include "vcdiff/background_writer.h"

#include <utility>

namespace tolm::vcdiff {

BackgroundWriter::~BackgroundWriter() {
  if (!thread_.joinable()) {
    return;
  }
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_ending_ = true;
  }
  to_do_.notify_one();
  thread_.join();
}

void BackgroundWriter::Push(const std::uint8_t* data, std::size_t size) {
  if (!thread_.joinable()) {
    if (size < kWorthAThread) {
      write_(data, size);
      return;
    }
    thread_ = std::thread(&BackgroundWriter::Work, this);
  }
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    RethrowFailure();
    if (!pieces_.empty() || size >= kWorthAThread) {
      pieces_.push_back({data, size});
      to_do_.notify_one();
      return;
    }
  }
  write_(data, size);
}

void BackgroundWriter::Settle() {
  if (!thread_.joinable()) {
    return;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  done_.wait(lock, [this] { return pieces_.empty(); });
  RethrowFailure();
}

void BackgroundWriter::RethrowFailure() {
  if (failure_ != nullptr) {
    std::rethrow_exception(std::exchange(failure_, nullptr));
  }
}

void BackgroundWriter::Work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    to_do_.wait(lock, [this] { return is_ending_ || !pieces_.empty(); });
    if (is_ending_) {
      return;
    }
    const Piece piece = pieces_.front();
    lock.unlock();
    std::exception_ptr failure;
    try {
      write_(piece.data, piece.size);
    } catch (...) {
      failure = std::current_exception();
    }
    lock.lock();
    pieces_.pop_front();
    if (failure != nullptr) {
      failure_ = failure;
      pieces_.clear();
    }
    if (pieces_.empty()) {
      done_.notify_one();
    }
  }
}

}  // namespace tolm::vcdiff

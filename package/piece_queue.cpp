#include "package/piece_queue.h"

#include <algorithm>
#include <utility>

#include "base/no_signals.h"

namespace tolm::package {

PieceQueue::PieceQueue(std::vector<Taker> takers) {
  for (Taker& taker : takers) {
    branches_.push_back(std::make_unique<Branch>());
    branches_.back()->taker = std::move(taker);
  }
  const base::NoSignals quiet;
  try {
    for (const auto& branch : branches_) {
      branch->thread = std::thread([this, &branch = *branch] { Run(branch); });
    }
  } catch (...) {
    Join();
    throw;
  }
}

PieceQueue::~PieceQueue() {
  Join();
}

void PieceQueue::Push(std::string piece) {
  Add(std::make_shared<const std::string>(std::move(piece)));
}

void PieceQueue::Finish() {
  Add(nullptr);
  for (const auto& branch : branches_) {
    branch->thread.join();
  }
  if (failure_) {
    std::rethrow_exception(failure_);
  }
}

void PieceQueue::Run(Branch& branch) {
  try {
    while (const std::shared_ptr<const std::string> piece = Next(branch)) {
      branch.taker(piece.get());
    }
    if (!IsOver()) {
      branch.taker(nullptr);
    }
  } catch (...) {
    Fail(std::current_exception());
  }
}

// Null at the end, and when there is none any more.
std::shared_ptr<const std::string> PieceQueue::Next(Branch& branch) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return is_over_ || !branch.pieces.empty(); });
  if (is_over_) {
    return nullptr;
  }
  std::shared_ptr<const std::string> piece = std::move(branch.pieces.front());
  branch.pieces.pop_front();
  changed_.notify_all();
  return piece;
}

bool PieceQueue::IsOver() {
  const std::lock_guard<std::mutex> guard(mutex_);
  return is_over_;
}

bool PieceQueue::HasRoom() const {
  return std::all_of(branches_.begin(), branches_.end(),
                     [](const auto& branch) { return branch->pieces.size() < kMostPieces; });
}

void PieceQueue::Add(const std::shared_ptr<const std::string>& piece) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return is_over_ || HasRoom(); });
  if (failure_) {
    std::rethrow_exception(failure_);
  }
  for (const auto& branch : branches_) {
    branch->pieces.push_back(piece);
  }
  changed_.notify_all();
}

void PieceQueue::Fail(std::exception_ptr failure) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!failure_) {
    failure_ = std::move(failure);
  }
  is_over_ = true;
  changed_.notify_all();
}

void PieceQueue::Join() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    is_over_ = true;
    changed_.notify_all();
  }
  for (const auto& branch : branches_) {
    if (branch->thread.joinable()) {
      branch->thread.join();
    }
  }
}

}  // namespace tolm::package

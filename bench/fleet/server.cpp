#include "bench/fleet/server.h"

#include <algorithm>
#include <utility>

namespace tolm::fleet {

Server::Server(const ServerLimits& limits, std::int64_t line_bytes_per_second, Seconds read_seconds,
               std::uint32_t devices, Ended ended)
    : limits_(limits),
      line_(line_bytes_per_second),
      read_seconds_(read_seconds),
      ended_(std::move(ended)),
      transfers_(devices) {}

Answer Server::Ask(std::uint32_t device, std::int64_t bytes, Seconds now) {
  if (is_away_) {
    return Answer::kRefused;
  }
  if (limits_.connections > 0 && busy() >= limits_.connections) {
    return Answer::kReset;
  }
  const bool is_full = limits_.requests_per_second > 0 && asked_now_ >= limits_.requests_per_second;
  if (is_full || !waiting_.empty()) {
    waiting_.push_back({device, static_cast<std::int32_t>(now), bytes});
  } else {
    Begin(device, bytes, now);
  }
  return Answer::kTaken;
}

void Server::Begin(std::uint32_t device, std::int64_t bytes, Seconds now) {
  const auto began = static_cast<std::int32_t>(now);
  transfers_[device] = {carried_ + bytes, bytes, began};
  due_.push_back({carried_ + bytes, device, began});
  std::push_heap(due_.begin(), due_.end(), std::greater<>());
  started_.push_back({device, began});
  ++active_;
  ++asked_now_;
}

void Server::Step(Seconds now) {
  Admit(now);
  Carry(now);
  GiveUpSlow(now);
  asked_now_ = 0;
}

void Server::Admit(Seconds now) {
  while (!waiting_.empty()) {
    const Waiting first = waiting_.front();
    if (now - first.since >= read_seconds_) {
      waiting_.pop_front();
      ended_(first.device, End::kTimedOut, 0);
    } else if (asked_now_ < limits_.requests_per_second) {
      waiting_.pop_front();
      Begin(first.device, first.bytes, now);
    } else {
      return;
    }
  }
}

// Shares the bytes of one second. Whenever an answer ends the others get its part.
void Server::Carry(Seconds) {
  const bool is_limited = limits_.bytes_per_second > 0;
  std::int64_t budget = is_limited ? limits_.bytes_per_second + credit_ : 0;
  std::int64_t line = line_;
  credit_ = 0;
  while (active_ > 0 && line > 0) {
    const Due first = due_.front();
    if (!IsAlive(first.device, first.began)) {
      std::pop_heap(due_.begin(), due_.end(), std::greater<>());
      due_.pop_back();
      continue;
    }
    const std::int64_t each = is_limited ? std::min(line, budget / active_) : line;
    const std::int64_t step = std::min(each, first.end - carried_);
    carried_ += step;
    line -= step;
    budget -= step * active_;
    sent_bytes_ += step * active_;
    if (first.end == carried_) {
      Finish(first.device, End::kComplete);
    } else {
      // Either every line is full, or less is left than a byte for each.
      credit_ = line > 0 ? budget : 0;
      return;
    }
  }
}

// All that began long enough ago have got the same meanwhile.
void Server::GiveUpSlow(Seconds now) {
  constexpr Seconds kSpan = rules::kPaceSeconds;
  constexpr std::int64_t kLeast =
      static_cast<std::int64_t>(rules::kLeastBytesPerSecond) * rules::kPaceSeconds;
  std::int64_t& before = carried_before_[static_cast<std::size_t>(now % kSpan)];
  const bool is_too_slow = now >= kSpan && carried_ - before < kLeast;
  before = carried_;
  while (!started_.empty()) {
    const Started first = started_.front();
    const bool is_alive = IsAlive(first.device, first.began);
    if (is_alive && !(is_too_slow && first.began <= now - kSpan)) {
      return;
    }
    started_.pop_front();
    if (is_alive) {
      Finish(first.device, End::kTooSlow);
    }
  }
}

void Server::Finish(std::uint32_t device, End end) {
  Transfer& transfer = transfers_[device];
  const std::int64_t bytes = transfer.bytes - (transfer.end - carried_);
  transfer.began = kIdle;
  --active_;
  ended_(device, end, bytes);
}

void Server::GoAway() {
  is_away_ = true;
  due_.clear();
  const auto started = std::exchange(started_, {});
  for (const Started& one : started) {
    if (IsAlive(one.device, one.began)) {
      Finish(one.device, End::kCut);
    }
  }
  const auto waiting = std::exchange(waiting_, {});
  for (const Waiting& one : waiting) {
    ended_(one.device, End::kCut, 0);
  }
}

std::int64_t Server::under_way_bytes() const {
  std::int64_t sum = 0;
  for (const Transfer& transfer : transfers_) {
    sum += transfer.began == kIdle ? 0 : transfer.bytes - (transfer.end - carried_);
  }
  return sum;
}

}  // namespace tolm::fleet

#ifndef TOLM_BENCH_FLEET_SERVER_H_
#define TOLM_BENCH_FLEET_SERVER_H_

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "base/rules.h"
#include "bench/fleet/scenario.h"

namespace tolm::fleet {

/// What becomes of a request.
enum class Answer {
  kTaken,    ///< It is being answered, or waits for that.
  kRefused,  ///< Nobody listens.
  kReset,    ///< There are too many connections.
};

enum class End {
  kComplete,
  kTimedOut,  ///< The answer did not begin in time.
  kTooSlow,   ///< It was given up for its pace.
  kCut,       ///< The server went away.
};

/// A server of limited speed. Answers under way share its bytes a second equally, none gets more
/// than the line of a device takes; requests beyond those a second wait in the order of their
/// arrival. Time goes on in whole seconds. What is shared equally is counted once, for all:
/// `carried_` is how much an answer would have got that is under way since the beginning.
class Server {
 public:
  /// Called for each answer that ends, by Step() or GoAway(), with the bytes that the device got.
  using Ended = std::function<void(std::uint32_t device, End end, std::int64_t bytes)>;

  /// @p read_seconds: how long a device waits for the beginning of an answer.
  Server(const ServerLimits& limits, std::int64_t line_bytes_per_second, Seconds read_seconds,
         std::uint32_t devices, Ended ended);

  Answer Ask(std::uint32_t device, std::int64_t bytes, Seconds now);
  /// One second goes by.
  void Step(Seconds now);
  /// Until Return() nobody listens; all answers under way are cut.
  void GoAway();
  void Return() { is_away_ = false; }

  std::int64_t sent_bytes() const { return sent_bytes_; }  ///< Whole or not.
  std::uint32_t busy() const { return active_ + static_cast<std::uint32_t>(waiting_.size()); }
  /// Bytes that answers which are still under way have got.
  std::int64_t under_way_bytes() const;

 private:
  struct Transfer {
    std::int64_t end = 0;  ///< What will have been carried when it is complete.
    std::int64_t bytes = 0;
    std::int32_t began = kIdle;
  };
  struct Due {
    std::int64_t end;
    std::uint32_t device;
    std::int32_t began;
    bool operator>(const Due& other) const {
      return end != other.end ? end > other.end : device > other.device;
    }
  };
  struct Waiting {
    std::uint32_t device;
    std::int32_t since;
    std::int64_t bytes;
  };
  struct Started {
    std::uint32_t device;
    std::int32_t began;
  };
  static constexpr std::int32_t kIdle = -1;

  void Begin(std::uint32_t device, std::int64_t bytes, Seconds now);
  void Admit(Seconds now);
  void Carry(Seconds now);
  void GiveUpSlow(Seconds now);
  void Finish(std::uint32_t device, End end);
  bool IsAlive(std::uint32_t device, std::int32_t began) const {
    return transfers_[device].began == began;
  }

  const ServerLimits limits_;
  const std::int64_t line_;
  const Seconds read_seconds_;
  const Ended ended_;
  std::vector<Transfer> transfers_;  ///< By device.
  std::vector<Due> due_;             ///< A heap, the first to end on top; some have ended already.
  std::deque<Waiting> waiting_;
  std::deque<Started> started_;  ///< In the order of their beginnings.
  std::array<std::int64_t, rules::kPaceSeconds> carried_before_{};
  std::int64_t carried_ = 0;
  std::int64_t sent_bytes_ = 0;
  std::int64_t credit_ = 0;  ///< Bytes of the last second that could not be shared equally.
  std::int64_t asked_now_ = 0;
  std::uint32_t active_ = 0;
  bool is_away_ = false;
};

}  // namespace tolm::fleet

#endif  // TOLM_BENCH_FLEET_SERVER_H_

#ifndef TOLM_BENCH_FLEET_DEVICE_RULES_H_
#define TOLM_BENCH_FLEET_DEVICE_RULES_H_

#include <cstdint>

#include "bench/fleet/scenario.h"

/// What each device does by itself: when its timer fires, how long it leaves a server alone, which
/// releases of a plan it takes.
namespace tolm::fleet {

/// The times of every device's timer. What a device is (its zone, hours and delay) is drawn anew
/// whenever it is asked for, and takes no memory.
class Clockwork {
 public:
  explicit Clockwork(const Scenario& scenario) : scenario_(scenario) {}

  /// The first run at or after the beginning; kNever for none.
  Seconds First(std::uint32_t device) const;
  /// The run after one that began at @p last.
  Seconds Next(std::uint32_t device, Seconds last) const;

 private:
  enum class Kind { kAlways, kOff, kAsleep };
  struct Hours {
    Seconds from;  ///< Since the beginning; may be before it.
    Seconds until;
  };

  Seconds Zone(std::uint32_t device) const;
  Seconds Delay(std::uint32_t device, Seconds base) const;
  Kind KindOf(std::uint32_t device) const;
  Hours HoursFrom(std::uint32_t device, Seconds time) const;
  Seconds Back(std::uint32_t device) const;
  Seconds WhenThere(std::uint32_t device, Seconds fires) const;
  Seconds AfterBoot(std::uint32_t device, Seconds missed) const;

  const Scenario& scenario_;
};

/// How long scheduled runs are held back after so many failures in a row; @p chance is from 0 to 1,
/// without 1. The rule of operation/cool_down.cpp.
Seconds CoolDownSeconds(int failures, double chance);

/// Of a release with a plan that began @p since seconds ago: the share that it has reached; nothing
/// when it is for all. Before its time the share is 0.
std::optional<double> ReachedShare(const Release& release, Seconds since);

enum class RolloutKind : std::uint8_t { kEarly, kNormal, kLate, kStable };

RolloutKind RolloutOf(const Scenario& scenario, std::uint32_t device);

/// Where a device stands among all of them for one release, from 0 to 1, without 1. The share of
/// devices whose position is below x is x, for every release another one.
double PositionOf(const Scenario& scenario, std::uint32_t device, int version);

/// Whether a device takes a release whose plan has reached that share.
bool Takes(RolloutKind kind, double position, double share);

}  // namespace tolm::fleet

#endif  // TOLM_BENCH_FLEET_DEVICE_RULES_H_

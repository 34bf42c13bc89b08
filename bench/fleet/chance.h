#ifndef TOLM_BENCH_FLEET_CHANCE_H_
#define TOLM_BENCH_FLEET_CHANCE_H_

#include <cstdint>

/// Chance without a state: what a device draws hangs on the seed, the device and what is drawn,
/// and on nothing that happened before. So a scenario gives the same result however it is run.
namespace tolm::fleet {

/// What is drawn. Each has numbers of its own.
enum class Draw : std::uint64_t {
  kDelay = 1,
  kZone,
  kPresence,
  kHours,
  kAway,
  kStart,
  kRollout,
  kPosition,
  kCoolDown,
};

/// From 0 to 1, without 1. @p number tells draws of one kind apart.
inline double Chance(std::uint64_t seed, std::uint64_t device, Draw draw,
                     std::uint64_t number = 0) {
  // The finaliser of a linear congruence in 64 bits, once for each part of what is drawn.
  std::uint64_t state = seed;
  for (const std::uint64_t part : {device, static_cast<std::uint64_t>(draw), number}) {
    state = (state + part + 1) * 0x9e3779b97f4a7c15;
    state = (state ^ (state >> 30)) * 0xbf58476d1ce4e5b9;
    state = (state ^ (state >> 27)) * 0x94d049bb133111eb;
    state ^= state >> 31;
  }
  return static_cast<double>(state >> 11) * 0x1p-53;
}

}  // namespace tolm::fleet

#endif  // TOLM_BENCH_FLEET_CHANCE_H_

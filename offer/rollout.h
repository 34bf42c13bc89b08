#ifndef TOLM_OFFER_ROLLOUT_H_
#define TOLM_OFFER_ROLLOUT_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tolm::offer {

/// Shares of the devices, and a device's position among them, count in so many parts of the whole.
inline constexpr int kWholeShare = 10000;

/// A plan has no more steps than these.
inline constexpr std::size_t kMostRolloutSteps = 32;
/// A step takes no longer than this: ten years.
inline constexpr std::int64_t kLongestStepSeconds = 315360000;
/// No plan begins later than this, or is held then: the end of the year 9999. So no sum of its
/// times is beyond what a number holds.
inline constexpr std::int64_t kLatestRolloutTime = 253402300799;

struct RolloutStep {
  int share = 0;             ///< of kWholeShare, above that of the step before
  std::int64_t seconds = 0;  ///< until the next step; 0 of the last one, which has no end
};

/// How a version that is not the stable one yet reaches the devices.
struct RolloutPlan {
  std::int64_t start = 0;            ///< of the first step, seconds since 1970
  std::vector<RolloutStep> steps;    ///< one at least
  std::optional<std::int64_t> held;  ///< when its clock was stopped, seconds since 1970
  bool stopped = false;              ///< nobody else is offered it
};

/// Why no such plan can be; empty when it can.
std::string ProblemOf(const RolloutPlan& plan);

/// The share of devices that the plan has reached at a time: 0 before its start, and when it is
/// stopped; what it had reached when it was held, from then on.
int ShareAt(const RolloutPlan& plan, std::int64_t at);

/// When the plan, whose clock runs, reaches a device at this position: seconds since 1970. Nothing
/// when it never does.
std::optional<std::int64_t> TimeOfPosition(const RolloutPlan& plan, int position);

/// When its last step begins, if its clock runs.
std::int64_t LastStepOf(const RolloutPlan& plan);

/// Where a device stands among all: from 0 on, below kWholeShare. It is reached by a share above
/// its position. The first four bytes, the most significant first, of the SHA-384 of identifier,
/// line feed, name, line feed and the decimal version, as a fraction of 2^32: equally distributed,
/// and another one for each version, so that the same device is not always among the first.
int PositionOf(const std::string& identifier, const std::string& database, int version);

}  // namespace tolm::offer

#endif  // TOLM_OFFER_ROLLOUT_H_

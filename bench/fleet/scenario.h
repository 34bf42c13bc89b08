#ifndef TOLM_BENCH_FLEET_SCENARIO_H_
#define TOLM_BENCH_FLEET_SCENARIO_H_

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

/// What is simulated. Times are seconds since the beginning of a scenario, which is midnight UTC;
/// shares are from 0 to 1; sizes are bytes of bodies.
namespace tolm::fleet {

using Seconds = std::int64_t;
inline constexpr Seconds kNever = std::numeric_limits<Seconds>::max();
inline constexpr Seconds kDay = 86400;

/// A timer's unit: which times of the calendar, and how long after them.
struct Timer {
  Seconds period = kDay;  ///< OnCalendar=daily: begins at local midnight.
  Seconds delay = 0;      ///< RandomizedDelaySec
  bool fixed = false;     ///< FixedRandomDelay
  bool persistent = false;
};

/// Of the text of a systemd timer unit. Throws std::runtime_error for what it does not know.
Timer ParseTimer(const std::string& unit);

struct Part {
  double share = 0;
  Seconds value = 0;
};

/// When devices are there. Those that are neither off nor asleep at times always are.
struct Presence {
  double off = 0;     ///< Share that is switched off outside its hours.
  double asleep = 0;  ///< Share that sleeps then: a timer that is over fires when it wakes.
  Seconds from = 8 * 3600;
  Seconds until = 18 * 3600;  ///< Local time of day.
  Seconds spread = 2 * 3600;  ///< Each device's hours are by up to half of it earlier or later.
  double away = 0;            ///< Share that is off altogether,
  Seconds back = 0;           ///< until then.
};

/// A share that holds for some time; after the last one the release is offered to all.
struct PlanStep {
  double share = 0;
  Seconds seconds = 0;
};

struct Release {
  int version = 0;
  Seconds at = 0;
  std::int64_t full_bytes = 0;
  std::optional<std::int64_t> delta_bytes;  ///< from the version before
  std::vector<PlanStep> plan;               ///< Empty: for all at once.
  Seconds stopped = kNever;                 ///< The publisher takes it back.
  std::int64_t description_bytes = 0;       ///< From then on; 0: by the scenario.
};

/// Which devices take a release of a plan when: at once, by their position, with the last step,
/// when it is for all. The rest is normal.
struct Rollout {
  double early = 0;
  double late = 0;
  double stable = 0;
};

struct Outage {
  Seconds from = 0;
  Seconds until = 0;
};

/// 0: without a limit.
struct ServerLimits {
  std::int64_t bytes_per_second = 0;
  std::int64_t requests_per_second = 0;
  std::int64_t connections = 0;  ///< Answers under way at once; more are reset.
};

struct Scenario {
  std::string name;
  std::uint32_t devices = 0;
  Seconds seconds = 0;
  std::uint64_t seed = 1;
  Timer timer;
  bool cool_down = true;
  std::vector<Part> zones;  ///< Value: east of Greenwich.
  Presence presence;
  std::vector<Part> start;  ///< Value: version, 0 for none. The rest has the newest.
  Rollout rollout;
  std::int64_t line_bytes_per_second = 0;
  ServerLimits server;
  std::vector<Outage> outages;        ///< One after the other.
  std::uint32_t devices_at_site = 0;  ///< Behind one cache; 0: there are no caches.
  Seconds description_age = 60;       ///< max-age of the description
  std::int64_t description_bytes = 0;
  std::int64_t description_delta_bytes = 0;  ///< more for each delta that it offers
  int chain_share_percent = 70;
  std::vector<Release> releases;  ///< By version; the first are there from the beginning.
  Seconds series_seconds = 60;
};

/// Reads a scenario from JSON. @p timer_unit is the text of the unit that counts unless the
/// scenario has a timer of its own. Throws std::runtime_error that names what is amiss.
Scenario ParseScenario(const std::string& json, const std::string& timer_unit);

}  // namespace tolm::fleet

#endif  // TOLM_BENCH_FLEET_SCENARIO_H_

#ifndef TOLM_BENCH_FLEET_SIMULATION_H_
#define TOLM_BENCH_FLEET_SIMULATION_H_

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/fleet/device_rules.h"
#include "bench/fleet/offers.h"
#include "bench/fleet/scenario.h"
#include "bench/fleet/server.h"

namespace tolm::fleet {

enum Kind : std::uint8_t { kDescription, kDelta, kFull, kKinds };
const char* NameOf(Kind kind);

/// What has happened, in one piece of time or altogether.
struct Counts {
  std::int64_t runs = 0;       ///< Runs that were not held back,
  std::int64_t held_back = 0;  ///< and those that were.
  std::int64_t succeeded = 0;
  std::int64_t failed = 0;
  std::array<std::int64_t, kKinds> requests{};  ///< That the server has taken, by kind.
  std::int64_t refused = 0;                     ///< While nobody listened.
  std::int64_t reset = 0;                       ///< There were too many connections.
  std::int64_t given_up = 0;    ///< The answer came too late, too slowly, or was cut.
  std::int64_t sent_bytes = 0;  ///< By the server, of bodies.
  std::int64_t site_bytes = 0;  ///< By caches at sites.
  std::int64_t busy = 0;        ///< Most answers under way at once.
};

struct Reached {
  int version = 0;
  Seconds at = 0;                      ///< When it was released.
  std::array<Seconds, 3> after;        ///< Until 50, 90, 99 % of devices had it; kNever for none.
  std::vector<std::uint32_t> devices;  ///< At the end of each piece of time.
  std::uint32_t count = 0;
};

struct Peak {
  std::int64_t value = 0;
  Seconds at = 0;
};

struct Result {
  Counts all;
  std::vector<Counts> series;  ///< One for each `series_seconds`.
  std::vector<Reached> releases;
  Peak requests;  ///< In one second; with those that were refused or reset.
  Peak bytes;     ///< Sent in one second.
  std::array<std::int64_t, kKinds>
      received_bytes{};              ///< By devices, of whole bodies, from the server.
  std::int64_t wasted_bytes = 0;     ///< Of bodies that did not become whole.
  std::int64_t under_way_bytes = 0;  ///< When the time was over.
};

/// Runs a scenario. Memory: some 70 bytes for each device, and the series.
class Simulation {
 public:
  /// What a device does: "run", "held", "description", "delta", "full", "refused", "ok", "failed";
  /// the value is the version that it has at that moment, or of the package.
  using Trace = std::function<void(Seconds now, std::uint32_t device, const char* what, int value)>;

  explicit Simulation(const Scenario& scenario, Trace trace = nullptr);

  /// To be called once. @p on_day is told of each day that is over.
  Result Run(const std::function<void(Seconds)>& on_day = nullptr);

  int InstalledOn(std::uint32_t device) const { return devices_[device].installed; }

 private:
  static constexpr std::uint32_t kNone = 0xffffffff;
  enum class Phase : std::uint8_t { kIdle, kAsks, kTransfers, kArrives };

  struct Device {
    std::uint32_t next = kNone;      ///< In the list that it is in: of a second, or of a cache.
    std::int32_t until = 0;          ///< Of the cool-down.
    std::int32_t described_at = -1;  ///< -1: it has no description.
    std::int32_t began = 0;          ///< The last run.
    std::uint16_t offer = 0;
    std::int16_t installed = 0;
    std::int16_t goal = 0;  ///< The version of the package that is asked for.
    std::uint8_t failures = 0;
    std::uint8_t tries = 0;
    Kind kind = kDescription;
    Phase phase = Phase::kIdle;
    bool has_asked = false;
  };
  struct Site {
    std::int32_t described_at = -1;
    std::uint16_t offer = 0;
    bool is_fetching = false;
  };
  enum class Stored : std::uint8_t { kNo, kFetching, kYes };

  void Start();
  void Schedule(std::uint32_t device, Seconds time);
  void ScheduleRun(std::uint32_t device, Seconds time);
  void Act(std::uint32_t device);
  void BeginRun(std::uint32_t device);
  void EndRun(std::uint32_t device, bool good);
  void GoOn(std::uint32_t device);
  void Request(std::uint32_t device, Kind kind, int version);
  void Ask(std::uint32_t device);
  void AskServer(std::uint32_t device);
  void AskSite(std::uint32_t device);
  void Arrived(std::uint32_t device);
  void Failed(std::uint32_t device);
  void Retry(std::uint32_t device);
  void Ended(std::uint32_t device, End end, std::int64_t bytes);
  void Installed(std::uint32_t device, int version);
  int WantedVersion(std::uint32_t device) const;
  std::int64_t BytesOf(const Device& device) const;

  bool HasSites() const { return scenario_.devices_at_site > 0; }
  std::uint64_t PlaceOf(std::uint32_t device) const;
  void Wait(std::uint32_t device);
  void Deliver(std::uint32_t device);
  bool HasOldDescription(std::uint32_t device) const;
  void SiteFetched(std::uint32_t device, bool good);

  void BeginSecond();
  void EndSecond();
  void EndPiece();
  void Tell(std::uint32_t device, const char* what, int value) const;

  const Scenario& scenario_;
  const Trace trace_;
  const Clockwork clockwork_;
  const std::vector<Offer> offers_;
  std::vector<std::size_t> index_of_;  ///< Of a release, by version.
  std::vector<Device> devices_;
  std::vector<std::uint32_t> lists_;  ///< The first device of each second.
  std::vector<Site> sites_;
  std::vector<Stored> stored_;  ///< By site, release, and whether it is the full package.
  std::unordered_map<std::uint64_t, std::uint32_t> waiting_;  ///< Lists of devices, by place.
  Server server_;
  Result result_;
  Counts piece_;
  Seconds now_ = 0;
  std::uint16_t offer_ = 0;
  std::int64_t requests_now_ = 0;
  std::int64_t sent_before_ = 0;
};

}  // namespace tolm::fleet

#endif  // TOLM_BENCH_FLEET_SIMULATION_H_

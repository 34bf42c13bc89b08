#ifndef TOLM_BENCH_FLEET_OFFERS_H_
#define TOLM_BENCH_FLEET_OFFERS_H_

#include <cstdint>
#include <vector>

#include "bench/fleet/scenario.h"

namespace tolm::fleet {

/// What the description says from some time on.
struct Offer {
  Seconds at = 0;
  int version = 0;     ///< For all.
  int chain_from = 0;  ///< A device that has this one or a newer one goes by deltas.
  int next = 0;        ///< Of a plan that is under way; 0: there is none.
  int next_chain_from = 0;
  std::int64_t bytes = 0;  ///< of the description
};

/// The oldest version from which the offered deltas lead to the last release: all deltas together
/// are at most so many per cent of the last full package. The rule of TrimChain in
/// publish/catalog.cpp. A delta that was not offered once is never offered again, so the result
/// never goes back: @p before is the one of the release before, or 0.
int ChainFrom(const std::vector<Release>& releases, std::size_t count, int share_percent,
              int before);

/// What is offered over the time of a scenario, in the order of time.
std::vector<Offer> OffersOf(const Scenario& scenario);

}  // namespace tolm::fleet

#endif  // TOLM_BENCH_FLEET_OFFERS_H_

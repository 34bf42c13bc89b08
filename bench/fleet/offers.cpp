#include "bench/fleet/offers.h"

#include <algorithm>
#include <set>
#include <stdexcept>

#include "bench/fleet/device_rules.h"

namespace tolm::fleet {
namespace {

Seconds PlanSeconds(const Release& release) {
  Seconds sum = 0;
  for (const PlanStep& step : release.plan) {
    sum += step.seconds;
  }
  return sum;
}

// When a release becomes the one for all; kNever for one that was stopped before.
Seconds CompleteAt(const Release& release) {
  const Seconds complete = release.at + PlanSeconds(release);
  return release.stopped <= complete && !release.plan.empty() ? kNever : complete;
}

bool IsUnderWay(const Release& release, Seconds time) {
  return !release.plan.empty() && release.at <= time && time < release.stopped &&
         ReachedShare(release, time - release.at).has_value();
}

std::set<Seconds> TimesOf(const Scenario& scenario) {
  std::set<Seconds> times{0};
  for (const Release& release : scenario.releases) {
    times.insert(release.at);
    if (!release.plan.empty()) {
      times.insert(std::min(release.stopped, release.at + PlanSeconds(release)));
    }
  }
  return times;
}

std::int64_t DescriptionBytes(const Scenario& scenario, const Offer& offer,
                              const Release& newest_release) {
  if (newest_release.description_bytes != 0) {
    return newest_release.description_bytes;
  }
  const int newest = offer.next != 0 ? offer.next : offer.version;
  const int chain_from = offer.next != 0 ? offer.next_chain_from : offer.chain_from;
  return scenario.description_bytes + (newest - chain_from) * scenario.description_delta_bytes;
}

}  // namespace

int ChainFrom(const std::vector<Release>& releases, std::size_t count, int share_percent,
              int before) {
  const std::int64_t limit = releases[count - 1].full_bytes * share_percent / 100;
  int from = releases[count - 1].version;
  std::int64_t total = 0;
  for (std::size_t i = count; i-- > 0;) {
    const Release& release = releases[i];
    if (!release.delta_bytes || release.version != from || release.version <= before) {
      break;
    }
    total += *release.delta_bytes;
    if (total > limit) {
      break;
    }
    from = release.version - 1;
  }
  return from;
}

std::vector<Offer> OffersOf(const Scenario& scenario) {
  std::vector<Offer> offers;
  int for_all = 0;
  for (const Seconds time : TimesOf(scenario)) {
    Offer offer;
    offer.at = time;
    int chain_from = 0;
    const Release* newest = &scenario.releases.front();  // It is there from the beginning.
    for (std::size_t i = 0; i < scenario.releases.size() && scenario.releases[i].at <= time; ++i) {
      const Release& release = scenario.releases[i];
      newest = &release;
      chain_from = ChainFrom(scenario.releases, i + 1, scenario.chain_share_percent, chain_from);
      if (CompleteAt(release) <= time) {
        offer.version = release.version;
        offer.chain_from = chain_from;
        offer.next = 0;
      } else if (IsUnderWay(release, time)) {
        offer.next = release.version;
        offer.next_chain_from = chain_from;
      }
    }
    if (offer.version < for_all) {
      throw std::runtime_error("releases: a plan ends after a later release");
    }
    for_all = offer.version;
    offer.bytes = DescriptionBytes(scenario, offer, *newest);
    offers.push_back(offer);
  }
  return offers;
}

}  // namespace tolm::fleet

#include "bench/fleet/simulation.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "base/rules.h"
#include "bench/fleet/chance.h"

namespace tolm::fleet {
namespace {

// How wget is run: --tries=3 of src/io_utils.cpp, read_timeout of packaging/wgetrc. It waits a
// second longer before each further try.
constexpr int kTries = 3;
constexpr Seconds kReadSeconds = 60;
constexpr std::array<double, 3> kShares{0.5, 0.9, 0.99};

void Add(Counts& sum, const Counts& more) {
  sum.runs += more.runs;
  sum.held_back += more.held_back;
  sum.succeeded += more.succeeded;
  sum.failed += more.failed;
  for (std::size_t i = 0; i < kKinds; ++i) {
    sum.requests[i] += more.requests[i];
  }
  sum.refused += more.refused;
  sum.reset += more.reset;
  sum.given_up += more.given_up;
  sum.sent_bytes += more.sent_bytes;
  sum.site_bytes += more.site_bytes;
  sum.busy = std::max(sum.busy, more.busy);
}

void Raise(Peak& peak, std::int64_t value, Seconds now) {
  if (value > peak.value) {
    peak = {value, now};
  }
}

}  // namespace

const char* NameOf(Kind kind) {
  constexpr std::array<const char*, kKinds> kNames{"description", "delta", "full"};
  return kNames.at(kind);
}

Simulation::Simulation(const Scenario& scenario, Trace trace)
    : scenario_(scenario),
      trace_(std::move(trace)),
      clockwork_(scenario_),
      offers_(OffersOf(scenario)),
      devices_(scenario.devices),
      lists_(static_cast<std::size_t>(scenario.seconds), kNone),
      server_(scenario.server, scenario.line_bytes_per_second, kReadSeconds, scenario.devices,
              [this](std::uint32_t device, End end, std::int64_t bytes) {
                Ended(device, end, bytes);
              }) {
  const std::vector<Release>& releases = scenario_.releases;
  index_of_.resize(static_cast<std::size_t>(releases.back().version) + 1);
  for (std::size_t i = 0; i < releases.size(); ++i) {
    index_of_[static_cast<std::size_t>(releases[i].version)] = i;
    result_.releases.push_back(
        {releases[i].version, releases[i].at, {kNever, kNever, kNever}, {}, 0});
  }
  if (HasSites()) {
    sites_.resize((scenario.devices - 1) / scenario.devices_at_site + 1);
    stored_.resize(sites_.size() * releases.size() * 2, Stored::kNo);
  }
}

Result Simulation::Run(const std::function<void(Seconds)>& on_day) {
  Start();
  for (now_ = 0; now_ < scenario_.seconds; ++now_) {
    BeginSecond();
    std::uint32_t device = std::exchange(lists_[static_cast<std::size_t>(now_)], kNone);
    while (device != kNone) {
      const std::uint32_t next = std::exchange(devices_[device].next, kNone);
      Act(device);
      device = next;
    }
    piece_.busy = std::max<std::int64_t>(piece_.busy, server_.busy());
    server_.Step(now_);
    EndSecond();
    if (on_day && (now_ + 1) % kDay == 0) {
      on_day(now_ + 1);
    }
  }
  if (scenario_.seconds % scenario_.series_seconds != 0) {
    EndPiece();
  }
  result_.under_way_bytes = server_.under_way_bytes();
  return std::move(result_);
}

// ---- Time ----

void Simulation::Start() {
  const int newest = offers_.front().version;
  for (std::uint32_t device = 0; device < scenario_.devices; ++device) {
    double chance = Chance(scenario_.seed, device, Draw::kStart);
    int version = newest;
    for (const Part& part : scenario_.start) {
      if (chance < part.share) {
        version = static_cast<int>(part.value);
        break;
      }
      chance -= part.share;
    }
    Installed(device, version);
    ScheduleRun(device, clockwork_.First(device));
  }
}

void Simulation::Schedule(std::uint32_t device, Seconds time) {
  if (time >= scenario_.seconds) {
    return;
  }
  std::uint32_t& first = lists_[static_cast<std::size_t>(time)];
  devices_[device].next = first;
  first = device;
}

void Simulation::ScheduleRun(std::uint32_t device, Seconds time) {
  devices_[device].phase = Phase::kIdle;
  Schedule(device, time == kNever ? time : std::max(time, now_));
}

void Simulation::BeginSecond() {
  while (offer_ + 1U < offers_.size() && offers_[offer_ + 1U].at <= now_) {
    ++offer_;
  }
  for (const Outage& outage : scenario_.outages) {
    if (now_ == outage.from) {
      server_.GoAway();
    }
    if (now_ == outage.until) {
      server_.Return();
    }
  }
}

void Simulation::EndSecond() {
  Raise(result_.requests, std::exchange(requests_now_, 0), now_);
  const std::int64_t sent = server_.sent_bytes() - sent_before_;
  sent_before_ = server_.sent_bytes();
  Raise(result_.bytes, sent, now_);
  piece_.sent_bytes += sent;
  if ((now_ + 1) % scenario_.series_seconds == 0) {
    EndPiece();
  }
}

void Simulation::EndPiece() {
  Add(result_.all, piece_);
  result_.series.push_back(std::exchange(piece_, {}));
  for (Reached& release : result_.releases) {
    release.devices.push_back(release.count);
  }
}

// ---- A device's run ----

void Simulation::Tell(std::uint32_t device, const char* what, int value) const {
  if (trace_) {
    trace_(now_, device, what, value);
  }
}

void Simulation::Act(std::uint32_t device) {
  switch (devices_[device].phase) {
    case Phase::kIdle:
      return BeginRun(device);
    case Phase::kAsks:
      return Ask(device);
    case Phase::kArrives:
      return Arrived(device);
    case Phase::kTransfers:
      throw std::logic_error("a device acts while it waits for the server");
  }
}

void Simulation::BeginRun(std::uint32_t number) {
  Device& device = devices_[number];
  device.began = static_cast<std::int32_t>(now_);
  if (scenario_.cool_down && device.until > now_) {
    ++piece_.held_back;
    Tell(number, "held", device.installed);
    ScheduleRun(number, clockwork_.Next(number, now_));
    return;
  }
  ++piece_.runs;
  Tell(number, "run", device.installed);
  device.has_asked = false;
  const bool is_described =
      device.described_at >= 0 && now_ - device.described_at <= rules::kCacheSeconds;
  if (is_described) {
    GoOn(number);
  } else {
    Request(number, kDescription, 0);
  }
}

void Simulation::EndRun(std::uint32_t number, bool good) {
  Device& device = devices_[number];
  ++(good ? piece_.succeeded : piece_.failed);
  Tell(number, good ? "ok" : "failed", device.installed);
  if (good) {
    device.failures = 0;
    device.until = 0;
  }
  const Seconds next = clockwork_.Next(number, device.began);
  ScheduleRun(number, next <= now_ ? now_ + 1 : next);
}

// The description is there.
void Simulation::GoOn(std::uint32_t number) {
  const Device& device = devices_[number];
  const Offer& offer = offers_[device.offer];
  const int wanted = WantedVersion(number);
  if (device.installed >= wanted) {
    return EndRun(number, true);
  }
  const int chain_from = wanted == offer.version ? offer.chain_from : offer.next_chain_from;
  if (device.installed >= chain_from && device.installed > 0) {
    Request(number, kDelta, device.installed + 1);
  } else {
    Request(number, kFull, wanted);
  }
}

int Simulation::WantedVersion(std::uint32_t number) const {
  const Offer& offer = offers_[devices_[number].offer];
  if (offer.next == 0) {
    return offer.version;
  }
  const Release& next = scenario_.releases[index_of_[static_cast<std::size_t>(offer.next)]];
  // By the plan of the description that it has, at the time that it is by now.
  const double share = ReachedShare(next, now_ - next.at).value_or(1);
  const bool takes =
      Takes(RolloutOf(scenario_, number), PositionOf(scenario_, number, offer.next), share);
  return takes ? offer.next : offer.version;
}

std::int64_t Simulation::BytesOf(const Device& device) const {
  if (device.kind == kDescription) {
    return offers_[device.offer].bytes;
  }
  const Release& release = scenario_.releases[index_of_[static_cast<std::size_t>(device.goal)]];
  return device.kind == kFull ? release.full_bytes : release.delta_bytes.value();
}

// A request takes place in the second after the one in which what leads to it has arrived: each
// device has one answer a second at most.
void Simulation::Request(std::uint32_t number, Kind kind, int version) {
  Device& device = devices_[number];
  const bool is_first = !std::exchange(device.has_asked, true);
  if (is_first) {
    // Written down as a failure before it asks; EndRun() takes it back.
    device.failures = static_cast<std::uint8_t>(std::min(device.failures + 1, 255));
    const double chance =
        Chance(scenario_.seed, number, Draw::kCoolDown, static_cast<std::uint64_t>(now_));
    device.until = static_cast<std::int32_t>(now_ + CoolDownSeconds(device.failures, chance));
  }
  device.kind = kind;
  device.goal = static_cast<std::int16_t>(version);
  device.tries = 0;
  device.phase = Phase::kAsks;
  if (is_first) {
    Ask(number);
  } else {
    Schedule(number, now_ + 1);
  }
}

void Simulation::Ask(std::uint32_t number) {
  Device& device = devices_[number];
  if (device.kind == kDescription) {
    device.described_at = -1;  // What was there is gone with the attempt.
    device.offer = offer_;
  }
  if (HasSites() && device.tries == 0) {
    AskSite(number);
  } else {
    AskServer(number);
  }
}

void Simulation::AskServer(std::uint32_t number) {
  Device& device = devices_[number];
  ++requests_now_;
  device.phase = Phase::kTransfers;
  switch (server_.Ask(number, BytesOf(device), now_)) {
    case Answer::kTaken:
      ++piece_.requests.at(device.kind);
      Tell(number, NameOf(device.kind), device.goal);
      return;
    case Answer::kRefused:
      ++piece_.refused;
      Tell(number, "refused", device.goal);
      return Failed(number);
    case Answer::kReset:
      ++piece_.reset;
      return Retry(number);
  }
}

void Simulation::Ended(std::uint32_t number, End end, std::int64_t bytes) {
  if (end == End::kComplete) {
    result_.received_bytes.at(devices_[number].kind) += bytes;
    SiteFetched(number, true);
    return Arrived(number);
  }
  ++piece_.given_up;
  result_.wasted_bytes += bytes;
  if (end == End::kTooSlow) {
    return Failed(number);  // The program is ended, and tries no more.
  }
  Retry(number);
}

void Simulation::Retry(std::uint32_t number) {
  Device& device = devices_[number];
  if (++device.tries >= kTries) {
    return Failed(number);
  }
  device.phase = Phase::kAsks;
  Schedule(number, now_ + device.tries);
}

// A delta that does not come leads to the full package at once.
void Simulation::Failed(std::uint32_t number) {
  SiteFetched(number, false);
  if (HasOldDescription(number)) {
    return Deliver(number);
  }
  if (devices_[number].kind == kDelta) {
    const int wanted = WantedVersion(number);
    devices_[number].phase = Phase::kAsks;
    devices_[number].kind = kFull;
    devices_[number].goal = static_cast<std::int16_t>(wanted);
    devices_[number].tries = 0;
    return Schedule(number, now_ + 1);
  }
  EndRun(number, false);
}

void Simulation::Arrived(std::uint32_t number) {
  Device& device = devices_[number];
  if (device.kind == kDescription) {
    device.described_at = static_cast<std::int32_t>(now_);
    return GoOn(number);
  }
  const int wanted = WantedVersion(number);
  if (device.kind == kDelta && device.goal < wanted) {
    return Request(number, kDelta, device.goal + 1);
  }
  Installed(number, device.goal);
  EndRun(number, true);
}

void Simulation::Installed(std::uint32_t number, int version) {
  const int before = std::exchange(devices_[number].installed, static_cast<std::int16_t>(version));
  for (Reached& release : result_.releases) {
    if (release.version <= before || release.version > version) {
      continue;
    }
    ++release.count;
    for (std::size_t i = 0; i < kShares.size(); ++i) {
      if (release.after[i] == kNever && release.count >= kShares[i] * scenario_.devices) {
        release.after[i] = std::max<Seconds>(0, now_ - release.at);
      }
    }
  }
}

// ---- Caches at sites ----

// Names what a device asks for at its site.
std::uint64_t Simulation::PlaceOf(std::uint32_t number) const {
  const Device& device = devices_[number];
  const std::uint64_t site = number / scenario_.devices_at_site;
  const std::uint64_t objects = scenario_.releases.size() * 2 + 1;
  if (device.kind == kDescription) {
    return site * objects + objects - 1;
  }
  return site * objects + index_of_[static_cast<std::size_t>(device.goal)] * 2 +
         (device.kind == kFull ? 1 : 0);
}

void Simulation::AskSite(std::uint32_t number) {
  Device& device = devices_[number];
  Site& site = sites_[number / scenario_.devices_at_site];
  if (device.kind == kDescription) {
    if (site.described_at >= 0 && now_ - site.described_at < scenario_.description_age) {
      return Deliver(number);
    }
    if (site.is_fetching) {
      return Wait(number);
    }
    site.is_fetching = true;
    return AskServer(number);
  }
  const std::uint64_t place = PlaceOf(number);
  Stored& stored = stored_[place - place / (scenario_.releases.size() * 2 + 1)];
  if (stored == Stored::kYes) {
    return Deliver(number);
  }
  if (std::exchange(stored, Stored::kFetching) == Stored::kFetching) {
    return Wait(number);
  }
  AskServer(number);
}

void Simulation::Wait(std::uint32_t number) {
  const auto [list, is_new] = waiting_.try_emplace(PlaceOf(number), kNone);
  devices_[number].phase = Phase::kTransfers;
  devices_[number].next = std::exchange(list->second, number);
}

// From the cache, at the speed of the line; the site's own network is without a limit.
void Simulation::Deliver(std::uint32_t number) {
  Device& device = devices_[number];
  if (device.kind == kDescription) {
    device.offer = sites_[number / scenario_.devices_at_site].offer;
  }
  const std::int64_t bytes = BytesOf(device);
  piece_.site_bytes += bytes;
  device.phase = Phase::kArrives;
  const std::int64_t line = scenario_.line_bytes_per_second;
  Schedule(number, now_ + (bytes + line - 1) / line);
}

// A cache gives a description that is out of date where it gets none.
bool Simulation::HasOldDescription(std::uint32_t number) const {
  return HasSites() && devices_[number].kind == kDescription &&
         sites_[number / scenario_.devices_at_site].described_at >= 0;
}

// A device's request was the cache's as well. Who has waited for it gets what came.
void Simulation::SiteFetched(std::uint32_t number, bool good) {
  if (!HasSites()) {
    return;
  }
  Site& site = sites_[number / scenario_.devices_at_site];
  const std::uint64_t place = PlaceOf(number);
  const bool is_description = devices_[number].kind == kDescription;
  if (is_description) {
    site.is_fetching = false;
    if (good) {
      site.described_at = static_cast<std::int32_t>(now_);
      site.offer = devices_[number].offer;
    }
  } else {
    stored_[place - place / (scenario_.releases.size() * 2 + 1)] =
        good ? Stored::kYes : Stored::kNo;
  }
  const auto list = waiting_.find(place);
  if (list == waiting_.end()) {
    return;
  }
  std::uint32_t next = list->second;
  waiting_.erase(list);
  while (next != kNone) {
    const std::uint32_t one = std::exchange(next, devices_[next].next);
    devices_[one].next = kNone;
    if (good) {
      Deliver(one);
    } else {
      Failed(one);
    }
  }
}

}  // namespace tolm::fleet

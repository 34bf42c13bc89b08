#include "bench/fleet/device_rules.h"

#include <algorithm>

#include "base/rules.h"
#include "bench/fleet/chance.h"

namespace tolm::fleet {
namespace {

// A device that has found no time in so many days never finds one: its hours are the same each day.
constexpr int kDaysLooked = 3;

// Rounds down also below zero.
Seconds Floor(Seconds time, Seconds step) {
  const Seconds rest = time % step;
  return time - (rest < 0 ? rest + step : rest);
}

Seconds Drawn(double chance, Seconds span) {
  return static_cast<Seconds>(chance * static_cast<double>(span));
}

}  // namespace

Seconds Clockwork::Zone(std::uint32_t device) const {
  if (scenario_.zones.empty()) {
    return 0;
  }
  double chance = Chance(scenario_.seed, device, Draw::kZone);
  for (const Part& zone : scenario_.zones) {
    if (chance < zone.share) {
      return zone.value;
    }
    chance -= zone.share;
  }
  return 0;
}

Seconds Clockwork::Delay(std::uint32_t device, Seconds base) const {
  const auto number = scenario_.timer.fixed ? 0 : static_cast<std::uint64_t>(base);
  return Drawn(Chance(scenario_.seed, device, Draw::kDelay, number), scenario_.timer.delay);
}

Clockwork::Kind Clockwork::KindOf(std::uint32_t device) const {
  const Presence& presence = scenario_.presence;
  if (presence.off + presence.asleep == 0) {
    return Kind::kAlways;
  }
  const double chance = Chance(scenario_.seed, device, Draw::kPresence);
  return chance < presence.off                     ? Kind::kOff
         : chance < presence.off + presence.asleep ? Kind::kAsleep
                                                   : Kind::kAlways;
}

// The hours that hold the time, or the next ones.
Clockwork::Hours Clockwork::HoursFrom(std::uint32_t device, Seconds time) const {
  const Presence& presence = scenario_.presence;
  const Seconds moved =
      Drawn(Chance(scenario_.seed, device, Draw::kHours), presence.spread) - presence.spread / 2;
  const Seconds shift = moved - Zone(device);
  const Seconds day = Floor(time - shift, kDay);
  const Hours hours{day + presence.from + shift, day + presence.until + shift};
  return time < hours.until ? hours : Hours{hours.from + kDay, hours.until + kDay};
}

Seconds Clockwork::Back(std::uint32_t device) const {
  const Presence& presence = scenario_.presence;
  const bool is_away =
      presence.away > 0 && Chance(scenario_.seed, device, Draw::kAway) < presence.away;
  return is_away ? presence.back : 0;
}

// A missed run begins its delay at the start of the system; see Persistent= in systemd.timer(5).
Seconds Clockwork::AfterBoot(std::uint32_t device, Seconds missed) const {
  Seconds time = missed;
  for (int i = 0; i < kDaysLooked; ++i) {
    const Hours hours = HoursFrom(device, time);
    const Seconds boot = std::max(hours.from, Back(device));
    if (boot < hours.until && boot >= missed) {
      const Seconds fires = boot + Delay(device, boot);
      if (fires < hours.until) {
        return fires;
      }
    }
    time = hours.until;
  }
  return kNever;
}

// When a run really begins whose time comes at @p fires.
Seconds Clockwork::WhenThere(std::uint32_t device, Seconds fires) const {
  const Seconds back = Back(device);
  const Kind kind = KindOf(device);
  if (kind == Kind::kAlways) {
    return fires >= back ? fires : scenario_.timer.persistent ? back + Delay(device, back) : kNever;
  }
  const Hours hours = HoursFrom(device, std::max(fires, back));
  if (fires >= back && fires >= hours.from) {
    return fires;
  }
  if (kind == Kind::kAsleep && fires >= back) {
    return hours.from;
  }
  return scenario_.timer.persistent ? AfterBoot(device, std::max(fires, back)) : kNever;
}

Seconds Clockwork::First(std::uint32_t device) const {
  const Seconds zone = Zone(device);
  const Seconds base = Floor(zone, scenario_.timer.period) - zone;
  const Seconds fires = base + Delay(device, base);
  const Seconds begins = fires >= 0 ? WhenThere(device, fires) : kNever;
  return begins != kNever ? begins : Next(device, std::max<Seconds>(base, fires));
}

Seconds Clockwork::Next(std::uint32_t device, Seconds last) const {
  const Seconds zone = Zone(device);
  const Seconds period = scenario_.timer.period;
  Seconds base = Floor(last + zone, period) + period - zone;
  // Without catching up the first time counts at which the device is there.
  for (int i = 0; i < 2 * kDaysLooked; ++i, base += period) {
    const Seconds begins = WhenThere(device, base + Delay(device, base));
    if (begins != kNever) {
      return begins;
    }
  }
  return kNever;
}

Seconds CoolDownSeconds(int failures, double chance) {
  Seconds delay = rules::kCoolDownFirstSeconds;
  for (int i = 1; i < failures && delay < rules::kCoolDownLongestSeconds; ++i) {
    delay = std::min(2 * delay, rules::kCoolDownLongestSeconds);
  }
  return delay / 2 + Drawn(chance, delay - delay / 2);
}

std::optional<double> ReachedShare(const Release& release, Seconds since) {
  if (since < 0) {
    return 0;
  }
  for (const PlanStep& step : release.plan) {
    if (since < step.seconds) {
      return step.share;
    }
    since -= step.seconds;
  }
  return std::nullopt;
}

RolloutKind RolloutOf(const Scenario& scenario, std::uint32_t device) {
  const Rollout& rollout = scenario.rollout;
  if (rollout.early + rollout.late + rollout.stable == 0) {
    return RolloutKind::kNormal;
  }
  const double chance = Chance(scenario.seed, device, Draw::kRollout);
  return chance < rollout.early                                   ? RolloutKind::kEarly
         : chance < rollout.early + rollout.late                  ? RolloutKind::kLate
         : chance < rollout.early + rollout.late + rollout.stable ? RolloutKind::kStable
                                                                  : RolloutKind::kNormal;
}

double PositionOf(const Scenario& scenario, std::uint32_t device, int version) {
  return Chance(scenario.seed, device, Draw::kPosition, static_cast<std::uint64_t>(version));
}

bool Takes(RolloutKind kind, double position, double share) {
  switch (kind) {
    case RolloutKind::kEarly:
      return true;
    case RolloutKind::kNormal:
      return position < share;
    case RolloutKind::kLate:
      return share >= 1;
    case RolloutKind::kStable:
      return false;
  }
  return false;
}

}  // namespace tolm::fleet

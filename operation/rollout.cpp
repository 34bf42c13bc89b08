#include "operation/rollout.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <tuple>

#include "base/human_text.h"
#include "base/rules.h"
#include "operation/history.h"
#include "operation/installed_record.h"
#include "operation/trust_state.h"
#include "tolm/hwid.h"

namespace tolm::operation {
namespace {

constexpr char kList[] = "db_list";
// Members of a record that is made here.
constexpr char kRollout[] = "rollout";
constexpr char kOther[] = "other_version";

std::string Identifier() {
  tolmcrypto_hwid* const context = tolmcrypto_hwid_init();
  const bool is_known =
      context != nullptr && tolmcrypto_hwid_str(context, rules::kHardwareIdLength) != 0;
  const std::string identifier = is_known ? context->text : "";
  tolmcrypto_hwid_free(context);
  return identifier;
}

// What was installed once is not gone back behind, also where files or the record are lost.
int VersionHad(const std::string& name) {
  return std::max(InstalledVersionOf(name), LookForFloor(name).value_or(kNeverInstalled));
}

Rollout::Turn TurnOf(const offer::DatabaseOffer& database, int installed, int position,
                     std::int64_t at) {
  const offer::RolloutPlan& plan = database.next->plan;
  if (offer::TakesNext(database, installed, position, at)) {
    return offer::ShareAt(plan, at) > position ? Rollout::Turn::kReached : Rollout::Turn::kStays;
  }
  const bool is_ever = !plan.stopped && offer::TimeOfPosition(plan, position);
  return is_ever ? Rollout::Turn::kLater : Rollout::Turn::kNever;
}

Rollout::State StateOf(const offer::RolloutPlan& plan) {
  if (plan.stopped) {
    return Rollout::State::kStopped;
  }
  return plan.held ? Rollout::State::kHeld : Rollout::State::kRunning;
}

Json::Value ToJson(const Rollout& rollout) {
  Json::Value value;
  value["stable"] = rollout.stable;
  value["next"] = rollout.next;
  value["state"] = static_cast<int>(rollout.state);
  value["share"] = rollout.share;
  value["setting"] = rollout.setting;
  value["turn"] = static_cast<int>(rollout.turn);
  if (rollout.position) {
    value["position"] = *rollout.position;
  }
  if (rollout.turn_at) {
    value["turn_at"] = Json::Int64(*rollout.turn_at);
  }
  return value;
}

Rollout FromJson(const Json::Value& value) {
  Rollout rollout;
  rollout.stable = value["stable"].asInt();
  rollout.next = value["next"].asInt();
  rollout.state = static_cast<Rollout::State>(value["state"].asInt());
  rollout.share = value["share"].asInt();
  rollout.setting = value["setting"].asString();
  rollout.turn = static_cast<Rollout::Turn>(value["turn"].asInt());
  if (value.isMember("position")) {
    rollout.position = value["position"].asInt();
  }
  if (value.isMember("turn_at")) {
    rollout.turn_at = value["turn_at"].asInt64();
  }
  return rollout;
}

// Null for a document that is a server's own, whatever it holds.
const Json::Value& MadeMember(const Json::Value& description, const std::string& name,
                              const char* member) {
  if (!offer::IsDocumentOfOffer(description) || !description[kList].isMember(name)) {
    return Json::Value::nullSingleton();
  }
  return description[kList][name][member];
}

// Of ten thousand, as "12.5 %".
std::string PercentText(int parts) {
  constexpr int kPercent = offer::kWholeShare / 100;
  std::string decimals = std::to_string(kPercent + parts % kPercent).substr(1);
  decimals.erase(decimals.find_last_not_of('0') + 1);
  return std::to_string(parts / kPercent) + (decimals.empty() ? "" : '.' + decimals) + " %";
}

std::string PlaceText(const Rollout& rollout) {
  return rollout.position ? ", at position " + PercentText(*rollout.position) + " (rollout \"" +
                                rollout.setting + "\")"
                          : "";
}

std::string WaitText(const Rollout& rollout, std::int64_t now) {
  if (!rollout.turn_at) {
    return "comes when it is no longer held";
  }
  const std::int64_t wait = *rollout.turn_at - now;
  return "comes " + TimeText(*rollout.turn_at) +
         (wait > 0 ? " (in " + base::HumanDuration(wait) + ')' : "");
}

std::string NeverText(const Rollout& rollout) {
  if (rollout.state == Rollout::State::kStopped) {
    return "does not come, since it was stopped";
  }
  return rollout.position
             ? "is in none of its steps" + PlaceText(rollout)
             : "comes when it is the stable version (rollout \"" + rollout.setting + "\")";
}

// The staged databases, without the deltas that both versions offer: of those there may be many.
offer::Offer WithoutSharedDeltas(const offer::Offer& offer, const Rollouts& rollouts) {
  offer::Offer staged;
  staged.base = offer.base;
  for (const auto& [name, rollout] : rollouts) {
    const offer::DatabaseOffer& database = offer.databases.at(name);
    staged.databases[name] = {
        database.version, database.last_fetch_time, database.deprecated, database.full, {},
        database.next};
  }
  return staged;
}

auto Fields(const Rollout& rollout) {
  return std::tie(rollout.stable, rollout.next, rollout.state, rollout.share, rollout.position,
                  rollout.setting, rollout.turn, rollout.turn_at);
}

}  // namespace

bool operator==(const Rollout& one, const Rollout& other) {
  return Fields(one) == Fields(other);
}

RolloutDevice ThisDevice() {
  try {
    return {Identifier(), ReadOperatorSettings().rollout};
  } catch (const std::runtime_error&) {
    return {"", RolloutSetting::kStable};
  }
}

std::optional<int> PositionOf(const RolloutDevice& device, const std::string& database,
                              int version) {
  constexpr int kLast = offer::kWholeShare - 1;
  switch (device.setting) {
    case RolloutSetting::kEarly:
      return 0;
    case RolloutSetting::kLate:
      return kLast;
    case RolloutSetting::kStable:
      return std::nullopt;
    case RolloutSetting::kNormal:
      break;
  }
  return device.identifier.empty() ? kLast
                                   : offer::PositionOf(device.identifier, database, version);
}

Rollout RolloutOf(const std::string& name, const offer::DatabaseOffer& database, int installed,
                  const RolloutDevice& device, std::int64_t at) {
  const offer::NextOffer& next = *database.next;
  const std::optional<int> position = PositionOf(device, name, next.version);
  const int beyond_all = offer::kWholeShare;  // No share is above it.
  Rollout rollout;
  rollout.stable = database.version;
  rollout.next = next.version;
  rollout.state = StateOf(next.plan);
  rollout.share = offer::ShareAt(next.plan, at);
  rollout.setting = SettingText(device.setting);
  rollout.position = position;
  rollout.turn = TurnOf(database, installed > next.version ? kNeverInstalled : installed,
                        position.value_or(beyond_all), at);
  if (rollout.turn == Rollout::Turn::kLater && !next.plan.held) {
    rollout.turn_at = offer::TimeOfPosition(next.plan, *position);
  }
  return rollout;
}

Rollouts RolloutsOf(const offer::Offer& offer, std::int64_t at) {
  std::optional<RolloutDevice> device;
  Rollouts rollouts;
  for (const auto& [name, database] : offer.databases) {
    if (database.next) {
      device = device ? device : ThisDevice();
      rollouts[name] = RolloutOf(name, database, VersionHad(name), *device, at);
    }
  }
  return rollouts;
}

int OfferedVersionOf(const Rollout& rollout) {
  return rollout.IsOffered() ? rollout.next : rollout.stable;
}

Json::Value DocumentOf(const offer::Offer& offer, const Rollouts& rollouts) {
  std::set<std::string> offered;
  std::set<std::string> not_offered;
  for (const auto& [name, rollout] : rollouts) {
    (rollout.IsOffered() ? offered : not_offered).insert(name);
  }
  Json::Value document = offer::DocumentOf(offer, offered);
  Json::Value other_versions = offer::DocumentOf(WithoutSharedDeltas(offer, rollouts), not_offered);
  for (const auto& [name, rollout] : rollouts) {
    Json::Value& record = document[kList][name];
    record[kRollout] = ToJson(rollout);
    record[kOther].swap(other_versions[kList][name]);
  }
  return document;
}

std::optional<Rollout> RolloutIn(const Json::Value& description, const std::string& name) {
  const Json::Value& made = MadeMember(description, name, kRollout);
  return made.isObject() ? std::make_optional(FromJson(made)) : std::nullopt;
}

const Json::Value& OtherVersionIn(const Json::Value& description, const std::string& name) {
  return MadeMember(description, name, kOther);
}

std::string StageText(const Rollout& rollout) {
  const std::string next = std::to_string(rollout.next);
  if (rollout.state == Rollout::State::kStopped) {
    return next + " was stopped, devices that have it stay with it";
  }
  return next + (rollout.state == Rollout::State::kHeld ? " is held at " : " has reached ") +
         PercentText(rollout.share) + " of the devices";
}

std::string TurnText(const Rollout& rollout, std::int64_t now) {
  switch (rollout.turn) {
    case Rollout::Turn::kReached:
      return "has come" + PlaceText(rollout);
    case Rollout::Turn::kStays:
      return "is over, it has more than the stable version";
    case Rollout::Turn::kLater:
      return WaitText(rollout, now) + PlaceText(rollout);
    case Rollout::Turn::kNever:
      break;
  }
  return NeverText(rollout);
}

std::string RolloutText(const Rollout& rollout, std::int64_t now) {
  return StageText(rollout) + ", " + std::to_string(rollout.stable) +
         " is the stable version; this device's turn " + TurnText(rollout, now);
}

}  // namespace tolm::operation

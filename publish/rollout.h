#ifndef TOLM_PUBLISH_ROLLOUT_H_
#define TOLM_PUBLISH_ROLLOUT_H_

#include <json/value.h>

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "offer/rollout.h"
#include "publish/catalog.h"
#include "publish/repository.h"

namespace tolm::publish {

/// The steps that a text says: "1%/1d,10%/2d,100%", each with its share of the devices, of two
/// decimals at most, and its time in minutes ("30m"), hours or days; the last one has no time.
/// Throws Error when it is no such text, or when there can be no such plan.
std::vector<offer::RolloutStep> ParseStages(const std::string& text);

/// "10 %", "0.05 %".
std::string DeviceShareText(int share);

/// A version that does not reach all devices at once.
struct OpenRollout {
  std::string name;  ///< of the database
  int stable = 0;
  int next = 0;
  offer::RolloutPlan plan;
};

/// Nothing when none is open.
std::optional<OpenRollout> RolloutOf(const std::string& name, const Database& database);

/// How far it has come: "1000004 is offered to 10 % of the devices, ...".
std::string RolloutText(const OpenRollout& rollout, std::int64_t now);

/// What a person should see to; empty when there is nothing: its last step has begun long ago.
std::string RolloutCare(const OpenRollout& rollout, const std::string& repository,
                        std::int64_t now);

/// For programs, without the name (docs/formats/repository.md).
Json::Value ToJson(const OpenRollout& rollout, std::int64_t now);

enum class RolloutAction {
  kHold,    ///< its clock stands still
  kResume,  ///< it goes on, later by the time for which it was held
  kStop,    ///< nobody else is offered it
  kFinish,  ///< it becomes the stable version
};

struct RolloutRequest {
  std::string repository;
  std::string name;
  RolloutAction action = RolloutAction::kHold;
  bool stopped_too = false;  ///< also one that was stopped is resumed
};

/// Changes the open rollout of a database, and signs the description anew. Returns what it is now;
/// with kFinish, what it was. Throws Error, also where there would be nothing to change;
/// package::Error.
OpenRollout ChangeRollout(const RolloutRequest& request, std::int64_t now, const Notes& notes);

/// Prints the open rollouts: of all databases, or of the one that is named. Takes no lock. Throws
/// Error, package::Error.
void ShowRollouts(const std::string& repository, const std::string& name, bool as_json,
                  std::int64_t now, std::ostream& out);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_ROLLOUT_H_

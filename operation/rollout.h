#ifndef TOLM_OPERATION_ROLLOUT_H_
#define TOLM_OPERATION_ROLLOUT_H_

#include <json/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "offer/offer.h"
#include "operation/operator_settings.h"
#include "operation/survey.h"

namespace tolm::operation {

/// What decides when it is a device's turn.
struct RolloutDevice {
  std::string identifier;  ///< As the server is told; empty for none.
  RolloutSetting setting = RolloutSetting::kNormal;
};

/// The one that this runs on, at this moment. With settings that cannot be read, which no operation
/// begins with, it waits for stable versions.
RolloutDevice ThisDevice();

/// Where the device stands among all, see offer::PositionOf(): the first place and the last one by
/// its setting, the last one without an identifier. Nothing for one that waits for stable versions.
std::optional<int> PositionOf(const RolloutDevice& device, const std::string& database,
                              int version);

/// How a staged version stands for a device that has this version. What is above the staged one was
/// offered by no plan of this signer, and counts for nothing.
Rollout RolloutOf(const std::string& name, const offer::DatabaseOffer& database, int installed,
                  const RolloutDevice& device, std::int64_t at);

bool operator==(const Rollout& one, const Rollout& other);

/// The same of every database that has a staged version, for this device by what is installed on it
/// or was, as its floors say. Empty, and nothing is looked at, where there is none.
/// Asked again it may say more: a step has begun, or something was installed. An operation goes by
/// the version that it was told first; where a later description has no deltas to that any more, it
/// takes the full package.
using Rollouts = std::map<std::string, Rollout>;
Rollouts RolloutsOf(const offer::Offer& offer, std::int64_t at);

/// The version that it is offered.
int OfferedVersionOf(const Rollout& rollout);

/// As offer::DocumentOf(), with what a device is offered by these; and with what the functions
/// below find in it.
Json::Value DocumentOf(const offer::Offer& offer, const Rollouts& rollouts);

/// Nothing where the database has no staged version, or the document is a server's own.
std::optional<Rollout> RolloutIn(const Json::Value& description, const std::string& name);

/// What a record of such a document says of the version that the device is not offered: a record of
/// the same form, without the deltas that the other one has as well. Null where there is none, and
/// in a server's own document.
const Json::Value& OtherVersionIn(const Json::Value& description, const std::string& name);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_ROLLOUT_H_

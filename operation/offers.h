#ifndef TOLM_OPERATION_OFFERS_H_
#define TOLM_OPERATION_OFFERS_H_

#include <json/value.h>

#include <map>
#include <optional>
#include <string>

#include "dataupdate/records.h"

namespace tolm::operation {

/// What a description offers of a database: as the library reads it, but without copies of what may
/// be large, and with links that hold no user name and no password (see credentials.h). Throw
/// UpdateError as the library does, and std::runtime_error for a version that is no number.
dataupdate::RemoteInfo OfferIn(const Json::Value& description, const std::string& name);
std::map<int, dataupdate::DiffInfo> DeltasIn(const Json::Value& description,
                                             const std::string& name);

/// The same of the version that the device is not offered, see rollout.h; nothing where there is
/// none.
std::optional<dataupdate::RemoteInfo> OtherOfferIn(const Json::Value& description,
                                                   const std::string& name);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_OFFERS_H_

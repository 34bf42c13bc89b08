#ifndef TOLM_PUBLISH_ROLLOUT_PICTURE_H_
#define TOLM_PUBLISH_ROLLOUT_PICTURE_H_

#include <cstdint>
#include <string>

#include "offer/rollout.h"
#include "report/html.h"

namespace tolm::publish {

/// "25 % of the devices", "0.5 % of the devices", "no device".
std::string ShareOfDevices(int share);

/// Where a plan is at @p now, in a sentence: "has reached 25 % of the devices; 50 % from 2026-01-31
/// 23:59 UTC on".
std::string RolloutText(const offer::RolloutPlan& plan, std::int64_t now);

/// How the plan goes on and where it is, as a picture with its words. The id is of letters, digits
/// and "-".
void DrawRollout(report::Html& html, const std::string& id, int version,
                 const offer::RolloutPlan& plan, std::int64_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_ROLLOUT_PICTURE_H_

#ifndef TOLM_PUBLISH_REPLAY_PLATFORM_H_
#define TOLM_PUBLISH_REPLAY_PLATFORM_H_

#include <ctime>
#include <string>

#include "package/trust.h"

namespace tolm::publish {

/// The platform interface as a replay needs it: downloads come from local files, patches are
/// decoded in this process, and packages must be signed by whom the caller trusts.

/// Whom packages must be signed by, judged at which time. The trust must outlive every use.
void SetReplayPlatform(const package::Trust& trust, std::time_t now);

/// The link by which the package at this absolute path is downloaded.
std::string ReplayLink(const std::string& path);

/// What the last call that failed had to say, empty when none has.
std::string LastReplayPlatformFailure();

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REPLAY_PLATFORM_H_

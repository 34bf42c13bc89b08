#ifndef TOLM_PUBLISH_REPLAY_REPLAY_PLATFORM_H_
#define TOLM_PUBLISH_REPLAY_REPLAY_PLATFORM_H_

#include <cstdint>
#include <string>

#include "package/trust.h"

namespace tolm::publish {

/// The platform's C interface as a replay needs it: downloads come from local files, patches are
/// decoded in this process, and packages must be signed by whom the publisher trusts. Functions
/// that no delta needs throw std::logic_error, through the library's objects, which are C++ too.

/// Whom packages must be signed by, judged at which time. Before any of them.
void SetReplayPlatform(package::Trust trust, std::int64_t now);

/// The link by which the package at this absolute path is downloaded.
std::string ReplayLink(const std::string& path);

/// What the last call that failed had to say, empty when none has.
std::string LastReplayPlatformFailure();

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REPLAY_REPLAY_PLATFORM_H_

#ifndef TOLM_PUBLISH_CHANGE_SETTINGS_H_
#define TOLM_PUBLISH_CHANGE_SETTINGS_H_

#include <optional>
#include <string>

#include "publish/repository.h"

namespace tolm::publish {

/// Absent ones stay as they are. The key, its certificate and the root are ResignRepository's.
struct ChangeSettingsRequest {
  std::string repository;
  std::optional<BaseUrl> base_url;
  std::optional<int> chain_share_percent;
  std::optional<std::string> oldest_sqlite;
};

/// Changes settings of a repository; the description has the new base URL at once, the other two
/// count from the next release on. Throws Error when a newest release could not have its link below
/// the new base URL, and package::Error.
void ChangeSettings(const ChangeSettingsRequest& request, const Notes& notes);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_CHANGE_SETTINGS_H_

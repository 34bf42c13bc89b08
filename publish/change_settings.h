#ifndef TOLM_PUBLISH_CHANGE_SETTINGS_H_
#define TOLM_PUBLISH_CHANGE_SETTINGS_H_

#include <ctime>
#include <optional>
#include <string>

#include "publish/repository.h"

namespace tolm::publish {

/// Absent ones stay as they are.
struct ChangeSettingsRequest {
  std::string repository;
  std::optional<BaseUrl> base_url;
  std::optional<int> chain_share_percent;
  std::optional<std::string> oldest_sqlite;
  std::optional<int> min_certificate_days;
  KeyFiles keys;
};

/// Changes settings of a repository; the description has the new base URL at once, the others count
/// from the next command on. Key, certificate and root are proved as a release would
/// (LoadTrustedSigner); packages that other certificates signed stay as they are, which is noted
/// when keys are given. Throws Error when a newest release could not have its link below the new
/// base URL, and package::Error; then nothing was changed.
void ChangeSettings(const ChangeSettingsRequest& request, std::time_t now, const Notes& notes);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_CHANGE_SETTINGS_H_

#ifndef TOLM_PUBLISH_CHANGE_SETTINGS_H_
#define TOLM_PUBLISH_CHANGE_SETTINGS_H_

#include <cstdint>
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
  std::optional<int> max_shrink_percent;
  std::optional<package::CompressionChoice> compression;
  std::optional<int> window_mebibytes;
  std::optional<int> description_days;
  std::optional<std::string> revocations_path;  ///< an empty one: none from now on
};

/// Of one database; absent ones stay as they are.
struct ChangeDatabaseSettingsRequest {
  std::string repository;
  std::string name;
  /// The inner one is empty for that of the repository.
  std::optional<std::optional<int>> max_shrink_percent;
  std::optional<std::string> test;  ///< an empty one removes it
};

/// Changes settings of a repository; the description has the new base URL at once, the others count
/// from the next command on. Key, certificate and root are proved as a release would
/// (LoadTrustedSigner), and those of descriptions likewise (LoadInfoSigner); packages that other
/// certificates signed stay as they are, which is noted when keys are given. Throws Error when a
/// newest release could not have its link below the new base URL, and package::Error; then nothing
/// was changed.
void ChangeSettings(const ChangeSettingsRequest& request, std::int64_t now, const Notes& notes);

/// Throws Error when files for signing descriptions are given to a repository whose descriptions
/// are not signed.
void RequireSignedForInfoKeys(const KeyFiles& given, const RepositoryChange& change);

/// The same for one database, which may not have been released yet; that is noted. They count from
/// the next release on, and stay when the database is removed.
void ChangeDatabaseSettings(const ChangeDatabaseSettingsRequest& request, const Notes& notes);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_CHANGE_SETTINGS_H_

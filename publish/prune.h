#ifndef TOLM_PUBLISH_PRUNE_H_
#define TOLM_PUBLISH_PRUNE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "publish/repository.h"

namespace tolm::publish {

struct PruneRequest {
  std::string repository;
  std::string name;
  int keep = 1;        ///< releases that stay; at least 1
  int grace_days = 1;  ///< what left the description less long ago stays on the disk
};

struct PruneReport {
  std::vector<int> versions;         ///< whose packages are not offered any more from now on
  std::vector<std::string> removed;  ///< paths
  std::vector<std::string> waiting;  ///< retired, and not long enough
};

/// Retires the releases but the newest @ref PruneRequest::keep, and removes packages that left the
/// description before the grace period: a device that still holds an older description, or is
/// downloading, gets what it was offered. The newest release always stays, and while a rollout is
/// open the stable one with all after it. Of a database that was removed, removes the packages
/// alone. Throws Error, package::Error.
PruneReport Prune(const PruneRequest& request, std::int64_t now, const Notes& notes);

/// Marks a database as deprecated, or not. Returns whether that changed anything.
bool SetDeprecated(const std::string& repository, const std::string& name, bool deprecated,
                   const Notes& notes);

struct RemoveRequest {
  std::string repository;
  std::string name;
  bool not_deprecated = false;  ///< whether one is removed that was not deprecated before
};

/// Offers a database no longer; Prune() removes its packages after the grace period. Its name keeps
/// the newest version, which is returned: a later release follows it. Throws Error, package::Error.
int RemoveDatabase(const RemoveRequest& request, std::int64_t now, const Notes& notes);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PRUNE_H_

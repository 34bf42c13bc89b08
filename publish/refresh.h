#ifndef TOLM_PUBLISH_REFRESH_H_
#define TOLM_PUBLISH_REFRESH_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "publish/repository.h"

namespace tolm::publish {

struct RefreshReport {
  std::size_t databases = 0;
  std::int64_t expires = 0;
};

/// Signs anew what the catalog says and puts it in the served description's place; nothing else is
/// changed, and what an interrupted command has left stays for the next one. Takes the lock. No key
/// is read but the one of descriptions. Throws Error, also for a repository whose descriptions are
/// not signed; package::Error.
RefreshReport RefreshDescription(const std::string& repository, std::int64_t now);

/// Gives the group, by name or number, what RefreshDescription() needs of this repository besides
/// what everybody may read, and no more: to write state/lock, state/refresh and the directory of
/// the description, to read the info key where it is a file, and the way to all of these. Throws
/// Error when there is no such group or descriptions are not signed; package::Error.
void ShareForRefresh(const RepositoryPaths& paths, const Settings& settings,
                     const std::string& group);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REFRESH_H_

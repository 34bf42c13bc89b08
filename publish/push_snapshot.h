#ifndef TOLM_PUBLISH_PUSH_SNAPSHOT_H_
#define TOLM_PUBLISH_PUSH_SNAPSHOT_H_

#include <map>
#include <string>
#include <vector>

#include "publish/description.h"
#include "publish/repository.h"

namespace tolm::publish {

/// What a repository serves at one moment.
struct PushSnapshot {
  std::string description_path;  ///< below the public directory
  std::string description;
  std::map<std::string, PackageRecord> packages;  ///< that are released, offered or not, by path
};

/// Every package that a description names, those of staged releases included. Throws Error that
/// begins with @p where, or offer::Error, for what is none.
std::vector<OfferedPackage> PackagesNamedIn(const std::string& description,
                                            const std::string& where);

/// Takes the lock for as long as it looks. Where @p directory is not empty, the packages get a
/// second name below it, which must be an empty directory: what the repository loses afterwards
/// stays there. Throws Error when the description names what is not there.
PushSnapshot TakeSnapshot(const RepositoryPaths& paths, const Settings& settings,
                          const std::string& directory, const Notes& notes);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PUSH_SNAPSHOT_H_

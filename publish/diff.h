#ifndef TOLM_PUBLISH_DIFF_H_
#define TOLM_PUBLISH_DIFF_H_

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "publish/release.h"
#include "sqldelta/sqlite_changes.h"

namespace tolm::publish {

struct FileDifference {
  enum class Kind { kNew, kGone, kChanged };
  std::string key;
  Kind kind = Kind::kChanged;
  std::uint64_t old_bytes = 0;
  std::uint64_t new_bytes = 0;
  std::optional<sqldelta::SqliteChanges> tables;  ///< of what is an SQLite file before and after
  std::string note;                               ///< for people, may be empty
};

struct Difference {
  std::string name;                   ///< of the database; empty for two directories
  std::string before;                 ///< a version or a directory
  std::string after;                  ///< likewise
  std::vector<FileDifference> files;  ///< by key; unchanged ones are not in it
  std::size_t unchanged = 0;
};

struct DiffRequest {
  std::string repository;
  std::string name;
  int old_version = 0;
  int new_version = 0;
};

/// What changed between two releases of a database. Unpacks both in the repository's work
/// directory, and takes its lock. That their packages are those that were released is proved;
/// signatures are not, so that keys are not needed. Throws Error for a version that is not released
/// or not any more, and package::Error.
Difference DiffReleases(const DiffRequest& request, const Steps& steps);

/// The same of two directories.
Difference DiffDirectories(const std::string& before, const std::string& after, const Steps& steps);

/// As a table, or as JSON (docs/formats/repository.md).
void PrintDifference(const Difference& difference, bool as_json, std::ostream& out);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_DIFF_H_

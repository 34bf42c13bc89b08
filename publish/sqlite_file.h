#ifndef TOLM_PUBLISH_SQLITE_FILE_H_
#define TOLM_PUBLISH_SQLITE_FILE_H_

#include <optional>
#include <string>

#include "sqldelta/sql_delta.h"
#include "sqldelta/sqlite_changes.h"

namespace tolm::publish {

/// What publishing asks of the component for SQLite files. A file that cannot be read or written is
/// a package::Error (kRead, kWrite, kNoSpace) here, as everywhere in publishing.

/// Whether the file begins as every SQLite file but an empty one does.
bool IsSqliteFile(const std::string& path);

/// sqldelta::MakeSqlDelta().
std::optional<std::string> MakeSqlDelta(const std::string& old_path, const std::string& new_path,
                                        const std::string& script_path,
                                        const sqldelta::SqlDeltaOptions& options);

/// sqldelta::FindChanges(); nothing, and why, when one of the files is no sound database.
std::optional<sqldelta::SqliteChanges> FindSqliteChanges(const std::string& old_path,
                                                         const std::string& new_path,
                                                         std::string& problem);

/// Whether both are SQLite files with the same complete logical content and schema.
bool HoldTheSame(const std::string& path, const std::string& other_path);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_SQLITE_FILE_H_

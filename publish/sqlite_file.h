#ifndef TOLM_PUBLISH_SQLITE_FILE_H_
#define TOLM_PUBLISH_SQLITE_FILE_H_

#include <cstdint>
#include <map>
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

/// Orders names of tables as SQLite tells them apart: the case of ASCII letters is no matter.
struct TableNameLess {
  bool operator()(const std::string& left, const std::string& right) const;
};

/// What is in the tables of an SQLite file.
struct TableRows {
  /// By table. Virtual and internal ones are left out, and those behind a virtual one that do not
  /// have a row for each of its rows.
  std::map<std::string, std::uint64_t, TableNameLess> rows;
  /// Why this SQLite cannot count a table, such as one with a collation of its own; under an empty
  /// name for all of the file.
  std::map<std::string, std::string, TableNameLess> uncounted;
};

/// Counts without changing the file; memory does not grow with it. Throws package::Error (kRead)
/// that says what is wrong with the file, but does not name it, when it is damaged.
TableRows CountRows(const std::string& path);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_SQLITE_FILE_H_

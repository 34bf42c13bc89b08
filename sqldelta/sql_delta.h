#ifndef TOLM_SQLDELTA_SQL_DELTA_H_
#define TOLM_SQLDELTA_SQL_DELTA_H_

#include <optional>
#include <string>

namespace tolm::sqldelta {

struct SqlDeltaOptions {
  /// The oldest SQLite that has to run the script, as SQLITE_VERSION_NUMBER counts.
  int oldest_sqlite_version = 3033000;
};

/// Writes the script that turns an SQLite file with the content of @p old_path into one with the
/// content of @p new_path, for a device that executes it line by line in one transaction; see
/// docs/formats/sql-delta.md. The script has been executed, and its result compared, when this
/// returns: the script guards itself against any other beginning and any other result.
///
/// Returns none when the script is there, and otherwise, with no file left, the reason why the
/// complete file has to be sent. Neither input is changed. Needs room for a copy of the old file
/// beside @p script_path; memory does not grow with the files. The same input gives the same bytes.
/// Throws FileError (sqldelta/error.h) when files cannot be read or written, which says nothing
/// about the databases.
std::optional<std::string> MakeSqlDelta(const std::string& old_path, const std::string& new_path,
                                        const std::string& script_path,
                                        const SqlDeltaOptions& options = {});

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_DELTA_H_

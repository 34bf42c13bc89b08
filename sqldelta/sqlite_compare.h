#ifndef TOLM_SQLDELTA_SQLITE_COMPARE_H_
#define TOLM_SQLDELTA_SQLITE_COMPARE_H_

#include <optional>
#include <string>

namespace tolm::sqldelta {

/// The first difference between two SQLite files, for people; none when their complete logical
/// content is the same: the settings that a file keeps, the schema by its texts, and every stored
/// value of every row, bit by bit. Not content is where things lie in the file, the order of the
/// schema's objects, and rowids where RowidsAreContent says so. Neither file is changed; memory
/// does not grow with them. Throws SqliteError when one cannot be read.
std::optional<std::string> CompareSqlite(const std::string& path, const std::string& other_path);

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQLITE_COMPARE_H_

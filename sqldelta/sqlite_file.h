#ifndef TOLM_SQLDELTA_SQLITE_FILE_H_
#define TOLM_SQLDELTA_SQLITE_FILE_H_

#include <string>

namespace tolm::sqldelta {

/// Whether the file begins as every SQLite file but an empty one does. Throws FileError
/// (sqldelta/error.h) when it cannot be read.
bool IsSqliteFile(const std::string& path);

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQLITE_FILE_H_

#ifndef TOLM_PUBLISH_SQLITE_FILE_H_
#define TOLM_PUBLISH_SQLITE_FILE_H_

#include <string>

namespace tolm::publish {

/// Whether the file begins as every SQLite file but an empty one does. Throws
/// package::Error(kRead).
bool IsSqliteFile(const std::string& path);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_SQLITE_FILE_H_

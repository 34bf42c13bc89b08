#ifndef TOLM_PUBLISH_FILE_COPY_H_
#define TOLM_PUBLISH_FILE_COPY_H_

#include <string>

namespace tolm::publish {

/// Copies a regular file (or what a link leads to) with its permission bits to a path that must not
/// exist. Shares the blocks where the file system can. Nothing is synced. Throws package::Error
/// (kRead, kNoSpace, kWrite).
void CopyFile(const std::string& from, const std::string& to);

/// Gives the file the further name @p to, which must not exist, or copies it where that is refused
/// (another file system, another owner). For files that nobody writes to in place.
void LinkOrCopyFile(const std::string& from, const std::string& to);

/// Writes a file that must not exist. Nothing is synced. Throws package::Error (kNoSpace, kWrite).
void WriteNewFile(const std::string& path, const std::string& content);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_FILE_COPY_H_

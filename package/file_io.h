#ifndef TOLM_PACKAGE_FILE_IO_H_
#define TOLM_PACKAGE_FILE_IO_H_

#include <cstddef>
#include <string>
#include <vector>

#include "package/error.h"

namespace tolm::package {

/// Writes all of it at the file's position. Throws Error (kNoSpace, kWrite) that names @p what.
void WriteAll(int fd, const void* data, std::size_t size, const std::string& what);

/// Reads a small file whole. Throws Error(@p code) when it cannot be read or exceeds @p max_bytes.
std::string ReadSmallFile(const std::string& path, std::size_t max_bytes, Code code);

/// The name that the open file or directory has now; empty when that cannot be told.
std::string NameOf(int fd);

/// That this part of a package ("payload") was not read from the file, with the name that it has
/// now.
Error UnreadPart(const char* part, int fd, int errno_value);

/// The same for one that was not written: kNoSpace or kWrite.
Error UnwrittenPart(const char* part, int fd, int errno_value);

/// Adds the names of all that is in the open directory, in no order. The descriptor stays the
/// caller's; its position is not used. False, with errno, when it cannot be listed.
bool ListNames(int directory, std::vector<std::string>& names);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_FILE_IO_H_

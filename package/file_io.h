#ifndef TOLM_PACKAGE_FILE_IO_H_
#define TOLM_PACKAGE_FILE_IO_H_

#include <cstddef>
#include <string>

#include "package/error.h"

namespace tolm::package {

/// Writes all of it at the file's position. Throws Error (kNoSpace, kWrite) that names @p what.
void WriteAll(int fd, const void* data, std::size_t size, const std::string& what);

/// Reads a small file whole. Throws Error(@p code) when it cannot be read or exceeds @p max_bytes.
std::string ReadSmallFile(const std::string& path, std::size_t max_bytes, Code code);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_FILE_IO_H_

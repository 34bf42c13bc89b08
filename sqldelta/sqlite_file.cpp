#include "sqldelta/sqlite_file.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "base/descriptor.h"
#include "sqldelta/error.h"

namespace tolm::sqldelta {

bool IsSqliteFile(const std::string& path) {
  constexpr char kMagic[16] = "SQLite format 3";  // with its NUL
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  std::array<char, sizeof kMagic> start{};
  const std::int64_t count =
      file.IsOpen() ? base::ReadAt(file.Get(), start.data(), start.size(), 0) : -1;
  if (count < 0) {
    const int reason = errno;
    throw FileError(FileError::Action::kRead, path + ": " + std::generic_category().message(reason),
                    reason);
  }
  return count == sizeof kMagic && std::memcmp(start.data(), kMagic, sizeof kMagic) == 0;
}

}  // namespace tolm::sqldelta

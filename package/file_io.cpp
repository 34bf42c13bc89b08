#include "package/file_io.h"

#include <fcntl.h>

#include <cerrno>

#include "base/descriptor.h"

namespace tolm::package {

void WriteAll(int fd, const void* data, std::size_t size, const std::string& what) {
  if (const int reason = base::WriteAll(fd, data, size); reason != 0) {
    throw WriteError(what, reason);
  }
}

std::string ReadSmallFile(const std::string& path, std::size_t max_bytes, Code code) {
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!file.IsOpen()) {
    throw SystemError(code, path, errno);
  }
  std::string content(max_bytes + 1, '\0');
  const std::int64_t count = base::ReadAt(file.Get(), content.data(), content.size(), 0);
  if (count < 0) {
    throw SystemError(code, path, errno);
  }
  if (static_cast<std::size_t>(count) > max_bytes) {
    throw Error(code, path + ": larger than " + std::to_string(max_bytes) + " bytes");
  }
  content.resize(static_cast<std::size_t>(count));
  return content;
}

}  // namespace tolm::package

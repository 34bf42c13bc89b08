#include "publish/memory_file.h"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "package/error.h"
#include "package/file_io.h"

namespace tolm::publish {

MemoryFile::MemoryFile(const std::string& name, const std::string& content)
    : name_(name), descriptor_(::memfd_create("tolm", MFD_CLOEXEC)) {
  if (!descriptor_.IsOpen()) {
    throw package::WriteError(name_, errno);
  }
  package::WriteAll(Get(), content.data(), content.size(), name_);
  if (::lseek(Get(), 0, SEEK_SET) != 0) {
    throw package::WriteError(name_, errno);
  }
}

std::string MemoryFile::Content() const {
  std::string content;
  std::array<char, 4096> piece{};
  for (;;) {
    const std::int64_t count = base::ReadAt(Get(), piece.data(), piece.size(), content.size());
    if (count < 0) {
      throw package::SystemError(package::Code::kRead, name_, errno);
    }
    if (count == 0) {
      return content;
    }
    content.append(piece.data(), static_cast<std::size_t>(count));
  }
}

}  // namespace tolm::publish

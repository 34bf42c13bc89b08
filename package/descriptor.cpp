#include "package/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace tolm::package {

Descriptor::Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

Descriptor::~Descriptor() {
  if (IsOpen()) {
    ::close(fd_);
  }
}

int Descriptor::Close() noexcept {
  return ::close(std::exchange(fd_, -1)) == 0 ? 0 : errno;
}

std::int64_t ReadAt(int fd, void* buffer, std::size_t size, std::uint64_t offset) noexcept {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = ::pread(fd, static_cast<char*>(buffer) + done, size - done,
                                  static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      return -1;
    }
    if (count == 0) {
      break;
    }
    done += static_cast<std::size_t>(count);
  }
  return static_cast<std::int64_t>(done);
}

void WriteAll(int fd, const void* data, std::size_t size, const std::string& what) {
  const char* rest = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t count = ::write(fd, rest, size);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      throw WriteError(what, errno);
    }
    rest += count;
    size -= static_cast<std::size_t>(count);
  }
}

std::string ReadSmallFile(const std::string& path, std::size_t max_bytes, Code code) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.IsOpen()) {
    throw SystemError(code, path, errno);
  }
  std::string content(max_bytes + 1, '\0');
  const std::int64_t count = ReadAt(file.Get(), content.data(), content.size(), 0);
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

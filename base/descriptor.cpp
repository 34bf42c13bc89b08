#include "base/descriptor.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace tolm::base {

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

int WriteAll(int fd, const void* data, std::size_t size) noexcept {
  const char* rest = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t count = ::write(fd, rest, size);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      return errno;
    }
    rest += count;
    size -= static_cast<std::size_t>(count);
  }
  return 0;
}

}  // namespace tolm::base

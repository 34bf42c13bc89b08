#include "base/descriptor.h"

#include <unistd.h>

#include <algorithm>
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

std::optional<std::string> ReadTextAt(int fd, std::size_t most, std::uint64_t offset) {
  constexpr std::size_t kLeastPieceBytes = 65536;
  std::string text;
  while (text.size() < most) {
    const std::size_t begin = text.size();
    const std::size_t piece = std::min(most - begin, std::max(begin, kLeastPieceBytes));
    text.resize(begin + piece);
    const std::int64_t count = ReadAt(fd, text.data() + begin, piece, offset + begin);
    if (count < 0) {
      return std::nullopt;
    }
    text.resize(begin + static_cast<std::size_t>(count));
    if (static_cast<std::size_t>(count) < piece) {
      break;
    }
  }
  return text;
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

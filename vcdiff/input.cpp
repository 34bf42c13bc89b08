#include "vcdiff/input.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "vcdiff/error.h"

namespace tolm::vcdiff {

namespace {

/// Pieces are mapped in this size at least, so that small windows share a mapping. On 32 bits the
/// address space is scarce, and a segment that is larger still is read instead.
constexpr std::uint64_t kMapBytes = sizeof(void*) >= 8 ? std::uint64_t{1} << 40 : 64U << 20;
constexpr std::uint64_t kMaxMapBytes = sizeof(void*) >= 8 ? std::uint64_t{1} << 46 : 256U << 20;

struct stat StatusOf(int fd, const std::string& name) {
  struct stat status;
  if (fstat(fd, &status) != 0) {
    ThrowIo(name, "look at it", errno);
  }
  if (!S_ISREG(status.st_mode)) {
    ThrowUnusable(name, "not a regular file");
  }
  return status;
}

int OpenToRead(const std::string& path) {
  // Not to wait for the other end of a FIFO, which is refused afterwards.
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    ThrowIo(path, "open it", errno);
  }
  return fd;
}

}  // namespace

const std::uint8_t* Input::View(std::uint64_t offset, std::size_t size,
                                std::vector<std::uint8_t>& buffer) {
  if (const std::uint8_t* mapped = Map(offset, size)) {
    return mapped;
  }
  if (buffer.size() < size) {
    // Emptied first: growing would copy the old bytes and hold both buffers for a moment.
    std::vector<std::uint8_t>().swap(buffer);
    buffer.resize(size);
  }
  Read(offset, buffer.data(), size);
  return buffer.data();
}

const std::uint8_t* MemoryInput::Map(std::uint64_t offset, std::uint64_t /*size*/) {
  return data_ + offset;
}

void MemoryInput::Read(std::uint64_t offset, std::uint8_t* to, std::size_t size) {
  std::copy_n(data_ + offset, size, to);
}

FileInput::FileInput(const std::string& path, FileAccess access)
    : Input(path), owned_(OpenToRead(path)), descriptor_(owned_.Get()), access_(access) {
  const struct stat status = StatusOf(descriptor_, path);
  size_ = static_cast<std::uint64_t>(status.st_size);
  permissions_ = status.st_mode & 0777U;
}

FileInput::FileInput(std::string name, int descriptor, std::uint64_t size, FileAccess access)
    : Input(std::move(name)), descriptor_(descriptor), size_(size), access_(access) {}

FileInput::~FileInput() {
  Unmap();
}

void FileInput::Unmap() noexcept {
  if (mapped_ != nullptr) {
    munmap(mapped_, mapped_size_);
    mapped_ = nullptr;
  }
}

const std::uint8_t* FileInput::Map(std::uint64_t offset, std::uint64_t size) {
  if (access_ != FileAccess::kMap || size == 0 || size > kMaxMapBytes) {
    return nullptr;
  }
  if (mapped_ != nullptr && offset >= mapped_offset_ &&
      offset + size <= mapped_offset_ + mapped_size_) {
    return mapped_ + (offset - mapped_offset_);
  }
  Unmap();
  const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  const std::uint64_t start = offset - offset % page;
  const std::uint64_t end = std::min(size_, std::max(offset + size, start + kMapBytes));
  void* mapped = mmap(nullptr, static_cast<std::size_t>(end - start), PROT_READ, MAP_SHARED,
                      descriptor_, static_cast<off_t>(start));
  if (mapped == MAP_FAILED) {
    return nullptr;
  }
  mapped_ = static_cast<std::uint8_t*>(mapped);
  mapped_offset_ = start;
  mapped_size_ = static_cast<std::size_t>(end - start);
  return mapped_ + (offset - start);
}

void FileInput::Read(std::uint64_t offset, std::uint8_t* to, std::size_t size) {
  while (size > 0) {
    const ssize_t got = pread(descriptor_, to, size, static_cast<off_t>(offset));
    if (got < 0) {
      if (errno == EINTR) {
        continue;
      }
      ThrowIo(Name(), "read it", errno);
    }
    if (got == 0) {
      ThrowUnusable(Name(), "became shorter while it was read");
    }
    to += got;
    offset += static_cast<std::uint64_t>(got);
    size -= static_cast<std::size_t>(got);
  }
}

}  // namespace tolm::vcdiff

#ifndef TOLM_BASE_DESCRIPTOR_H_
#define TOLM_BASE_DESCRIPTOR_H_

#include <cstddef>
#include <cstdint>

namespace tolm::base {

/// Owns one file descriptor and closes it.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept;
  Descriptor& operator=(Descriptor&& other) noexcept;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor();

  int Get() const noexcept { return fd_; }
  bool IsOpen() const noexcept { return fd_ >= 0; }
  /// Closes now. Returns 0, or the errno value: the last chance to hear of a failed write.
  [[nodiscard]] int Close() noexcept;

 private:
  int fd_ = -1;
};

/// Reads up to @p size bytes at @p offset, fewer only at the end of the file. Leaves the file's
/// position alone. Returns the bytes read, or -1 with errno set.
std::int64_t ReadAt(int fd, void* buffer, std::size_t size, std::uint64_t offset) noexcept;

/// Writes all of it at the file's position, in one call of the system's where that takes all.
/// Returns 0, or the errno value.
[[nodiscard]] int WriteAll(int fd, const void* data, std::size_t size) noexcept;

}  // namespace tolm::base

#endif  // TOLM_BASE_DESCRIPTOR_H_

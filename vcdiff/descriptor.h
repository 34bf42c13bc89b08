#ifndef TOLM_VCDIFF_DESCRIPTOR_H_
#define TOLM_VCDIFF_DESCRIPTOR_H_

#include <unistd.h>

#include <utility>

namespace tolm::vcdiff {

/// Owns one file descriptor, or none (-1), and closes it.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { static_cast<void>(Close()); }

  int Get() const noexcept { return fd_; }
  /// Closes now; 0 or -1 with errno set. A failed write may be reported only here.
  [[nodiscard]] int Close() noexcept { return fd_ < 0 ? 0 : ::close(std::exchange(fd_, -1)); }

 private:
  int fd_ = -1;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_DESCRIPTOR_H_

#ifndef TOLM_PLATFORM_UNIQUE_FD_H_
#define TOLM_PLATFORM_UNIQUE_FD_H_

#include <unistd.h>

#include <utility>

namespace tolm::platform {

// Owns one descriptor, or none (-1), and closes it.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void Reset() {
    if (fd_ >= 0)
      close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

}  // namespace tolm::platform

#endif  // TOLM_PLATFORM_UNIQUE_FD_H_

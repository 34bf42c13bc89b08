#ifndef TOLM_SUPPORT_UNIQUE_DESCRIPTOR_H_
#define TOLM_SUPPORT_UNIQUE_DESCRIPTOR_H_

#include <unistd.h>

#include <utility>

namespace tolm::testing {

/// Owns one file descriptor, or none (-1), and closes it.
class UniqueDescriptor {
 public:
  UniqueDescriptor() = default;
  explicit UniqueDescriptor(int descriptor) : descriptor_(descriptor) {}
  UniqueDescriptor(UniqueDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  UniqueDescriptor(const UniqueDescriptor&) = delete;
  UniqueDescriptor& operator=(const UniqueDescriptor&) = delete;
  ~UniqueDescriptor() { Close(); }

  int Get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }
  void Close() {
    if (descriptor_ >= 0) {
      close(std::exchange(descriptor_, -1));
    }
  }

 private:
  int descriptor_ = -1;
};

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_UNIQUE_DESCRIPTOR_H_

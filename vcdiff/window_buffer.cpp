#include "vcdiff/window_buffer.h"

#include <sys/mman.h>

#include <new>

namespace tolm::vcdiff {

namespace {

constexpr std::size_t kHugePageBytes = std::size_t{2} << 20;

std::uint8_t* Allocate(std::size_t size) {
  if (size < kHugePageBytes) {
    return static_cast<std::uint8_t*>(std::malloc(size));
  }
  const std::size_t rounded = (size + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes;
  void* const bytes = std::aligned_alloc(kHugePageBytes, rounded);
#ifdef MADV_HUGEPAGE
  if (bytes != nullptr) {
    // Whole pages only: the last one would be mostly empty. A refusal is as good as none.
    static_cast<void>(madvise(bytes, size / kHugePageBytes * kHugePageBytes, MADV_HUGEPAGE));
  }
#endif
  return static_cast<std::uint8_t*>(bytes);
}

}  // namespace

void WindowBuffer::Reserve(std::size_t size) {
  if (size <= capacity_) {
    return;
  }
  bytes_.reset();
  capacity_ = 0;
  bytes_.reset(Allocate(size));
  if (bytes_ == nullptr) {
    throw std::bad_alloc();
  }
  capacity_ = size;
}

}  // namespace tolm::vcdiff

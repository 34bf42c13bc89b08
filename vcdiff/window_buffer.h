#ifndef TOLM_VCDIFF_WINDOW_BUFFER_H_
#define TOLM_VCDIFF_WINDOW_BUFFER_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace tolm::vcdiff {

/// Memory for one window, not initialised. Large ones ask the system for huge pages: copies within
/// a window go anywhere in it.
class WindowBuffer {
 public:
  std::uint8_t* Get() const noexcept { return bytes_.get(); }
  /// Makes room for that many bytes; what was there is lost. Throws std::bad_alloc.
  void Reserve(std::size_t size);

 private:
  struct Free {
    void operator()(std::uint8_t* bytes) const noexcept { std::free(bytes); }
  };

  std::unique_ptr<std::uint8_t, Free> bytes_;
  std::size_t capacity_ = 0;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_WINDOW_BUFFER_H_

#ifndef TOLM_VCDIFF_LIMITS_H_
#define TOLM_VCDIFF_LIMITS_H_

#include <cstdint>

namespace tolm::vcdiff {

/// What a delta may ask for. Each is checked before anything is allocated or written.
struct Limits {
  /// Largest target window, and largest section after decompression. A window in its encoded form
  /// may have twice as much. Memory: up to two windows. Never more than a quarter of the address
  /// space.
  std::uint64_t max_window_bytes = 64U << 20;
  /// Windows in a row that add nothing to the target.
  std::uint64_t max_empty_windows = 64;
  /// An application-defined code table as the delta carries it, cache sizes included.
  std::uint64_t max_code_table_bytes = 16U << 10;
  /// Memory of one LZMA decompressor; a delta may use three. Its dictionary is most of it.
  std::uint64_t max_lzma_bytes = 80U << 20;
  /// The whole target. A few bytes can ask for a whole window, so a small delta can fill a disk.
  std::uint64_t max_target_bytes = UINT64_MAX;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_LIMITS_H_

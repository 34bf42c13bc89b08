#ifndef TOLM_VCDIFF_BLOCK_CACHE_H_
#define TOLM_VCDIFF_BLOCK_CACHE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "vcdiff/input.h"

namespace tolm::vcdiff {

/// Serves short reads of an input that cannot be mapped: 1 MiB of recently used blocks.
class BlockCache {
 public:
  BlockCache();

  /// Reads from this input from now on; what was kept of it is forgotten.
  void Attach(Input& input);

  /// Copies the bytes; long ranges go past the cache. Throws Error(kIo).
  void Read(std::uint64_t offset, std::uint8_t* to, std::size_t size);

 private:
  static constexpr std::size_t kBlockBytes = 32U << 10;
  static constexpr std::size_t kBlocks = 32;
  static constexpr std::uint64_t kNone = UINT64_MAX;

  const std::uint8_t* Block(std::uint64_t number);

  Input* input_ = nullptr;
  std::vector<std::uint64_t> numbers_;  // which block is in each place
  std::unique_ptr<std::uint8_t[]> bytes_;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_BLOCK_CACHE_H_

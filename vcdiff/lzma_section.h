#ifndef TOLM_VCDIFF_LZMA_SECTION_H_
#define TOLM_VCDIFF_LZMA_SECTION_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "vcdiff/error.h"

namespace tolm::vcdiff {

/// Decompresses one of the three kinds of sections. All sections of a kind that are compressed form
/// one .xz stream which the encoder flushes at the end of each section, so they must be given in
/// their order and without leaving one out.
class LzmaSection {
 public:
  explicit LzmaSection(std::uint64_t max_memory_bytes);
  ~LzmaSection();
  LzmaSection(LzmaSection&& other) noexcept;
  LzmaSection& operator=(LzmaSection&&) = delete;

  /// Decompresses @p size bytes of the stream to exactly @p expected bytes. Valid until the next
  /// call. Throws Error(kBadInput) about @p place.
  const std::uint8_t* Decompress(const std::uint8_t* data, std::size_t size, std::size_t expected,
                                 const Place& place);

 private:
  struct Stream;

  std::uint64_t max_memory_bytes_;
  std::unique_ptr<Stream> stream_;
  std::unique_ptr<std::uint8_t[]> buffer_;
  std::size_t capacity_ = 0;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_LZMA_SECTION_H_

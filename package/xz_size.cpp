#include "package/xz_size.h"

#include <lzma.h>

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include "base/descriptor.h"

namespace tolm::package {
namespace {

struct IndexDelete {
  void operator()(lzma_index* index) const noexcept { lzma_index_end(index, nullptr); }
};
using IndexPtr = std::unique_ptr<lzma_index, IndexDelete>;

template <typename Bytes>
bool Read(int fd, std::uint64_t offset, Bytes& bytes) {
  return base::ReadAt(fd, bytes.data(), bytes.size(), offset) ==
         static_cast<std::int64_t>(bytes.size());
}

// Null for a damaged one.
IndexPtr Decode(const std::vector<std::uint8_t>& bytes) {
  std::uint64_t most_memory = 1 << 20;
  lzma_index* index = nullptr;
  std::size_t position = 0;
  const lzma_ret result = lzma_index_buffer_decode(&index, &most_memory, nullptr, bytes.data(),
                                                   &position, bytes.size());
  return IndexPtr(result == LZMA_OK && position == bytes.size() ? index : nullptr);
}

}  // namespace

std::optional<std::uint64_t> XzUnpackedBytes(int fd, std::uint64_t payload_bytes) {
  constexpr lzma_vli kMostIndexBytes = 1 << 18;
  std::array<std::uint8_t, LZMA_STREAM_HEADER_SIZE> begin;
  std::array<std::uint8_t, LZMA_STREAM_HEADER_SIZE> end;
  lzma_stream_flags head{};
  lzma_stream_flags foot{};
  if (payload_bytes < begin.size() + end.size() || !Read(fd, 0, begin) ||
      !Read(fd, payload_bytes - end.size(), end) ||
      lzma_stream_header_decode(&head, begin.data()) != LZMA_OK ||
      lzma_stream_footer_decode(&foot, end.data()) != LZMA_OK ||
      lzma_stream_flags_compare(&head, &foot) != LZMA_OK || foot.backward_size > kMostIndexBytes ||
      foot.backward_size > payload_bytes - begin.size() - end.size()) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(foot.backward_size));
  const std::uint64_t at = payload_bytes - end.size() - bytes.size();
  const IndexPtr index = Read(fd, at, bytes) ? Decode(bytes) : nullptr;
  // Of more than one stream this is the last one's index.
  if (!index || lzma_index_file_size(index.get()) != payload_bytes) {
    return std::nullopt;
  }
  return lzma_index_uncompressed_size(index.get());
}

}  // namespace tolm::package

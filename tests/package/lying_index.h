#ifndef TOLM_TESTS_PACKAGE_LYING_INDEX_H_
#define TOLM_TESTS_PACKAGE_LYING_INDEX_H_

#include <lzma.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tolm::testing {

/// An xz payload of one block whose index says that it unpacks to @p unpacked_bytes. Nothing but
/// that is wrong in it.
inline std::string WithIndexThatSays(const std::string& payload, std::uint64_t unpacked_bytes) {
  const auto require = [](lzma_ret result) {
    if (result != LZMA_OK) {
      throw std::runtime_error("liblzma: " + std::to_string(result));
    }
  };
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(payload.data());
  const std::size_t foot_at = payload.size() - LZMA_STREAM_HEADER_SIZE;
  lzma_stream_flags flags{};
  require(lzma_stream_footer_decode(&flags, bytes + foot_at));
  const std::size_t index_at = foot_at - flags.backward_size;
  lzma_index* index = nullptr;
  std::uint64_t most_memory = UINT64_MAX;
  std::size_t position = index_at;
  require(lzma_index_buffer_decode(&index, &most_memory, nullptr, bytes, &position, foot_at));
  lzma_index_iter block;
  lzma_index_iter_init(&block, index);
  if (lzma_index_iter_next(&block, LZMA_INDEX_ITER_BLOCK)) {
    throw std::runtime_error("the index has no block");
  }
  const lzma_vli packed_bytes = block.block.unpadded_size;
  lzma_index_end(index, nullptr);

  index = lzma_index_init(nullptr);
  require(lzma_index_append(index, nullptr, packed_bytes, unpacked_bytes));
  std::vector<std::uint8_t> tail(lzma_index_size(index) + LZMA_STREAM_HEADER_SIZE);
  std::size_t written = 0;
  require(lzma_index_buffer_encode(index, tail.data(), &written, tail.size()));
  flags.backward_size = lzma_index_size(index);
  lzma_index_end(index, nullptr);
  require(lzma_stream_footer_encode(&flags, tail.data() + written));
  return payload.substr(0, index_at) +
         std::string(reinterpret_cast<const char*>(tail.data()), tail.size());
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_PACKAGE_LYING_INDEX_H_

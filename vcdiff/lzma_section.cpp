#include "vcdiff/lzma_section.h"

#include <lzma.h>

#include <new>

namespace tolm::vcdiff {

struct LzmaSection::Stream {
  explicit Stream(std::uint64_t max_memory_bytes) {
    if (lzma_stream_decoder(&state, max_memory_bytes, 0) != LZMA_OK) {
      throw std::bad_alloc();
    }
  }
  ~Stream() { lzma_end(&state); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  lzma_stream state = LZMA_STREAM_INIT;
};

namespace {

[[noreturn]] void ThrowRefusal(lzma_ret result, lzma_stream& state, std::uint64_t limit,
                               const Place& place) {
  switch (result) {
    case LZMA_MEM_ERROR:
      throw std::bad_alloc();
    case LZMA_MEMLIMIT_ERROR:
      ThrowAbove({place.origin, place.position, "Memory for LZMA"}, lzma_memusage(&state), limit);
    default:
      ThrowRefused(place, static_cast<std::uint64_t>(result), "from LZMA: not a valid stream");
  }
}

}  // namespace

LzmaSection::LzmaSection(std::uint64_t max_memory_bytes) : max_memory_bytes_(max_memory_bytes) {}
LzmaSection::~LzmaSection() = default;
LzmaSection::LzmaSection(LzmaSection&& other) noexcept = default;

const std::uint8_t* LzmaSection::Decompress(const std::uint8_t* data, std::size_t size,
                                            std::size_t expected, const Place& place) {
  if (stream_ == nullptr) {
    stream_ = std::make_unique<Stream>(max_memory_bytes_);
  }
  // One byte more than expected: a stream that yields too much is noticed instead of cut off.
  if (capacity_ < expected + 1) {
    buffer_.reset();
    buffer_.reset(new std::uint8_t[expected + 1]);
    capacity_ = expected + 1;
  }
  lzma_stream& state = stream_->state;
  state.next_in = data;
  state.avail_in = size;
  state.next_out = buffer_.get();
  state.avail_out = expected + 1;
  lzma_ret result = LZMA_OK;
  while (result == LZMA_OK && state.avail_in > 0) {
    result = lzma_code(&state, LZMA_RUN);
  }
  if (result != LZMA_OK && result != LZMA_STREAM_END && result != LZMA_BUF_ERROR) {
    ThrowRefusal(result, state, max_memory_bytes_, place);
  }
  const std::size_t made = expected + 1 - state.avail_out;
  if (made != expected) {
    ThrowUnequal(place, made, expected);
  }
  if (state.avail_in > 0) {
    ThrowUnequal(place, size - state.avail_in, size);
  }
  return buffer_.get();
}

}  // namespace tolm::vcdiff

#include "package/encoder.h"

#include <lzma.h>
#include <zstd.h>

#include <algorithm>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "package/error.h"

namespace tolm::package {
namespace {

constexpr std::size_t kOutputBytes = 128 * 1024;

// Those of the largest trees for which the strongest takes minutes at most.
constexpr std::uint64_t kMostBytesForTheBest = std::uint64_t{256} << 20;
constexpr Effort kBest{19, 9 | LZMA_PRESET_EXTREME, std::uint64_t{32} << 20};
constexpr Effort kQuick{12, 1, std::uint64_t{8} << 20};

// A match so long is taken without looking for a longer one. Looking on, to 273 as the preset does,
// takes more time and makes rows of numbers larger by 1 per cent, text smaller by 0.4.
constexpr std::uint32_t kXzNiceLength = 128;
// So many places of the same bytes are looked at. The preset's own, ten times as many, make it
// smaller by 0.2 per cent at most, and the archive of many small files, whose heads are alike,
// takes seven times as long.
constexpr std::uint32_t kXzDepth = 48;

// zstd refers back so far by itself; what lies farther it finds by a search of its own.
constexpr int kLongDistanceFromBits = 24;
constexpr int kLeastZstdWindowBits = 10;
// Both levels make tables of so many entries at least, 2 to the power of, for a stream whose size
// they are not told, however small the window is: up to 80 MiB to be cleared for every small
// package.
constexpr int kZstdTableBits = 22;

// The smallest power of two that is not smaller.
int BitsFor(std::uint64_t bytes) {
  int bits = 0;
  while ((std::uint64_t{1} << bits) < bytes) {
    ++bits;
  }
  return bits;
}

std::uint64_t WindowFor(const EncoderSettings& settings) {
  return std::min(settings.stream_bytes, settings.most_window_bytes);
}

class ZstdEncoder : public Encoder {
 public:
  ZstdEncoder(const EncoderSettings& settings, Sink sink)
      : sink_(std::move(sink)), context_(ZSTD_createCCtx()) {
    if (!context_) {
      throw std::bad_alloc();
    }
    const std::uint64_t window =
        std::min(WindowFor(settings), settings.effort.most_zstd_window_bytes);
    const int bits = std::max(BitsFor(window), kLeastZstdWindowBits);
    Set(ZSTD_c_compressionLevel, settings.effort.zstd_level);
    Set(ZSTD_c_windowLog, bits);
    Set(ZSTD_c_enableLongDistanceMatching, bits >= kLongDistanceFromBits ? 1 : 0);
    // What zstd itself makes of a level's tables when it knows that the stream fits the window.
    if (const int table_bits = bits + 1; table_bits < kZstdTableBits) {
      Set(ZSTD_c_hashLog, table_bits);
      Set(ZSTD_c_chainLog, table_bits);
    }
  }

  void Write(const char* data, std::size_t size) override {
    ZSTD_inBuffer in{data, size, 0};
    while (in.pos < in.size) {
      Step(in, ZSTD_e_continue);
    }
  }

  void Finish() override {
    ZSTD_inBuffer in{nullptr, 0, 0};
    while (Step(in, ZSTD_e_end) != 0) {
    }
  }

 private:
  struct ContextDelete {
    void operator()(ZSTD_CCtx* context) const noexcept { ZSTD_freeCCtx(context); }
  };

  static std::size_t Check(std::size_t result) {
    if (ZSTD_isError(result) != 0) {
      throw Error(Code::kInternal, std::string("zstd: ") + ZSTD_getErrorName(result));
    }
    return result;
  }

  void Set(ZSTD_cParameter parameter, int value) {
    Check(ZSTD_CCtx_setParameter(context_.get(), parameter, value));
  }

  // Returns what is left to be handed out, at least.
  std::size_t Step(ZSTD_inBuffer& in, ZSTD_EndDirective what) {
    ZSTD_outBuffer out{output_.data(), output_.size(), 0};
    const std::size_t rest = Check(ZSTD_compressStream2(context_.get(), &out, &in, what));
    if (out.pos > 0) {
      sink_(output_.data(), out.pos);
    }
    return rest;
  }

  Sink sink_;
  std::unique_ptr<ZSTD_CCtx, ContextDelete> context_;
  std::vector<char> output_ = std::vector<char>(kOutputBytes);
};

// The sizes that the format has are powers of two and those half-way to the next.
std::uint32_t DictionaryFor(std::uint64_t bytes) {
  const int bits = BitsFor(std::max<std::uint64_t>(bytes, LZMA_DICT_SIZE_MIN));
  const std::uint64_t power = std::uint64_t{1} << bits;
  const std::uint64_t half_way = power / 4 * 3;
  return static_cast<std::uint32_t>(
      half_way >= std::max<std::uint64_t>(bytes, LZMA_DICT_SIZE_MIN) ? half_way : power);
}

class XzEncoder : public Encoder {
 public:
  XzEncoder(const EncoderSettings& settings, Sink sink) : sink_(std::move(sink)) {
    lzma_options_lzma options;
    if (lzma_lzma_preset(&options, settings.effort.xz_preset)) {
      throw Error(Code::kInternal, "xz: no such preset");
    }
    options.nice_len = std::min(options.nice_len, kXzNiceLength);
    options.depth = std::min(options.depth, kXzDepth);
    options.dict_size = DictionaryFor(WindowFor(settings));
    const lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
    // The signature is over all of it: the shortest check that the format has does.
    Check(lzma_stream_encoder(&stream_, filters, LZMA_CHECK_CRC32));
  }
  ~XzEncoder() override { lzma_end(&stream_); }

  void Write(const char* data, std::size_t size) override {
    stream_.next_in = reinterpret_cast<const std::uint8_t*>(data);
    stream_.avail_in = size;
    while (stream_.avail_in > 0) {
      Step(LZMA_RUN);
    }
  }

  void Finish() override {
    while (Step(LZMA_FINISH) != LZMA_STREAM_END) {
    }
  }

 private:
  static lzma_ret Check(lzma_ret result) {
    if (result == LZMA_MEM_ERROR) {
      throw std::bad_alloc();
    }
    if (result != LZMA_OK && result != LZMA_STREAM_END) {
      throw Error(Code::kInternal, "xz: failure " + std::to_string(result));
    }
    return result;
  }

  lzma_ret Step(lzma_action what) {
    stream_.next_out = reinterpret_cast<std::uint8_t*>(output_.data());
    stream_.avail_out = output_.size();
    const lzma_ret result = Check(lzma_code(&stream_, what));
    if (const std::size_t size = output_.size() - stream_.avail_out; size > 0) {
      sink_(output_.data(), size);
    }
    return result;
  }

  Sink sink_;
  lzma_stream stream_ = LZMA_STREAM_INIT;
  std::vector<char> output_ = std::vector<char>(kOutputBytes);
};

}  // namespace

Effort EffortFor(std::uint64_t content_bytes) {
  return content_bytes <= kMostBytesForTheBest ? kBest : kQuick;
}

std::uint64_t MostEncoderBytes(Compression compression, std::uint64_t window_bytes) {
  return (compression == Compression::kXz ? 12 : 7) * window_bytes;
}

std::unique_ptr<Encoder> NewEncoder(Compression compression, const EncoderSettings& settings,
                                    Encoder::Sink sink) {
  if (compression == Compression::kXz) {
    return std::make_unique<XzEncoder>(settings, std::move(sink));
  }
  return std::make_unique<ZstdEncoder>(settings, std::move(sink));
}

}  // namespace tolm::package

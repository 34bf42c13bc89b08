#ifndef TOLM_PACKAGE_ENCODER_H_
#define TOLM_PACKAGE_ENCODER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "package/compression.h"

namespace tolm::package {

/// How hard is compressed.
struct Effort {
  int zstd_level = 0;
  std::uint32_t xz_preset = 0;  ///< with liblzma's flags
  /// What zstd looks back at most: a level that looks at little of it only costs devices memory.
  std::uint64_t most_zstd_window_bytes = std::uint64_t{1} << 27;
};

/// The one for a payload with so many bytes of content: what makes it smallest, unless that would
/// take many minutes.
Effort EffortFor(std::uint64_t content_bytes);

/// How one stream is compressed.
struct EncoderSettings {
  Effort effort;
  std::uint64_t stream_bytes = 0;  ///< that will come, or somewhat more
  /// A power of two from 1 MiB on. What is referred to is not farther back than this, and what must
  /// be kept for that not larger than the stream needs: so much memory a decoder takes.
  std::uint64_t most_window_bytes = 0;
};

/// Compresses a stream. The same bytes in the same pieces, with the same settings and the same
/// versions of the libraries, give the same bytes. One thread at a time.
class Encoder {
 public:
  /// Takes what comes out; throws to end it.
  using Sink = std::function<void(const char* data, std::size_t size)>;

  virtual ~Encoder() = default;
  Encoder() = default;
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  /// Both throw what the sink throws, and Error(kInternal).
  virtual void Write(const char* data, std::size_t size) = 0;
  /// Hands out all that is left; nothing may follow.
  virtual void Finish() = 0;
};

/// The memory that compressing takes with this window, at most, about: for xz 12 times as much, for
/// zstd 7 times.
std::uint64_t MostEncoderBytes(Compression compression, std::uint64_t window_bytes);

/// @p compression is kXz or kZstd. It takes MostEncoderBytes() at most. Throws Error(kInternal),
/// std::bad_alloc.
std::unique_ptr<Encoder> NewEncoder(Compression compression, const EncoderSettings& settings,
                                    Encoder::Sink sink);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_ENCODER_H_

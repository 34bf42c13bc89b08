#ifndef TOLM_PACKAGE_COMPRESSION_H_
#define TOLM_PACKAGE_COMPRESSION_H_

#include <cstddef>
#include <string_view>

namespace tolm::package {

/// How a payload is compressed.
enum class Compression { kNone, kGzip, kXz, kZstd };

/// "none", "gzip", "xz" or "zstd".
const char* CompressionText(Compression compression);

/// So many of a payload's first bytes tell it.
inline constexpr std::size_t kCompressionMarkBytes = 6;

/// What a payload that begins with @p first_bytes is compressed with; kNone for all that no reader
/// takes for something else.
Compression CompressionOf(std::string_view first_bytes);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_COMPRESSION_H_

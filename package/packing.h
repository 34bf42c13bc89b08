#ifndef TOLM_PACKAGE_PACKING_H_
#define TOLM_PACKAGE_PACKING_H_

#include <cstdint>
#include <optional>
#include <string>

namespace tolm::package {

/// What payloads are compressed with.
enum class CompressionChoice { kAuto, kXz, kZstd };

/// "auto", "xz" or "zstd".
const char* CompressionChoiceText(CompressionChoice choice);
/// The one that is called so.
std::optional<CompressionChoice> ParseCompressionChoice(const std::string& text);

/// How far back a payload may refer at most, in MiB: what a device holds in memory while it unpacks
/// it, besides all else. Powers of two; the larger one holds what a device may take, 64 MiB.
inline constexpr int kLeastWindowMebibytes = 1;
inline constexpr int kMostWindowMebibytes = 32;
bool IsWindowSize(int mebibytes);

/// How payloads are packed.
struct Packing {
  CompressionChoice compression = CompressionChoice::kAuto;
  int window_mebibytes = kMostWindowMebibytes;  ///< see IsWindowSize
  /// After so much of the tar stream kAuto gives xz up when it does not pay so far: what cannot be
  /// compressed would cost it as much time as anything else.
  std::uint64_t trial_bytes = std::uint64_t{64} << 20;

  std::uint64_t WindowBytes() const { return static_cast<std::uint64_t>(window_mebibytes) << 20; }
};

/// Whether kAuto takes xz. It takes several times as long to unpack, so it has to save something:
/// 3 per cent at least.
bool XzPays(std::uint64_t xz_bytes, std::uint64_t zstd_bytes);
/// The most bytes that zstd may give to be taken in place of so many of xz.
std::uint64_t MostZstdBytesBeside(std::uint64_t xz_bytes);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_PACKING_H_

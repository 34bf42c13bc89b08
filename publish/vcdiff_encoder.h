#ifndef TOLM_PUBLISH_VCDIFF_ENCODER_H_
#define TOLM_PUBLISH_VCDIFF_ENCODER_H_

#include <cstdint>
#include <string>

namespace tolm::publish {

/// The source window that the encoder is told to use: the smallest power of two that covers the
/// source, bounded by the limit rounded down to one, and by what the encoder takes (512 KiB to
/// 2 GiB).
std::uint64_t SourceWindowBytes(std::uint64_t source_bytes, std::uint64_t limit_bytes);

/// The memory that the encoder's process takes with this source window.
std::uint64_t VcdiffMemoryBytes(std::uint64_t window_bytes);

/// Writes the VCDIFF delta from one file to another to @p delta, which must not exist: with window
/// checksums, without secondary compression (the package compresses better), and without an
/// application header, which would name local paths. The same files give the same bytes.
///
/// Runs xdelta3 and waits for it. Throws package::Error: kInternal when xdelta3 is not there or
/// fails, kNoSpace, kWrite.
void EncodeVcdiff(const std::string& source, const std::string& target, const std::string& delta,
                  std::uint64_t window_bytes);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_VCDIFF_ENCODER_H_

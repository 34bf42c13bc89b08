#ifndef TOLM_VCDIFF_DECODER_H_
#define TOLM_VCDIFF_DECODER_H_

#include <cstdint>

#include "vcdiff/error.h"
#include "vcdiff/file_header.h"
#include "vcdiff/input.h"
#include "vcdiff/limits.h"
#include "vcdiff/output.h"

namespace tolm::vcdiff {

struct DecodeResult {
  std::uint64_t windows = 0;
  std::uint64_t windows_with_checksum = 0;
  std::uint64_t target_bytes = 0;
};

/// Rebuilds a target from its source and a delta (RFC 3284 and the variants that
/// docs/formats/vcdiff.md names) and gives it to @p target, front to back. When it returns, the
/// delta was used to its end and every checksum in it was right; a delta without checksums that was
/// made for another source may yield something else unnoticed. Until then, what the target received
/// is not to be trusted. Throws Error; what the target received is then incomplete. Memory is
/// bounded by the largest window; inputs are read at any place, in the calling thread.
DecodeResult Decode(Input& delta, Input& source, Sink& target, const Limits& limits,
                    Nesting nesting = Nesting::kOutermost);

/// The same without a target: throws Error unless Decode() would return. A delta that copies from
/// the target needs an unnamed file in $TMPDIR or /tmp.
DecodeResult Verify(Input& delta, Input& source, const Limits& limits, FileAccess access);

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_DECODER_H_

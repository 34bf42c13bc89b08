#ifndef TOLM_VCDIFF_INFO_H_
#define TOLM_VCDIFF_INFO_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vcdiff/file_header.h"
#include "vcdiff/input.h"
#include "vcdiff/limits.h"
#include "vcdiff/window.h"

namespace tolm::vcdiff {

struct InstructionCount {
  std::uint64_t count = 0;
  std::uint64_t bytes = 0;  ///< of the target
};

struct WindowInfo {
  Window window;  ///< without the bytes of its sections
  InstructionCount adds;
  InstructionCount runs;
  InstructionCount segment_copies;  ///< that begin in the segment
  InstructionCount target_copies;   ///< that begin in the window itself
};

struct Info {
  /// A delta of many tiny windows must not cost many times its size.
  static constexpr std::size_t kMaxListed = 65536;

  std::string name;
  std::uint64_t size_bytes = 0;
  FileHeader header;
  std::uint64_t window_count = 0;
  WindowInfo total;                 ///< target size and counts of all windows
  std::vector<WindowInfo> windows;  ///< the first kMaxListed
};

/// Reads all of a delta without its source: everything is checked but what needs the source, and
/// checksums. Throws Error.
Info Inspect(Input& delta, const Limits& limits);

/// For people: lines, the last one ended by a line feed.
std::string ToText(const Info& info);
/// One JSON object and a line feed. Bytes of the name and of the application header above 126 or
/// below 32 appear as the character of that number.
std::string ToJson(const Info& info);

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_INFO_H_

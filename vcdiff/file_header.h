#ifndef TOLM_VCDIFF_FILE_HEADER_H_
#define TOLM_VCDIFF_FILE_HEADER_H_

#include <cstdint>
#include <optional>
#include <string>

#include "vcdiff/code_table.h"
#include "vcdiff/input.h"
#include "vcdiff/limits.h"

namespace tolm::vcdiff {

enum class Version : std::uint8_t {
  kStandard = 0x00,
  /// Version byte "S": checksums of another form, and interleaved windows.
  kInterleaving = 0x53,
};

struct FileHeader {
  Version version = Version::kStandard;
  bool is_lzma = false;                    ///< Sections may be compressed by LZMA.
  std::optional<CodeTable> own_table;      ///< application-defined
  std::uint64_t code_table_bytes = 0;      ///< as carried by the delta
  std::optional<std::string> application;  ///< application header, any bytes
  std::uint64_t size_bytes = 0;            ///< of the header; the first window follows

  const CodeTable& Table() const { return own_table ? *own_table : CodeTable::Default(); }
};

enum class Nesting { kOutermost, kCodeTable };

/// Reads the header at the start of a delta (RFC 3284, section 4.1). A code table is itself a delta
/// and may not bring another (kCodeTable). Throws Error.
FileHeader ReadFileHeader(Input& delta, const Limits& limits, Nesting nesting);

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_FILE_HEADER_H_

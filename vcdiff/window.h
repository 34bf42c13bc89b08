#ifndef TOLM_VCDIFF_WINDOW_H_
#define TOLM_VCDIFF_WINDOW_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "vcdiff/cursor.h"
#include "vcdiff/file_header.h"
#include "vcdiff/input.h"
#include "vcdiff/limits.h"
#include "vcdiff/lzma_section.h"

namespace tolm::vcdiff {

enum class Segment { kNone, kSource, kTarget };

/// The three sections of a window, in the delta's order.
enum SectionKind : std::size_t { kData, kInstructions, kAddresses, kSectionKinds };

struct Section {
  std::uint64_t length = 0;  ///< as the delta carries it
  bool is_compressed = false;
  Origin origin;  ///< of the bytes
  const std::uint8_t* bytes = nullptr;
  std::size_t size = 0;

  Cursor Read() const { return {bytes, size, origin}; }
};

/// One window of a delta (RFC 3284, sections 4.2 and 4.3).
struct Window {
  std::uint64_t number = 0;      ///< from 0
  std::uint64_t offset = 0;      ///< in the delta
  std::uint64_t size_bytes = 0;  ///< in the delta, all of it
  Segment segment = Segment::kNone;
  std::uint64_t segment_size = 0;
  std::uint64_t segment_position = 0;
  std::uint64_t target_position = 0;  ///< of the window's first byte
  std::uint64_t target_size = 0;
  bool is_interleaved = false;            ///< Data and addresses stand among the instructions.
  std::optional<std::uint32_t> checksum;  ///< Adler-32 of the window's target
  std::uint64_t checksum_offset = 0;      ///< in the delta
  Origin origin;                          ///< of the window's header
  std::uint64_t segment_offset = 0;       ///< in the delta: where its segment is described
  std::array<Section, kSectionKinds> sections;
};

/// Reads the windows of a delta one after the other. The delta must outlive it.
class WindowReader {
 public:
  /// Reads the file header. Throws Error.
  WindowReader(Input& delta, const Limits& limits, Nesting nesting);

  const FileHeader& Header() const { return header_; }

  /// Reads the next window's header and checks every length against the delta and the limits.
  /// False at the end of the delta; a standard delta without any window is refused. Throws Error.
  bool Next(Window& window);

  /// Makes the bytes of the sections available until the next call of either. Windows with
  /// compressed sections must be loaded in their order, without leaving one out. Throws Error.
  void Load(Window& window);

 private:
  void RefuseNoWindows() const;
  void ReadSegment(Window& window, unsigned int indicator, Cursor& cursor) const;
  void ReadEncoding(Window& window, unsigned int indicator, Cursor& cursor);
  void ReadSectionLengths(Window& window, Cursor& cursor);
  void ReadChecksum(Window& window, Cursor& cursor) const;
  void CountProgress(const Window& window, const Place& place);
  void Decompress(Section& section, SectionKind kind);

  Input& delta_;
  Limits limits_;
  FileHeader header_;
  std::uint64_t offset_;
  std::uint64_t windows_ = 0;
  std::uint64_t target_bytes_ = 0;
  std::uint64_t empty_windows_ = 0;
  std::uint64_t sections_offset_ = 0;
  std::vector<std::uint8_t> header_buffer_;
  std::vector<std::uint8_t> sections_buffer_;
  std::vector<LzmaSection> lzma_;  // one for each kind
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_WINDOW_H_

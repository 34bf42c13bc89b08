#include "vcdiff/window.h"

#include <algorithm>

namespace tolm::vcdiff {

namespace {

constexpr unsigned int kSource = 0x01;
constexpr unsigned int kTarget = 0x02;
constexpr unsigned int kChecksum = 0x04;

/// Two bytes of indicators, seven integers, a checksum of four bytes or an integer, and the byte by
/// which the last integer is noticed to be too long.
constexpr std::size_t kMaxHeaderBytes = 2 + 8 * kMaxIntegerBytes + 1;

constexpr const char* kLengthFields[kSectionKinds] = {
    "Length of data for ADDs and RUNs",
    "Length of instructions and sizes",
    "Length of addresses for COPYs",
};
constexpr const char* kSectionFields[kSectionKinds] = {
    "Data section for ADDs and RUNs",
    "Instructions and sizes section",
    "Addresses section for COPYs",
};

unsigned int ReadFlags(Cursor& cursor, const char* field, unsigned int known) {
  const Place place = cursor.PlaceOf(field);
  const unsigned int flags = cursor.Byte(field);
  if ((flags & ~known) != 0) {
    ThrowAbove(place, flags, known);
  }
  return flags;
}

/// An integer that may be at most @p limit.
std::uint64_t ReadBounded(Cursor& cursor, const char* field, std::uint64_t limit) {
  const Place place = cursor.PlaceOf(field);
  const std::uint64_t value = cursor.Integer(field);
  if (value > limit) {
    ThrowAbove(place, value, limit);
  }
  return value;
}

}  // namespace

WindowReader::WindowReader(Input& delta, const Limits& limits, Nesting nesting)
    : delta_(delta),
      limits_(limits),
      header_(ReadFileHeader(delta, limits, nesting)),
      offset_(header_.size_bytes) {
  // Whatever was allowed, a window must fit the address space several times: from here on its
  // lengths are also sizes in memory.
  limits_.max_window_bytes = std::min<std::uint64_t>(limits_.max_window_bytes, SIZE_MAX / 4);
  for (std::size_t kind = 0; kind < kSectionKinds; ++kind) {
    lzma_.emplace_back(limits_.max_lzma_bytes);
  }
}

bool WindowReader::Next(Window& window) {
  if (offset_ == delta_.Size()) {
    RefuseNoWindows();
    return false;
  }
  window = Window();
  window.number = windows_++;
  window.offset = offset_;
  window.target_position = target_bytes_;
  window.origin = {&delta_.Name(), offset_, false};
  const auto there =
      static_cast<std::size_t>(std::min<std::uint64_t>(kMaxHeaderBytes, delta_.Size() - offset_));
  Cursor cursor(delta_.View(offset_, there, header_buffer_), there, window.origin);
  const unsigned int indicator = ReadFlags(cursor, "Win_Indicator", kSource | kTarget | kChecksum);
  ReadSegment(window, indicator, cursor);
  ReadEncoding(window, indicator, cursor);
  target_bytes_ += window.target_size;
  offset_ += window.size_bytes;
  return true;
}

/// The common encoder makes a window even for an empty target. A delta of a header alone was cut
/// off, or the length of its application header is damaged and covers the windows.
void WindowReader::RefuseNoWindows() const {
  if (windows_ == 0 && header_.version == Version::kStandard) {
    const Origin origin{&delta_.Name(), offset_, false};
    ThrowTruncated({origin, 0, "Win_Indicator"}, 1, 0);
  }
}

void WindowReader::ReadSegment(Window& window, unsigned int indicator, Cursor& cursor) const {
  if ((indicator & (kSource | kTarget)) == 0) {
    return;
  }
  if ((indicator & kSource) != 0 && (indicator & kTarget) != 0) {
    ThrowRefused(cursor.PlaceAt(0, "Win_Indicator"), indicator,
                 "asks for VCD_SOURCE and VCD_TARGET at once");
  }
  window.segment = (indicator & kSource) != 0 ? Segment::kSource : Segment::kTarget;
  window.segment_offset = cursor.Position();
  window.segment_size = cursor.Integer("Source segment size");
  const Place place = cursor.PlaceOf("Source segment position");
  window.segment_position = cursor.Integer(place.field);
  if (window.segment_position > UINT64_MAX - window.segment_size) {
    ThrowAbove(place, window.segment_position, UINT64_MAX - window.segment_size);
  }
  if (window.segment == Segment::kTarget &&
      window.segment_position + window.segment_size > target_bytes_) {
    ThrowAbove(window.segment_size > target_bytes_
                   ? cursor.PlaceAt(window.segment_offset, "Source segment size")
                   : place,
               window.segment_position + window.segment_size, target_bytes_);
  }
}

void WindowReader::ReadEncoding(Window& window, unsigned int indicator, Cursor& cursor) {
  // Data at most as long as the target, the same again for instructions and addresses.
  const std::uint64_t max_length = limits_.max_window_bytes < UINT64_MAX / 2
                                       ? 2 * limits_.max_window_bytes + kMaxHeaderBytes
                                       : UINT64_MAX;
  const Place length_place = cursor.PlaceOf("Length of the delta encoding");
  const std::uint64_t length = ReadBounded(cursor, length_place.field, max_length);
  const std::size_t start = cursor.Position();
  const std::uint64_t left = delta_.Size() - offset_ - start;
  if (length > left) {
    ThrowTruncated(length_place, length, left);
  }
  const Place target_place = cursor.PlaceOf("Size of the target window");
  window.target_size = ReadBounded(cursor, target_place.field, limits_.max_window_bytes);
  if (window.target_size > limits_.max_target_bytes - target_bytes_) {
    ThrowAbove({window.origin, target_place.position, "Size of the whole target"},
               target_bytes_ + window.target_size, limits_.max_target_bytes);
  }
  CountProgress(window, target_place);
  ReadSectionLengths(window, cursor);
  if ((indicator & kChecksum) != 0) {
    ReadChecksum(window, cursor);
  }
  std::uint64_t needed = cursor.Position() - start;
  for (const Section& section : window.sections) {
    needed += section.length;
  }
  if (needed != length) {
    ThrowUnequal(length_place, length, needed);
  }
  sections_offset_ = offset_ + cursor.Position();
  window.size_bytes = start + length;
}

void WindowReader::ReadSectionLengths(Window& window, Cursor& cursor) {
  const Place place = cursor.PlaceOf("Delta_Indicator");
  const unsigned int compressed = ReadFlags(cursor, place.field, 0x07);
  if (compressed != 0 && !header_.is_lzma) {
    ThrowRefused(place, compressed, "asks for a secondary compressor, Hdr_Indicator names none");
  }
  for (std::size_t kind = 0; kind < kSectionKinds; ++kind) {
    Section& section = window.sections[kind];
    // No longer than the delta, so that their sum cannot overflow.
    section.length = ReadBounded(cursor, kLengthFields[kind], delta_.Size());
    section.is_compressed = (compressed >> kind & 1U) != 0;
  }
  window.is_interleaved = header_.version == Version::kInterleaving &&
                          window.sections[kData].length == 0 &&
                          window.sections[kAddresses].length == 0;
}

void WindowReader::ReadChecksum(Window& window, Cursor& cursor) const {
  constexpr char kField[] = "Adler-32 checksum";
  window.checksum_offset = offset_ + cursor.Position();
  if (header_.version == Version::kInterleaving) {
    window.checksum = static_cast<std::uint32_t>(ReadBounded(cursor, kField, UINT32_MAX));
    return;
  }
  std::uint32_t checksum = 0;
  for (int i = 0; i < 4; ++i) {
    checksum = checksum << 8 | cursor.Byte(kField);
  }
  window.checksum = checksum;
}

void WindowReader::CountProgress(const Window& window, const Place& place) {
  empty_windows_ = window.target_size == 0 ? empty_windows_ + 1 : 0;
  if (empty_windows_ > limits_.max_empty_windows) {
    ThrowAbove({place.origin, place.position, "Windows in a row of target size 0"}, empty_windows_,
               limits_.max_empty_windows);
  }
}

void WindowReader::Load(Window& window) {
  std::uint64_t total = 0;
  for (const Section& section : window.sections) {
    total += section.length;
  }
  const std::uint8_t* bytes =
      delta_.View(sections_offset_, static_cast<std::size_t>(total), sections_buffer_);
  std::uint64_t offset = sections_offset_;
  for (std::size_t kind = 0; kind < kSectionKinds; ++kind) {
    Section& section = window.sections[kind];
    section.origin = {&delta_.Name(), offset, false};
    section.bytes = bytes;
    section.size = static_cast<std::size_t>(section.length);
    bytes += section.size;
    offset += section.length;
    if (section.is_compressed) {
      Decompress(section, static_cast<SectionKind>(kind));
    }
  }
}

void WindowReader::Decompress(Section& section, SectionKind kind) {
  Cursor cursor = section.Read();
  const auto size = static_cast<std::size_t>(
      ReadBounded(cursor, "Size of the decompressed section", limits_.max_window_bytes));
  const Place place = cursor.PlaceOf(kSectionFields[kind]);
  const std::size_t left = cursor.Left();
  section.bytes = lzma_[kind].Decompress(cursor.Take(left, place.field), left, size, place);
  section.size = size;
  section.origin.decompressed = true;
}

}  // namespace tolm::vcdiff

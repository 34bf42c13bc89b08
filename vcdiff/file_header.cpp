#include "vcdiff/file_header.h"

#include <algorithm>
#include <vector>

#include "vcdiff/cursor.h"
#include "vcdiff/decoder.h"
#include "vcdiff/output.h"

namespace tolm::vcdiff {

namespace {

constexpr unsigned int kSecondary = 0x01;
constexpr unsigned int kCodeTable = 0x02;
constexpr unsigned int kApplicationHeader = 0x04;

constexpr unsigned int kLzma = 2;

/// An integer, and the byte by which it is noticed to be too long.
constexpr std::size_t kIntegerBytes = kMaxIntegerBytes + 1;
/// Fields of fixed size, and the integers, before anything whose length the delta chooses.
constexpr std::size_t kFixedBytes = 6 + kIntegerBytes;
constexpr std::uint64_t kMaxApplicationHeaderBytes = 1U << 20;

/// Reads the header piece by piece, each no longer than was checked.
class HeaderReader {
 public:
  HeaderReader(Input& delta, const Limits& limits, Nesting nesting)
      : delta_(delta), limits_(limits), nesting_(nesting) {}

  FileHeader Read() {
    FileHeader header;
    Fetch(kFixedBytes);
    ReadMagic();
    header.version = ReadVersion();
    const unsigned int indicator = ReadIndicator(header.version);
    if ((indicator & kSecondary) != 0) {
      RefuseUnlessLzma();
      header.is_lzma = true;
    }
    if ((indicator & kCodeTable) != 0) {
      ReadCodeTable(header);
    }
    if ((indicator & kApplicationHeader) != 0) {
      ReadApplicationHeader(header);
    }
    header.size_bytes = offset_ + cursor_.Position();
    return header;
  }

 private:
  /// Makes up to @p size bytes available from where the reader is.
  void Fetch(std::uint64_t size) {
    offset_ += cursor_.Position();
    origin_ = {&delta_.Name(), offset_, false};
    const auto there = static_cast<std::size_t>(std::min(size, delta_.Size() - offset_));
    bytes_.resize(there);
    delta_.Read(offset_, bytes_.data(), there);
    cursor_ = Cursor(bytes_.data(), there, origin_);
  }

  void ReadMagic() {
    constexpr const char* kFields[] = {"Header1", "Header2", "Header3"};
    constexpr std::uint8_t kMagic[] = {0xd6, 0xc3, 0xc4};
    for (std::size_t i = 0; i < 3; ++i) {
      const Place place = cursor_.PlaceOf(kFields[i]);
      const std::uint8_t byte = cursor_.Byte(kFields[i]);
      if (byte != kMagic[i]) {
        ThrowUnequal(place, byte, kMagic[i]);
      }
    }
  }

  Version ReadVersion() {
    const Place place = cursor_.PlaceOf("Header4");
    const auto version = static_cast<Version>(cursor_.Byte("Header4"));
    if (version != Version::kStandard && version != Version::kInterleaving) {
      ThrowRefused(place, static_cast<std::uint8_t>(version), "is no version that is supported");
    }
    return version;
  }

  unsigned int ReadIndicator(Version version) {
    const Place place = cursor_.PlaceOf("Hdr_Indicator");
    const unsigned int indicator = cursor_.Byte("Hdr_Indicator");
    // The variant does not know the application header, an extension of the common encoder.
    const unsigned int known =
        kSecondary | kCodeTable | (version == Version::kStandard ? kApplicationHeader : 0);
    if ((indicator & ~known) != 0) {
      ThrowAbove(place, indicator, known);
    }
    return indicator;
  }

  void RefuseUnlessLzma() {
    const Place place = cursor_.PlaceOf("Secondary compressor ID");
    const unsigned int id = cursor_.Byte(place.field);
    switch (id) {
      case kLzma:
        return;
      case 1:
        ThrowRefused(place, id, "is DJW (static Huffman), supported is only 2 (LZMA)");
      case 16:
        ThrowRefused(place, id, "is FGK (adaptive Huffman), supported is only 2 (LZMA)");
      default:
        ThrowRefused(place, id, "is unknown, supported is only 2 (LZMA)");
    }
  }

  void ReadCodeTable(FileHeader& header) {
    const Place place = cursor_.PlaceOf("Length of code table data");
    const std::uint64_t length = cursor_.Integer(place.field);
    if (nesting_ == Nesting::kCodeTable) {
      ThrowRefused(place, length, "within a code table: only one level is supported");
    }
    if (length > limits_.max_code_table_bytes) {
      ThrowAbove(place, length, limits_.max_code_table_bytes);
    }
    Fetch(length);
    const Place sizes = cursor_.PlaceOf("Size of near cache and of same cache");
    const unsigned int near = cursor_.Byte("Size of near cache");
    const unsigned int same = cursor_.Byte("Size of same cache");
    if (near + same > 254) {
      ThrowAbove(sizes, near + same, 254);
    }
    DecodeTable(header, near, same, length - 2);
    header.code_table_bytes = length;
    Fetch(kIntegerBytes);
  }

  void DecodeTable(FileHeader& header, unsigned int near, unsigned int same, std::uint64_t size) {
    const Place place = cursor_.PlaceOf("Code table data");
    const std::string name =
        delta_.Name() + ": Code table data at offset " + std::to_string(offset_ + 2);
    const std::uint8_t* data = cursor_.Take(size, place.field);
    MemoryInput nested(name, data, static_cast<std::size_t>(size));
    const std::vector<std::uint8_t> known = CodeTable::SerializedDefault();
    MemoryInput source("default code table", known.data(), known.size());
    MemorySink table;
    Limits limits = limits_;
    limits.max_window_bytes = CodeTable::kSerializedBytes;
    limits.max_target_bytes = CodeTable::kSerializedBytes;
    Decode(nested, source, table, limits, Nesting::kCodeTable);
    if (table.Bytes().size() != CodeTable::kSerializedBytes) {
      ThrowUnequal({place.origin, place.position, "Size of the code table"}, table.Bytes().size(),
                   CodeTable::kSerializedBytes);
    }
    Origin origin = origin_;
    origin.offset += 2;
    origin.decompressed = true;
    header.own_table = CodeTable::Parse(table.Bytes().data(), near, same, origin);
  }

  void ReadApplicationHeader(FileHeader& header) {
    Fetch(kIntegerBytes);
    const Place place = cursor_.PlaceOf("Length of application header");
    const std::uint64_t length = cursor_.Integer(place.field);
    if (length > kMaxApplicationHeaderBytes) {
      ThrowAbove(place, length, kMaxApplicationHeaderBytes);
    }
    Fetch(length);
    const auto* text = cursor_.Take(length, "Application header");
    header.application.emplace(text, text + length);
  }

  Input& delta_;
  const Limits& limits_;
  Nesting nesting_;
  std::uint64_t offset_ = 0;
  Origin origin_;
  std::vector<std::uint8_t> bytes_;
  Cursor cursor_;
};

}  // namespace

FileHeader ReadFileHeader(Input& delta, const Limits& limits, Nesting nesting) {
  return HeaderReader(delta, limits, nesting).Read();
}

}  // namespace tolm::vcdiff

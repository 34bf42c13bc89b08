// Every field of the header and of a window, spoiled in every way.

#include "vcdiff/window.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/vcdiff/decoding.h"
#include "tests/vcdiff/delta_builder.h"
#include "vcdiff/code_table.h"

namespace tolm::vcdiff {
namespace {

using ::testing::HasSubstr;

const std::string kSourceText = "0123456789abcdefg";
const std::string kTargetText = "ABCDEFG23456!!!!89ab";

std::string OverlongInteger() {
  return std::string(10, '\x80') + '\x01';
}

WindowParts ValidWindow() {
  WindowParts parts;
  parts.indicator = 1 | 4;
  parts.segment_size = 16;
  parts.segment_position = 1;
  parts.target_size = kTargetText.size();
  parts.data = "ABCDEFG!";
  parts.instructions = CodeOfAdd() + Integer(7) + CodeOfCopy(0) + Integer(5) + CodeOfRun() +
                       Integer(4) + CodeOfCopy(1) + Integer(4);
  parts.addresses = Integer(1) + Integer(16 + 16 - 7);
  parts.checksum = BigEndian(Adler32(kTargetText));
  return parts;
}

std::string DefaultTable() {
  const std::vector<std::uint8_t> table = CodeTable::SerializedDefault();
  WindowParts window;
  window.target_size = table.size();
  window.data.assign(table.begin(), table.end());
  window.instructions = CodeOfAdd() + Integer(table.size());
  return Bytes({4, 3}) + Delta(window).Encoded();
}

Fields ValidDelta(unsigned int version) {
  HeaderParts header;
  header.version = version;
  header.secondary = 2;
  header.code_table = DefaultTable();
  WindowParts window = ValidWindow();
  if (version == 0) {
    header.application = "app";
  } else {
    window.checksum = Integer(Adler32(kTargetText, 0));
  }
  return Delta(header, {window});
}

enum class Fault { kZero, kOneUnder, kOneOver, kMaximum, kOverlong, kTruncated };

struct FieldFault {
  const char* name;
  unsigned int version;
  const char* field;
  Fault fault;
  std::string message;
};

std::uint64_t ValueOf(const std::string& bytes, bool is_integer) {
  std::uint64_t value = 0;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    value = is_integer ? value << 7 | (byte & 0x7fU) : value << 8 | byte;
  }
  return value;
}

bool IsInside(const std::string& field) {
  return field == "Size of the target window" || field == "Delta_Indicator" ||
         field.rfind("Length of data", 0) == 0 || field.rfind("Length of inst", 0) == 0 ||
         field.rfind("Length of addr", 0) == 0 || field == "Adler-32 checksum";
}

bool IsByte(const std::string& field) {
  return field.rfind("Header", 0) == 0 || field == "Hdr_Indicator" || field == "Win_Indicator" ||
         field == "Delta_Indicator" || field == "Secondary compressor ID";
}

std::string Encode(const std::string& field, std::uint64_t value, std::size_t size) {
  if (IsByte(field)) {
    return Bytes({static_cast<unsigned int>(value & 0xff)});
  }
  if (field == "Adler-32 checksum" && size == 4) {
    return BigEndian(static_cast<std::uint32_t>(value));
  }
  return Integer(value);
}

// The field with a fault; everything else, the length around it included, stays in order.
std::string Spoil(Fields delta, const std::string& field, Fault fault, unsigned int version) {
  std::string& bytes = delta[field].bytes;
  const std::size_t size = bytes.size();
  const bool is_integer = !IsByte(field) && !(field == "Adler-32 checksum" && version == 0);
  const std::uint64_t value = ValueOf(bytes, is_integer);
  switch (fault) {
    case Fault::kZero:
      bytes = Encode(field, 0, size);
      break;
    case Fault::kOneUnder:
      bytes = Encode(field, value - 1, size);
      break;
    case Fault::kOneOver:
      bytes = Encode(field, value + 1, size);
      break;
    case Fault::kMaximum:
      bytes = Encode(field, UINT64_MAX, size);
      break;
    case Fault::kOverlong:
      bytes = OverlongInteger();
      break;
    case Fault::kTruncated:
      return delta.Encoded().substr(0, delta.OffsetOf(field) + size - 1);
  }
  if (IsInside(field)) {
    std::string& length = delta["Length of the delta encoding"].bytes;
    length = Integer(ValueOf(length, true) + bytes.size() - size);
  }
  return delta.Encoded();
}

class FieldFaultTest : public ::testing::TestWithParam<FieldFault> {};

TEST_P(FieldFaultTest, IsRefusedByName) {
  const FieldFault& row = GetParam();
  const std::string delta = Spoil(ValidDelta(row.version), row.field, row.fault, row.version);
  const std::string message = Refusal(delta, kSourceText);
  EXPECT_EQ(message, row.message);
}

std::vector<FieldFault> FieldFaults() {
  // Left out: a version of zero and a Delta_Indicator of zero, which are right; integers for
  // fields that are bytes.
  return {
      {"Header1Zero", 0, "Header1", Fault::kZero,
       "delta: offset 0: Header1: value 0, expected 214"},
      {"Header1OneUnder", 0, "Header1", Fault::kOneUnder,
       "delta: offset 0: Header1: value 213, expected 214"},
      {"Header1OneOver", 0, "Header1", Fault::kOneOver,
       "delta: offset 0: Header1: value 215, expected 214"},
      {"Header1Maximum", 0, "Header1", Fault::kMaximum,
       "delta: offset 0: Header1: value 255, expected 214"},
      {"Header1Truncated", 0, "Header1", Fault::kTruncated,
       "delta: offset 0: Header1: truncated: 1 bytes wanted, limit 0"},
      {"Header2Zero", 0, "Header2", Fault::kZero,
       "delta: offset 1: Header2: value 0, expected 195"},
      {"Header2OneUnder", 0, "Header2", Fault::kOneUnder,
       "delta: offset 1: Header2: value 194, expected 195"},
      {"Header2OneOver", 0, "Header2", Fault::kOneOver,
       "delta: offset 1: Header2: value 196, expected 195"},
      {"Header2Maximum", 0, "Header2", Fault::kMaximum,
       "delta: offset 1: Header2: value 255, expected 195"},
      {"Header2Truncated", 0, "Header2", Fault::kTruncated,
       "delta: offset 1: Header2: truncated: 1 bytes wanted, limit 0"},
      {"Header3Zero", 0, "Header3", Fault::kZero,
       "delta: offset 2: Header3: value 0, expected 196"},
      {"Header3OneUnder", 0, "Header3", Fault::kOneUnder,
       "delta: offset 2: Header3: value 195, expected 196"},
      {"Header3OneOver", 0, "Header3", Fault::kOneOver,
       "delta: offset 2: Header3: value 197, expected 196"},
      {"Header3Maximum", 0, "Header3", Fault::kMaximum,
       "delta: offset 2: Header3: value 255, expected 196"},
      {"Header3Truncated", 0, "Header3", Fault::kTruncated,
       "delta: offset 2: Header3: truncated: 1 bytes wanted, limit 0"},
      {"Header4OneUnder", 0, "Header4", Fault::kOneUnder,
       "delta: offset 3: Header4: value 255 is no version that is supported"},
      {"Header4OneOver", 0, "Header4", Fault::kOneOver,
       "delta: offset 3: Header4: value 1 is no version that is supported"},
      {"Header4Maximum", 0, "Header4", Fault::kMaximum,
       "delta: offset 3: Header4: value 255 is no version that is supported"},
      {"Header4Truncated", 0, "Header4", Fault::kTruncated,
       "delta: offset 3: Header4: truncated: 1 bytes wanted, limit 0"},
      {"HdrIndicatorZero", 0, "Hdr_Indicator", Fault::kZero,
       "delta: offset 6: Source segment size: value 1560, limit 0"},
      {"HdrIndicatorOneUnder", 0, "Hdr_Indicator", Fault::kOneUnder,
       "delta: Code table data at offset 8: offset 0: Header1: truncated: 1 bytes wanted, limit 0"},
      {"HdrIndicatorOneOver", 0, "Hdr_Indicator", Fault::kOneOver,
       "delta: offset 4: Hdr_Indicator: value 8, limit 7"},
      {"HdrIndicatorMaximum", 0, "Hdr_Indicator", Fault::kMaximum,
       "delta: offset 4: Hdr_Indicator: value 255, limit 7"},
      {"HdrIndicatorTruncated", 0, "Hdr_Indicator", Fault::kTruncated,
       "delta: offset 4: Hdr_Indicator: truncated: 1 bytes wanted, limit 0"},
      {"SecondaryCompressorIdZero", 0, "Secondary compressor ID", Fault::kZero,
       "delta: offset 5: Secondary compressor ID: value 0 is unknown, supported is only 2 (LZMA)"},
      {"SecondaryCompressorIdOneUnder", 0, "Secondary compressor ID", Fault::kOneUnder,
       "delta: offset 5: Secondary compressor ID: value 1 is DJW (static Huffman), supported is "
       "only 2 (LZMA)"},
      {"SecondaryCompressorIdOneOver", 0, "Secondary compressor ID", Fault::kOneOver,
       "delta: offset 5: Secondary compressor ID: value 3 is unknown, supported is only 2 (LZMA)"},
      {"SecondaryCompressorIdMaximum", 0, "Secondary compressor ID", Fault::kMaximum,
       "delta: offset 5: Secondary compressor ID: value 255 is unknown, supported is only 2 "
       "(LZMA)"},
      {"SecondaryCompressorIdTruncated", 0, "Secondary compressor ID", Fault::kTruncated,
       "delta: offset 5: Secondary compressor ID: truncated: 1 bytes wanted, limit 0"},
      {"LengthOfCodeTableDataZero", 0, "Length of code table data", Fault::kZero,
       "delta: offset 7: Size of near cache: truncated: 1 bytes wanted, limit 0"},
      {"LengthOfCodeTableDataOneUnder", 0, "Length of code table data", Fault::kOneUnder,
       "delta: Code table data at offset 10: offset 6: Length of the delta encoding: truncated: "
       "1546 bytes wanted, limit 1545"},
      {"LengthOfCodeTableDataOneOver", 0, "Length of code table data", Fault::kOneOver,
       "delta: Code table data at offset 10: offset 1554: Win_Indicator: value 3 asks for "
       "VCD_SOURCE and VCD_TARGET at once"},
      {"LengthOfCodeTableDataMaximum", 0, "Length of code table data", Fault::kMaximum,
       "delta: offset 6: Length of code table data: value 18446744073709551615, limit 16384"},
      {"LengthOfCodeTableDataOverlong", 0, "Length of code table data", Fault::kOverlong,
       "delta: offset 6: Length of code table data: integer of more than 64 bits or 10 bytes"},
      {"LengthOfCodeTableDataTruncated", 0, "Length of code table data", Fault::kTruncated,
       "delta: offset 6: Length of code table data: truncated: 2 bytes wanted, limit 1"},
      {"LengthOfApplicationHeaderZero", 0, "Length of application header", Fault::kZero,
       "delta: offset 1565: Win_Indicator: value 97, limit 7"},
      {"LengthOfApplicationHeaderOneUnder", 0, "Length of application header", Fault::kOneUnder,
       "delta: offset 1567: Win_Indicator: value 112, limit 7"},
      {"LengthOfApplicationHeaderOneOver", 0, "Length of application header", Fault::kOneOver,
       "delta: offset 1569: Win_Indicator: value 16, limit 7"},
      {"LengthOfApplicationHeaderMaximum", 0, "Length of application header", Fault::kMaximum,
       "delta: offset 1564: Length of application header: value 18446744073709551615, limit "
       "1048576"},
      {"LengthOfApplicationHeaderOverlong", 0, "Length of application header", Fault::kOverlong,
       "delta: offset 1564: Length of application header: integer of more than 64 bits or 10 "
       "bytes"},
      {"LengthOfApplicationHeaderTruncated", 0, "Length of application header", Fault::kTruncated,
       "delta: offset 1564: Length of application header: truncated: 1 bytes wanted, limit 0"},
      {"WinIndicatorZero", 0, "Win_Indicator", Fault::kZero,
       "delta: offset 1571: Delta_Indicator: value 27, limit 7"},
      {"WinIndicatorOneUnder", 0, "Win_Indicator", Fault::kOneUnder,
       "delta: offset 1571: Delta_Indicator: value 27, limit 7"},
      {"WinIndicatorOneOver", 0, "Win_Indicator", Fault::kOneOver,
       "delta: offset 1569: Source segment size: value 17, limit 0"},
      {"WinIndicatorTruncated", 0, "Win_Indicator", Fault::kTruncated,
       "delta: offset 1568: Win_Indicator: truncated: 1 bytes wanted, limit 0"},
      {"WinIndicatorMaximum", 0, "Win_Indicator", Fault::kMaximum,
       "delta: offset 1568: Win_Indicator: value 255, limit 7"},
      {"SourceSegmentSizeZero", 0, "Source segment size", Fault::kZero,
       "delta: offset 1598: COPY address: value 25, limit 16"},
      {"SourceSegmentSizeOneUnder", 0, "Source segment size", Fault::kOneUnder,
       "delta: offset 1577: Adler-32 checksum: value 817824921, expected 812057710"},
      {"SourceSegmentSizeOneOver", 0, "Source segment size", Fault::kOneOver,
       "delta: offset 1569: End of the source segment: value 18, limit 17"},
      {"SourceSegmentSizeMaximum", 0, "Source segment size", Fault::kMaximum,
       "delta: offset 1579: Source segment position: value 1, limit 0"},
      {"SourceSegmentSizeOverlong", 0, "Source segment size", Fault::kOverlong,
       "delta: offset 1569: Source segment size: integer of more than 64 bits or 10 bytes"},
      {"SourceSegmentSizeTruncated", 0, "Source segment size", Fault::kTruncated,
       "delta: offset 1569: Source segment size: truncated: 1 bytes wanted, limit 0"},
      {"SourceSegmentPositionZero", 0, "Source segment position", Fault::kZero,
       "delta: offset 1577: Adler-32 checksum: value 817824921, expected 808453225"},
      {"SourceSegmentPositionOneUnder", 0, "Source segment position", Fault::kOneUnder,
       "delta: offset 1577: Adler-32 checksum: value 817824921, expected 808453225"},
      {"SourceSegmentPositionOneOver", 0, "Source segment position", Fault::kOneOver,
       "delta: offset 1569: End of the source segment: value 18, limit 17"},
      {"SourceSegmentPositionMaximum", 0, "Source segment position", Fault::kMaximum,
       "delta: offset 1570: Source segment position: value 18446744073709551615, limit "
       "18446744073709551599"},
      {"SourceSegmentPositionOverlong", 0, "Source segment position", Fault::kOverlong,
       "delta: offset 1570: Source segment position: integer of more than 64 bits or 10 bytes"},
      {"SourceSegmentPositionTruncated", 0, "Source segment position", Fault::kTruncated,
       "delta: offset 1570: Source segment position: truncated: 1 bytes wanted, limit 0"},
      {"LengthOfTheDeltaEncodingZero", 0, "Length of the delta encoding", Fault::kZero,
       "delta: offset 1571: Length of the delta encoding: value 0, expected 27"},
      {"LengthOfTheDeltaEncodingOneUnder", 0, "Length of the delta encoding", Fault::kOneUnder,
       "delta: offset 1571: Length of the delta encoding: value 26, expected 27"},
      {"LengthOfTheDeltaEncodingOneOver", 0, "Length of the delta encoding", Fault::kOneOver,
       "delta: offset 1571: Length of the delta encoding: truncated: 28 bytes wanted, limit 27"},
      {"LengthOfTheDeltaEncodingMaximum", 0, "Length of the delta encoding", Fault::kMaximum,
       "delta: offset 1571: Length of the delta encoding: value 18446744073709551615, limit "
       "134217811"},
      {"LengthOfTheDeltaEncodingOverlong", 0, "Length of the delta encoding", Fault::kOverlong,
       "delta: offset 1571: Length of the delta encoding: integer of more than 64 bits or 10 "
       "bytes"},
      {"LengthOfTheDeltaEncodingTruncated", 0, "Length of the delta encoding", Fault::kTruncated,
       "delta: offset 1571: Length of the delta encoding: truncated: 1 bytes wanted, limit 0"},
      {"SizeOfTheTargetWindowZero", 0, "Size of the target window", Fault::kZero,
       "delta: offset 1589: Size of the instruction: value 7, limit 0"},
      {"SizeOfTheTargetWindowOneUnder", 0, "Size of the target window", Fault::kOneUnder,
       "delta: offset 1595: Size of the instruction: value 4, limit 3"},
      {"SizeOfTheTargetWindowOneOver", 0, "Size of the target window", Fault::kOneOver,
       "delta: offset 1568: Target bytes made by the window: value 20, expected 21"},
      {"SizeOfTheTargetWindowMaximum", 0, "Size of the target window", Fault::kMaximum,
       "delta: offset 1572: Size of the target window: value 18446744073709551615, limit 67108864"},
      {"SizeOfTheTargetWindowOverlong", 0, "Size of the target window", Fault::kOverlong,
       "delta: offset 1572: Size of the target window: integer of more than 64 bits or 10 bytes"},
      {"SizeOfTheTargetWindowTruncated", 0, "Size of the target window", Fault::kTruncated,
       "delta: offset 1571: Length of the delta encoding: truncated: 27 bytes wanted, limit 0"},
      {"DeltaIndicatorOneUnder", 0, "Delta_Indicator", Fault::kOneUnder,
       "delta: offset 1573: Delta_Indicator: value 255, limit 7"},
      {"DeltaIndicatorOneOver", 0, "Delta_Indicator", Fault::kOneOver,
       "delta: offset 1582: Data section for ADDs and RUNs: value 0, expected 65"},
      {"DeltaIndicatorMaximum", 0, "Delta_Indicator", Fault::kMaximum,
       "delta: offset 1573: Delta_Indicator: value 255, limit 7"},
      {"DeltaIndicatorTruncated", 0, "Delta_Indicator", Fault::kTruncated,
       "delta: offset 1571: Length of the delta encoding: truncated: 27 bytes wanted, limit 1"},
      {"LengthOfDataForAddsAndRunsZero", 0, "Length of data for ADDs and RUNs", Fault::kZero,
       "delta: offset 1571: Length of the delta encoding: value 27, expected 19"},
      {"LengthOfDataForAddsAndRunsOneUnder", 0, "Length of data for ADDs and RUNs",
       Fault::kOneUnder, "delta: offset 1571: Length of the delta encoding: value 27, expected 26"},
      {"LengthOfDataForAddsAndRunsOneOver", 0, "Length of data for ADDs and RUNs", Fault::kOneOver,
       "delta: offset 1571: Length of the delta encoding: value 27, expected 28"},
      {"LengthOfDataForAddsAndRunsMaximum", 0, "Length of data for ADDs and RUNs", Fault::kMaximum,
       "delta: offset 1574: Length of data for ADDs and RUNs: value 18446744073709551615, limit "
       "1608"},
      {"LengthOfDataForAddsAndRunsOverlong", 0, "Length of data for ADDs and RUNs",
       Fault::kOverlong,
       "delta: offset 1574: Length of data for ADDs and RUNs: integer of more than 64 bits or 10 "
       "bytes"},
      {"LengthOfDataForAddsAndRunsTruncated", 0, "Length of data for ADDs and RUNs",
       Fault::kTruncated,
       "delta: offset 1571: Length of the delta encoding: truncated: 27 bytes wanted, limit 2"},
      {"LengthOfInstructionsAndSizesZero", 0, "Length of instructions and sizes", Fault::kZero,
       "delta: offset 1571: Length of the delta encoding: value 27, expected 19"},
      {"LengthOfInstructionsAndSizesOneUnder", 0, "Length of instructions and sizes",
       Fault::kOneUnder, "delta: offset 1571: Length of the delta encoding: value 27, expected 26"},
      {"LengthOfInstructionsAndSizesOneOver", 0, "Length of instructions and sizes",
       Fault::kOneOver, "delta: offset 1571: Length of the delta encoding: value 27, expected 28"},
      {"LengthOfInstructionsAndSizesMaximum", 0, "Length of instructions and sizes",
       Fault::kMaximum,
       "delta: offset 1575: Length of instructions and sizes: value 18446744073709551615, limit "
       "1608"},
      {"LengthOfInstructionsAndSizesOverlong", 0, "Length of instructions and sizes",
       Fault::kOverlong,
       "delta: offset 1575: Length of instructions and sizes: integer of more than 64 bits or 10 "
       "bytes"},
      {"LengthOfInstructionsAndSizesTruncated", 0, "Length of instructions and sizes",
       Fault::kTruncated,
       "delta: offset 1571: Length of the delta encoding: truncated: 27 bytes wanted, limit 3"},
      {"LengthOfAddressesForCopysZero", 0, "Length of addresses for COPYs", Fault::kZero,
       "delta: offset 1571: Length of the delta encoding: value 27, expected 25"},
      {"LengthOfAddressesForCopysOneUnder", 0, "Length of addresses for COPYs", Fault::kOneUnder,
       "delta: offset 1571: Length of the delta encoding: value 27, expected 26"},
      {"LengthOfAddressesForCopysOneOver", 0, "Length of addresses for COPYs", Fault::kOneOver,
       "delta: offset 1571: Length of the delta encoding: value 27, expected 28"},
      {"LengthOfAddressesForCopysMaximum", 0, "Length of addresses for COPYs", Fault::kMaximum,
       "delta: offset 1576: Length of addresses for COPYs: value 18446744073709551615, limit 1608"},
      {"LengthOfAddressesForCopysOverlong", 0, "Length of addresses for COPYs", Fault::kOverlong,
       "delta: offset 1576: Length of addresses for COPYs: integer of more than 64 bits or 10 "
       "bytes"},
      {"LengthOfAddressesForCopysTruncated", 0, "Length of addresses for COPYs", Fault::kTruncated,
       "delta: offset 1571: Length of the delta encoding: truncated: 27 bytes wanted, limit 4"},
      {"Adler32ChecksumZero", 0, "Adler-32 checksum", Fault::kZero,
       "delta: offset 1577: Adler-32 checksum: value 0, expected 817824921"},
      {"Adler32ChecksumOneUnder", 0, "Adler-32 checksum", Fault::kOneUnder,
       "delta: offset 1577: Adler-32 checksum: value 817824920, expected 817824921"},
      {"Adler32ChecksumOneOver", 0, "Adler-32 checksum", Fault::kOneOver,
       "delta: offset 1577: Adler-32 checksum: value 817824922, expected 817824921"},
      {"Adler32ChecksumMaximum", 0, "Adler-32 checksum", Fault::kMaximum,
       "delta: offset 1577: Adler-32 checksum: value 4294967295, expected 817824921"},
      {"Adler32ChecksumTruncated", 0, "Adler-32 checksum", Fault::kTruncated,
       "delta: offset 1571: Length of the delta encoding: truncated: 27 bytes wanted, limit 8"},
      {"VariantAdler32ChecksumZero", 'S', "Adler-32 checksum", Fault::kZero,
       "delta: offset 1573: Adler-32 checksum: value 0, expected 816514200"},
      {"VariantAdler32ChecksumOneUnder", 'S', "Adler-32 checksum", Fault::kOneUnder,
       "delta: offset 1573: Adler-32 checksum: value 816514199, expected 816514200"},
      {"VariantAdler32ChecksumOneOver", 'S', "Adler-32 checksum", Fault::kOneOver,
       "delta: offset 1573: Adler-32 checksum: value 816514201, expected 816514200"},
      {"VariantAdler32ChecksumMaximum", 'S', "Adler-32 checksum", Fault::kMaximum,
       "delta: offset 1573: Adler-32 checksum: value 18446744073709551615, limit 4294967295"},
      {"VariantAdler32ChecksumOverlong", 'S', "Adler-32 checksum", Fault::kOverlong,
       "delta: offset 1573: Adler-32 checksum: integer of more than 64 bits or 10 bytes"},
      {"VariantAdler32ChecksumTruncated", 'S', "Adler-32 checksum", Fault::kTruncated,
       "delta: offset 1567: Length of the delta encoding: truncated: 28 bytes wanted, limit 9"},
  };
}

INSTANTIATE_TEST_SUITE_P(All, FieldFaultTest, ::testing::ValuesIn(FieldFaults()),
                         [](const auto& row) { return row.param.name; });

TEST(WindowTest, ValidDeltasOfTheTableAreDecoded) {
  EXPECT_EQ(MustDecode(ValidDelta(0).Encoded(), kSourceText), kTargetText);
  EXPECT_EQ(MustDecode(ValidDelta('S').Encoded(), kSourceText), kTargetText);
}

// A delta of the variant is whole where a window could begin.
TEST(WindowTest, EveryTruncationIsRefused) {
  for (const unsigned int version : {0U, static_cast<unsigned int>('S')}) {
    const Fields fields = ValidDelta(version);
    const std::string delta = fields.Encoded();
    for (std::size_t size = 0; size < delta.size(); ++size) {
      const Outcome outcome = TryDecode(delta.substr(0, size), kSourceText);
      if (version != 0 && size == fields.OffsetOf("Win_Indicator")) {
        EXPECT_EQ(outcome.target, "");
      } else {
        EXPECT_FALSE(outcome.target.has_value()) << size;
        EXPECT_THAT(outcome.error, HasSubstr("truncated")) << size;
      }
    }
  }
}

// ---- Every byte of a small delta takes every value.

struct Corruption {
  const char* name;
  unsigned int version;
  bool has_checksum;
  bool is_interleaved;
};

class CorruptionTest : public ::testing::TestWithParam<Corruption> {};

WindowParts WindowFor(const Corruption& row) {
  WindowParts window = ValidWindow();
  if (row.is_interleaved) {
    window.instructions = CodeOfAdd() + Integer(7) + "ABCDEFG" + CodeOfCopy(0) + Integer(5) +
                          Integer(1) + CodeOfRun() + Integer(4) + "!" + CodeOfCopy(1) + Integer(4) +
                          Integer(16 + 16 - 7);
    window.data.clear();
    window.addresses.clear();
  }
  if (row.version != 0) {
    window.checksum = Integer(Adler32(kTargetText, 0));
  }
  if (!row.has_checksum) {
    window.indicator = 1;
  }
  return window;
}

TEST_P(CorruptionTest, NeverCrashesNorPassesAChecksum) {
  const Corruption& row = GetParam();
  HeaderParts header;
  header.version = row.version;
  if (row.version == 0) {
    header.application = "a";
  }
  const std::string delta = Delta(header, {WindowFor(row)}).Encoded();
  ASSERT_EQ(MustDecode(delta, kSourceText), kTargetText);
  std::size_t decoded = 0;
  std::size_t refused = 0;
  for (std::size_t at = 0; at < delta.size(); ++at) {
    for (unsigned int value = 0; value < 256; ++value) {
      std::string spoiled = delta;
      spoiled[at] = static_cast<char>(value);
      if (spoiled == delta) {
        continue;
      }
      const Outcome outcome = TryDecode(spoiled, kSourceText);
      ++(outcome.target ? decoded : refused);
      if (row.has_checksum && outcome.target) {
        EXPECT_EQ(*outcome.target, kTargetText) << "byte " << at << " is " << value;
      }
    }
  }
  EXPECT_EQ(decoded + refused, delta.size() * 255);
  EXPECT_GT(refused, decoded);
}

INSTANTIATE_TEST_SUITE_P(All, CorruptionTest,
                         ::testing::Values(Corruption{"Checked", 0, true, false},
                                           Corruption{"Unchecked", 0, false, false},
                                           Corruption{"VariantChecked", 'S', true, false},
                                           Corruption{"VariantUnchecked", 'S', false, false},
                                           Corruption{"InterleavedChecked", 'S', true, true},
                                           Corruption{"InterleavedUnchecked", 'S', false, true}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tolm::vcdiff

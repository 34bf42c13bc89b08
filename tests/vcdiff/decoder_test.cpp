// What a delta can ask for, each by a delta written by hand.

#include "vcdiff/decoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/files.h"
#include "tests/vcdiff/decoding.h"
#include "tests/vcdiff/delta_builder.h"
#include "vcdiff/code_table.h"

namespace tolm::vcdiff {
namespace {

using ::testing::HasSubstr;

constexpr unsigned int kSource = 1;
constexpr unsigned int kTarget = 2;
constexpr unsigned int kChecksum = 4;

WindowParts Plain(std::uint64_t target_size, const std::string& data,
                  const std::string& instructions, const std::string& addresses = "") {
  WindowParts parts;
  parts.target_size = target_size;
  parts.data = data;
  parts.instructions = instructions;
  parts.addresses = addresses;
  return parts;
}

WindowParts From(unsigned int segment, std::uint64_t size, std::uint64_t position,
                 WindowParts parts) {
  parts.indicator |= segment;
  parts.segment_size = size;
  parts.segment_position = position;
  return parts;
}

std::string Add(std::uint64_t size) {
  return CodeOfAdd() + Integer(size);
}
std::string RunOf(std::uint64_t size) {
  return CodeOfRun() + Integer(size);
}
std::string Copy(std::uint64_t size, unsigned int mode = 0) {
  return CodeOfCopy(mode) + Integer(size);
}

std::string Pattern(std::size_t size, unsigned int seed = 1) {
  std::string bytes(size, '\0');
  std::uint32_t state = seed * 2654435761U;
  for (char& c : bytes) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return bytes;
}

TEST(DecoderTest, AdditionsRunsAndCopiesMakeTheTarget) {
  const WindowParts window =
      From(kSource, 10, 2, Plain(12, "xyz!", Add(3) + RunOf(4) + Copy(5), Integer(5)));
  EXPECT_EQ(MustDecode(Delta(window).Encoded(), "0123456789abcdef"), "xyz!!!!789ab");
}

// Long copies are not held with the rest of a window until it is written.
TEST(DecoderTest, LongCopiesStandBetweenWhatIsAddedInTheirOrder) {
  const std::string source = Pattern(400'000);
  const std::string data = Pattern(200'112, 2);
  const std::string target = source.substr(5, 70'000) + data.substr(0, 100) +
                             source.substr(100'000, 65'536) + data.substr(100, 200'000) +
                             source.substr(0, 300'000) + data.substr(200'100, 12) +
                             source.substr(5, 70'000) + data.substr(0, 50);
  const WindowParts window =
      From(kSource, source.size(), 0,
           Plain(target.size(), data,
                 Copy(70'000) + Add(100) + Copy(65'536) + Add(200'000) + Copy(300'000) + Add(12) +
                     Copy(70'050),
                 Integer(5) + Integer(100'000) + Integer(0) + Integer(source.size())));
  EXPECT_TRUE(MustDecode(Delta(window).Encoded(), source) == target);
}

TEST(DecoderTest, EmptyTargetHasAnEmptyWindow) {
  EXPECT_EQ(MustDecode(Delta(Plain(0, "", "")).Encoded(), "source"), "");
}

// The common encoder writes one for an empty target, too: the delta was cut off.
TEST(DecoderTest, DeltaWithoutWindowsIsRefused) {
  EXPECT_EQ(Refusal(Header().Encoded(), ""),
            "delta: offset 5: Win_Indicator: truncated: 1 bytes wanted, limit 0");
}

TEST(DecoderTest, DeltaOfTheVariantMayHaveNoWindows) {
  HeaderParts header;
  header.version = 'S';
  EXPECT_EQ(MustDecode(Header(header).Encoded(), "source"), "");
}

TEST(DecoderTest, VariantHasNoApplicationHeader) {
  HeaderParts header;
  header.version = 'S';
  header.application = "name";
  EXPECT_EQ(Refusal(Delta(header, {Plain(1, "a", Add(1))}).Encoded(), ""),
            "delta: offset 4: Hdr_Indicator: value 4, limit 3");
}

TEST(DecoderTest, ApplicationHeaderIsPassedOver) {
  HeaderParts header;
  header.application = "anything\xd6";
  EXPECT_EQ(MustDecode(Delta(header, {Plain(3, "abc", Add(3))}).Encoded(), ""), "abc");
  header.application = "";
  EXPECT_EQ(MustDecode(Delta(header, {Plain(3, "abc", Add(3))}).Encoded(), ""), "abc");
}

TEST(DecoderTest, CopiesFromTheWindowItself) {
  // Position 4 onwards repeats "abcd", then its own copy.
  const WindowParts window =
      Plain(12, "abcd", Add(4) + Copy(4, 1) + Copy(4), Integer(4) + Integer(2));
  EXPECT_EQ(MustDecode(Delta(window).Encoded(), ""), "abcdabcdcdab");
}

TEST(DecoderTest, OverlappingCopyRepeatsWhatItWrites) {
  // Every distance around the widths that are moved at once.
  for (std::size_t distance = 1; distance <= 70; ++distance) {
    const std::string period = Pattern(distance);
    for (const std::size_t size : {1U, 2U, 7U, 31U, 32U, 33U, 64U, 65U, 200U, 1000U}) {
      std::string wanted = period;
      for (std::size_t i = 0; i < size; ++i) {
        wanted += wanted[i];
      }
      const WindowParts window =
          Plain(distance + size, period, Add(distance) + Copy(size), Integer(0));
      ASSERT_EQ(MustDecode(Delta(window).Encoded(), ""), wanted) << distance << ' ' << size;
    }
  }
}

TEST(DecoderTest, CopyMayRunFromTheSegmentIntoTheWindow) {
  const WindowParts window = From(kSource, 4, 1, Plain(9, "xy", Add(2) + Copy(7), Integer(2)));
  // Segment "bcde", then the window "xy": from address 2 "de", "xy", and on in what it writes.
  EXPECT_EQ(MustDecode(Delta(window).Encoded(), "abcdef"), "xydexydex");
}

TEST(DecoderTest, FirstCopyMayRunFromTheSegmentIntoItsOwnBytes) {
  const WindowParts window = From(kSource, 2, 0, Plain(7, "", Copy(7), Integer(0)));
  EXPECT_EQ(MustDecode(Delta(window).Encoded(), "abc"), "abababa");
}

TEST(DecoderTest, WindowsFollowEachOther) {
  const std::string delta =
      Delta({}, {Plain(2, "ab", Add(2)), From(kSource, 3, 0, Plain(3, "", Copy(3), Integer(0))),
                 Plain(1, "z", RunOf(1))})
          .Encoded();
  EXPECT_EQ(MustDecode(delta, "123"), "ab123z");
}

TEST(DecoderTest, CachesAreForgottenBetweenWindows) {
  // The near cache would hold 2 in the second window.
  const WindowParts first = From(kSource, 8, 0, Plain(2, "", Copy(2), Integer(2)));
  const WindowParts second = From(kSource, 8, 0, Plain(2, "", Copy(2, 2), Integer(0)));
  EXPECT_EQ(MustDecode(Delta({}, {first, second}).Encoded(), "01234567"), "2301");
}

TEST(DecoderTest, WindowMayCopyFromTheTargetSoFar) {
  const std::string delta =
      Delta({}, {Plain(6, "abcdef", Add(6)), From(kTarget, 4, 1, Plain(4, "", Copy(4), Integer(0))),
                 From(kTarget, 10, 0, Plain(5, "", Copy(5), Integer(4)))})
          .Encoded();
  EXPECT_EQ(MustDecode(delta, "no source"), "abcdefbcdeefbcd");
}

TEST(DecoderTest, TargetSegmentMustHaveBeenDecoded) {
  for (const auto& [size, position] : {std::pair{7U, 0U}, {1U, 6U}, {6U, 1U}}) {
    const std::string delta = Delta({}, {Plain(6, "abcdef", Add(6)),
                                         From(kTarget, size, position, Plain(1, "x", Add(1)))})
                                  .Encoded();
    EXPECT_THAT(Refusal(delta, ""), HasSubstr(": value 7, limit 6")) << size << '+' << position;
  }
}

TEST(DecoderTest, SourceMustHoldTheSegment) {
  const WindowParts window = From(kSource, 4, 3, Plain(1, "x", Add(1)));
  EXPECT_EQ(MustDecode(Delta(window).Encoded(), "1234567"), "x");
  EXPECT_EQ(Refusal(Delta(window).Encoded(), "123456"),
            "delta: offset 6: End of the source segment: value 7, limit 6");
}

TEST(DecoderTest, ChecksumIsChecked) {
  WindowParts window = Plain(3, "abc", Add(3));
  window.indicator = kChecksum;
  window.checksum = BigEndian(Adler32("abc"));
  EXPECT_EQ(MustDecode(Delta(window).Encoded(), ""), "abc");
  window.checksum = BigEndian(Adler32("abd"));
  EXPECT_EQ(Refusal(Delta(window).Encoded(), ""),
            "delta: offset 12: Adler-32 checksum: value 38666536, expected 38600999");
}

TEST(DecoderTest, ChecksumOfTheVariantIsAnIntegerAndStartsAtZero) {
  HeaderParts header;
  header.version = 'S';
  WindowParts window = Plain(3, "abc", Add(3));
  window.indicator = kChecksum;
  window.checksum = Integer(Adler32("abc", 0));
  EXPECT_EQ(MustDecode(Delta(header, {window}).Encoded(), ""), "abc");
  window.checksum = Integer(Adler32("abc", 1));
  EXPECT_THAT(Refusal(Delta(header, {window}).Encoded(), ""), HasSubstr("Adler-32 checksum"));
}

TEST(DecoderTest, WindowWithoutDataAndAddressesIsInterleavedInTheVariant) {
  HeaderParts header;
  header.version = 'S';
  // ADD 2, then ADD 1 + COPY 4 from here - 3 in one code (175), then a run.
  const WindowParts window =
      Plain(10, "", Add(2) + "ab" + Bytes({175}) + "c" + Integer(3) + RunOf(3) + "z");
  EXPECT_EQ(MustDecode(Delta(header, {window}).Encoded(), ""), "abcabcazzz");
  header.version = 0;
  EXPECT_THAT(Refusal(Delta(header, {window}).Encoded(), ""),
              HasSubstr("Data section for ADDs and RUNs: truncated"));
}

TEST(DecoderTest, WindowWithDataIsNotInterleavedInTheVariant) {
  HeaderParts header;
  header.version = 'S';
  EXPECT_EQ(MustDecode(Delta(header, {Plain(2, "ab", Add(2))}).Encoded(), ""), "ab");
}

TEST(DecoderTest, PairedInstructionsAreBothDone) {
  const WindowParts window =
      From(kSource, 8, 0, Plain(11, "xyz-", Bytes({173}) + Bytes({20}), Integer(0) + Integer(4)));
  // 173: ADD 4 and COPY 5, both of fixed size; 20: COPY 4 would be beyond the window.
  EXPECT_THAT(Refusal(Delta(window).Encoded(), "01234567"),
              HasSubstr("Size of the instruction: value 4, limit 2"));
  WindowParts longer = window;
  longer.target_size = 13;
  EXPECT_EQ(MustDecode(Delta(longer).Encoded(), "01234567"), "xyz-012344567");
  // 247: COPY 4 and ADD 1.
  const WindowParts reverse = From(kSource, 8, 0, Plain(5, "!", Bytes({247}), Integer(1)));
  EXPECT_EQ(MustDecode(Delta(reverse).Encoded(), "01234567"), "1234!");
}

TEST(DecoderTest, LongPiecesMayBeReferredToLater) {
  // Long enough to be written from where they are, with short ones around and in between.
  const std::string source = Pattern(300000);
  const std::string added = Pattern(200000, 2);
  WindowParts window =
      From(kSource, source.size(), 0,
           Plain(0, "ab" + added, Add(2) + Copy(150000) + Add(added.size()) + Copy(100000),
                 Integer(1000) + Integer(200000)));
  std::string wanted = "ab" + source.substr(1000, 150000) + added + source.substr(200000, 100000);
  const auto copy_from_window = [&](std::size_t from, std::size_t size) {
    window.instructions += Copy(size);
    window.addresses += Integer(source.size() + from);
    for (std::size_t i = 0; i < size; ++i) {
      wanted += wanted[from + i];
    }
  };
  copy_from_window(0, 10);             // into the first piece
  copy_from_window(149990, 30);        // across its end
  copy_from_window(2, 4);              // at its start, again
  copy_from_window(350001, 10);        // across the end of the addition
  copy_from_window(449995, 100);       // across the last piece, and on
  copy_from_window(0, wanted.size());  // everything
  window.target_size = wanted.size();
  window.indicator |= kChecksum;
  window.checksum = BigEndian(Adler32(wanted));
  EXPECT_TRUE(MustDecode(Delta(window).Encoded(), source) == wanted);
}

TEST(DecoderTest, ManyWindowsOfChangingSizeShareTheirMemory) {
  const std::string source = Pattern(100000);
  std::vector<WindowParts> windows;
  std::string wanted;
  for (std::size_t i = 0; i < 200; ++i) {
    const std::size_t size = 1 + i * 7919 % 90000;
    windows.push_back(
        From(kSource, size, i, Plain(size + 1, "+", Copy(size) + Add(1), Integer(0))));
    wanted += source.substr(i, size) + "+";
  }
  EXPECT_TRUE(MustDecode(Delta({}, windows).Encoded(), source) == wanted);
}

// ---- Limits.

TEST(DecoderLimitTest, LargestWindow) {
  Limits limits;
  limits.max_window_bytes = 1000;
  EXPECT_EQ(MustDecode(Delta(Plain(1000, "x", RunOf(1000))).Encoded(), "", limits).size(), 1000U);
  EXPECT_EQ(Refusal(Delta(Plain(1001, "x", RunOf(1001))).Encoded(), "", limits),
            "delta: offset 7: Size of the target window: value 1001, limit 1000");
}

TEST(DecoderLimitTest, EncodedWindowIsBoundedByTheLargestWindow) {
  Limits limits;
  limits.max_window_bytes = 10;
  const WindowParts window = Plain(10, std::string(10, 'a'), std::string(200, '\2'));
  EXPECT_EQ(Refusal(Delta(window).Encoded(), "", limits),
            "delta: offset 6: Length of the delta encoding: value 216, limit 103");
}

TEST(DecoderLimitTest, WindowsInARowWithoutProgress) {
  Limits limits;
  limits.max_empty_windows = 3;
  const WindowParts empty = Plain(0, "", "");
  const WindowParts one = Plain(1, "x", Add(1));
  EXPECT_EQ(
      MustDecode(Delta({}, {empty, empty, empty, one, empty, empty, empty}).Encoded(), "", limits),
      "x");
  EXPECT_EQ(Refusal(Delta({}, {one, empty, empty, empty, empty}).Encoded(), "", limits),
            "delta: offset 38: Windows in a row of target size 0: value 4, limit 3");
}

TEST(DecoderLimitTest, WholeTarget) {
  Limits limits;
  limits.max_target_bytes = 5;
  const WindowParts window = Plain(3, "x", RunOf(3));
  EXPECT_THAT(Refusal(Delta({}, {window, window}).Encoded(), "", limits),
              HasSubstr("Size of the whole target: value 6, limit 5"));
  limits.max_target_bytes = 6;
  EXPECT_EQ(MustDecode(Delta({}, {window, window}).Encoded(), "", limits), "xxxxxx");
}

// ---- Code tables of the application.

// The table as a delta that adds all of it.
std::string AddedTable(const std::vector<std::uint8_t>& table) {
  return Delta(Plain(table.size(), std::string(table.begin(), table.end()), Add(table.size())))
      .Encoded();
}

std::string TableData(unsigned int near, unsigned int same, const std::string& delta) {
  return Bytes({near, same}) + delta;
}

// 0: COPY 5 of mode 0, and ADD 2. 1: NOOP, and RUN of any size. 2: COPY of any size, mode 4 (same).
std::vector<std::uint8_t> SmallTable() {
  std::vector<std::uint8_t> table(CodeTable::kSerializedBytes);
  const auto set = [&](std::size_t code, const std::array<std::uint8_t, 6>& values) {
    for (std::size_t i = 0; i < 6; ++i) {
      table[i * 256 + code] = values[i];
    }
  };
  set(0, {3, 1, 5, 2, 0, 0});
  set(1, {0, 2, 0, 0, 0, 0});
  set(2, {3, 0, 0, 0, 4, 0});
  return table;
}

TEST(DecoderTableTest, TableAndCacheSizesOfTheApplicationAreUsed) {
  HeaderParts header;
  header.code_table = TableData(2, 1, AddedTable(SmallTable()));
  const WindowParts window =
      From(kSource, 10, 0,
           Plain(14, "xyz", Bytes({0}) + Bytes({1}) + Integer(4) + Bytes({2}) + Integer(3),
                 Integer(3) + Bytes({3})));
  EXPECT_EQ(MustDecode(Delta(header, {window}).Encoded(), "0123456789"), "34567xyzzzz345");
}

TEST(DecoderTableTest, TableMayBeADeltaOfTheDefaultOne) {
  // Code 1 becomes ADD 3: the size of its first instruction is byte 2 * 256 + 1.
  const std::size_t at = 2 * 256 + 1;
  const WindowParts change = From(
      kSource, 1536, 0,
      Plain(1536, "\3", Copy(at) + Add(1) + Copy(1536 - at - 1), Integer(0) + Integer(at + 1)));
  HeaderParts header;
  header.code_table = TableData(4, 3, Delta(change).Encoded());
  EXPECT_EQ(MustDecode(Delta(header, {Plain(6, "abcdef", Bytes({1, 1}))}).Encoded(), ""), "abcdef");
}

TEST(DecoderTableTest, TableStandsBeforeTheApplicationHeader) {
  HeaderParts header;
  header.code_table = TableData(4, 3, AddedTable(CodeTable::SerializedDefault()));
  header.application = "name";
  EXPECT_EQ(MustDecode(Delta(header, {Plain(2, "ab", Add(2))}).Encoded(), ""), "ab");
}

TEST(DecoderTableTest, CachesMayHaveAnySizeThatModesCanName) {
  for (const auto& [near, same] : {std::pair{0U, 0U}, {254U, 0U}, {0U, 254U}, {100U, 154U}}) {
    HeaderParts header;
    std::vector<std::uint8_t> table(CodeTable::kSerializedBytes);
    for (std::size_t mode = 0; mode < 2 + near + same; ++mode) {
      table[mode] = 3;            // COPY
      table[2 * 256 + mode] = 2;  // of size 2
      table[4 * 256 + mode] = static_cast<std::uint8_t>(mode);
    }
    header.code_table = TableData(near, same, AddedTable(table));
    // Address 3 first. The last mode is HERE, a near one that was not filled yet, or the last row
    // of the same cache, which was not filled either: address 0.
    const unsigned int last = 1 + near + same;
    const std::string address = near + same == 0 ? Integer(12) : Bytes({0});
    const WindowParts window =
        From(kSource, 10, 0, Plain(4, "", Bytes({0, last}), Integer(3) + address));
    EXPECT_EQ(MustDecode(Delta(header, {window}).Encoded(), "0123456789"), "3401")
        << near << ' ' << same;
  }
}

TEST(DecoderTableTest, MoreCachesThanModesAreRefused) {
  HeaderParts header;
  header.code_table = TableData(200, 55, AddedTable(SmallTable()));
  EXPECT_THAT(Refusal(Header(header).Encoded(), ""),
              HasSubstr("Size of near cache and of same cache: value 255, limit 254"));
}

TEST(DecoderTableTest, TableOfTheWrongSizeIsRefused) {
  HeaderParts header;
  std::vector<std::uint8_t> table = SmallTable();
  table.pop_back();
  header.code_table = TableData(4, 3, AddedTable(table));
  EXPECT_THAT(Refusal(Header(header).Encoded(), ""),
              HasSubstr("Size of the code table: value 1535, expected 1536"));
  table.resize(1537);
  header.code_table = TableData(4, 3, AddedTable(table));
  EXPECT_THAT(Refusal(Header(header).Encoded(), ""),
              HasSubstr("Size of the target window: value 1537, limit 1536"));
}

TEST(DecoderTableTest, TableMustNotBringAnother) {
  HeaderParts inner;
  inner.code_table = TableData(4, 3, AddedTable(SmallTable()));
  HeaderParts outer;
  outer.code_table = TableData(4, 3, Delta(inner, {}).Encoded());
  EXPECT_THAT(Refusal(Header(outer).Encoded(), ""), HasSubstr("only one level is supported"));
}

TEST(DecoderTableTest, LargestTableIsALimit) {
  HeaderParts header;
  header.code_table = TableData(4, 3, AddedTable(SmallTable()));
  Limits limits;
  limits.max_code_table_bytes = header.code_table->size();
  const std::string delta = Delta(header, {Plain(1, "a", Add(1))}).Encoded();
  EXPECT_EQ(MustDecode(delta, "", limits), "a");
  --limits.max_code_table_bytes;
  EXPECT_EQ(Refusal(delta, "", limits), "delta: offset 5: Length of code table data: value " +
                                            std::to_string(header.code_table->size()) + ", limit " +
                                            std::to_string(limits.max_code_table_bytes));
}

TEST(DecoderTableTest, ErrorInATableNamesTheTable) {
  HeaderParts header;
  header.code_table = TableData(4, 3, "\xd6\xc3\xc5");
  EXPECT_EQ(Refusal(Header(header).Encoded(), ""),
            "delta: Code table data at offset 8: offset 2: Header3: value 197, expected 196");
}

// ---- Deltas by another widespread encoder.

class SampleTest : public ::testing::TestWithParam<const char*> {};

TEST_P(SampleTest, DecodesToItsTarget) {
  const std::string directory = TOLM_TEST_SOURCE_DIR "/tests/data/vcdiff/";
  const std::string delta = testing::ReadFile(directory + GetParam() + ".vcdiff");
  const std::string source = testing::ReadFile(directory + "source");
  const std::string target = testing::ReadFile(directory + "target");
  ASSERT_EQ(target.size(), 31902U);
  EXPECT_TRUE(MustDecode(delta, source) == target);
}

INSTANTIATE_TEST_SUITE_P(All, SampleTest,
                         ::testing::Values("plain", "checksum", "interleaved",
                                           "interleaved-checksum"),
                         [](const auto& row) {
                           std::string name = row.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

// ---- Checking without writing.

TEST(VerifyTest, SaysWhatItChecked) {
  WindowParts checked = Plain(3, "abc", Add(3));
  checked.indicator = kChecksum;
  checked.checksum = BigEndian(Adler32("abc"));
  const std::string delta =
      Delta({}, {checked, Plain(2, "xy", Add(2)), From(kTarget, 5, 0, Plain(2, "", Copy(2), "\3"))})
          .Encoded();
  MemoryInput delta_input("delta", Raw(delta), delta.size());
  MemoryInput source("source", nullptr, 0);
  const DecodeResult result = Verify(delta_input, source, Limits(), FileAccess::kRead);
  EXPECT_EQ(result.windows, 3U);
  EXPECT_EQ(result.windows_with_checksum, 1U);
  EXPECT_EQ(result.target_bytes, 7U);
}

TEST(VerifyTest, ThrowsForAWrongChecksum) {
  WindowParts window = Plain(3, "abc", Add(3));
  window.indicator = kChecksum;
  window.checksum = BigEndian(1);
  const std::string delta = Delta(window).Encoded();
  MemoryInput delta_input("delta", Raw(delta), delta.size());
  MemoryInput source("source", nullptr, 0);
  EXPECT_THROW(Verify(delta_input, source, Limits(), FileAccess::kRead), Error);
}

}  // namespace
}  // namespace tolm::vcdiff

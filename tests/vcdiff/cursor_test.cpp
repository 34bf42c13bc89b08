#include "vcdiff/cursor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "tests/vcdiff/decoding.h"
#include "tests/vcdiff/delta_builder.h"

namespace tolm::vcdiff {
namespace {

using ::testing::HasSubstr;

const std::string kName = "some.vcdiff";

std::string MessageOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const Error& error) {
    EXPECT_TRUE(error.Kind() == ErrorKind::kBadInput);
    return error.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return "";
}

struct GoodInteger {
  const char* name;
  std::string bytes;
  std::uint64_t value;
};

class IntegerTest : public ::testing::TestWithParam<GoodInteger> {};

TEST_P(IntegerTest, IsReadWithItsLength) {
  const std::string bytes = GetParam().bytes + "\x55";
  const Origin origin{&kName, 0, false};
  Cursor cursor(Raw(bytes), bytes.size(), origin);
  EXPECT_EQ(cursor.Integer("field"), GetParam().value);
  EXPECT_EQ(cursor.Left(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    All, IntegerTest,
    ::testing::Values(
        GoodInteger{"Zero", Bytes({0}), 0}, GoodInteger{"OneByteMaximum", Bytes({0x7f}), 127},
        GoodInteger{"TwoBytesMinimum", Bytes({0x81, 0}), 128},
        GoodInteger{"ExampleOfTheFormat", Bytes({0xba, 0xef, 0x9a, 0x15}), 123456789},
        GoodInteger{"ThirtyTwoBits", Bytes({0x8f, 0xff, 0xff, 0xff, 0x7f}), UINT32_MAX},
        GoodInteger{"SixtyThreeBits", Bytes({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}),
                    INT64_MAX},
        GoodInteger{"SixtyFourBits",
                    Bytes({0x81, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}),
                    UINT64_MAX},
        GoodInteger{"PaddedToTenBytes",
                    Bytes({0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x05}), 5}),
    [](const auto& row) { return row.param.name; });

struct BadInteger {
  const char* name;
  std::string bytes;
  const char* message;
};

class BadIntegerTest : public ::testing::TestWithParam<BadInteger> {};

TEST_P(BadIntegerTest, IsRefusedByItsNameAndPlace) {
  // A copy on the heap of the exact size: reading on would be seen.
  const std::vector<char> exact(GetParam().bytes.begin(), GetParam().bytes.end());
  const Origin origin{&kName, 100, false};
  Cursor cursor(reinterpret_cast<const std::uint8_t*>(exact.data()), exact.size(), origin);
  EXPECT_EQ(MessageOf([&] { cursor.Integer("Some field"); }),
            std::string("some.vcdiff: offset 100: Some field: ") + GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    All, BadIntegerTest,
    ::testing::Values(
        BadInteger{"Nothing", "", "truncated: 1 bytes wanted, limit 0"},
        BadInteger{"CutOff", Bytes({0x81}), "truncated: 2 bytes wanted, limit 1"},
        BadInteger{"CutOffLater", Bytes({0x80, 0x80, 0x80}), "truncated: 4 bytes wanted, limit 3"},
        BadInteger{"SixtyFiveBits",
                   Bytes({0x82, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}),
                   "integer of more than 64 bits or 10 bytes"},
        BadInteger{"ElevenBytesOfZero",
                   Bytes({0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}),
                   "integer of more than 64 bits or 10 bytes"},
        BadInteger{"EndlessDigits", std::string(1000, '\xff'),
                   "integer of more than 64 bits or 10 bytes"}),
    [](const auto& row) { return row.param.name; });

TEST(CursorTest, TakesNoMoreThanIsThere) {
  const std::string bytes = "abc";
  const Origin origin{&kName, 7, false};
  Cursor cursor(Raw(bytes), bytes.size(), origin);
  EXPECT_EQ(cursor.Take(2, "field"), Raw(bytes));
  EXPECT_EQ(MessageOf([&] { cursor.Take(2, "field"); }),
            "some.vcdiff: offset 9: field: truncated: 2 bytes wanted, limit 1");
  EXPECT_EQ(MessageOf([&] { cursor.Take(UINT64_MAX, "field"); }),
            "some.vcdiff: offset 9: field: truncated: 18446744073709551615 bytes wanted, limit 1");
  EXPECT_EQ(cursor.Byte("field"), 'c');
  EXPECT_EQ(MessageOf([&] { cursor.Byte("field"); }),
            "some.vcdiff: offset 10: field: truncated: 1 bytes wanted, limit 0");
}

TEST(CursorTest, NamesTheByteOfADecompressedSection) {
  const std::string bytes = "abc";
  const Origin origin{&kName, 7, true};
  Cursor cursor(Raw(bytes), bytes.size(), origin);
  cursor.Byte("field");
  EXPECT_THAT(MessageOf([&] { cursor.Take(9, "field"); }),
              HasSubstr("offset 7, decompressed byte 1: field"));
}

}  // namespace
}  // namespace tolm::vcdiff

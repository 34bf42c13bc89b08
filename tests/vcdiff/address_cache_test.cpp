#include "vcdiff/address_cache.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/vcdiff/decoding.h"
#include "tests/vcdiff/delta_builder.h"

namespace tolm::vcdiff {
namespace {

// One address: decoded, or the message.
class Decoding {
 public:
  explicit Decoding(unsigned int near = 4, unsigned int same = 3) : cache_(near, same) {}

  std::string operator()(unsigned int mode, std::uint64_t here, const std::string& bytes) {
    const Origin origin{&name_, 0, false};
    Cursor cursor(Raw(bytes), bytes.size(), origin);
    try {
      const std::string address = std::to_string(cache_.Decode(mode, here, cursor));
      return cursor.Left() == 0 ? address : "bytes are left";
    } catch (const Error& error) {
      return error.what();
    }
  }
  void Reset() { cache_.Reset(); }

 private:
  std::string name_ = "d";
  AddressCache cache_;
};

TEST(AddressCacheTest, SelfIsTheAddressItself) {
  Decoding decode;
  EXPECT_EQ(decode(0, 1000, Integer(0)), "0");
  EXPECT_EQ(decode(0, 1000, Integer(999)), "999");
  EXPECT_EQ(decode(0, 1000, Integer(1000)), "d: offset 0: COPY address: value 1000, limit 999");
}

TEST(AddressCacheTest, HereCountsBackwards) {
  Decoding decode;
  EXPECT_EQ(decode(1, 1000, Integer(1)), "999");
  EXPECT_EQ(decode(1, 1000, Integer(1000)), "0");
  EXPECT_EQ(decode(1, 1000, Integer(1001)), "d: offset 0: COPY address: value 1001, limit 1000");
  EXPECT_EQ(decode(1, 1000, Integer(0)), "d: offset 0: COPY address: value 1000, limit 999");
}

TEST(AddressCacheTest, NothingCanBeCopiedBeforeTheFirstByte) {
  Decoding decode;
  for (unsigned int mode = 0; mode < 9; ++mode) {
    EXPECT_EQ(decode(mode, 0, Bytes({0})), "d: offset 0: COPY address: value 0, limit 0") << mode;
  }
}

TEST(AddressCacheTest, NearRemembersTheLastAddressesInTurn) {
  Decoding decode;
  for (const std::uint64_t address : {10U, 20U, 30U, 40U, 50U}) {
    decode(0, 1000, Integer(address));
  }
  // 50 has taken the place of 10; each use takes the next place.
  EXPECT_EQ(decode(2, 1000, Integer(1)), "51");
  EXPECT_EQ(decode(3, 1000, Integer(1)), "52") << "51 was put into the second place";
  EXPECT_EQ(decode(5, 1000, Integer(0)), "40");
}

TEST(AddressCacheTest, NearIsRefusedBeyondHere) {
  Decoding decode;
  decode(0, 1000, Integer(900));
  EXPECT_EQ(decode(2, 1000, Integer(99)), "999");
  EXPECT_EQ(decode(2, 1000, Integer(100)), "d: offset 0: COPY address: value 1000, limit 999");
  EXPECT_EQ(decode(2, 1000, Integer(UINT64_MAX)),
            "d: offset 0: COPY address: value 18446744073709551615, limit 100");
}

TEST(AddressCacheTest, SameFindsAnAddressByItsRemainder) {
  Decoding decode;
  decode(0, 100000, Integer(256 + 7));
  decode(0, 100000, Integer(3 * 768 + 2 * 256 + 9));
  EXPECT_EQ(decode(7, 100000, Bytes({7})), "263");
  EXPECT_EQ(decode(8, 100000, Bytes({9})), "2825");
  EXPECT_EQ(decode(6, 100000, Bytes({7})), "0") << "never filled";
}

TEST(AddressCacheTest, AddressOfSameIsOneByte) {
  Decoding decode;
  EXPECT_EQ(decode(6, 10, ""), "d: offset 0: COPY address: truncated: 1 bytes wanted, limit 0");
  EXPECT_EQ(decode(6, 10, Bytes({0x80})), "0") << "no digits, though the high bit is set";
}

TEST(AddressCacheTest, ResetForgetsEverything) {
  Decoding decode;
  decode(0, 1000, Integer(300));
  decode.Reset();
  EXPECT_EQ(decode(2, 1000, Integer(0)), "0");
  EXPECT_EQ(decode(7, 1000, Bytes({44})), "0");
  decode(0, 1000, Integer(5));
  EXPECT_EQ(decode(4, 1000, Integer(0)), "5") << "the turn begins anew, two places were used";
}

struct Sizes {
  const char* name;
  unsigned int near;
  unsigned int same;
};

class CacheSizeTest : public ::testing::TestWithParam<Sizes> {};

// A cache by the format's own words, kept beside the one under test.
TEST_P(CacheSizeTest, EveryModeOfAnySizeWorks) {
  const auto [name, near, same] = GetParam();
  Decoding decode(near, same);
  std::vector<std::uint64_t> near_model(near);
  std::vector<std::uint64_t> same_model(same * 256);
  std::size_t next = 0;
  const std::uint64_t here = 1U << 30;
  std::uint64_t random = 12345;
  for (unsigned int step = 0; step < 3000; ++step) {
    random = random * 6364136223846793005 + 1442695040888963407;
    const auto mode = static_cast<unsigned int>(step % (2 + near + same));
    std::uint64_t wanted = (random >> 33) % here;
    std::string bytes;
    if (mode == 0) {
      bytes = Integer(wanted);
    } else if (mode == 1) {
      bytes = Integer(here - wanted);
    } else if (mode < 2 + near) {
      wanted = near_model[mode - 2] + wanted % (here - near_model[mode - 2]);
      bytes = Integer(wanted - near_model[mode - 2]);
    } else {
      const auto low = static_cast<unsigned int>(random >> 40 & 0xff);
      wanted = same_model[(mode - 2 - near) * 256 + low];
      bytes = Bytes({low});
    }
    ASSERT_EQ(decode(mode, here, bytes), std::to_string(wanted)) << "step " << step;
    if (near > 0) {
      near_model[next] = wanted;
      next = (next + 1) % near;
    }
    if (same > 0) {
      same_model[static_cast<std::size_t>(wanted % (same * 256))] = wanted;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, CacheSizeTest,
                         ::testing::Values(Sizes{"Default", 4, 3}, Sizes{"None", 0, 0},
                                           Sizes{"OnlyNear", 1, 0}, Sizes{"OnlySame", 0, 1},
                                           Sizes{"AllNear", 254, 0}, Sizes{"AllSame", 0, 254},
                                           Sizes{"Both", 127, 127}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tolm::vcdiff

#include "publish/small_vcdiff.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <random>
#include <string>

#include "tests/support/noise.h"
#include "vcdiff/decoder.h"

namespace tolm::testing {
namespace {

using publish::EncodeSmallVcdiff;
using publish::kMostSmallVcdiffBytes;

vcdiff::DecodeResult Decode(const std::string& delta, const std::string& source,
                            std::string& target) {
  const auto input = [](const char* name, const std::string& content) {
    return vcdiff::MemoryInput(name, reinterpret_cast<const std::uint8_t*>(content.data()),
                               content.size());
  };
  auto delta_input = input("delta", delta);
  auto source_input = input("source", source);
  vcdiff::MemorySink sink;
  const vcdiff::DecodeResult result = vcdiff::Decode(delta_input, source_input, sink, {});
  target.assign(sink.Bytes().begin(), sink.Bytes().end());
  return result;
}

void ExpectGivesBack(const std::string& source, const std::string& target) {
  std::string decoded;
  const vcdiff::DecodeResult result = Decode(EncodeSmallVcdiff(source, target), source, decoded);
  EXPECT_TRUE(decoded == target);
  EXPECT_EQ(result.windows, 1U);
  EXPECT_EQ(result.windows_with_checksum, 1U);
}

TEST(SmallVcdiffTest, DeltaGivesTheNewContent) {
  const std::string noise = Noise(5000, 1);
  const struct {
    const char* name;
    std::string source;
    std::string target;
  } kRows[] = {
      {"the same", noise, noise},
      {"one byte each", "a", "b"},
      {"nothing in common", noise, Noise(5000, 2)},
      {"inserted", noise, noise.substr(0, 1000) + "inserted" + noise.substr(1000)},
      {"removed", noise, noise.substr(0, 1000) + noise.substr(1300)},
      {"halves swapped", noise, noise.substr(2500) + noise.substr(0, 2500)},
      {"repeated", noise, noise + noise + noise},
      {"repeats itself", "x", std::string(kMostSmallVcdiffBytes, 'a')},
      {"ends like the source", noise, "x" + noise.substr(4990)},
      {"goes on after the source's end", "abcdefgh", "abcdefghabcdefghabcdefgh"},
      {"as large as can be", Noise(kMostSmallVcdiffBytes, 3),
       Noise(kMostSmallVcdiffBytes, 3).substr(1) + "z"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    ExpectGivesBack(row.source, row.target);
  }
}

// Small alphabets make matches of every length and at every distance.
TEST(SmallVcdiffTest, AnyContentIsGivenBack) {
  std::minstd_rand random(1);
  for (int i = 0; i < 300; ++i) {
    SCOPED_TRACE(i);
    const auto letters = [&](std::size_t size) {
      std::string text(1 + random() % size, '\0');
      const std::size_t kinds = 1 + random() % 20;
      for (char& c : text) {
        c = static_cast<char>(random() % kinds);
      }
      return text;
    };
    const std::string source = letters(3000);
    std::string target = letters(500);
    for (int piece = 0; piece < 5; ++piece) {
      target.insert(random() % target.size(), source.substr(random() % source.size(), 400));
    }
    ExpectGivesBack(source, target);
  }
}

TEST(SmallVcdiffTest, WhatIsCommonIsTakenFromTheSource) {
  const std::string noise = Noise(60000, 1);
  EXPECT_LT(EncodeSmallVcdiff(noise, noise).size(), 40U);
  const std::string moved = noise.substr(30000) + "inserted" + noise.substr(0, 30000);
  EXPECT_LT(EncodeSmallVcdiff(noise, moved).size(), 50U);
}

// A byte each of instruction and of address, which has three from the beginning or the end.
TEST(SmallVcdiffTest, AddressesAreToldFromTheLastOnes) {
  const std::string source = Noise(40000, 6);
  std::string target;
  for (std::size_t i = 0; i < 100; ++i) {
    target += source.substr(17000 + 50 * i, 10);
  }
  EXPECT_LT(EncodeSmallVcdiff(source, target).size(), 250U);
  ExpectGivesBack(source, target);
}

// "add 3", "copy 10 self 17000", "copy 8 near0 50", "copy 8 same1 0": what a delta of one window
// says.
class Listing {
 public:
  explicit Listing(const std::string& delta) : delta_(delta) {
    at_ = 6;
    for (int skipped = 0; skipped < 4; ++skipped) {
      Integer();  // the source's size and where it begins, the window's, the target's
    }
    ++at_;
    const std::size_t data = Integer();
    const std::size_t codes = Integer();
    Integer();
    at_ += 4 + data;
    addresses_ = at_ + codes;
  }

  std::string Text() {
    std::string text;
    for (const std::size_t end = addresses_; at_ < end;) {
      text += (text.empty() ? "" : "; ") + Next();
    }
    EXPECT_EQ(addresses_, delta_.size());
    return text;
  }

 private:
  std::size_t Byte(std::size_t& at) const { return static_cast<unsigned char>(delta_.at(at++)); }
  std::size_t Integer() { return IntegerAt(at_); }
  std::size_t IntegerAt(std::size_t& at) const {
    std::size_t value = 0;
    for (std::size_t byte = 0x80; byte >= 0x80;) {
      byte = Byte(at);
      value = value << 7 | (byte & 0x7f);
    }
    return value;
  }
  std::string Next() {
    const std::size_t code = Byte(at_);
    if (code < 19) {
      return (code == 1 ? "add of any size " + std::to_string(Integer())
                        : "add " + std::to_string(code - 1));
    }
    const std::size_t mode = (code - 19) / 16;
    const std::size_t size = (code - 19) % 16;
    const std::string copy = size == 0 ? "copy of any size " + std::to_string(Integer())
                                       : "copy " + std::to_string(size + 3);
    const std::string from = mode == 0   ? " self "
                             : mode == 1 ? " here "
                             : mode < 6  ? " near" + std::to_string(mode - 2) + ' '
                                         : " same" + std::to_string(mode - 6) + ' ';
    return copy + from + std::to_string(mode < 6 ? IntegerAt(addresses_) : Byte(addresses_));
  }

  const std::string delta_;
  std::size_t at_ = 0;
  std::size_t addresses_ = 0;
};

std::string Listed(const std::string& source, const std::string& target) {
  ExpectGivesBack(source, target);
  return Listing(EncodeSmallVcdiff(source, target)).Text();
}

std::string Put(std::string text, std::size_t at, const std::string& piece) {
  return text.replace(at, piece.size(), piece);
}

TEST(SmallVcdiffTest, AllBytesOfADeltaAreKnown) {
  const char expected[] =
      "\xd6\xc3\xc4\0\0"    // no compressor, no code table
      "\x05\x08\0\x0f"      // a source of 8 bytes from 0 on, a checksum, 15 bytes more
      "\x19\0\x01\x03\x02"  // 25 bytes, nothing compressed; 1 of data, 3 of codes, 2 of addresses
      "\x7f\x27\x09\xc7"    // Adler-32
      "Z\x78\x20\x02\0\x08";
  EXPECT_EQ(EncodeSmallVcdiff("abcdefgh", "abcdefghabcdefghabcdefghZ"),
            std::string(expected, sizeof expected - 1));
}

TEST(SmallVcdiffTest, CopyEndsWithTheSource) {
  EXPECT_EQ(Listed("xyzabcdefgh", "abcdefghabcdefghabcdefgh"), "copy 8 self 3; copy 16 self 11");
}

TEST(SmallVcdiffTest, InstructionsAreTheShortest) {
  const std::string source = Noise(40000, 6);
  const std::string other = Noise(100, 7);
  const auto from = [&source](std::size_t at, std::size_t size) { return source.substr(at, size); };
  EXPECT_EQ(Listed(source, from(0, 10)), "copy 10 same0 0");
  EXPECT_EQ(Listed(source,
                   other.substr(0, 17) + from(17000, 18) + other.substr(20, 18) + from(20000, 19)),
            "add 17; copy 18 self 17000; add of any size 18; copy of any size 19 near0 3000");
  // The first of the near ones that are as short.
  EXPECT_EQ(Listed(source, from(17000, 10) + from(17050, 10) + from(17300, 10)),
            "copy 10 self 17000; copy 10 near0 50; copy 10 near0 300");
  EXPECT_EQ(Listed(source, from(17000, 10) + from(20000, 10) + from(23000, 10) + from(26000, 10) +
                               from(26100, 10) + from(17100, 10) + from(23100, 10)),
            "copy 10 self 17000; copy 10 near0 3000; copy 10 near0 6000; copy 10 near0 9000; "
            "copy 10 near3 100; copy 10 self 17100; copy 10 near2 100");
  const auto same = [&](std::size_t slot) {
    const std::size_t at = 768 * 25 + slot;
    return Listed(source, from(at, 10) + other.substr(0, 5) + from(at, 11));
  };
  EXPECT_EQ(same(0), "copy 10 self 19200; add 5; copy 11 same0 0");
  EXPECT_EQ(same(255), "copy 10 self 19455; add 5; copy 11 same0 255");
  EXPECT_EQ(same(256), "copy 10 self 19456; add 5; copy 11 same1 0");
  EXPECT_EQ(same(511), "copy 10 self 19711; add 5; copy 11 same1 255");
  EXPECT_EQ(same(512), "copy 10 self 19712; add 5; copy 11 same2 0");
  EXPECT_EQ(same(767), "copy 10 self 19967; add 5; copy 11 same2 255");
  EXPECT_EQ(Listed(source, other.substr(0, 30) + other.substr(0, 30)),
            "add of any size 30; copy of any size 30 here 30");
  EXPECT_EQ(Listed(source, other.substr(0, 30) + std::string(30, 'a') + other.substr(30, 30)),
            "add of any size 31; copy of any size 29 here 1; add of any size 30");
}

TEST(SmallVcdiffTest, CopyIsMadeWhereItSavesFourBytes) {
  const std::string source = Noise(40000, 6);
  const std::string other = Noise(100, 7);
  const auto from = [&source](std::size_t at, std::size_t size) { return source.substr(at, size); };
  EXPECT_EQ(Listed(source, from(20000, 7)), "add 7");
  EXPECT_EQ(Listed(source, from(20000, 8)), "copy 8 self 20000");
  const std::string begin = from(20000, 8) + other.substr(0, 5);
  EXPECT_EQ(Listed(source, begin + from(20020, 5)), "copy 8 self 20000; add 10");
  EXPECT_EQ(Listed(source, begin + from(20020, 6)), "copy 8 self 20000; add 5; copy 6 near0 20");
}

TEST(SmallVcdiffTest, OfSeveralMatchesTheOneThatSavesMostIsTaken) {
  const std::string noise = Noise(60000, 6);
  // One byte more that takes a byte for the size saves nothing.
  std::string source = Put(noise, 36000, noise.substr(20000, 18));
  EXPECT_EQ(Listed(source, source.substr(20000, 19)), "copy 18 self 36000; add 1");
  source = Put(noise, 36000, noise.substr(20000, 19));
  EXPECT_EQ(Listed(source, source.substr(20000, 20)), "copy of any size 20 self 20000");
  // The last of those that are as long, and none that is shorter.
  for (const std::size_t size : std::initializer_list<std::size_t>{9, 10}) {
    source = Put(noise, 36000, noise.substr(20020, size) + noise.substr(50000, 10 - size));
    EXPECT_EQ(Listed(source, source.substr(20000, 10) + "other" + source.substr(36000, 10)),
              "copy 10 self 20000; add 5; copy 10 near0 16000")
        << size;
  }
}

TEST(SmallVcdiffTest, MatchIsPutOffForAByteWhereTheNextSavesTwoMore) {
  const std::string noise = Noise(40000, 6);
  std::string source = Put(noise, 30000, noise.substr(20001, 11));
  const auto begun = [&source](std::size_t size) {
    return Listed(source, source.substr(20000, 1) + source.substr(30000, size));
  };
  EXPECT_EQ(begun(12), "copy 12 self 20000; add 1");
  EXPECT_EQ(begun(13), "add 1; copy 13 here 10001");
  source = Put(noise, 30000, noise.substr(20001, 62));
  EXPECT_EQ(begun(90), "add 1; copy of any size 90 here 10001");
  source = Put(noise, 30000, noise.substr(20001, 63));
  EXPECT_EQ(begun(90), "copy of any size 64 self 20000; copy of any size 27 near0 10063")
      << "long enough";
  source = Put(noise, 30000, std::string(10, 'a'));
  EXPECT_EQ(Listed(source, std::string(40, 'a')), "add 1; copy of any size 39 here 1");
}

// Some of them, not any number.
TEST(SmallVcdiffTest, LatestPlacesThatBeginAlikeAreLookedAt) {
  const auto listed = [](unsigned later) {
    const std::string piece = "abcd" + Noise(20, 1);
    std::string source = piece;
    for (unsigned i = 0; i < later; ++i) {
      source += "abcd" + Noise(2, 2 + i);
    }
    return Listed(source, piece);
  };
  EXPECT_EQ(listed(60), "copy of any size 24 same0 0");
  EXPECT_EQ(listed(70), "add 1; copy of any size 23 self 1");
}

TEST(SmallVcdiffTest, DeltasOfManyEditsAreAsShortAsTheyWere) {
  std::size_t total = 0;
  for (unsigned seed = 1; seed <= 50; ++seed) {
    std::minstd_rand random(seed);
    const std::string source = Noise(3000, seed);
    std::string target = Noise(20, seed + 100);
    for (int piece = 0; piece < 60; ++piece) {
      const std::string& of = random() % 4 == 0 ? target : source;
      target += of.substr(random() % of.size(), 1 + random() % 40);
    }
    total += EncodeSmallVcdiff(source, target).size();
  }
  EXPECT_LE(total, 12635U);
}

TEST(SmallVcdiffTest, WrongSourceIsNoticed) {
  const std::string delta = EncodeSmallVcdiff(Noise(3000, 1), Noise(3000, 1).substr(7));
  std::string target;
  EXPECT_THROW(Decode(delta, Noise(3000, 2), target), vcdiff::Error);
}

}  // namespace
}  // namespace tolm::testing

#include "publish/small_vcdiff.h"

#include <gtest/gtest.h>

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

TEST(SmallVcdiffTest, WrongSourceIsNoticed) {
  const std::string delta = EncodeSmallVcdiff(Noise(3000, 1), Noise(3000, 1).substr(7));
  std::string target;
  EXPECT_THROW(Decode(delta, Noise(3000, 2), target), vcdiff::Error);
}

}  // namespace
}  // namespace tolm::testing

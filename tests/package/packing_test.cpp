#include "package/packing.h"

#include <gtest/gtest.h>

namespace tolm::testing {
namespace {

using package::CompressionChoice;

TEST(PackingTest, ChoicesAreReadBackFromTheirTexts) {
  for (const CompressionChoice choice :
       {CompressionChoice::kAuto, CompressionChoice::kXz, CompressionChoice::kZstd}) {
    EXPECT_EQ(package::ParseCompressionChoice(CompressionChoiceText(choice)), choice);
  }
  for (const char* text : {"", "AUTO", "gzip", "xz ", "none"}) {
    EXPECT_FALSE(package::ParseCompressionChoice(text)) << text;
  }
}

TEST(PackingTest, WindowsArePowersOfTwoUpTo32) {
  int sizes = 0;
  for (int size = -64; size <= 128; ++size) {
    sizes += package::IsWindowSize(size) ? 1 : 0;
  }
  EXPECT_EQ(sizes, 6);
  for (const int size : {1, 2, 4, 8, 16, 32}) {
    EXPECT_TRUE(package::IsWindowSize(size)) << size;
  }
  EXPECT_EQ((package::Packing{CompressionChoice::kAuto, 4}).WindowBytes(), 4194304U);
}

TEST(PackingTest, XzHasToSaveThreePerCent) {
  EXPECT_TRUE(package::XzPays(97, 100));
  EXPECT_FALSE(package::XzPays(98, 100));
  EXPECT_TRUE(package::XzPays(9700, 10000));
  EXPECT_FALSE(package::XzPays(9701, 10000));
  EXPECT_FALSE(package::XzPays(100, 100));
  EXPECT_FALSE(package::XzPays(200, 100));
}

TEST(PackingTest, MostBytesOfZstdAreThoseBesideWhichXzDoesNotPay) {
  for (std::uint64_t xz = 1; xz < 500; ++xz) {
    const std::uint64_t most = package::MostZstdBytesBeside(xz);
    EXPECT_FALSE(package::XzPays(xz, most)) << xz;
    EXPECT_TRUE(package::XzPays(xz, most + 1)) << xz;
  }
}

}  // namespace
}  // namespace tolm::testing

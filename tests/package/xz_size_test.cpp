#include "package/xz_size.h"

#include <gtest/gtest.h>
#include <lzma.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tests/package/payload_builder.h"
#include "tests/package/payload_file.h"

namespace tolm::testing {
namespace {

using Filter = PayloadBuilder::Filter;

std::string Payload(Filter filter) {
  return PayloadBuilder(filter).Seal().File("a", std::string(300000, 'a')).Finish();
}

std::optional<std::uint64_t> SizeOf(const std::string& payload) {
  const PayloadFile file(payload);
  return package::XzUnpackedBytes(file.fd(), file.size());
}

TEST(XzSizeTest, IsThatOfTheArchive) {
  EXPECT_EQ(SizeOf(Payload(Filter::kXz)), Payload(Filter::kNone).size());
}

TEST(XzSizeTest, IsNotKnownOfOtherPayloads) {
  for (const Filter filter : {Filter::kNone, Filter::kGzip, Filter::kZstd}) {
    EXPECT_EQ(SizeOf(Payload(filter)), std::nullopt);
  }
  EXPECT_EQ(SizeOf(""), std::nullopt);
}

TEST(XzSizeTest, IsNotKnownOfDamagedOnes) {
  const std::string payload = Payload(Filter::kXz);
  for (std::size_t size = 0; size < payload.size(); ++size) {
    EXPECT_EQ(SizeOf(payload.substr(0, size)), std::nullopt) << size;
  }
  constexpr std::size_t kFooterBytes = 12;
  for (std::size_t at = payload.size() - kFooterBytes - 8; at < payload.size(); ++at) {
    std::string damaged = payload;
    damaged[at] = static_cast<char>(damaged[at] ^ 1);
    EXPECT_EQ(SizeOf(damaged), std::nullopt) << at;
  }
}

std::string CompressedWithXz(const std::string& bytes, lzma_check check) {
  std::string compressed(lzma_stream_buffer_bound(bytes.size()), '\0');
  std::size_t size = 0;
  EXPECT_EQ(
      lzma_easy_buffer_encode(
          0, check, nullptr, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(),
          reinterpret_cast<std::uint8_t*>(compressed.data()), &size, compressed.size()),
      LZMA_OK);
  compressed.resize(size);
  return compressed;
}

TEST(XzSizeTest, OfNothingIsNothing) {
  EXPECT_EQ(SizeOf(CompressedWithXz("", LZMA_CHECK_CRC32)), 0U);
}

TEST(XzSizeTest, IsNotKnownWhereBothEndsDoNotFit) {
  const std::string one = CompressedWithXz("content", LZMA_CHECK_CRC32);
  const std::string other = CompressedWithXz("content", LZMA_CHECK_CRC64);
  EXPECT_EQ(SizeOf(one), 7U);
  EXPECT_EQ(SizeOf(other.substr(0, LZMA_STREAM_HEADER_SIZE) + one.substr(LZMA_STREAM_HEADER_SIZE)),
            std::nullopt);
}

// The last one's index says nothing of those before.
TEST(XzSizeTest, IsNotKnownOfTwoStreams) {
  const std::string payload = Payload(Filter::kXz);
  EXPECT_EQ(SizeOf(payload + payload), std::nullopt);
}

}  // namespace
}  // namespace tolm::testing

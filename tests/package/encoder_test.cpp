#include "package/encoder.h"

#include <gtest/gtest.h>
#include <lzma.h>
#include <sys/resource.h>

#include <stdexcept>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/noise.h"
#include "tests/support/sanitized.h"

namespace tolm::testing {
namespace {

using package::Compression;
using package::EncoderSettings;

constexpr std::uint64_t kMebibyte = 1 << 20;

std::string Encode(Compression compression, const EncoderSettings& settings,
                   const std::string& text) {
  std::string packed;
  const auto encoder = NewEncoder(
      compression, settings, [&packed](const char* data, auto size) { packed.append(data, size); });
  encoder->Write(text.data(), text.size());
  encoder->Finish();
  return packed;
}

EncoderSettings SettingsFor(std::uint64_t stream_bytes, std::uint64_t most = 32 * kMebibyte) {
  return {package::EffortFor(0), stream_bytes, most};
}

// Of a stream with one filter, where the format has it.
std::uint64_t DictionaryBytes(const std::string& packed) {
  const auto code = static_cast<unsigned char>(packed.at(16));
  return std::uint64_t{2U | (code & 1U)} << (code / 2 + 11);
}

std::uint64_t WindowBytes(const std::string& packed) {
  return std::uint64_t{1} << (10 + (static_cast<unsigned char>(packed.at(5)) >> 3));
}

TEST(EncoderTest, ADecoderNeedsNoMoreMemoryThanTheStream) {
  struct Row {
    std::uint64_t stream;
    std::uint64_t most;
    std::uint64_t dictionary;
    std::uint64_t window;
  };
  for (const Row& row :
       {Row{1, 32, 4096, 1024}, Row{3000, 32, 4096, 4096}, Row{5000, 32, 6144, 8192},
        Row{3 * kMebibyte, 32, 3 * kMebibyte, 4 * kMebibyte},
        Row{3 * kMebibyte + 1, 32, 4 * kMebibyte, 4 * kMebibyte},
        Row{3 * kMebibyte, 2, 2 * kMebibyte, 2 * kMebibyte},
        Row{100 * kMebibyte, 1, 1 * kMebibyte, 1 * kMebibyte}}) {
    const EncoderSettings settings = SettingsFor(row.stream, row.most * kMebibyte);
    EXPECT_EQ(DictionaryBytes(Encode(Compression::kXz, settings, "x")), row.dictionary)
        << row.stream;
    EXPECT_EQ(WindowBytes(Encode(Compression::kZstd, settings, "x")), row.window) << row.stream;
  }
}

long MostResidentKibibytes() {
  rusage usage = {};
  EXPECT_EQ(getrusage(RUSAGE_SELF, &usage), 0);
  return usage.ru_maxrss;
}

// Most packages are small, and many may be made at once.
TEST(EncoderTest, PackingAShortStreamTakesLittleMemory) {
  if (kSanitized) {
    GTEST_SKIP() << "the system's count of memory includes the sanitizer's own, which is larger "
                    "than what is looked for";
  }
  for (const Compression compression : {Compression::kXz, Compression::kZstd}) {
    // A process's own account begins with what it has at its start.
    ForkedChild child([compression](EventChannel&) {
      const std::string text = Noise(3000);
      const long before = MostResidentKibibytes();
      Encode(compression, SettingsFor(text.size()), text);
      return MostResidentKibibytes() - before < 8 * 1024 ? 0 : 1;
    });
    EXPECT_EQ(child.Process().Wait(), 0) << CompressionText(compression);
  }
}

TEST(EncoderTest, XzIsUnpackedWithinItsDictionary) {
  constexpr std::uint64_t kMoreThanTheDictionary = 100 * 1024;
  const std::string text(200000, 'x');
  const std::string packed = Encode(Compression::kXz, SettingsFor(text.size()), text);
  std::uint64_t most = 192 * 1024 + kMoreThanTheDictionary + text.size();
  std::string unpacked(text.size(), '\0');
  std::size_t read = 0;
  std::size_t written = 0;
  EXPECT_EQ(lzma_stream_buffer_decode(
                &most, 0, nullptr, reinterpret_cast<const std::uint8_t*>(packed.data()), &read,
                packed.size(), reinterpret_cast<std::uint8_t*>(unpacked.data()), &written,
                unpacked.size()),
            LZMA_OK);
  EXPECT_EQ(unpacked, text);
}

TEST(EncoderTest, WhatIsFarBackIsFoundWithinTheWindowOnly) {
  const std::string noise = Noise(65536);
  const std::string twice = noise + std::string(kMebibyte, 'x') + noise;
  for (const Compression compression : {Compression::kXz, Compression::kZstd}) {
    EncoderSettings settings = SettingsFor(twice.size());
    EXPECT_LT(Encode(compression, settings, twice).size(), noise.size() * 11 / 10);
    settings.most_window_bytes = kMebibyte;
    EXPECT_GT(Encode(compression, settings, twice).size(), noise.size() * 19 / 10);
  }
}

TEST(EncoderTest, WhatComesByteByByteIsPackedTheSame) {
  const std::string text = Noise(5000) + std::string(5000, 'x');
  for (const Compression compression : {Compression::kXz, Compression::kZstd}) {
    std::string packed;
    const auto encoder =
        NewEncoder(compression, SettingsFor(text.size()),
                   [&packed](const char* data, auto size) { packed.append(data, size); });
    for (const char byte : text) {
      encoder->Write(&byte, 1);
    }
    encoder->Finish();
    EXPECT_TRUE(packed == Encode(compression, SettingsFor(text.size()), text))
        << CompressionText(compression);
  }
}

// What cannot be packed takes a fixed number of bytes more.
TEST(EncoderTest, NothingIsLostWhereThePackedFillsTheBuffer) {
  constexpr std::size_t kBufferBytes = 128 * 1024;
  constexpr std::size_t kRange = 16;
  const std::string noise = Noise(kBufferBytes);
  const EncoderSettings settings{package::EffortFor(~std::uint64_t{0}), noise.size(), kMebibyte};
  const auto added = [&](std::size_t size) {
    return Encode(Compression::kZstd, settings, noise.substr(0, size)).size() - size;
  };
  const std::size_t usual = added(kBufferBytes - kRange);
  EXPECT_LT(usual, kRange) << "the last one takes more than a buffer";
  for (std::size_t size = kBufferBytes - kRange; size < kBufferBytes; ++size) {
    EXPECT_EQ(added(size), usual) << size;
  }
}

TEST(EncoderTest, WhatTheSinkThrowsEndsIt) {
  const std::string noise = Noise(300000);
  for (const Compression compression : {Compression::kXz, Compression::kZstd}) {
    const auto encoder =
        NewEncoder(compression, SettingsFor(noise.size()),
                   [](const char*, std::size_t) { throw std::runtime_error("full"); });
    EXPECT_THROW(
        {
          encoder->Write(noise.data(), noise.size());
          encoder->Finish();
        },
        std::runtime_error);
  }
}

TEST(EncoderTest, EffortIsTheStrongestUpTo256Mebibytes) {
  const package::Effort best = package::EffortFor(0);
  EXPECT_EQ(package::EffortFor(256 * kMebibyte).zstd_level, best.zstd_level);
  EXPECT_EQ(package::EffortFor(256 * kMebibyte).xz_preset, best.xz_preset);
  EXPECT_LT(package::EffortFor(256 * kMebibyte + 1).zstd_level, best.zstd_level);
  EXPECT_LT(package::EffortFor(256 * kMebibyte + 1).xz_preset, best.xz_preset);
}

TEST(EncoderTest, QuickerEffortOfZstdLooksBackLess) {
  const std::string large(kMebibyte, 'x');
  package::EncoderSettings settings{package::EffortFor(0), 1024 * kMebibyte, 32 * kMebibyte};
  EXPECT_EQ(WindowBytes(Encode(Compression::kZstd, settings, large)), 32 * kMebibyte);
  settings.effort = package::EffortFor(1024 * kMebibyte);
  EXPECT_EQ(WindowBytes(Encode(Compression::kZstd, settings, large)), 8 * kMebibyte);
  settings.most_window_bytes = 4 * kMebibyte;
  EXPECT_EQ(WindowBytes(Encode(Compression::kZstd, settings, large)), 4 * kMebibyte);
}

}  // namespace
}  // namespace tolm::testing

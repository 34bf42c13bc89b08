#include "vcdiff/lzma_section.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lzma.h>

#include <stdexcept>
#include <vector>

#include "tests/vcdiff/decoding.h"
#include "tests/vcdiff/delta_builder.h"

namespace tolm::vcdiff {
namespace {

using ::testing::HasSubstr;

// The encoder's side: one stream, flushed after each section.
class Compressor {
 public:
  explicit Compressor(std::uint32_t preset = 0) {
    lzma_options_lzma options;
    lzma_lzma_preset(&options, preset);
    const lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
    if (lzma_stream_encoder(&stream_, filters, LZMA_CHECK_NONE) != LZMA_OK) {
      throw std::runtime_error("no encoder");
    }
  }
  ~Compressor() { lzma_end(&stream_); }

  std::string Section(const std::string& bytes, lzma_action action = LZMA_SYNC_FLUSH) {
    std::string out(bytes.size() * 2 + 1000, '\0');
    stream_.next_in = Raw(bytes);
    stream_.avail_in = bytes.size();
    stream_.next_out = reinterpret_cast<std::uint8_t*>(out.data());
    stream_.avail_out = out.size();
    while (lzma_code(&stream_, action) != LZMA_STREAM_END) {
    }
    out.resize(out.size() - stream_.avail_out);
    return out;
  }

 private:
  lzma_stream stream_ = LZMA_STREAM_INIT;
};

class LzmaSectionTest : public ::testing::Test {
 protected:
  std::string Decompress(const std::string& compressed, std::size_t size) {
    const std::uint8_t* bytes =
        section_.Decompress(Raw(compressed), compressed.size(), size, {{&name_, 9, false}, 0, "f"});
    return {bytes, bytes + size};
  }
  std::string Refusal(const std::string& compressed, std::size_t size) {
    try {
      Decompress(compressed, size);
    } catch (const Error& error) {
      EXPECT_TRUE(error.Kind() == ErrorKind::kBadInput);
      return error.what();
    }
    return "accepted";
  }

  std::string name_ = "d";
  LzmaSection section_{80U << 20};
};

TEST_F(LzmaSectionTest, SectionsContinueOneStream) {
  Compressor compressor;
  std::string text = "a text of many words, of many words";
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Decompress(compressor.Section(text), text.size()), text);
    text += text.substr(static_cast<std::size_t>(i), 20) + std::to_string(i);
  }
}

TEST_F(LzmaSectionTest, EmptySectionIsEmpty) {
  EXPECT_EQ(Decompress("", 0), "");
  Compressor compressor;
  EXPECT_EQ(Decompress(compressor.Section("abc"), 3), "abc");
  EXPECT_EQ(Decompress("", 0), "");
  EXPECT_EQ(Decompress(compressor.Section("def"), 3), "def");
}

TEST_F(LzmaSectionTest, StreamMayEnd) {
  Compressor compressor;
  EXPECT_EQ(Decompress(compressor.Section("abc", LZMA_FINISH), 3), "abc");
  EXPECT_THAT(Refusal("more", 1), HasSubstr("d: offset 9: f: "));
}

TEST_F(LzmaSectionTest, SizeMustBeTheOneAnnounced) {
  const std::string compressed = Compressor().Section("abcdef");
  EXPECT_EQ(Refusal(compressed, 7), "d: offset 9: f: value 6, expected 7");
}

TEST_F(LzmaSectionTest, StreamMustNotYieldMore) {
  const std::string compressed = Compressor().Section("abcdef");
  EXPECT_EQ(Refusal(compressed, 5), "d: offset 9: f: value 6, expected 5");
}

TEST_F(LzmaSectionTest, WhatIsNoStreamIsRefused) {
  EXPECT_THAT(Refusal("this is not a stream", 5), HasSubstr("not a valid stream"));
}

TEST_F(LzmaSectionTest, DamageIsRefused) {
  std::string compressed = Compressor().Section(std::string(500, 'x'));
  compressed[compressed.size() / 2] ^= '\x55';
  EXPECT_NE(Refusal(compressed, 500), "accepted");
}

TEST_F(LzmaSectionTest, MemoryIsLimited) {
  const std::string compressed = Compressor(6).Section("abc");  // with a dictionary of 8 MiB
  LzmaSection small(1U << 20);
  try {
    small.Decompress(Raw(compressed), compressed.size(), 3, {{&name_, 9, false}, 0, "f"});
    ADD_FAILURE() << "accepted";
  } catch (const Error& error) {
    EXPECT_THAT(error.what(), HasSubstr("d: offset 9: Memory for LZMA: value "));
    EXPECT_THAT(error.what(), HasSubstr("limit 1048576"));
  }
}

}  // namespace
}  // namespace tolm::vcdiff

// The fuzz target on its corpus, without a fuzz engine.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/support/files.h"
#include "tests/vcdiff/decoding.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace tolm::vcdiff {
namespace {

TEST(FuzzDecoderTest, CorpusPasses) {
  std::size_t files = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(TOLM_TEST_SOURCE_DIR "/tests/data/vcdiff/corpus")) {
    const std::string bytes = testing::ReadFile(entry.path());
    // Also cut short and with every byte inverted in turn: a small fuzzer for every run.
    for (std::size_t size = 0; size <= bytes.size(); size += 1 + bytes.size() / 64) {
      EXPECT_EQ(LLVMFuzzerTestOneInput(Raw(bytes), size), 0) << entry.path();
    }
    std::string spoiled = bytes;
    for (std::size_t at = 0; at < bytes.size(); at += 1 + bytes.size() / 256) {
      spoiled[at] = static_cast<char>(~spoiled[at]);
      EXPECT_EQ(LLVMFuzzerTestOneInput(Raw(spoiled), spoiled.size()), 0) << entry.path();
      spoiled[at] = bytes[at];
    }
    ++files;
  }
  EXPECT_GE(files, 10U);
}

}  // namespace
}  // namespace tolm::vcdiff

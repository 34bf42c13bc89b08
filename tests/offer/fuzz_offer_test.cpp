// The fuzz target on its corpus, without a fuzz engine.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/support/files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace tolm::testing {
namespace {

const std::uint8_t* Raw(const std::string& bytes) {
  return reinterpret_cast<const std::uint8_t*>(bytes.data());
}

TEST(FuzzOfferTest, CorpusPasses) {
  std::size_t files = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(TOLM_TEST_SOURCE_DIR "/tests/data/offer/corpus")) {
    std::string bytes = ReadFile(entry.path());
    EXPECT_EQ(LLVMFuzzerTestOneInput(Raw(bytes), bytes.size()), 0) << entry.path();
    // Also cut short and with some bytes inverted in turn.
    for (std::size_t size = 0; size < bytes.size(); size += 1 + bytes.size() / 8) {
      EXPECT_EQ(LLVMFuzzerTestOneInput(Raw(bytes), size), 0) << entry.path();
    }
    for (std::size_t at = 1; at < bytes.size(); at += 1 + bytes.size() / 16) {
      bytes[at] = static_cast<char>(~bytes[at]);
      EXPECT_EQ(LLVMFuzzerTestOneInput(Raw(bytes), bytes.size()), 0) << entry.path();
      bytes[at] = static_cast<char>(~bytes[at]);
    }
    ++files;
  }
  EXPECT_GE(files, 20U);
}

}  // namespace
}  // namespace tolm::testing

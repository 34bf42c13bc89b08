// A fuzz target on its corpus, without a fuzz engine: compiled once for each target.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/support/files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace tolm::testing {
namespace {

void Try(const std::string& bytes, std::size_t size, const std::filesystem::path& file) {
  EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), size), 0)
      << file;
}

TEST(TOLM_FUZZ_SUITE, CorpusPasses) {
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(TOLM_FUZZ_CORPUS)) {
    std::string bytes = ReadFile(entry.path());
    Try(bytes, bytes.size(), entry.path());
    // Also cut short and with some bytes inverted in turn: a small fuzzer for every run.
    for (std::size_t size = 0; size < bytes.size(); size += 1 + bytes.size() / TOLM_FUZZ_CUTS) {
      Try(bytes, size, entry.path());
    }
    for (std::size_t at = 1; at < bytes.size(); at += 1 + bytes.size() / (2 * TOLM_FUZZ_CUTS)) {
      bytes[at] = static_cast<char>(~bytes[at]);
      Try(bytes, bytes.size(), entry.path());
      bytes[at] = static_cast<char>(~bytes[at]);
    }
    ++files;
  }
  EXPECT_GE(files, 10U);
}

}  // namespace
}  // namespace tolm::testing

#include "package/compression.h"

#include <gtest/gtest.h>

#include <string>

namespace tolm::testing {
namespace {

using package::Compression;
using package::CompressionOf;

TEST(CompressionTest, IsToldByTheFirstBytes) {
  using namespace std::string_view_literals;
  struct Row {
    std::string_view first_bytes;
    const char* compression;
  };
  for (const Row& row :
       {Row{"\xfd"
            "7zXZ\0"sv,
            "xz"},
        Row{"\x28\xb5\x2f\xfd\x04\x88"sv, "zstd"}, Row{"\x1f\x8b\x08\0\0\0"sv, "gzip"},
        Row{"./PaxH"sv, "none"}, Row{""sv, "none"},
        Row{"\xfd"
            "7zXZ"sv,
            "none"},
        Row{"\x28\xb5\x2f"sv, "none"}, Row{"\x1f"sv, "none"}, Row{"BZh91A"sv, "none"}}) {
    EXPECT_STREQ(CompressionText(CompressionOf(row.first_bytes)), row.compression);
  }
}

}  // namespace
}  // namespace tolm::testing

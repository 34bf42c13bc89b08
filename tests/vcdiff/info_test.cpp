#include "vcdiff/info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/vcdiff/decoding.h"
#include "tests/vcdiff/delta_builder.h"

namespace tolm::vcdiff {
namespace {

using ::testing::HasSubstr;

Info InfoOf(const std::string& delta) {
  MemoryInput input("delta", Raw(delta), delta.size());
  return Inspect(input, Limits());
}

TEST(InfoTest, CountsInstructionsByTheirKind) {
  WindowParts window;
  window.indicator = 1;
  window.segment_size = 10;
  window.target_size = 16;
  window.data = "abz";
  // ADD 2, RUN 3, COPY 4 of the segment, COPY 7 of the window.
  window.instructions = CodeOfAdd() + Integer(2) + CodeOfRun() + Integer(3) + CodeOfCopy(0) +
                        Integer(4) + CodeOfCopy(0) + Integer(7);
  window.addresses = Integer(9) + Integer(10);
  const Info info = InfoOf(Delta({}, {window, window}).Encoded());
  EXPECT_EQ(info.window_count, 2U);
  EXPECT_EQ(info.total.window.target_size, 32U);
  EXPECT_EQ(info.total.adds.count, 2U);
  EXPECT_EQ(info.total.adds.bytes, 4U);
  EXPECT_EQ(info.total.runs.bytes, 6U);
  EXPECT_EQ(info.total.segment_copies.bytes, 8U) << "a copy counts where it begins";
  EXPECT_EQ(info.total.target_copies.bytes, 14U);
  ASSERT_EQ(info.windows.size(), 2U);
  EXPECT_EQ(info.windows[1].window.target_position, 16U);
}

TEST(InfoTest, NeedsNoSource) {
  const Info info = InfoOf(
      testing::ReadFile(TOLM_TEST_SOURCE_DIR "/tests/data/vcdiff/interleaved-checksum.vcdiff"));
  EXPECT_EQ(info.header.version, Version::kInterleaving);
  ASSERT_EQ(info.windows.size(), 1U);
  EXPECT_TRUE(info.windows[0].window.is_interleaved);
  EXPECT_EQ(info.total.window.target_size, 31902U);
  EXPECT_EQ(info.total.adds.bytes + info.total.segment_copies.bytes, 31902U);
  EXPECT_THAT(ToText(info), HasSubstr("checksum 0xf38c82c6, interleaved"));
  EXPECT_THAT(ToJson(info), HasSubstr(R"("version":"S")"));
}

TEST(InfoTest, ManyWindowsAreCountedNotListed) {
  WindowParts window;
  window.target_size = 1;
  window.data = "x";
  window.instructions = CodeOfAdd() + Integer(1);
  const std::string one = WindowFields(window).Encoded();
  std::string delta = Header().Encoded();
  for (std::size_t i = 0; i < Info::kMaxListed + 10; ++i) {
    delta += one;
  }
  const Info info = InfoOf(delta);
  EXPECT_EQ(info.windows.size(), Info::kMaxListed);
  EXPECT_EQ(info.window_count, Info::kMaxListed + 10);
  EXPECT_EQ(info.total.adds.count, Info::kMaxListed + 10);
}

}  // namespace
}  // namespace tolm::vcdiff

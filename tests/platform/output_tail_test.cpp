#include "platform/output_tail.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tolm::testing {
namespace {

using platform::OutputTail;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> LinesOf(const std::string& text, std::size_t piece) {
  OutputTail tail;
  for (std::size_t i = 0; i < text.size(); i += piece)
    tail.Append(text.data() + i, std::min(piece, text.size() - i));
  return tail.Lines();
}

TEST(OutputTailTest, NothingHasNoLines) {
  EXPECT_THAT(OutputTail().Lines(), IsEmpty());
}

TEST(OutputTailTest, LinesComeOutOldestFirst) {
  EXPECT_THAT(LinesOf("a\nbb\n", 100), ElementsAre("a", "bb"));
  EXPECT_THAT(LinesOf("a\nbb", 100), ElementsAre("a", "bb"));
}

TEST(OutputTailTest, EmptyLinesAreLeftOut) {
  EXPECT_THAT(LinesOf("\n\na\n\n\r\nb\n\n", 100), ElementsAre("a", "b"));
}

TEST(OutputTailTest, CarriageReturnsEndLinesToo) {
  EXPECT_THAT(LinesOf("10%\r20%\r\ndone\n", 100), ElementsAre("10%", "20%", "done"));
}

TEST(OutputTailTest, ControlCharactersAreShownAsQuestionMarks) {
  EXPECT_THAT(LinesOf(std::string("a\0b\x1b[31mc\x7f\t\xc3\xa9\n", 14), 100),
              ElementsAre("a?b?[31mc??\xc3\xa9"));
}

TEST(OutputTailTest, TheLastTwentyLinesAreKept) {
  std::string text;
  std::vector<std::string> expected;
  for (int i = 1; i <= 21; ++i) {
    text += std::to_string(i) + "\n";
    if (i > 1)
      expected.push_back(std::to_string(i));
  }
  EXPECT_EQ(LinesOf(text, 100), expected);
}

TEST(OutputTailTest, ALineOfExactlyTheCapacityIsWhole) {
  const std::string line(OutputTail::kMaxBytes - 1, 'x');
  EXPECT_THAT(LinesOf(line + "\n", 100), ElementsAre(line));
}

TEST(OutputTailTest, ALineWithoutItsBeginningIsLeftOut) {
  const std::string line(OutputTail::kMaxBytes - 2, 'x');
  EXPECT_THAT(LinesOf(line + "\nb\n", 100), ElementsAre("b"));
}

TEST(OutputTailTest, ALongerLineAloneKeepsItsEnd) {
  const std::string text = "begin" + std::string(OutputTail::kMaxBytes - 3, 'x') + "end";
  EXPECT_THAT(LinesOf(text, 100), ElementsAre(text.substr(text.size() - OutputTail::kMaxBytes)));
}

TEST(OutputTailTest, PiecesOfAnySizeGiveTheSame) {
  std::string text;
  for (int i = 0; i < 3000; ++i)
    text += "line " + std::to_string(i) + "\n";
  const std::vector<std::string> whole = LinesOf(text, text.size());
  ASSERT_EQ(whole.size(), OutputTail::kMaxLines);
  for (const std::size_t piece : {1U, 7U, 4095U, 4096U, 4097U, 16384U})
    EXPECT_EQ(LinesOf(text, piece), whole) << piece;
}

}  // namespace
}  // namespace tolm::testing

#include "base/json_scan.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace tolm::base {
namespace {

JsonMeasure Measure(const std::string& text) {
  JsonScan scan;
  scan.Add(text);
  return scan.measure();
}

std::uint64_t Values(const std::string& text) {
  return Measure(text).values;
}

std::uint64_t Depth(const std::string& text) {
  return Measure(text).depth;
}

TEST(JsonScanTest, NothingHasNothing) {
  const JsonMeasure measure = Measure("");
  EXPECT_EQ(measure.bytes, 0u);
  EXPECT_EQ(measure.depth, 0u);
  EXPECT_EQ(measure.values, 0u);
  EXPECT_EQ(Values(" \t\r\n"), 0u);
}

TEST(JsonScanTest, EveryByteCounts) {
  EXPECT_EQ(Measure("[0, \"\xc3\xa4\"]").bytes, 9u);
}

TEST(JsonScanTest, DepthIsWhatIsOpenAtOnce) {
  EXPECT_EQ(Depth("1"), 0u);
  EXPECT_EQ(Depth("[]"), 1u);
  EXPECT_EQ(Depth("[[], {}, [{}]]"), 3u);
  EXPECT_EQ(Depth(std::string(100000, '[')), 100000u);
  EXPECT_EQ(Depth(R"({"a": {"b": [1]}})"), 3u);
}

TEST(JsonScanTest, ClosingWhatIsNotOpenHidesNoDepth) {
  EXPECT_EQ(Depth("]]]]}}[["), 2u);
}

TEST(JsonScanTest, ValuesAreCountedAndNamesAreNot) {
  EXPECT_EQ(Values("true"), 1u);
  EXPECT_EQ(Values("[0,0,0]"), 4u);
  EXPECT_EQ(Values("[-1.5e+3 , null,\"x\",{}]"), 5u);
  EXPECT_EQ(Values(R"({"a": 1, "b" : "c", "d"
    :[]})"),
            4u);
  EXPECT_EQ(Values(R"({"a"/* of */:1})"), 3u) << "the comment is one";
}

TEST(JsonScanTest, WhatStandsInStringsIsNoStructure) {
  EXPECT_EQ(Depth(R"("[[[{{{")"), 0u);
  EXPECT_EQ(Values(R"(["a,b,[c]", "\"[,", "\\"])"), 4u);
  EXPECT_EQ(Depth(R"(["\\", [["]"]]])"), 3u);
}

TEST(JsonScanTest, WhatStandsInCommentsIsNoStructureButTheCommentCounts) {
  EXPECT_EQ(Depth("// [[[\n[]"), 1u);
  EXPECT_EQ(Depth("// [[[\r[[]]"), 2u);
  EXPECT_EQ(Depth("/* [[ * / [ **/[]"), 1u);
  EXPECT_EQ(Depth("/*/ [[ */[]"), 1u);
  EXPECT_EQ(Values("[/**/0,/**/0]"), 5u);
  EXPECT_EQ(Values("1//x"), 2u);
}

TEST(JsonScanTest, NoColonTakesMoreThanTheNameBeforeIt) {
  EXPECT_EQ(Values(R"("a"::::)"), 0u);
  EXPECT_EQ(Values("[0:0:0:0]"), 5u);
  EXPECT_EQ(Values(R"(["a",:])"), 2u);
}

TEST(JsonScanTest, PiecesMayEndAnywhere) {
  const std::string text = R"({"a\"": [1, -2.5, "x\\", {"b": true}], /* ** */ "c": null} // end)";
  const JsonMeasure whole = Measure(text);
  for (std::size_t at = 0; at <= text.size(); ++at) {
    JsonScan scan;
    scan.Add(text.substr(0, at));
    scan.Add(text.substr(at));
    EXPECT_EQ(scan.measure().bytes, whole.bytes) << at;
    EXPECT_EQ(scan.measure().depth, whole.depth) << at;
    EXPECT_EQ(scan.measure().values, whole.values) << at;
  }
}

}  // namespace
}  // namespace tolm::base

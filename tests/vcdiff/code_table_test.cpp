#include "vcdiff/code_table.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/vcdiff/decoding.h"

namespace tolm::vcdiff {
namespace {

std::string Text(const Instruction& instruction) {
  static const char* const kNames[] = {"NOOP", "ADD", "RUN", "COPY"};
  std::string text = kNames[static_cast<std::size_t>(instruction.type)];
  if (instruction.type == InstructionType::kNoop) {
    return text;
  }
  text += " " + std::to_string(instruction.size);
  return instruction.type == InstructionType::kCopy
             ? text + " mode " + std::to_string(instruction.mode)
             : text;
}

struct Row {
  unsigned int code;
  const char* first;
  const char* second;
};

// The first and the last code of each line of the format's own table, and one in between.
TEST(CodeTableTest, DefaultIsTheTableOfTheFormat) {
  const Row rows[] = {
      {0, "RUN 0", "NOOP"},
      {1, "ADD 0", "NOOP"},
      {2, "ADD 1", "NOOP"},
      {18, "ADD 17", "NOOP"},
      {19, "COPY 0 mode 0", "NOOP"},
      {20, "COPY 4 mode 0", "NOOP"},
      {34, "COPY 18 mode 0", "NOOP"},
      {35, "COPY 0 mode 1", "NOOP"},
      {50, "COPY 18 mode 1", "NOOP"},
      {51, "COPY 0 mode 2", "NOOP"},
      {66, "COPY 18 mode 2", "NOOP"},
      {67, "COPY 0 mode 3", "NOOP"},
      {83, "COPY 0 mode 4", "NOOP"},
      {99, "COPY 0 mode 5", "NOOP"},
      {115, "COPY 0 mode 6", "NOOP"},
      {131, "COPY 0 mode 7", "NOOP"},
      {147, "COPY 0 mode 8", "NOOP"},
      {162, "COPY 18 mode 8", "NOOP"},
      {163, "ADD 1", "COPY 4 mode 0"},
      {164, "ADD 1", "COPY 5 mode 0"},
      {165, "ADD 1", "COPY 6 mode 0"},
      {166, "ADD 2", "COPY 4 mode 0"},
      {174, "ADD 4", "COPY 6 mode 0"},
      {175, "ADD 1", "COPY 4 mode 1"},
      {186, "ADD 4", "COPY 6 mode 1"},
      {187, "ADD 1", "COPY 4 mode 2"},
      {199, "ADD 1", "COPY 4 mode 3"},
      {211, "ADD 1", "COPY 4 mode 4"},
      {223, "ADD 1", "COPY 4 mode 5"},
      {234, "ADD 4", "COPY 6 mode 5"},
      {235, "ADD 1", "COPY 4 mode 6"},
      {238, "ADD 4", "COPY 4 mode 6"},
      {239, "ADD 1", "COPY 4 mode 7"},
      {242, "ADD 4", "COPY 4 mode 7"},
      {243, "ADD 1", "COPY 4 mode 8"},
      {246, "ADD 4", "COPY 4 mode 8"},
      {247, "COPY 4 mode 0", "ADD 1"},
      {255, "COPY 4 mode 8", "ADD 1"},
  };
  for (const Row& row : rows) {
    const InstructionPair& pair = CodeTable::Default()[static_cast<std::uint8_t>(row.code)];
    EXPECT_EQ(Text(pair.first), row.first) << row.code;
    EXPECT_EQ(Text(pair.second), row.second) << row.code;
  }
}

TEST(CodeTableTest, SerializedFormIsReadBack) {
  const std::vector<std::uint8_t> bytes = CodeTable::SerializedDefault();
  ASSERT_EQ(bytes.size(), 1536U);
  const std::string name = "name";
  const CodeTable table = CodeTable::Parse(bytes.data(), 4, 3, {&name, 0, true});
  for (unsigned int code = 0; code < 256; ++code) {
    const InstructionPair& pair = table[static_cast<std::uint8_t>(code)];
    const InstructionPair& known = CodeTable::Default()[static_cast<std::uint8_t>(code)];
    EXPECT_EQ(Text(pair.first), Text(known.first)) << code;
    EXPECT_EQ(Text(pair.second), Text(known.second)) << code;
  }
}

std::string RefusalOf(std::size_t index, std::uint8_t value, unsigned int near, unsigned int same) {
  std::vector<std::uint8_t> bytes = CodeTable::SerializedDefault();
  bytes[index] = value;
  const std::string name = "d";
  try {
    CodeTable::Parse(bytes.data(), near, same, {&name, 30, true});
  } catch (const Error& error) {
    return error.what();
  }
  return "accepted";
}

TEST(CodeTableTest, InstructionTypesAndModesMustExist) {
  EXPECT_EQ(RefusalOf(5, 4, 4, 3),
            "d: offset 30, decompressed byte 5: Code table, first instruction: value 4, limit 3");
  EXPECT_EQ(
      RefusalOf(256 + 6, 255, 4, 3),
      "d: offset 30, decompressed byte 6: Code table, second instruction: value 255, limit 3");
  // Code 20 is a copy.
  EXPECT_EQ(RefusalOf(4 * 256 + 20, 9, 4, 3),
            "d: offset 30, decompressed byte 20: Code table, first instruction: value 9, limit 8");
  EXPECT_EQ(RefusalOf(4 * 256 + 20, 8, 4, 3), "accepted");
  // Code 163 has a copy second, code 2 an addition, whose mode does not matter.
  EXPECT_EQ(
      RefusalOf(5 * 256 + 163, 9, 4, 3),
      "d: offset 30, decompressed byte 163: Code table, second instruction: value 9, limit 8");
  EXPECT_EQ(RefusalOf(4 * 256 + 2, 200, 4, 3), "accepted");
}

}  // namespace
}  // namespace tolm::vcdiff

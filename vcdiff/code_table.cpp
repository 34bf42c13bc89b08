#include "vcdiff/code_table.h"

namespace tolm::vcdiff {

namespace {

constexpr auto kAdd = InstructionType::kAdd;
constexpr auto kCopy = InstructionType::kCopy;
constexpr auto kRun = InstructionType::kRun;

std::uint8_t Small(unsigned int value) {
  return static_cast<std::uint8_t>(value);
}

void Check(const Instruction& instruction, unsigned int modes, const Place& place) {
  if (instruction.type > kCopy) {
    ThrowAbove(place, static_cast<std::uint8_t>(instruction.type),
               static_cast<std::uint8_t>(kCopy));
  }
  if (instruction.type == kCopy && instruction.mode >= modes) {
    ThrowAbove(place, instruction.mode, modes - 1);
  }
}

}  // namespace

CodeTable CodeTable::MakeDefault() {
  CodeTable table(kDefaultNear, kDefaultSame);
  const unsigned int modes = 2 + kDefaultNear + kDefaultSame;
  InstructionPair* next = table.codes_.data();
  *next++ = {{kRun, 0, 0}, {}};
  for (unsigned int size = 0; size <= 17; ++size) {
    *next++ = {{kAdd, Small(size), 0}, {}};
  }
  for (unsigned int mode = 0; mode < modes; ++mode) {
    *next++ = {{kCopy, 0, Small(mode)}, {}};
    for (unsigned int size = 4; size <= 18; ++size) {
      *next++ = {{kCopy, Small(size), Small(mode)}, {}};
    }
  }
  for (unsigned int mode = 0; mode < modes; ++mode) {
    const unsigned int longest_copy = mode < 2 + kDefaultNear ? 6 : 4;
    for (unsigned int add = 1; add <= 4; ++add) {
      for (unsigned int copy = 4; copy <= longest_copy; ++copy) {
        *next++ = {{kAdd, Small(add), 0}, {kCopy, Small(copy), Small(mode)}};
      }
    }
  }
  for (unsigned int mode = 0; mode < modes; ++mode) {
    *next++ = {{kCopy, 4, Small(mode)}, {kAdd, 1, 0}};
  }
  return table;
}

const CodeTable& CodeTable::Default() {
  static const CodeTable table = MakeDefault();
  return table;
}

std::vector<std::uint8_t> CodeTable::SerializedDefault() {
  std::vector<std::uint8_t> bytes(kSerializedBytes);
  for (std::size_t code = 0; code < 256; ++code) {
    const InstructionPair& pair = Default().codes_[code];
    bytes[code] = static_cast<std::uint8_t>(pair.first.type);
    bytes[256 + code] = static_cast<std::uint8_t>(pair.second.type);
    bytes[2 * 256 + code] = pair.first.size;
    bytes[3 * 256 + code] = pair.second.size;
    bytes[4 * 256 + code] = pair.first.mode;
    bytes[5 * 256 + code] = pair.second.mode;
  }
  return bytes;
}

CodeTable CodeTable::Parse(const std::uint8_t* serialized, unsigned int near, unsigned int same,
                           const Origin& origin) {
  CodeTable table(near, same);
  for (std::size_t code = 0; code < 256; ++code) {
    InstructionPair& pair = table.codes_[code];
    pair.first = {static_cast<InstructionType>(serialized[code]), serialized[2 * 256 + code],
                  serialized[4 * 256 + code]};
    pair.second = {static_cast<InstructionType>(serialized[256 + code]), serialized[3 * 256 + code],
                   serialized[5 * 256 + code]};
    const unsigned int modes = 2 + near + same;
    Check(pair.first, modes, {origin, code, "Code table, first instruction"});
    Check(pair.second, modes, {origin, code, "Code table, second instruction"});
  }
  return table;
}

}  // namespace tolm::vcdiff

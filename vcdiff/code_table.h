#ifndef TOLM_VCDIFF_CODE_TABLE_H_
#define TOLM_VCDIFF_CODE_TABLE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "vcdiff/error.h"

namespace tolm::vcdiff {

enum class InstructionType : std::uint8_t { kNoop = 0, kAdd = 1, kRun = 2, kCopy = 3 };

struct Instruction {
  InstructionType type = InstructionType::kNoop;
  std::uint8_t size = 0;  ///< 0: the size follows the code.
  std::uint8_t mode = 0;  ///< Address mode of a copy.
};

struct InstructionPair {
  Instruction first;
  Instruction second;
};

/// What the 256 instruction codes mean, and the sizes of the address caches (RFC 3284, section
/// 5.4 to 5.6 and 7).
class CodeTable {
 public:
  /// Six arrays of 256 bytes: first and second types, first and second sizes, first and second
  /// modes.
  static constexpr std::size_t kSerializedBytes = 6 * 256;
  static constexpr unsigned int kDefaultNear = 4;
  static constexpr unsigned int kDefaultSame = 3;

  static const CodeTable& Default();
  static std::vector<std::uint8_t> SerializedDefault();

  /// Reads a table in its serialized form, kSerializedBytes of it. Throws Error(kBadInput) about
  /// @p origin for an instruction type or an address mode that does not exist.
  static CodeTable Parse(const std::uint8_t* serialized, unsigned int near, unsigned int same,
                         const Origin& origin);

  const InstructionPair& operator[](std::uint8_t code) const { return codes_[code]; }
  unsigned int Near() const noexcept { return near_; }
  unsigned int Same() const noexcept { return same_; }

 private:
  CodeTable(unsigned int near, unsigned int same) : near_(near), same_(same) {}
  static CodeTable MakeDefault();

  std::array<InstructionPair, 256> codes_;
  unsigned int near_;
  unsigned int same_;
};

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_CODE_TABLE_H_

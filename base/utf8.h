#ifndef TOLM_BASE_UTF8_H_
#define TOLM_BASE_UTF8_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace tolm::base {

struct Utf8Character {
  std::uint32_t code_point = 0;
  std::size_t length = 0;  ///< in bytes; 0: there is none
};

/// The character that begins at @p position, below the text's end, as IsPrintableUtf8() has it.
Utf8Character CharacterAt(const std::string& text, std::size_t position);

/// Whether @p text is well-formed UTF-8 (no overlong forms, no surrogates) without C0 controls and
/// DEL.
bool IsPrintableUtf8(const std::string& text);

/// @p text for programs that take lines of printable UTF-8: as it is, when it is that; otherwise
/// what is neither printable ASCII nor the end of a line becomes \xNN.
std::string PrintableLines(const std::string& text);

/// @p text for a terminal or a log: control characters become \xNN. Everything else stays.
std::string EscapeControls(const std::string& text);

}  // namespace tolm::base

#endif  // TOLM_BASE_UTF8_H_

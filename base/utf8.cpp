#include "base/utf8.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace tolm::base {
namespace {

struct Form {
  unsigned char mask;
  unsigned char lead;
  std::size_t length;
  std::uint32_t smallest;
};

constexpr Form kForms[] = {
    {0x80, 0x00, 1, 0x20}, {0xe0, 0xc0, 2, 0x80}, {0xf0, 0xe0, 3, 0x800}, {0xf8, 0xf0, 4, 0x10000}};

bool IsControl(std::uint32_t code_point) {
  return code_point < 0x20 || code_point == 0x7f;
}

void AppendHexadecimal(unsigned char byte, std::string& text) {
  static constexpr char kHex[] = "0123456789abcdef";
  text += {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xf]};
}

}  // namespace

Utf8Character CharacterAt(const std::string& text, std::size_t position) {
  const auto first = static_cast<unsigned char>(text[position]);
  for (const Form& form : kForms) {
    if ((first & form.mask) != form.lead) {
      continue;
    }
    if (text.size() - position < form.length) {
      return {};
    }
    std::uint32_t code_point = first & static_cast<unsigned char>(~form.mask);
    for (std::size_t i = 1; i < form.length; ++i) {
      const auto next = static_cast<unsigned char>(text[position + i]);
      if ((next & 0xc0) != 0x80) {
        return {};
      }
      code_point = code_point << 6 | (next & 0x3fU);
    }
    const bool surrogate = code_point >= 0xd800 && code_point <= 0xdfff;
    const bool valid = code_point >= form.smallest && code_point <= 0x10ffff && !surrogate;
    return valid && !IsControl(code_point) ? Utf8Character{code_point, form.length}
                                           : Utf8Character{};
  }
  return {};
}

bool IsPrintableUtf8(const std::string& text) {
  for (std::size_t position = 0; position < text.size();) {
    const std::size_t length = CharacterAt(text, position).length;
    if (length == 0) {
      return false;
    }
    position += length;
  }
  return true;
}

std::string PrintableLines(const std::string& text) {
  std::string one_line = text;
  std::replace(one_line.begin(), one_line.end(), '\n', ' ');
  if (IsPrintableUtf8(one_line)) {
    return text;
  }
  std::string printable;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n' || (byte < 0x80 && !IsControl(byte))) {
      printable += c;
    } else {
      AppendHexadecimal(byte, printable);
    }
  }
  return printable;
}

std::string EscapeControls(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (IsControl(byte)) {
      AppendHexadecimal(byte, escaped);
    } else {
      escaped += c;
    }
  }
  return escaped;
}

}  // namespace tolm::base

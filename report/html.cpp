#include "report/html.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>

#include "base/utf8.h"

namespace tolm::report {
namespace {

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};

// Controls of the second set, marks without width (but for the two joiners, which emoji and several
// scripts are made with), those that end lines, turn or isolate the direction of writing, and what
// is no character and stands in no XML.
constexpr Range kHidden[] = {{0x80, 0x9f},     {0xad, 0xad},     {0x61c, 0x61c},   {0x180e, 0x180e},
                             {0x200b, 0x200b}, {0x200e, 0x200f}, {0x2028, 0x202e}, {0x2060, 0x206f},
                             {0xfdd0, 0xfdef}, {0xfeff, 0xfeff}, {0xfff9, 0xfffb}};

bool IsHidden(std::uint32_t code_point) {
  constexpr std::uint32_t kLastOfPlane = 0xfffe;
  return (code_point & kLastOfPlane) == kLastOfPlane ||
         std::any_of(std::begin(kHidden), std::end(kHidden), [code_point](const Range& range) {
           return code_point >= range.first && code_point <= range.last;
         });
}

std::string Numbered(const char* form, std::uint32_t number) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), form, number);
  return text.data();
}

const char* EntityOf(char c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\'':
      return "&#39;";
    default:
      return nullptr;
  }
}

}  // namespace

std::string EscapeMarkup(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const base::Utf8Character character = base::CharacterAt(text, at);
    if (character.length == 0) {
      escaped += Numbered("\\x%02x", static_cast<unsigned char>(text[at]));
      ++at;
      continue;
    }
    if (const char* entity = EntityOf(text[at]); entity != nullptr) {
      escaped += entity;
    } else if (IsHidden(character.code_point)) {
      escaped += Numbered("\\u{%x}", character.code_point);
    } else {
      escaped.append(text, at, character.length);
    }
    at += character.length;
  }
  return escaped;
}

Html::Element::Element(Html& html, const char* tag, const Attributes& attributes)
    : html_(html), tag_(tag) {
  html_.Begin(tag, attributes);
  html_.text_ += '>';
}

Html::Element::~Element() {
  html_.text_ += "</";
  html_.text_ += tag_;
  html_.text_ += ">\n";
}

void Html::Begin(const char* tag, const Attributes& attributes) {
  text_ += '<';
  text_ += tag;
  for (const Attribute& attribute : attributes) {
    text_ += ' ';
    text_ += attribute.name;
    text_ += "=\"";
    text_ += EscapeMarkup(attribute.value);
    text_ += '"';
  }
}

void Html::Text(const std::string& text) {
  text_ += EscapeMarkup(text);
}

// On one line: what stands behind it may be text.
void Html::Put(const char* tag, const Attributes& attributes, const std::string& text) {
  Begin(tag, attributes);
  text_ += '>';
  Text(text);
  text_ += "</";
  text_ += tag;
  text_ += '>';
}

void Html::PutVoid(const char* tag, const Attributes& attributes) {
  Begin(tag, attributes);
  text_ += "/>";
}

}  // namespace tolm::report

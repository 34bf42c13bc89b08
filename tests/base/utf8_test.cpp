#include "base/utf8.h"

#include <gtest/gtest.h>

namespace tolm::testing {
namespace {

TEST(Utf8Test, WellFormedTextIsAccepted) {
  for (const char* text :
       {"", "abc", " ~", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
        "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(base::IsPrintableUtf8(text)) << text;
  }
}

TEST(Utf8Test, PrintableLinesStayAndOthersAreMadeSo) {
  EXPECT_EQ(base::PrintableLines("M\xc3\xbcller\nb"), "M\xc3\xbcller\nb");
  EXPECT_EQ(base::PrintableLines("a\x1b\n\xc3"), "a\\x1b\n\\xc3");
}

TEST(Utf8Test, EverythingElseIsRefused) {
  struct Row {
    const char* why;
    std::string text;
  };
  const Row rows[] = {{"NUL", std::string("a\0b", 3)},
                      {"newline", "a\nb"},
                      {"escape", "\x1b[2J"},
                      {"DEL", "\x7f"},
                      {"lone continuation", "\x80"},
                      {"truncated", "a\xc3"},
                      {"truncated", "\xe2\x82"},
                      {"second byte wrong", "\xc3("},
                      {"overlong two", "\xc0\xaf"},
                      {"overlong three", "\xe0\x9f\xbf"},
                      {"overlong four", "\xf0\x8f\xbf\xbf"},
                      {"first surrogate", "\xed\xa0\x80"},
                      {"last surrogate", "\xed\xbf\xbf"},
                      {"beyond Unicode", "\xf4\x90\x80\x80"},
                      {"five bytes", "\xf8\x88\x80\x80\x80"},
                      {"0xff", "\xff"}};
  for (const Row& row : rows) {
    EXPECT_FALSE(base::IsPrintableUtf8(row.text)) << row.why;
  }
}

TEST(Utf8Test, CharactersAreToldOneByOne) {
  const std::string text = "a\xd7\xa9\xf0\x9f\x93\xa6\x07\xe2\x80";
  EXPECT_EQ(base::CharacterAt(text, 0).code_point, 'a');
  EXPECT_EQ(base::CharacterAt(text, 0).length, 1u);
  EXPECT_EQ(base::CharacterAt(text, 1).code_point, 0x5e9u);
  EXPECT_EQ(base::CharacterAt(text, 1).length, 2u);
  EXPECT_EQ(base::CharacterAt(text, 3).code_point, 0x1f4e6u);
  EXPECT_EQ(base::CharacterAt(text, 3).length, 4u);
  for (const std::size_t none : {2u, 7u, 8u, 9u}) {
    EXPECT_EQ(base::CharacterAt(text, none).length, 0u) << none;
  }
}

TEST(Utf8Test, EscapingTouchesControlCharactersOnly) {
  EXPECT_EQ(base::EscapeControls("a\n\x1b[2J\x7f"), "a\\x0a\\x1b[2J\\x7f");
  EXPECT_EQ(base::EscapeControls("gr\xc3\xbcn /\\"), "gr\xc3\xbcn /\\");
}

}  // namespace
}  // namespace tolm::testing

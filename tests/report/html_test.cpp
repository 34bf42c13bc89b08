#include "report/html.h"

#include <gtest/gtest.h>

namespace tolm::testing {
namespace {

using report::EscapeMarkup;
using report::Html;

struct EscapeRow {
  const char* name;
  std::string text;
  std::string escaped;
};

class EscapeTest : public ::testing::TestWithParam<EscapeRow> {};

TEST_P(EscapeTest, IsAsItShallBeSeen) {
  EXPECT_EQ(EscapeMarkup(GetParam().text), GetParam().escaped);
}

const EscapeRow kEscapeRows[] = {
    {"Nothing", "", ""},
    {"PlainText", "vendors 1000001, 4.2 MB", "vendors 1000001, 4.2 MB"},
    {"Markup", "<script>a&b</script>", "&lt;script&gt;a&amp;b&lt;/script&gt;"},
    {"Entities", "&lt;", "&amp;lt;"},
    {"Quotes", "\" onload='x'", "&quot; onload=&#39;x&#39;"},
    {"Controls", std::string("a\0b\n\t\x1b\x7f", 7), "a\\x00b\\x0a\\x09\\x1b\\x7f"},
    {"SecondSetOfControls", "\xC2\x85", "\\u{85}"},
    {"OverrideOfTheDirection", "\xE2\x80\xAEgnp.exe", "\\u{202e}gnp.exe"},
    {"IsolatesAndMarks", "\xE2\x81\xA6\xE2\x80\x8F\xD8\x9C", "\\u{2066}\\u{200f}\\u{61c}"},
    {"LineSeparator", "\xE2\x80\xA8", "\\u{2028}"},
    {"ByteOrderMark", "\xEF\xBB\xBF", "\\u{feff}"},
    {"NoCharacter", "\xEF\xBF\xBF\xF4\x8F\xBF\xBE", "\\u{ffff}\\u{10fffe}"},
    {"NoUtf8", "a\xFF\xC3(", "a\\xff\\xc3("},
    {"OverlongForm", "\xC0\xBC", "\\xc0\\xbc"},
    {"Surrogate", "\xED\xA0\x80", "\\xed\\xa0\\x80"},
    {"CutOff", "\xE2\x80", "\\xe2\\x80"},
    {"OtherScripts", "\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D \xE4\xBD\xA0",
     "\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D \xE4\xBD\xA0"},
    {"Emoji", "\xF0\x9F\x93\xA6\xE2\x80\x8D", "\xF0\x9F\x93\xA6\xE2\x80\x8D"},
};
std::string NameOf(const ::testing::TestParamInfo<EscapeRow>& info) {
  return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(Texts, EscapeTest, ::testing::ValuesIn(kEscapeRows), NameOf);

TEST(HtmlTest, ElementsEndWhereTheirObjectsDo) {
  Html html;
  {
    const Html::Element outer(html, "div", {{"class", "a"}});
    const Html::Element inner(html, "p");
    html.Text("text");
  }
  html.PutVoid("br");
  EXPECT_EQ(html.Document(), "<!DOCTYPE html>\n<div class=\"a\"><p>text</p>\n</div>\n<br/>");
}

TEST(HtmlTest, TextsAndAttributesAreEscapedEverywhere) {
  Html html;
  html.Put("b", {{"class", "\"><"}}, "<i>");
  html.PutVoid("br", {{"class", "'&"}});
  html.Text("</b>");
  EXPECT_EQ(html.Document(),
            "<!DOCTYPE html>\n<b class=\"&quot;&gt;&lt;\">&lt;i&gt;</b><br "
            "class=\"&#39;&amp;\"/>&lt;/b&gt;");
}

}  // namespace
}  // namespace tolm::testing

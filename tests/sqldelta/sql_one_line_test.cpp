#include "sqldelta/sql_one_line.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace tolm::testing {
namespace {

using sqldelta::OneLine;

struct Case {
  const char* name;
  const char* sql;
  const char* line;
};

class OneLineCases : public ::testing::TestWithParam<Case> {};

TEST_P(OneLineCases, KeepTheirMeaning) {
  EXPECT_EQ(OneLine(GetParam().sql), GetParam().line);
}

const Case kCases[] = {
    {"OneLineStaysAsItIs", "CREATE TABLE t(a /* x */) -- y", "CREATE TABLE t(a /* x */) -- y"},
    {"Empty", "", ""},
    {"BreaksBecomeBlanks", "CREATE TABLE t(\n a,\n b\n)", "CREATE TABLE t(  a,  b )"},
    {"CarriageReturnsStay", "a\r\nb", "a\r b"},
    {"CommentsToTheEndOfTheLineGo", "a -- 'x\nb", "a  b"},
    {"CommentAtTheEnd", "a\nb -- c", "a b  "},
    {"CommentsInTheMiddleGo", "a/* ' \n \" -- */b", "a b"},
    {"CommentsDoNotNest", "a/* /* \n */b", "a b"},
    {"CommentThatDoesNotEnd", "a\n/* b", "a  "},
    {"TextsStay", "'-- /*' \n\"-- /*\" `--` [/* ']", "'-- /*'  \"-- /*\" `--` [/* ']"},
    {"DoubledQuotes", "'it''s --' \n \"a\"\"--\"", "'it''s --'   \"a\"\"--\""},
    {"MinusSigns", "a - -b\n-c->d", "a - -b -c->d"},
    {"Slashes", "a / b\n * c", "a / b  * c"},
    {"QuoteThatDoesNotEnd", "a\n'b", "a 'b"},
    {"BracketsHaveNoDoubledEnd", "[a]]\n--b\nc", "[a]]  c"},
};

INSTANTIATE_TEST_SUITE_P(All, OneLineCases, ::testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.name; });

TEST(OneLineTest, LineBreaksInNamesAndTextsCannotBeSaid) {
  for (const char* sql : {"'a\nb'", "\"a\nb\"", "`a\nb`", "[a\nb]", "x 'a''\n' y", "'a\n"}) {
    EXPECT_THROW(OneLine(sql), std::runtime_error) << sql;
  }
}

}  // namespace
}  // namespace tolm::testing

#include "sqldelta/sql_tokens.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace tolm::testing {
namespace {

using sqldelta::ChecksOf;
using sqldelta::EverySqliteKnowsFunctionsOf;

struct Case {
  const char* name;
  const char* table;
  std::vector<std::string> checks;
};

class ChecksOfCases : public ::testing::TestWithParam<Case> {};

TEST_P(ChecksOfCases, AreTheConditionsOnOneLineEach) {
  EXPECT_EQ(ChecksOf(GetParam().table), GetParam().checks);
}

const Case kCases[] = {
    {"None", "CREATE TABLE t(a)", {}},
    {"OfAColumn", "CREATE TABLE t(a CHECK(a>0),b)", {"(a>0) "}},
    {"OfTheTable", "CREATE TABLE t(a,CONSTRAINT c ChEcK (a>0 AND(a<9)))", {"(a>0 AND(a<9)) "}},
    {"Several", "CREATE TABLE t(a CHECK(a>0) check(a<9),CHECK(a))", {"(a>0) ", "(a<9) ", "(a) "}},
    {"CommentsAndLines",
     "CREATE TABLE t(a,-- CHECK(b)\nCHECK/* ( */\n(a /* ) */ > -- )\n 0))",
     {"(a   >   0) "}},
    {"NamesAndLiterals",
     "CREATE TABLE t(\"CHECK(\",[check(a)],`check`,b DEFAULT 'check(' CHECK(b<>')' OR \")\"))",
     {"(b<>')' OR \")\") "}},
    {"DoubledQuotes", "CREATE TABLE t(a CHECK(a<>'it''s ('))", {"(a<>'it''s (') "}},
    {"LongerNames", "CREATE TABLE t(checks,a_check,check_,\u00e4check)", {}},
    {"LineBreakElsewhere", "CREATE TABLE t(a DEFAULT 'x\ny' CHECK(a>0))", {"(a>0) "}},
};

INSTANTIATE_TEST_SUITE_P(All, ChecksOfCases, ::testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.name; });

TEST(ChecksOfTest, LineBreaksInTheirNamesAndTextsCannotBeSaid) {
  EXPECT_THROW(ChecksOf("CREATE TABLE t(a CHECK(a<>'x\ny'))"), std::runtime_error);
}

struct FunctionsCase {
  const char* name;
  const char* expression;
  bool known;
};

class FunctionsOfCases : public ::testing::TestWithParam<FunctionsCase> {};

TEST_P(FunctionsOfCases, AreThoseOfEverySqliteOrNot) {
  EXPECT_EQ(EverySqliteKnowsFunctionsOf(GetParam().expression), GetParam().known);
}

const FunctionsCase kFunctionsCases[] = {
    {"None", "(a>0) ", true},
    {"Core", "(LENGTH(a)>0 AND (typeof (b)='text' OR coalesce(a,b)NOT IN ('x','y')))", true},
    {"Keywords", "(CASE WHEN(a)THEN(b)ELSE(c)END BETWEEN(1)AND(2) OR NOT(a) IS(b))", true},
    {"Cast", "(CAST(a AS INT)=a AND a LIKE ('x%') ESCAPE ('!'))", true},
    {"OfALaterSqlite", "(iif(a,b,c)>0)", false},
    {"OfNone", "(a>0 AND own_function(a))", false},
    {"BehindABlankAndAComment", "(own_function /* ( */ -- )\n (a))", false},
    {"InQuotes", "(\"length\"(a)>0)", false},
    {"OnlyInALiteral", "(a<>'own_function(a)')", true},
    {"Regexp", "(a RegExp 'x')", false},
    {"Match", "(a match 'x')", false},
    {"Arrow", "(a->'$.x' IS NULL)", false},
    {"MinusAndGreater", "(a>-1 AND b - 1>0)", true},
};

INSTANTIATE_TEST_SUITE_P(All, FunctionsOfCases, ::testing::ValuesIn(kFunctionsCases),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tolm::testing

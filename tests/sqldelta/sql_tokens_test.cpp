#include "sqldelta/sql_tokens.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace tolm::testing {
namespace {

using sqldelta::ChecksOf;

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

}  // namespace
}  // namespace tolm::testing

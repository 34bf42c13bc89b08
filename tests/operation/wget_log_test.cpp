#include "operation/wget_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace tolm::operation {
namespace {

using ::testing::ElementsAre;

std::optional<std::string> RedirectIn(const std::string& text) {
  WgetLog log;
  log.Add(text);
  return log.Redirect();
}

TEST(WgetLogTest, LocationOfARedirectIsFound) {
  EXPECT_EQ(RedirectIn("--date--\n  HTTP/1.1 302 Found\n  location:   /x y \nend\n"), "/x y");
  EXPECT_EQ(RedirectIn("  HTTP/1.0 308\n  Location: a\n  Location: b\n"), "a");
}

TEST(WgetLogTest, WhatIsNoRedirectHasNone) {
  EXPECT_EQ(RedirectIn(""), std::nullopt);
  EXPECT_EQ(RedirectIn("  HTTP/1.1 200 OK\n  Location: /x\n"), std::nullopt);
  EXPECT_EQ(RedirectIn("  HTTP/1.1 304 Not Modified\n  Location: /x\n"), std::nullopt);
  EXPECT_EQ(RedirectIn("  HTTP/1.1 302 Found\n  Location:\n"), std::nullopt);
  EXPECT_EQ(RedirectIn("Location: /x\n"), std::nullopt);
  EXPECT_EQ(RedirectIn("  HTTP/1.1 302 Found\nLocation: /x [following]\n"), std::nullopt);
}

TEST(WgetLogTest, LastAnswerCounts) {
  EXPECT_EQ(RedirectIn("  HTTP/1.1 302 Found\n  Location: /x\n  HTTP/1.1 404 No\n"), std::nullopt);
  EXPECT_EQ(RedirectIn("  HTTP/1.1 302 Found\n  Location: /x\n  HTTP/1.1 302 Found\n"),
            std::nullopt);
  EXPECT_EQ(RedirectIn("  HTTP/1.1 100 Go on\n  HTTP/1.1 302 Found\n  Location: /x\n"), "/x");
}

TEST(WgetLogTest, WhatWgetEscapesIsPercentEncoded) {
  EXPECT_EQ(RedirectIn("  HTTP/1.1 302 Found\n  Location: /a\\303\\244\\\\@b\\\n"),
            "/a%C3%A4%5C@b%5C");
}

TEST(WgetLogTest, LinesInPiecesAreLinesAndEndlessOnesAreNone) {
  WgetLog log;
  const std::string text = "  HTTP/1.1 302 Found\n  Location: /x\n";
  for (const char c : text) {
    log.Add({&c, 1});
  }
  EXPECT_EQ(log.Redirect(), "/x");
  log.Add("  HTTP/1.1 302 Found\n  Location: /" + std::string(1 << 20, 'x') + "\nnext\n");
  EXPECT_EQ(log.Redirect(), std::nullopt);
  EXPECT_THAT(log.LastLines(), ElementsAre("next"));
}

TEST(WgetLogTest, EndIsKeptWithoutHeadsAndCredentials) {
  WgetLog log;
  for (int i = 0; i < 100; ++i) {
    log.Add("line " + std::to_string(i) + "\n\n");
  }
  log.Add("  Set-Cookie: secret\nLocation: http://me:word@h/x [following]\n");
  EXPECT_EQ(log.LastLines().size(), 20u);
  EXPECT_EQ(log.LastLines().front(), "line 81");
  EXPECT_EQ(log.LastLines().back(), "Location: http://h/x [following]");
}

}  // namespace
}  // namespace tolm::operation

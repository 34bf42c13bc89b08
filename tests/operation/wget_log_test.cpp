#include "operation/wget_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "operation/download_failure.h"
#include "tests/support/files.h"

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

TEST(WgetLogTest, EveryStatusThatLeadsElsewhereIsARedirect) {
  for (const char* status : {"300", "301", "302", "303", "307", "308"}) {
    EXPECT_EQ(RedirectIn("  HTTP/1.1 " + std::string(status) + " x\n  Location: /x\n"), "/x")
        << status;
  }
  for (const char* status : {"201", "299", "304", "305", "306", "309", "403"}) {
    EXPECT_EQ(RedirectIn("  HTTP/1.1 " + std::string(status) + " x\n  Location: /x\n"),
              std::nullopt)
        << status;
  }
}

TEST(WgetLogTest, NewAttemptHasNeitherStatusNorReasonOfTheOneBefore) {
  WgetLog log;
  log.Add(
      "--2026--  http://h/\nHTTP request sent, awaiting response... \n"
      "  HTTP/1.1 302 Found\n  Location: /x\n"
      "Cannot write to '/v/x' (No space left on device).\n");
  EXPECT_EQ(log.Status(), 302);
  EXPECT_EQ(log.WriteError(), "No space left on device");
  EXPECT_EQ(log.Cause(), WgetCause::kNoRoom);
  log.Add("--2026--  (try: 2)  http://h/\n");
  EXPECT_EQ(log.Status(), 0);
  EXPECT_EQ(log.WriteError(), "");
  EXPECT_FALSE(log.Cause());
  EXPECT_EQ(log.Redirect(), std::nullopt);
}

TEST(WgetLogTest, AnswerWithoutAStatusHasNone) {
  WgetLog log;
  log.Add("  HTTP/1.1\n");
  EXPECT_EQ(log.Status(), 0);
  log.Add("  HTTP/1.1 503 Busy\n  HTTP/2\n");
  EXPECT_EQ(log.Status(), 0);
}

TEST(WgetLogTest, ReasonStandsBetweenTheLastBrackets) {
  for (const auto& [line, reason] : std::vector<std::pair<std::string, std::string>>{
           {"Cannot write to 'x(1)' (Success).", "Success"},
           {"Cannot write to 'x' ().", ""},
           {"Cannot write to 'x'.", ""},
           {"Cannot write to 'x) y", ""},
           {"Cannot write to 'x' (y", ""},
           {"Cannot write to 'x) (y", ""}}) {
    WgetLog log;
    log.Add(line + '\n');
    EXPECT_EQ(log.WriteError(), reason) << line;
  }
}

// A weightier cause is not taken back by what follows from it.
TEST(WgetLogTest, OfSeveralCausesInOneAttemptTheWeightiestCounts) {
  for (const bool is_other_way : {false, true}) {
    const std::string expired = "ERROR: h's certificate has expired.\n";
    const std::string failed = "Unable to establish SSL connection.\n";
    WgetLog log;
    log.Add("--2026--  http://h/\n");
    log.Add(is_other_way ? failed + expired : expired + failed);
    EXPECT_EQ(log.Cause(), WgetCause::kTlsExpired);
  }
}

TEST(WgetLogTest, LongLineIsShownToItsTwoHundredthByte) {
  WgetLog log;
  log.Add(std::string(200, 'a') + "b\n");
  log.Add(std::string(65536, 'c') + '\n' + std::string(65537, 'd') + '\n');
  EXPECT_THAT(log.LastLines(), ElementsAre(std::string(200, 'a'), std::string(200, 'c')));
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
  EXPECT_EQ(RedirectIn("  HTTP/1.1 302 Found\n  Location: /\\3031\\303\n"), "/%C31%C3");
  EXPECT_EQ(RedirectIn("  HTTP/1.1 302 Found\n  Location: /\\8x\\08\\30x\n"), "/%5Cx%5C8%5C0x");
  EXPECT_EQ(RedirectIn("  HTTP/1.1 302 Found\n  Location: /\\801\\30\n"), "/%5C01%5C0");
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

// With either library for TLS: those of OpenSSL stand on lines of their own.
TEST(WgetLogTest, CauseOfTheLastAttemptIsFound) {
  const std::vector<std::pair<std::string, WgetCause>> rows = {
      {"Resolving h (h)... failed: Name or service not known.\n", WgetCause::kNameNotResolved},
      {"Connecting to h:1... failed: Connection refused.\n", WgetCause::kRefused},
      {"Connecting to h:1... failed: No route to host.\n", WgetCause::kNotReached},
      {"Connecting to h:1... failed: Connection timed out.\n", WgetCause::kTimedOut},
      {"HTTP request sent, awaiting response... Read error (Connection timed out) in headers.\n",
       WgetCause::kTimedOut},
      {"HTTP request sent, awaiting response... No data received.\n", WgetCause::kBroken},
      {"HTTP request sent, awaiting response... \n  HTTP/1.1 200 OK\n"
       "2026-11-22 08:24:19 (1.2 MB/s) - Connection closed at byte 4. Retrying.\n",
       WgetCause::kBroken},
      {"ERROR: cannot verify h's certificate, issued by 'CN=h':\n  Issued certificate has "
       "expired.\n",
       WgetCause::kTlsExpired},
      {"ERROR: cannot verify h's certificate, issued by 'CN=h':\n"
       "  Unable to locally verify the issuer's authority.\n",
       WgetCause::kTlsNotTrusted},
      {"ERROR: no certificate subject alternative name matches\n\trequested host name 'h'.\n",
       WgetCause::kTlsOtherName},
      {"--2026--  http://h/\nConnecting to h:1... failed: Connection refused.\n"
       "--2026--  (try: 2)  http://h/\nHTTP request sent, awaiting response... No data received.\n",
       WgetCause::kBroken}};
  for (const auto& [text, cause] : rows) {
    WgetLog log;
    log.Add(text);
    ASSERT_TRUE(log.Cause()) << text;
    EXPECT_EQ(*log.Cause(), cause) << text;
  }
}

TEST(WgetLogTest, WhatAServerWritesIsNoCause) {
  WgetLog log;
  log.Add(
      "--2026--  http://h/\nHTTP request sent, awaiting response... \n"
      "  HTTP/1.1 500 Connection refused\n  X: certificate has expired\n"
      "Location: /x has expired [following]\n"
      "2026-11-22 08:24:19 ERROR 500: Connection timed out) - Read error.\n");
  EXPECT_FALSE(log.Cause());
  EXPECT_EQ(log.Status(), 500);
}

TEST(WgetLogTest, LineThatIsShorterThanTheTimeOfAnEndIsNone) {
  WgetLog log;
  log.Add(
      "--2026--  http://h/\nHTTP request sent, awaiting response... 200 OK\n"
      "2) - Read error\n2026-11-22 08:24:1) - Read error\n");
  EXPECT_FALSE(log.Cause());
  log.Add("2026-11-22 08:24:19 (1.2 MB/s) - Read error at byte 7/9 (x).\n");
  EXPECT_EQ(log.Cause(), WgetCause::kBroken);
}

TEST(WgetLogTest, WhoWasToBeReachedIsFound) {
  for (const auto& [text, peer] : std::vector<std::pair<std::string, std::string>>{
           {"Resolving proxy.example (proxy.example)... failed: x\n", "proxy.example"},
           {"Connecting to h (h)|127.0.0.1|:8080... failed: x\n", "h:8080"},
           {"Connecting to 127.0.0.1:1... failed: x\n", "127.0.0.1:1"},
           {"Connecting to [::1]:1... failed: x\n", "[::1]:1"}}) {
    WgetLog log;
    log.Add(text);
    EXPECT_EQ(log.Peer(), peer);
  }
}

TEST(WgetLogTest, RemedyNamesTheSettingOfTheConfiguredServerOnly) {
  testing::WriteFile("/usr/share/data_update/data_update.conf",
                     R"({"config": {"download_scheme": "https", "db_netloc": "db.test"}})");
  WgetLog log;
  log.Add("no certificate subject alternative name matches\n");
  const auto remedy_for = [&log](const std::string& url) {
    return DownloadFailure(*ParseUrl(url), 5, log, "/x").remedy;
  };
  EXPECT_EQ(remedy_for("https://db.test/x"),
            "is db_netloc in /usr/share/data_update/data_update.conf right?");
  EXPECT_EQ(remedy_for("https://packages.test/x"),
            "the server's description, or a redirect, leads there");
}

TEST(WgetLogTest, FileThatIsNotWrittenIsNamedWithTheReason) {
  const std::string remedy = "; is the file system writable? \"dmesg\" tells when a disk fails";
  const auto line_for = [](int exit_status, const std::string& text, const std::string& file) {
    WgetLog log;
    log.Add(text);
    return LineOf("", DownloadFailure(*ParseUrl("http://h/x"), exit_status, log, file));
  };
  const std::string attempt = "--2026--  http://h/x\nHTTP request sent, awaiting response... \n";
  EXPECT_EQ(line_for(3, attempt + "\nCannot write to '/v/x(1)' (Input/output error).\n", "/v/x(1)"),
            "what comes from http://h/x cannot be written to /v/x(1): Input/output error" + remedy);
  EXPECT_EQ(line_for(3, attempt, "/v/x"),
            "what comes from http://h/x cannot be written to /v/x" + remedy);
  // One that it cannot open it does not tell its log of.
  EXPECT_EQ(
      line_for(1, "", "/nowhere/x"),
      "what comes from http://h/x cannot be written to /nowhere/x: No such file or directory" +
          remedy);
  testing::WriteFile("/tmp/x", "");
  for (const char* writable : {"/tmp/x", "/tmp/not there"}) {
    EXPECT_EQ(line_for(1, "", writable),
              "wget ended with status 1 for http://h/x; the system log has what it said "
              "(journalctl -t tolmdbud)");
  }
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

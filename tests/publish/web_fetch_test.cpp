#include "publish/web_fetch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/interrupted_calls.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using publish::FetchFromWeb;
using publish::WebAnswer;

TEST(WebFetchTest, EverythingIsHandedOverInOrder) {
  HttpServer server;
  const std::string body = std::string(300000, 'a') + std::string(300000, 'b');
  server.SetBody("/file", body);
  std::string taken;
  const WebAnswer answer = FetchFromWeb(server.Url("/file"), [&](const char* data, auto size) {
    taken.append(data, size);
    errno = EINTR;  // Whatever the taker has met with is no reason to read on after the end.
    return true;
  });
  EXPECT_TRUE(answer.is_complete);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(taken, body);
}

TEST(WebFetchTest, StatusOfTheServerIsTheProblem) {
  const HttpServer server;
  const WebAnswer answer =
      FetchFromWeb(server.Url("/missing"), [](const char*, auto) { return true; });
  EXPECT_FALSE(answer.is_complete);
  EXPECT_EQ(answer.status, 404);
  EXPECT_EQ(answer.problem, "the server answers with status 404");
}

TEST(WebFetchTest, HeadersAreThoseOfTheLastAnswerWithNamesInSmallLetters) {
  HttpServer server;
  HttpAnswer moved;
  moved.status = 302;
  moved.headers = {{"Location", server.Url("/file")}, {"X-First", "1"}};
  server.SetAnswer("/moved", moved);
  HttpAnswer file;
  file.headers = {{"X-Second", "a: b"}, {"ETag", "\"t\"  "}};
  file.body = "text";
  server.SetAnswer("/file", file);
  std::string taken;
  const WebAnswer answer = FetchFromWeb(server.Url("/moved"), [&](const char* data, auto size) {
    taken.append(data, size);
    return true;
  });
  EXPECT_TRUE(answer.is_complete);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(taken, "text");
  EXPECT_EQ(answer.headers.count("x-first") + answer.headers.count("location"), 0u);
  EXPECT_EQ(answer.headers.at("x-second"), "a: b");
  EXPECT_EQ(answer.headers.at("etag"), "\"t\"");
  EXPECT_EQ(answer.headers.at("content-length"), "4");
  for (const HttpRequest& request : server.Requests()) {
    EXPECT_EQ(request.user_agent, "tolmdbpub");
  }
}

TEST(WebFetchTest, LookTakesHeadersAlone) {
  HttpServer server;
  server.SetBody("/file", "text");
  const WebAnswer answer = publish::LookAtWeb(server.Url("/file"));
  EXPECT_TRUE(answer.is_complete);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.headers.at("content-length"), "4");
  ASSERT_EQ(server.Requests().size(), 1u);
  EXPECT_EQ(server.Requests().front().method, "HEAD");
}

TEST(WebFetchTest, WhereNobodyAnswersTheReasonIsTheProblem) {
  std::string url;
  {
    const HttpServer server;
    url = server.Url("/file");
  }
  const WebAnswer answer = FetchFromWeb(url, [](const char*, auto) { return true; });
  EXPECT_FALSE(answer.is_complete);
  EXPECT_EQ(answer.status, 0);
  EXPECT_THAT(answer.problem, ::testing::HasSubstr("onnection refused"));
}

TEST(WebFetchTest, WhatIsNotWantedAnyMoreIsNotComplete) {
  HttpServer server;
  server.SetBody("/file", std::string(3000000, 'a'));
  std::size_t taken = 0;
  const WebAnswer answer = FetchFromWeb(server.Url("/file"), [&](const char*, std::size_t size) {
    taken += size;
    return false;
  });
  EXPECT_FALSE(answer.is_complete);
  EXPECT_EQ(answer.status, 200);
  EXPECT_GT(taken, 0u);
  EXPECT_LT(taken, 3000000u);
}

TEST(WebFetchTest, EveryStatusFromFourHundredOnIsToldAsOne) {
  HttpServer server;
  HttpAnswer bad;
  bad.status = 400;
  server.SetAnswer("/bad", bad);
  EXPECT_EQ(publish::LookAtWeb(server.Url("/bad")).problem, "the server answers with status 400");
}

TEST(WebFetchTest, SignalsDoNotEndTheWaitForAnAnswer) {
  HttpServer server;
  HttpAnswer slow;
  slow.delay = std::chrono::milliseconds(100);
  slow.body = "x";
  server.SetAnswer("/slow", slow);
  std::string taken;
  const InterruptedCalls interrupted;
  const WebAnswer answer = FetchFromWeb(server.Url("/slow"), [&](const char* data, auto size) {
    taken.append(data, size);
    return true;
  });
  EXPECT_TRUE(answer.is_complete);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(taken, "x");
}

TEST(WebFetchTest, SignalsDoNotEndTheWaitForItsEnd) {
  const std::string before = std::getenv("PATH");
  const TemporaryDirectory directory;
  const std::string wget = directory.Path() / "wget";
  WriteFile(wget, "#!/bin/sh\nprintf x\nexec >&-\nsleep 0.1\nexit 8\n");
  std::filesystem::permissions(wget, std::filesystem::perms(0755));
  ::setenv("PATH", (directory.Path().string() + ':' + before).c_str(), 1);
  const InterruptedCalls interrupted;
  const WebAnswer answer =
      FetchFromWeb("http://example.org", [](const char*, auto) { return true; });
  ::setenv("PATH", before.c_str(), 1);
  EXPECT_FALSE(answer.is_complete);
}

}  // namespace
}  // namespace tolm::testing

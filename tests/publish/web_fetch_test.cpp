#include "publish/web_fetch.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/support/http_server.h"

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

}  // namespace
}  // namespace tolm::testing

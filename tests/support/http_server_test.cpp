#include "tests/support/http_server.h"

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <memory>
#include <stdexcept>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/wait.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

// wget's own exit statuses.
constexpr int kNetworkFailure = 4;
constexpr int kServerError = 8;

std::vector<std::string> WgetArguments(const std::string& url) {
  return {"wget", "--quiet", "--no-config", "--no-proxy", "--tries=1", "--output-document=-", url};
}

CommandResult Wget(const std::string& url) {
  return RunCommand(WgetArguments(url));
}

// What wget would put right before sending it goes out as it is here. Returns everything that came
// back.
std::string RawRequest(const HttpServer& server, const std::string& request) {
  const UniqueDescriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(server.Port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(connection.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      send(connection.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    throw std::runtime_error("cannot send the request");
  }
  shutdown(connection.Get(), SHUT_WR);
  std::string reply;
  char buffer[4096];
  for (ssize_t count = 0; (count = recv(connection.Get(), buffer, sizeof buffer, 0)) > 0;) {
    reply.append(buffer, static_cast<std::size_t>(count));
  }
  return reply;
}

std::string RawGet(const HttpServer& server, const std::string& target) {
  return RawRequest(server, "GET " + target + " HTTP/1.1\r\nHost: x\r\n\r\n");
}

TEST(HttpServer, FileOfTheDirectoryIsServed) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "a/b.json", "content");
  const HttpServer server(directory.Path());
  const CommandResult result = Wget(server.Url("/a/b.json"));
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "content");
}

TEST(HttpServer, LargeFileArrivesWhole) {
  const TemporaryDirectory directory;
  const fs::path file = directory.Path() / "served/large";
  WriteFile(file, "begin");
  fs::resize_file(file, 100 * 1000 * 1000 + 1);
  const HttpServer server(file.parent_path());
  const fs::path copy = directory.Path() / "copy";
  EXPECT_EQ(RunCommand({"wget", "-q", "--no-proxy", "-O", copy, server.Url("/large")}).exit_status,
            0);
  EXPECT_EQ(Sha384Hex(copy), Sha384Hex(file));
}

TEST(HttpServer, MissingFileIsAServerErrorForWget) {
  const TemporaryDirectory directory;
  const HttpServer server(directory.Path());
  EXPECT_EQ(Wget(server.Url("/none")).exit_status, kServerError);
}

TEST(HttpServer, OnlyFilesInsideTheDirectoryAreFound) {
  const TemporaryDirectory directory;
  MakeTree(directory.Path(), {{"secret", "hidden"},
                              {"www/a b/c%d", "special"},
                              {"www/inside -> a b/c%d", ""},
                              {"www/outside -> ../secret", ""}});
  const HttpServer server(directory.Path() / "www");
  const struct {
    const char* name;
    std::string target;
    const char* status;
  } rows[] = {
      {"Encoded", "/a%20b/c%25d", "200"},
      {"WithQuery", "/a%20b/c%25d?list=[1]&x=..", "200"},
      {"DotsInside", "/a%20b/../inside", "200"},
      {"LinkInside", "/inside", "200"},
      {"WholeUrl", "http://proxied.example/inside", "200"},
      {"Directory", "/a%20b", "404"},
      {"Root", "/", "404"},
      {"DotsOutside", "/../secret", "404"},
      {"EncodedDotsOutside", "/%2e%2e/secret", "404"},
      {"EncodedSlashOutside", "/..%2fsecret", "404"},
      {"TwoSlashes", "/" + (directory.Path() / "secret").string(), "404"},
      {"LinkOutside", "/outside", "404"},
      {"NoSlash", "secret", "400"},
      {"CutOffEncoding", "/inside%2", "400"},
      {"WrongEncoding", "/inside%zz", "400"},
      {"EncodedNull", "/inside%00", "400"},
  };
  for (const auto& row : rows) {
    const std::string reply = RawGet(server, row.target);
    EXPECT_THAT(reply, StartsWith(std::string("HTTP/1.1 ") + row.status)) << row.name;
    EXPECT_THAT(reply, Not(HasSubstr("hidden"))) << row.name;
  }
}

TEST(HttpServer, OtherThanGetAndHeadIsRefused) {
  HttpServer server;
  server.SetBody("/x", "body");
  EXPECT_THAT(RawRequest(server, "POST /x HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 405 "));
  EXPECT_THAT(RawRequest(server, "nonsense\r\n\r\n"), StartsWith("HTTP/1.1 400 "));
  EXPECT_THAT(RawRequest(server, "GET /x HTTP/1.1\r\n"), StartsWith("HTTP/1.1 400 "));
}

TEST(HttpServer, HeadHasTheLengthAndNoBody) {
  HttpServer server;
  server.SetBody("/x", "body");
  const std::string reply = RawRequest(server, "HEAD /x HTTP/1.1\r\n\r\n");
  EXPECT_THAT(reply, HasSubstr("\r\nContent-Length: 4\r\n"));
  EXPECT_THAT(reply, Not(HasSubstr("body")));
}

TEST(HttpServer, LastModifiedIsSentOnlyWhenAskedFor) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "f", "x");
  HttpServer server(directory.Path());
  EXPECT_THAT(RawGet(server, "/f"), Not(HasSubstr("Last-Modified")));
  HttpAnswer answer;
  answer.headers.emplace_back("Last-Modified", "Thu, 01 Jan 2015 00:00:00 GMT");
  answer.body_file = directory.Path() / "f";
  server.SetAnswer("/f", answer);
  EXPECT_THAT(RawGet(server, "/f"),
              HasSubstr("\r\nLast-Modified: Thu, 01 Jan 2015 00:00:00 GMT\r\n"));
}

TEST(HttpServer, RequestsAreRecordedAsTheyWereSent) {
  HttpServer server;
  server.SetBody("/a b", "x");
  std::vector<std::string> arguments = WgetArguments(server.Url("/a%20b?list=[\"1\"]&y=%2F"));
  arguments.insert(arguments.begin() + 1, "--user-agent=tester/1.0 (x)");
  EXPECT_EQ(RunCommand(arguments).exit_status, 0);
  ASSERT_EQ(server.Requests().size(), 1U);
  const HttpRequest request = server.Requests()[0];
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.target, "/a%20b?list=[%221%22]&y=%2F");
  EXPECT_EQ(request.path, "/a b");
  EXPECT_EQ(request.query, "list=[%221%22]&y=%2F");
  EXPECT_EQ(request.user_agent, "tester/1.0 (x)");
}

TEST(HttpServer, SetAnswerGoesBeforeTheFileUntilReset) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "f", "file");
  HttpServer server(directory.Path());
  HttpAnswer answer;
  answer.status = 503;
  server.SetAnswer("/f", answer);
  EXPECT_EQ(Wget(server.Url("/f")).exit_status, kServerError);
  server.Reset("/f");
  EXPECT_EQ(Wget(server.Url("/f")).out, "file");
}

TEST(HttpServer, HandlerAnswersEachRequestInItsOwnWay) {
  HttpServer server;
  server.SetHandler("/n", [&server](const HttpRequest& request) {
    HttpAnswer answer;
    answer.body = std::to_string(server.RequestCount("/n")) + request.query;
    return answer;
  });
  EXPECT_EQ(Wget(server.Url("/n?a")).out, "1a");
  EXPECT_EQ(Wget(server.Url("/n?b")).out, "2b");
}

TEST(HttpServer, FailingHandlerIsAnInternalError) {
  HttpServer server;
  server.SetHandler("/x",
                    [](const HttpRequest&) -> HttpAnswer { throw std::runtime_error("oh no"); });
  EXPECT_THAT(RawGet(server, "/x"), StartsWith("HTTP/1.1 500 "));
}

TEST(HttpServer, RedirectIsFollowed) {
  HttpServer server;
  server.Redirect("/old", server.Url("/new"));
  server.SetBody("/new", "there");
  EXPECT_EQ(Wget(server.Url("/old")).out, "there");
  EXPECT_EQ(server.RequestCount("/old"), 1U);
  EXPECT_EQ(server.RequestCount("/new"), 1U);
}

TEST(HttpServer, RedirectLoopFails) {
  HttpServer server;
  server.Redirect("/loop", "/loop");
  EXPECT_EQ(Wget(server.Url("/loop")).exit_status, kServerError);
}

TEST(HttpServer, ShortBodyAgainstItsLengthFails) {
  HttpServer server;
  HttpAnswer answer;
  answer.body = "only this";
  answer.stated_length = 1000;
  server.SetAnswer("/short", answer);
  const CommandResult result = Wget(server.Url("/short"));
  EXPECT_EQ(result.exit_status, kNetworkFailure);
  EXPECT_EQ(result.out, "only this");
}

TEST(HttpServer, BodyWithoutLengthEndsWithTheConnection) {
  HttpServer server;
  HttpAnswer answer;
  answer.body = "part";
  answer.without_length = true;
  server.SetAnswer("/part", answer);
  EXPECT_THAT(RawGet(server, "/part"), Not(HasSubstr("Content-Length")));
  const CommandResult result = Wget(server.Url("/part"));
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "part");
}

TEST(HttpServer, DelayedAnswerArrives) {
  HttpServer server;
  HttpAnswer answer;
  answer.delay = std::chrono::milliseconds(20);
  answer.body = "late";
  server.SetAnswer("/late", answer);
  EXPECT_EQ(Wget(server.Url("/late")).out, "late");
}

class HangingServer : public ::testing::Test {
 protected:
  HangingServer() { server_->Hang("/hang", "at last"); }

  std::unique_ptr<HttpServer> server_ = std::make_unique<HttpServer>();
};

TEST_F(HangingServer, AnswersAfterRelease) {
  RunningCommand wget(WgetArguments(server_->Url("/hang")));
  ASSERT_TRUE(server_->WaitForRequest("/hang"));
  EXPECT_TRUE(wget.Process().IsRunning());
  EXPECT_EQ(wget.Out(), "");
  server_->Release();
  const CommandResult result = wget.Wait();
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "at last");
}

TEST_F(HangingServer, ReleaseIsNotForLaterRequests) {
  server_->Release();
  RunningCommand wget(WgetArguments(server_->Url("/hang")));
  ASSERT_TRUE(server_->WaitForRequest("/hang"));
  EXPECT_TRUE(wget.Process().IsRunning());
}

TEST_F(HangingServer, EndsWithoutWaitingForItsClients) {
  RunningCommand wget(WgetArguments(server_->Url("/hang")));
  ASSERT_TRUE(server_->WaitForRequest("/hang"));
  server_.reset();
  EXPECT_EQ(wget.Wait().exit_status, kNetworkFailure);
}

TEST_F(HangingServer, PausedBodyGoesOnAfterRelease) {
  HttpAnswer pausing;
  pausing.body = "first second";
  pausing.pause_at = 6;
  server_->SetAnswer("/pause", pausing);
  RunningCommand wget(WgetArguments(server_->Url("/pause")));
  ASSERT_TRUE(WaitUntil([&] { return wget.Out() == "first "; }));
  EXPECT_TRUE(wget.Process().IsRunning());
  server_->Release();
  EXPECT_EQ(wget.Wait().out, "first second");
}

TEST_F(HangingServer, ConnectionIsHeldOpenAtTheEndOfTheBody) {
  HttpAnswer holding;
  holding.body = "all";
  holding.without_length = true;
  holding.pause_at = 3;
  server_->SetAnswer("/hold", holding);
  RunningCommand wget(WgetArguments(server_->Url("/hold")));
  ASSERT_TRUE(WaitUntil([&] { return wget.Out() == "all"; }));
  EXPECT_TRUE(wget.Process().IsRunning());
  server_->Release();
  EXPECT_EQ(wget.Wait().exit_status, 0);
}

TEST(HttpServer, RawAnswerIsSentAsItStands) {
  HttpServer server;
  HttpAnswer answer;
  answer.raw = "anything\r\n";
  answer.body = "not this";
  server.SetAnswer("/raw", answer);
  EXPECT_EQ(RawGet(server, "/raw"), "anything\r\n");
}

TEST(HttpServer, EndsWhileABodyIsBeingSent) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "endless", "x");
  fs::resize_file(directory.Path() / "endless", 1ULL << 40);
  auto server = std::make_unique<HttpServer>(directory.Path());
  RunningCommand wget(
      {"wget", "-q", "--no-proxy", "--tries=1", "-O", "/dev/null", server->Url("/endless")});
  ASSERT_TRUE(server->WaitForRequest("/endless"));
  server.reset();
  EXPECT_EQ(wget.Wait().exit_status, kNetworkFailure);
}

TEST(HttpServer, WaitingForARequestHasAnEnd) {
  HttpServer server;
  EXPECT_FALSE(server.WaitForRequest("/never", 1, std::chrono::seconds(0)));
}

TEST(HttpServer, AnswersSeveralClientsAtOnce) {
  HttpServer server;
  server.SetBody("/x", std::string(100 * 1000, 'x'));
  std::vector<std::thread> clients;
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&server] {
      for (int n = 0; n < 20; ++n) {
        EXPECT_THAT(RawGet(server, "/x"), StartsWith("HTTP/1.1 200 "));
      }
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  EXPECT_EQ(server.RequestCount("/x"), 160U);
}

const char kCommand[] = TOLM_TEST_BIN_DIR "/tolm-test-server";

TEST(TestServerCommand, ServesUntilTerminatedAndKeepsALog) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "www/f", "four");
  const fs::path port_file = directory.Path() / "port";
  const fs::path log = directory.Path() / "log";
  RunningCommand server(
      {kCommand, directory.Path() / "www", "--port-file", port_file, "--log", log});
  ASSERT_TRUE(WaitUntil([&] { return fs::exists(port_file); }));
  const std::string port = ReadFile(port_file);
  EXPECT_EQ(server.Out(), port);
  const std::string root = "http://127.0.0.1:" + port.substr(0, port.size() - 1);
  EXPECT_EQ(Wget(root + "/f?q=1").out, "four");
  EXPECT_EQ(Wget(root + "/none").exit_status, kServerError);
  server.Process().Signal(SIGTERM);
  const CommandResult result = server.Wait();
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, IsEmpty());
  EXPECT_THAT(ReadFile(log), StartsWith("GET /f?q=1 200 4\nGET /none 404 "));
  EXPECT_EQ(ListTree(directory.Path()), (std::vector<std::string>{"log", "port", "www/", "www/f"}));
}

TEST(TestServerCommand, WrongCallIsRefused) {
  EXPECT_EQ(RunCommand({kCommand}).exit_status, 2);
  EXPECT_EQ(RunCommand({kCommand, "/nowhere"}).exit_status, 2);
  EXPECT_EQ(RunCommand({kCommand, "/tmp", "--unknown"}).exit_status, 2);
  EXPECT_EQ(RunCommand({kCommand, "/tmp", "--log", "/nowhere/log"}).exit_status, 1);
}

}  // namespace
}  // namespace tolm::testing

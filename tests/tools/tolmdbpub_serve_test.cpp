// The installed publisher as a server.

#include <sys/stat.h>

#include <fstream>

#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class ServeTest : public RepositoryTest {
 protected:
  CommandResult Get(const std::string& path, std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"wget", "-q", "-S", "--no-config", "-O", "/tmp/got"});
    options.push_back(server_->Url(path));
    return RunCommand(options);
  }
  std::string Body(const std::string& path) {
    EXPECT_EQ(Get(path).exit_status, 0) << path;
    return ReadFile("/tmp/got");
  }
  void Start() { server_ = std::make_unique<RunningServer>(repo_); }

  std::uint64_t PeakBytes() {
    std::ifstream status("/proc/" + std::to_string(server_->Command().Process().Pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmHWM:", 0) == 0) {
        return std::stoull(line.substr(6)) * 1024;
      }
    }
    return 0;
  }

  std::unique_ptr<RunningServer> server_;
};

TEST_F(ServeTest, PublicFilesAreServedWithoutTheirQuery) {
  MustRelease({{"a", std::string(1000, 'a')}});
  Start();
  const std::string description = ReadFile(InPublic("database_info/1"));
  EXPECT_EQ(Body("/database_info/1"), description);
  EXPECT_EQ(Body("/database_info/1?os=tmo&dlid=&db_list[oui]=1"), description);
  EXPECT_TRUE(Body("/packages/oui/oui_v1000001") ==
              ReadFile(InPublic("packages/oui/oui_v1000001")));
}

TEST_F(ServeTest, NothingSaysWhenAFileWasModifiedOrCompressesIt) {
  Start();
  const CommandResult result = Get("/database_info/1", {"--header=Accept-Encoding: gzip"});
  EXPECT_THAT(result.err, AllOf(HasSubstr("200 OK"), Not(HasSubstr("Last-Modified")),
                                Not(HasSubstr("Content-Encoding"))));
}

TEST_F(ServeTest, NothingElseIsServed) {
  WriteFile("/tmp/repo/public/inside", "x");
  fs::create_symlink("/tmp/keys/signing.key", InPublic("link"));
  fs::create_directory_symlink("/tmp/keys", InPublic("directory"));
  Start();
  EXPECT_EQ(Body("/inside"), "x");
  for (const char* path :
       {"/nothing", "/", "/packages", "/packages/", "/link", "/directory/signing.key",
        "/../state/settings.json", "/%2e%2e/state/settings.json", "/packages/%2e%2e/%2e%2e/state",
        "//tmp/keys/signing.key"}) {
    const CommandResult result = Get(path);
    EXPECT_EQ(result.exit_status, 8) << path;
    EXPECT_THAT(result.err, HasSubstr("404 ")) << path;
  }
  const CommandResult post = Get("/inside", {"--post-data=x"});
  EXPECT_EQ(post.exit_status, 8);
  EXPECT_THAT(post.err, HasSubstr("405 "));
}

TEST_F(ServeTest, MemoryDoesNotGrowWithTheFile) {
  Start();
  WriteFile(InPublic("small"), "x");
  Body("/small");
  const std::uint64_t before = PeakBytes();
  WriteFile(InPublic("large"), "x");
  fs::resize_file(InPublic("large"), 1u << 30);
  ASSERT_EQ(RunCommand({"wget", "-q", "--no-config", "-O", "/dev/null", server_->Url("/large")})
                .exit_status,
            0);
  EXPECT_GT(before, 0u);
  EXPECT_LT(PeakBytes(), before + (8u << 20));
}

TEST_F(ServeTest, DownloadGoesOnWhereItWasCutOff) {
  MustRelease({{"a", std::string(1000, 'a')}});
  Start();
  const std::string package = ReadFile(InPublic("packages/oui/oui_v1000001"));
  WriteFile("/tmp/got", package.substr(0, 100));
  const CommandResult result = Get("/packages/oui/oui_v1000001", {"-c"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err,
              AllOf(HasSubstr("206 Partial Content"),
                    HasSubstr("Content-Range: bytes 100-" + std::to_string(package.size() - 1) +
                              '/' + std::to_string(package.size()))));
  EXPECT_TRUE(ReadFile("/tmp/got") == package);
}

TEST_F(ServeTest, OneRangeIsSentAloneAndEverythingElseWhole) {
  WriteFile(InPublic("digits"), "0123456789");
  WriteFile(InPublic("empty"), "");
  Start();
  const std::string whole = "200 OK; Accept-Ranges: bytes; Content-Length: 10; 0123456789";
  const std::string none =
      "416 Range Not Satisfiable; Accept-Ranges: bytes; Content-Length: 0; "
      "Content-Range: bytes */10; ";
  const auto part = [](int length, const std::string& range, const std::string& body) {
    return "206 Partial Content; Accept-Ranges: bytes; Content-Length: " + std::to_string(length) +
           "; Content-Range: bytes " + range + "/10; " + body;
  };
  const std::vector<std::vector<std::string>> rows = {
      {"GET /digits", "X: y", whole},
      {"GET /digits", "Range: bytes=4-6", part(3, "4-6", "456")},
      {"GET /digits", "Range: bytes=0-2", part(3, "0-2", "012")},
      {"GET /digits", "Range: bytes=8-10", part(2, "8-9", "89")},
      {"GET /digits", "Range: bytes=4-", part(6, "4-9", "456789")},
      {"GET /digits", "Range: bytes=8-99", part(2, "8-9", "89")},
      {"GET /digits", "Range: bytes=9-9223372036854775807", part(1, "9-9", "9")},
      {"GET /digits", "Range: bytes=-3", part(3, "7-9", "789")},
      {"GET /digits", "Range: bytes=-99", part(10, "0-9", "0123456789")},
      {"GET /digits", "Range: bytes=10-", none},
      {"GET /digits", "Range: bytes=-0", none},
      {"GET /digits", "Range: bytes=0-1,3-4", whole},
      {"GET /digits", "Range: bytes=4-6\r\nIf-Range: \"x\"", whole},
      {"HEAD /digits", "Range: bytes=4-6", "200 OK; Accept-Ranges: bytes; Content-Length: 10; "},
      {"GET /empty", "Range: bytes=0-",
       "416 Range Not Satisfiable; Accept-Ranges: bytes; Content-Length: 0; "
       "Content-Range: bytes */0; "},
      {"GET /nothing", "Range: bytes=0-", "404 Not Found; Content-Length: 0; "},
  };
  const std::string url = server_->Url("");
  const std::string port = url.substr(url.rfind(':') + 1);
  for (const auto& row : rows) {
    const CommandResult answer =
        RunCommand({"bash", "-c",
                    "exec 3<>/dev/tcp/127.0.0.1/$0 && printf \"$1 HTTP/1.1\r\nConnection: "
                    "close\r\n$2\r\n\r\n\""
                    " >&3 && tr -d '\r' <&3 | grep -vE '^(Connection|Content-Type):'",
                    port, row[0], row[1]});
    std::string told = answer.out.substr(answer.out.find(' ') + 1);
    for (std::size_t at = told.find('\n'); at != std::string::npos; at = told.find('\n')) {
      const bool is_end = told.compare(at, 2, "\n\n") == 0;
      told.replace(at, is_end ? 2 : 1, "; ");
    }
    while (told.size() > row[2].size() && told.back() == ' ') {
      told.resize(told.size() - 2);
    }
    EXPECT_EQ(told, row[2]) << row[0] << ' ' << row[1];
  }
}

TEST_F(ServeTest, PipeIsNotWaitedFor) {
  ASSERT_EQ(::mkfifo(InPublic("pipe").c_str(), 0644), 0);
  Start();
  EXPECT_THAT(Get("/pipe", {"--timeout=20", "--tries=1"}).err, HasSubstr("404 "));
}

TEST_F(ServeTest, FileThatIsCutWhileItIsSentEndsTheConnection) {
  WriteFile(InPublic("large"), "");
  fs::resize_file(InPublic("large"), 1u << 30);
  Start();
  const std::string url = server_->Url("");
  const CommandResult result = RunCommand(
      {"bash", "-c",
       "exec 3<>/dev/tcp/127.0.0.1/$0 && printf 'GET /large HTTP/1.1\r\n\r\n' >&3 && "
       "head -c 1000 <&3 > /dev/null && truncate -s 0 $1 && timeout 30 cat <&3 > /dev/null",
       url.substr(url.rfind(':') + 1), InPublic("large")});
  EXPECT_EQ(result.exit_status, 0) << result.err;
}

// Connections that the server has closed are remembered for a while.
TEST_F(ServeTest, PortCanBeTakenAgainAtOnce) {
  Start();
  Body("/database_info/1");
  const std::string url = server_->Url("");
  const std::string port = url.substr(url.rfind(':') + 1);
  RunCommand({"bash", "-c",
              "exec 3<>/dev/tcp/127.0.0.1/$0 && printf 'GET / HTTP/1.1\r\nConnection: "
              "close\r\n\r\n' >&3 && cat <&3",
              port});
  server_->Command().Process().Signal(SIGTERM);
  EXPECT_EQ(server_->Command().Wait().exit_status, 0);
  RunningCommand again({kPub, "serve", repo_, "--port", port});
  EXPECT_TRUE(WaitUntil([&] { return again.Out().find('\n') != std::string::npos; }));
  EXPECT_EQ(again.Out(), port + '\n');
  again.Process().Signal(SIGINT);
  EXPECT_EQ(again.Wait().exit_status, 0) << again.Err();
}

TEST_F(ServeTest, EndsWhenItIsTold) {
  for (const int signal : {SIGTERM, SIGINT}) {
    RunningServer server(repo_);
    server.Command().Process().Signal(signal);
    EXPECT_EQ(server.Command().Wait().exit_status, 0);
  }
}

TEST_F(ServeTest, WithoutPublicFilesNothingIsServed) {
  fs::rename(repo_ / "public", "/tmp/elsewhere");
  ExpectFailure(Pub({"serve", repo_}), HasSubstr("/tmp/repo/public: No such file or directory"));
  ExpectFailure(Pub({"serve", "/tmp/none"}), HasSubstr("/tmp/none: no repository"));
}

TEST_F(ServeTest, PortThatIsTakenIsAFailure) {
  Start();
  const std::string url = server_->Url("");
  ExpectFailure(Pub({"serve", repo_, "--port", url.substr(url.rfind(':') + 1)}),
                HasSubstr("cannot listen there"));
  ExpectFailure(Pub({"serve", repo_, "--address", "203.0.113.1"}),
                HasSubstr("203.0.113.1:0: cannot listen there"));
}

}  // namespace
}  // namespace tolm::testing

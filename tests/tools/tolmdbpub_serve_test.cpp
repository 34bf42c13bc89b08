// The installed publisher as a server.

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

TEST_F(ServeTest, EndsWhenItIsTold) {
  for (const int signal : {SIGTERM, SIGINT}) {
    RunningServer server(repo_);
    server.Command().Process().Signal(signal);
    EXPECT_EQ(server.Command().Wait().exit_status, 0);
  }
}

TEST_F(ServeTest, PortThatIsTakenIsAFailure) {
  Start();
  const std::string url = server_->Url("");
  ExpectFailure(Pub({"serve", repo_, "--port", url.substr(url.rfind(':') + 1)}),
                HasSubstr("cannot listen there"));
}

}  // namespace
}  // namespace tolm::testing

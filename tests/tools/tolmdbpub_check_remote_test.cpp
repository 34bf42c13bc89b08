// The installed publisher looks at what is served from outside.

#include "tests/support/http_server.h"
#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class CheckRemoteTest : public RepositoryTest {
 protected:
  void SetUp() override {
    RepositoryTest::SetUp();
    ASSERT_EQ(Pub({"set", repo_, "--base-url", server_.Url("")}).exit_status, 0);
    MustRelease(Version("one"));
    MustRelease(Version("two"));
    fs::copy(repo_ / "public", kSite, fs::copy_options::recursive);
  }

  CommandResult Check(std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"check", repo_, "--remote", server_.Url("")});
    return Pub(options);
  }
  void AnswerWith(const std::string& path, const std::string& name, const std::string& value) {
    HttpAnswer answer;
    answer.body = ReadFile(fs::path(kSite) / path);
    answer.headers = {{name, value}};
    server_.SetAnswer('/' + path, answer);
  }

  /// So large that a delta pays.
  static Tree Version(const std::string& text) {
    Tree tree = {{"a.txt", text}, {"filler", ""}};
    std::uint32_t state = 7;
    while (tree["filler"].size() < 10000) {
      state = state * 1664525u + 1013904223u;
      tree["filler"] += static_cast<char>(state >> 24);
    }
    return tree;
  }
  static fs::path Made(const fs::path& directory) {
    fs::create_directories(directory);
    return directory;
  }

  static constexpr char kSite[] = "/tmp/site";
  HttpServer server_{Made(kSite)};
};

TEST_F(CheckRemoteTest, ReadsEveryPackageAsDevicesDo) {
  const CommandResult result = Check();
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("in order: 2 packages, "));
  EXPECT_EQ(server_.RequestCount("/database_info/1"), 1u);
  EXPECT_THAT(server_.Requests().front().query, HasSubstr("db_list["));
  EXPECT_EQ(server_.RequestCount("/packages/oui/oui_v1000002"), 1u);
  EXPECT_EQ(server_.RequestCount("/packages/oui/oui_d1000002"), 1u);
}

TEST_F(CheckRemoteTest, QuickLookAsksForHeadersAlone) {
  const CommandResult result = Check({"--quick"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("2 packages, the sizes alone"));
  for (const HttpRequest& request : server_.Requests()) {
    EXPECT_EQ(request.method, request.path == "/database_info/1" ? "GET" : "HEAD") << request.path;
  }
}

TEST_F(CheckRemoteTest, MissingAndOtherPackagesAreFound) {
  fs::remove(fs::path(kSite) / "packages/oui/oui_d1000002");
  ChangeByte(fs::path(kSite) / "packages/oui/oui_v1000002", 20);
  const CommandResult whole = Check();
  EXPECT_EQ(whole.exit_status, 1);
  EXPECT_THAT(whole.err, AllOf(HasSubstr("oui_d1000002: the server answers with status 404"),
                               HasSubstr("oui_v1000002: is another file")));
  const CommandResult quick = Check({"--quick"});
  EXPECT_EQ(quick.exit_status, 1);
  EXPECT_THAT(quick.err, AllOf(HasSubstr("oui_d1000002"), Not(HasSubstr("another file"))));
  WriteFile(fs::path(kSite) / "packages/oui/oui_v1000002", "cut");
  EXPECT_THAT(Check({"--quick"}).err, HasSubstr("oui_v1000002: has 3 bytes, and "));
}

TEST_F(CheckRemoteTest, PackagesOfAStagedReleaseAreProvedToo) {
  MustRelease(Version("three"), {"--stages", "1%/6h,100%"});
  fs::copy(repo_ / "public", kSite,
           fs::copy_options::recursive | fs::copy_options::overwrite_existing);
  EXPECT_THAT(Check().out, HasSubstr("in order: 4 packages, "));
  ChangeByte(fs::path(kSite) / "packages/oui/oui_v1000003", 20);
  WriteFile(fs::path(kSite) / "packages/oui/oui_d1000003", "cut");
  const CommandResult whole = Check();
  EXPECT_EQ(whole.exit_status, 1);
  EXPECT_THAT(whole.err, AllOf(HasSubstr("oui_v1000003: is another file"),
                               HasSubstr("oui_d1000003: has 3 bytes, and ")));
  fs::remove(fs::path(kSite) / "packages/oui/oui_v1000003");
  EXPECT_THAT(Check({"--quick"}).err,
              HasSubstr("oui_v1000003: the server answers with status 404"));
  for (const char* package : {"packages/oui/oui_v1000003", "packages/oui/oui_d1000003"}) {
    fs::copy(InPublic(package), fs::path(kSite) / package, fs::copy_options::overwrite_existing);
  }
  EXPECT_EQ(Pub({"check", repo_, "--remote", kSite, "--quick"}).exit_status, 0);
  fs::remove(fs::path(kSite) / "packages/oui/oui_d1000003");
  EXPECT_THAT(Pub({"check", repo_, "--remote", kSite, "--quick"}).err,
              HasSubstr("oui_d1000003: is not there"));
}

TEST_F(CheckRemoteTest, SaysHowFarBehindOrAheadTheServerIs) {
  const fs::path older = "/tmp/older";
  fs::copy(repo_, older, fs::copy_options::recursive);
  MustRelease(Version("three"));
  const CommandResult behind = Check();
  EXPECT_EQ(behind.exit_status, 1);
  EXPECT_THAT(behind.err, AllOf(HasSubstr("behind this repository's"),
                                HasSubstr("oui 1000002 there, 1000003 here")));
  fs::copy(repo_ / "public", kSite,
           fs::copy_options::recursive | fs::copy_options::overwrite_existing);
  const CommandResult ahead = Pub({"check", older, "--remote", server_.Url("")});
  EXPECT_EQ(ahead.exit_status, 0) << ahead.err;
  EXPECT_THAT(ahead.err, HasSubstr("is newer than this repository's"));
}

TEST_F(CheckRemoteTest, WhatDevicesRefuseIsWrong) {
  const fs::path served = fs::path(kSite) / "database_info/1";
  const std::string whole = ReadFile(served);
  WriteFile(served, whole.substr(0, whole.size() / 2));
  EXPECT_THAT(Check().err, HasSubstr("the description is damaged"));
  Json::Value unsigned_one = Description();
  unsigned_one.removeMember("signed");
  unsigned_one.removeMember("signature");
  WriteJson(served, unsigned_one);
  EXPECT_THAT(Check().err, HasSubstr("the description is not signed"));
  Json::Value altered = Description();
  altered["signed"] = altered["signed"].asString() + " ";
  WriteJson(served, altered);
  EXPECT_EQ(Check().exit_status, 1);
  fs::remove(served);
  const CommandResult missing = Check();
  EXPECT_EQ(missing.exit_status, 1);
  EXPECT_THAT(missing.err, HasSubstr("the server answers with status 404"));
}

TEST_F(CheckRemoteTest, WhatIsSignedIsComparedWithWhatOldDevicesRead) {
  Json::Value two_things = Description();
  two_things["db_list"]["oui"]["sha384"] = std::string(96, '0');
  WriteJson(fs::path(kSite) / "database_info/1", two_things);
  const CommandResult result = Check({"--quick"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("the description says two things of " +
                                    server_.Url("/packages/oui/oui_v1000002")));
}

TEST_F(CheckRemoteTest, HeadersThatHurtAreNoted) {
  AnswerWith("database_info/1", "Last-Modified", "Sat, 31 Jan 2026 10:00:00 GMT");
  EXPECT_THAT(Check({"--quick"}).err, HasSubstr("comes with Last-Modified"));
  AnswerWith("database_info/1", "Cache-Control", "public, max-age=86400");
  EXPECT_THAT(Check({"--quick"}).err, HasSubstr("caches may keep it for 86400 s"));
  AnswerWith("database_info/1", "Accept-Ranges", "bytes");
  EXPECT_THAT(Check({"--quick"}).err, HasSubstr("no ranges of it are served"));
  AnswerWith("database_info/1", "Content-Encoding", "gzip");
  const CommandResult encoded = Check({"--quick"});
  EXPECT_EQ(encoded.exit_status, 1);
  EXPECT_THAT(encoded.err, HasSubstr("Content-Encoding: gzip"));
}

}  // namespace
}  // namespace tolm::testing

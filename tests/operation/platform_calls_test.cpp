#include "operation/platform_calls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "operation/road.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/syslog_capture.h"
#include "tolm/archive.h"
#include "tolm/exec.h"
#include "tolm/fs.h"
#include "tolm/plugin.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kWget[] = "/usr/bin/wget";
constexpr char kFile[] = "/tmp/file";
const char* const kEnd = nullptr;

// Writes down what it is told.
class FakeObserver : public StepObserver {
 public:
  bool MayGoOn() override { return may_go_on; }
  bool MayDownload(const Step& step) override {
    asked.push_back(step.url + " to " + step.file);
    return may_download;
  }
  void Downloaded(const Step& step, const DownloadResult& result) override {
    downloaded.push_back(step.url + ": " + std::to_string(result.exit_status));
  }
  std::optional<std::uint64_t> MostBytes() override { return most_bytes; }
  void Refused(const PackageRefusal&) override { ++refused; }
  void Began(const Step& step) override {
    kinds.push_back(step.kind);
    files.push_back(step.file);
  }

  int refused = 0;
  bool may_go_on = true;
  bool may_download = true;
  std::optional<std::uint64_t> most_bytes;
  std::vector<std::string> asked;
  std::vector<std::string> downloaded;
  std::vector<StepKind> kinds;
  std::vector<std::string> files;
};

class PlatformCallsTest : public ::testing::Test {
 protected:
  // The loopback server is one that may be asked, since it is the configured one.
  void Configure() const {
    testing::WriteFile("/usr/share/data_update/data_update.conf",
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:)" +
                           std::to_string(server_.Port()) + R"("}})");
  }
  int Download(const std::string& url) {
    return TLIBCExecl(kWget, 0, "-N", url.c_str(), "-O", kFile, "-U", "agent", "--tries=1", kEnd);
  }

  testing::HttpServer server_;
  FakeObserver observer_;
};

TEST_F(PlatformCallsTest, DownloadIsToldWithItsResult) {
  const WatchedSteps watched(observer_);
  Configure();
  server_.SetBody("/x", "text");
  EXPECT_EQ(Download(server_.Url("/x")), 0);
  EXPECT_EQ(testing::ReadFile(kFile), "text");
  EXPECT_EQ(Download(server_.Url("/missing")), 8);
  EXPECT_THAT(observer_.asked, ElementsAre(server_.Url("/x") + " to /tmp/file",
                                           server_.Url("/missing") + " to /tmp/file"));
  EXPECT_THAT(observer_.downloaded,
              ElementsAre(server_.Url("/x") + ": 0", server_.Url("/missing") + ": 8"));
  EXPECT_THAT(observer_.kinds, ElementsAre(StepKind::kDownload, StepKind::kDownload));
}

TEST_F(PlatformCallsTest, RefusedDownloadIsNotRun) {
  const WatchedSteps watched(observer_);
  observer_.may_download = false;
  EXPECT_LT(Download(server_.Url("/x")), 0);
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_FALSE(fs::exists(kFile));
  EXPECT_THAT(observer_.downloaded, IsEmpty());
  EXPECT_THAT(observer_.kinds, IsEmpty());
}

TEST_F(PlatformCallsTest, DownloadIsHeldToItsBoundAndOnlyThat) {
  const WatchedSteps watched(observer_);
  Configure();
  server_.SetBody("/x", std::string(5000, 'x'));
  observer_.most_bytes = 4999;
  EXPECT_NE(Download(server_.Url("/x")), 0);
  EXPECT_LE(fs::file_size(kFile), 4999u);
  observer_.most_bytes = 5000;
  EXPECT_EQ(Download(server_.Url("/x")), 0);
  EXPECT_EQ(fs::file_size(kFile), 5000u);
  testing::WriteFile("/tmp/other", std::string(6000, 'x'));
  EXPECT_EQ(fs::file_size("/tmp/other"), 6000u);
}

TEST_F(PlatformCallsTest, OtherProgramsGetTheirArguments) {
  const WatchedSteps watched(observer_);
  EXPECT_EQ(TLIBCExecl("/usr/bin/test", 0, "a b", "=", "a b", kEnd), 0);
  EXPECT_EQ(TLIBCExecl("/usr/bin/test", 0, "a", "=", "b", kEnd), 1);
  EXPECT_EQ(TLIBCExecl("/usr/bin/true", 0, kEnd), 0);
  EXPECT_THAT(observer_.kinds, ElementsAre(StepKind::kPatch, StepKind::kPatch, StepKind::kPatch));
}

TEST_F(PlatformCallsTest, TwelveArgumentsAreAllThatIsPassedOn) {
  EXPECT_EQ(TLIBCExecl("/usr/bin/test", 0, "a", "-a", "b", "-a", "c", "-a", "d", "-a", "e", "-a",
                       "f", "!=", kEnd),
            2);
  EXPECT_EQ(TLIBCExecl("/usr/bin/true", 0, "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11",
                       "12", kEnd),
            0);
  EXPECT_LT(TLIBCExecl("/usr/bin/true", 0, "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11",
                       "12", "13", kEnd),
            0);
}

TEST_F(PlatformCallsTest, EachArgumentArrivesInItsPlace) {
  const std::string write = "printf '%s ' \"$0\" \"$@\" >/tmp/arguments";
  const auto told = [&] {
    EXPECT_EQ(TLIBCExecl("/bin/sh", 0, "-c", write.c_str(), "3", "4", "5", "6", "7", "8", "9", "10",
                         "11", "12", kEnd),
              0);
    return testing::ReadFile("/tmp/arguments");
  };
  EXPECT_EQ(told(), "3 4 5 6 7 8 9 10 11 12 ");
  const WatchedSteps watched(observer_);
  EXPECT_EQ(told(), "3 4 5 6 7 8 9 10 11 12 ");
}

TEST_F(PlatformCallsTest, DirectoriesAreMadeUnlessTheOperationEnds) {
  const WatchedSteps watched(observer_);
  EXPECT_EQ(TOLMFSMkdirP("/tmp/one", 0, 0, -1, -1, -1), 0);
  EXPECT_TRUE(fs::is_directory("/tmp/one"));
  observer_.may_go_on = false;
  EXPECT_NE(TOLMFSMkdirP("/tmp/two", 0, 0, -1, -1, -1), 0);
  EXPECT_FALSE(fs::exists("/tmp/two"));
}

TEST_F(PlatformCallsTest, PackagesAreToldWithTheirFiles) {
  const WatchedSteps watched(observer_);
  tolmarchive* const archive = tolmarchive_init("/tmp");
  testing::WriteFile("/tmp/oui_v2", "no package");
  EXPECT_EQ(tolmarchive_open_with_keytype(archive, "/tmp/oui_v2", 6), 0);
  EXPECT_EQ(tolmarchive_extract_multiple(archive, nullptr, 4), 0);
  EXPECT_THAT(observer_.kinds,
              ElementsAre(StepKind::kVerify, StepKind::kUnpack, StepKind::kPrepare));
  EXPECT_EQ(observer_.refused, 2);
  EXPECT_THAT(observer_.files, ElementsAre("/tmp/oui_v2", "/tmp/oui_v2", "/tmp/oui_v2"));
  observer_.kinds.clear();
  observer_.may_go_on = false;
  EXPECT_EQ(tolmarchive_open_with_keytype(archive, "/tmp/oui_v2", 6), 0);
  EXPECT_EQ(tolmarchive_extract_multiple(archive, nullptr, 4), 0);
  EXPECT_THAT(observer_.kinds, IsEmpty());
  tolmarchive_free(archive);
}

TEST_F(PlatformCallsTest, RoadSaysWhatBecameOfEachPackage) {
  std::vector<std::string> lines;
  const Road road([&lines](const std::string& line) { lines.push_back(line); });
  tolmarchive* const archive = tolmarchive_init("/tmp");
  testing::WriteFile("/tmp/oui_v2", "no package");
  EXPECT_EQ(tolmarchive_open_with_keytype(archive, "/tmp/oui_v2", 6), 0);
  EXPECT_EQ(tolmarchive_extract_multiple(archive, nullptr, 4), 0);
  EXPECT_THAT(lines, ElementsAre("refused oui_v2", "not unpacked: oui_v2"));
  tolmarchive_free(archive);
}

TEST_F(PlatformCallsTest, RoadSaysWhenPluginsRunAndWhenFilesAreInstalled) {
  std::vector<std::string> lines;
  const Road road([&lines](const std::string& line) { lines.push_back(line); });
  void* handle = nullptr;
  ASSERT_EQ(TLIBPluginSDKInit("module", "none", &handle), 0);
  EXPECT_EQ(TLIBPluginAction(SDK_PLUGIN_ACTION_PRE, handle), 0);
  EXPECT_EQ(TLIBPluginAction(SDK_PLUGIN_ACTION_POST, handle), 0);
  TLIBPluginExit(handle);
  EXPECT_THAT(lines,
              ElementsAre("plug-ins before the change", "installing", "plug-ins after the change"));
}

TEST_F(PlatformCallsTest, RoadNamesTheCopyThatAProgramPatches) {
  const WatchedSteps watched(observer_);
  std::vector<std::string> lines;
  const Road road([&lines](const std::string& line) { lines.push_back(line); });
  EXPECT_EQ(TLIBCExecl("/usr/bin/true", 0, "decode", "/tmp/copies/sub.b.txt", "/tmp/out", kEnd), 0);
  EXPECT_NE(TLIBCExecl("/usr/bin/false", 0, "decode", "/tmp/copies/sub.c.txt", "/tmp/out", kEnd),
            0);
  EXPECT_THAT(lines, ElementsAre("patched sub.b.txt", "not patched: sub.c.txt"));
}

TEST_F(PlatformCallsTest, NoHandleIsRefusedAndNothingIsToldOfIt) {
  const WatchedSteps watched(observer_);
  EXPECT_EQ(tolmarchive_open_with_keytype(nullptr, "/tmp/oui_v2", 6), 0);
  EXPECT_EQ(tolmarchive_extract_multiple(nullptr, nullptr, 4), 0);
  EXPECT_EQ(observer_.refused, 0);
}

TEST_F(PlatformCallsTest, HooksEncloseTheInstallationAndAreNeverRefused) {
  const WatchedSteps watched(observer_);
  observer_.may_go_on = false;
  void* handle = nullptr;
  ASSERT_EQ(TLIBPluginSDKInit("module", "none", &handle), 0);
  EXPECT_EQ(TLIBPluginAction(SDK_PLUGIN_ACTION_PRE, handle), 0);
  EXPECT_EQ(TLIBPluginAction(SDK_PLUGIN_ACTION_POST, handle), 0);
  TLIBPluginExit(handle);
  EXPECT_THAT(observer_.kinds,
              ElementsAre(StepKind::kPreHooks, StepKind::kInstall, StepKind::kPostHooks));
}

TEST_F(PlatformCallsTest, ObserverIsToldAgainAfterAnotherOneInBetween) {
  const WatchedSteps watched(observer_);
  Configure();
  server_.SetBody("/x", "text");
  FakeObserver between;
  {
    const WatchedSteps inner(between);
    EXPECT_EQ(Download(server_.Url("/x")), 0);
  }
  EXPECT_EQ(between.asked.size(), 1u);
  EXPECT_THAT(observer_.asked, IsEmpty());
  observer_.may_download = false;
  EXPECT_LT(Download(server_.Url("/x")), 0);
  EXPECT_EQ(observer_.asked.size(), 1u);
}

TEST_F(PlatformCallsTest, RefusedLinkIsNotAskedForWhoeverWatches) {
  const WatchedSteps watched(observer_);
  server_.SetBody("/x", "text");
  EXPECT_LT(Download(server_.Url("/x")), 0);
  EXPECT_TRUE(server_.Requests().empty());
  EXPECT_THAT(observer_.downloaded, ElementsAre(server_.Url("/x") + ": -1"));
}

TEST_F(PlatformCallsTest, WithoutAnObserverEverythingGoesThroughButLinksThatAreRefused) {
  server_.SetBody("/x", "text");
  EXPECT_NE(Download(server_.Url("/x")), 0);
  EXPECT_EQ(server_.RequestCount("/x"), 0u);
  Configure();
  EXPECT_EQ(Download(server_.Url("/x")), 0);
  EXPECT_EQ(TOLMFSMkdirP("/tmp/one", 0, 0, -1, -1, -1), 0);
  TellBegan({StepKind::kWait});
}

TEST_F(PlatformCallsTest, WithoutAnObserverTheLogSaysWhatWasRefusedAndOnlyThat) {
  server_.SetBody("/x", "text");
  testing::SyslogCapture::Clear();
  EXPECT_NE(Download(server_.Url("/x")), 0);
  const auto about = StartsWith(server_.Url("/x") + ": ");
  EXPECT_THAT(testing::SyslogCapture::TextsWithoutPlace(LOG_NOTICE), Contains(about));
  Configure();
  testing::SyslogCapture::Clear();
  EXPECT_EQ(Download(server_.Url("/x")), 0);
  EXPECT_THAT(testing::SyslogCapture::TextsWithoutPlace(LOG_NOTICE), Not(Contains(about)));
}

}  // namespace
}  // namespace tolm::operation

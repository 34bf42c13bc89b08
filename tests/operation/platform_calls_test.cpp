#include "operation/platform_calls.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/digest.h"
#include "base/human_text.h"
#include "base/paths.h"
#include "base/rules.h"
#include "offer/signed_offer.h"
#include "operation/device_trust.h"
#include "operation/interrupt.h"
#include "operation/own_ground.h"
#include "operation/package_reason.h"
#include "operation/road.h"
#include "operation/taken_from.h"
#include "tests/offer/offers.h"
#include "tests/package/authority.h"
#include "tests/package/payload_builder.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tolm/archive.h"
#include "tolm/exec.h"
#include "tolm/fs.h"
#include "tolm/plugin.h"

namespace {

bool is_overtaken = false;

}  // namespace

// The platform is found before this library, when a test wants that.
int dladdr(const void* address, Dl_info* info) noexcept {
  static auto* const look = reinterpret_cast<decltype(&dladdr)>(dlsym(RTLD_NEXT, "dladdr"));
  const int result = look(address, info);
  if (is_overtaken && address == reinterpret_cast<const void*>(&TLIBPluginAction)) {
    info->dli_fname = "/usr/lib/libtolmplatform.so.1";
    info->dli_fbase = nullptr;
  }
  return result;
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
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
    received.push_back(result.received_bytes);
    further.push_back(result.further);
  }
  void Answered(const Source& source, const DownloadResult& result) override {
    answered.push_back(source.address + ": " + std::to_string(result.exit_status));
  }
  std::optional<std::uint64_t> MostBytes() override { return most_bytes; }
  void Refused(const PackageRefusal& refusal) override {
    ++refused;
    last_refusal = refusal;
  }
  void Began(const Step& step) override {
    kinds.push_back(step.kind);
    files.push_back(step.file);
  }

  int refused = 0;
  PackageRefusal last_refusal{};
  bool may_go_on = true;
  bool may_download = true;
  std::optional<std::uint64_t> most_bytes;
  std::vector<std::string> asked;
  std::vector<std::string> downloaded;
  std::vector<std::string> answered;
  std::vector<std::uint64_t> received;
  std::vector<std::size_t> further;
  std::vector<StepKind> kinds;
  std::vector<std::string> files;
};

class PlatformCallsTest : public ::testing::Test {
 protected:
  // The loopback server is one that may be asked, since it is the configured one.
  void Configure() const {
    testing::WriteFile("/usr/share/data_update/data_update.conf",
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:)" +
                           std::to_string(server_.Port()) + R"(", "db_ver": "1"}})");
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
  // The platform's own number for what was not run.
  EXPECT_EQ(TLIBCExecl("/usr/bin/true", 0, "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11",
                       "12", "13", kEnd),
            -1);
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
  EXPECT_EQ(TOLMFSMkdirP("/tmp/two", 0, 0, -1, -1, -1), -1);
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

// Asks for what it is made to.
class FakeDemands : public CallDemands {
 public:
  bool MayMake(const std::string&) override { return true; }
  std::string PathToOpen(const std::string& package) override { return package + ".opened"; }
  std::string DifferenceFromOffer(const std::string&) override { return difference; }
  bool Accepts(const std::string& package) override {
    asked.push_back(package);
    return accepts;
  }

  std::string difference;
  bool accepts = true;
  std::vector<std::string> asked;
};

TEST_F(PlatformCallsTest, PackageThatDiffersFromItsOfferIsNotOpenedAndToldByBothPaths) {
  const WatchedSteps watched(observer_);
  std::vector<std::string> lines;
  const Road road([&lines](const std::string& line) { lines.push_back(line); });
  FakeDemands demands;
  demands.difference = "it has 5 bytes and not 6";
  const DemandedCalls demanded(demands);
  try {
    tolmarchive_open_with_keytype(nullptr, "/tmp/oui_v2", 6);
    FAIL();
  } catch (const ExplainedError& error) {
    EXPECT_THAT(error.what(), StartsWith("/tmp/oui_v2: "));
    EXPECT_THAT(error.what(), HasSubstr(demands.difference));
  }
  EXPECT_THAT(lines, ElementsAre("refused oui_v2.opened"));
  EXPECT_EQ(observer_.last_refusal.named, "/tmp/oui_v2");
  EXPECT_EQ(observer_.last_refusal.opened, "/tmp/oui_v2.opened");
  EXPECT_EQ(observer_.last_refusal.code, kDiffersFromOffer);
  EXPECT_EQ(observer_.last_refusal.detail, demands.difference);
}

TEST_F(PlatformCallsTest, WhatWasUnpackedIsUsedWhereItIsAccepted) {
  const testing::Authority root;
  testing::WriteFile(KeyringFile(".pem"), root.Pem());
  const std::string package = testing::SignedPackage(
      testing::PayloadBuilder().Seal().File("a.txt", "text").Finish(), root.NewSigner());
  testing::WriteFile("/tmp/oui_v7", package);
  testing::WriteFile("/tmp/oui_v7.opened", package);
  const auto unpacked = [] {
    tolmarchive* const archive = tolmarchive_init("/tmp");
    const bool is_opened = tolmarchive_open_with_keytype(archive, "/tmp/oui_v7", 6) != 0;
    const bool is_unpacked = tolmarchive_extract_multiple(archive, nullptr, 4) != 0;
    tolmarchive_free(archive);
    return is_opened && is_unpacked;
  };
  EXPECT_TRUE(unpacked());
  EXPECT_EQ(testing::ReadFile("/tmp/a.txt"), "text");
  const WatchedSteps watched(observer_);
  std::vector<std::string> lines;
  const Road road([&lines](const std::string& line) { lines.push_back(line); });
  FakeDemands demands;
  const DemandedCalls demanded(demands);
  EXPECT_TRUE(unpacked());
  demands.accepts = false;
  EXPECT_FALSE(unpacked());
  EXPECT_THAT(demands.asked, ElementsAre("/tmp/oui_v7.opened", "/tmp/oui_v7.opened"));
  EXPECT_THAT(lines, ElementsAre("verified oui_v7.opened", "unpacked oui_v7.opened",
                                 "verified oui_v7.opened", "unpacked oui_v7.opened"));
  EXPECT_EQ(observer_.refused, 0);
  fs::remove("/tmp/oui_v7.opened");
  EXPECT_FALSE(unpacked());
  EXPECT_EQ(demands.asked.size(), 2u) << "nothing was unpacked";
}

TEST_F(PlatformCallsTest, NothingIsWatchedOrDemandedWhereOneCallLeadsToThePlatformFirst) {
  FakeDemands demands;
  is_overtaken = true;
  EXPECT_THROW(RequirePrecedence(), std::runtime_error);
  EXPECT_THROW(WatchedSteps{observer_}, std::runtime_error);
  EXPECT_THROW(DemandedCalls{demands}, std::runtime_error);
  is_overtaken = false;
  EXPECT_NO_THROW(RequirePrecedence());
  EXPECT_FALSE(AreStepsWatched());
}

TEST_F(PlatformCallsTest, WhatIsUnfitIsToldOfTheSourceThatIsAskedAndOfNoOther) {
  const Source source{Source::Kind::kMirror, "http://mirror.example", "mirror.example:80"};
  {
    const Asking asking(source);
    TellUnfit();
  }
  const WatchedSteps watched(observer_);
  TellUnfit();
  EXPECT_THAT(observer_.answered, IsEmpty());
  const Asking asking(source);
  TellUnfit();
  EXPECT_THAT(observer_.answered, ElementsAre("http://mirror.example: -1"));
}

// ---- One source and its mirrors ----

// A signed description is cached, by which a mirror has the same package as the server.
class DownloadRoadTest : public PlatformCallsTest {
 protected:
  DownloadRoadTest()
      : content_(rules::kLeastPartialBytes, 'x'),
        link_(server_.Url("/oui_v2")),
        road_([this](const std::string& line) { lines_.push_back(line); }) {
    Configure();
    testing::WriteFile("/usr/tolm/etc/data_update/operation.conf",
                       R"({"mirrors": [")" + mirror_.Url("") + R"("]})");
    Describe();
    testing::SyslogCapture::Clear();
  }

  std::vector<std::string> Logged() const {
    std::vector<std::string> about_sources;
    for (const std::string& text : testing::SyslogCapture::TextsWithoutPlace(LOG_NOTICE)) {
      if (text.rfind(server_.Url("") + ": ", 0) == 0 ||
          text.rfind(mirror_.Url("") + ": ", 0) == 0) {
        about_sources.push_back(text);
      }
    }
    return about_sources;
  }

  const std::string content_;
  testing::HttpServer mirror_;
  const std::string link_;
  std::vector<std::string> lines_;
  const Road road_;

 private:
  void Describe() const {
    const testing::Authority root;
    testing::WriteFile(KeyringFile(".pem"), root.Pem());
    testing::CertificateOptions options;
    options.extended_usage = package::kDescriptionSigningOid;
    base::Sha384 digest;
    digest.Add(content_.data(), content_.size());
    offer::Offer offer = testing::SomeOffer();
    offer.base = server_.Url("");
    offer.issued = std::time(nullptr);
    offer.expires = offer.issued + 3600;
    offer.databases["oui"] = {2, 1700000000, false, {"oui_v2", content_.size(), digest.Hex()}, {}};
    Json::Value document(Json::objectValue);
    offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), root.NewSigner(options)));
    testing::WriteFile(paths::kDatabaseInfo, document.toStyledString());
  }
};

TEST_F(DownloadRoadTest, SaysWhatOneSourceGaveWithoutTheQueryOfItsAddress) {
  const WatchedSteps watched(observer_);
  server_.SetBody("/x", "text");
  testing::WriteFile(kFile, "what was there before");
  EXPECT_EQ(Download(server_.Url("/x?key=1")), 0);
  EXPECT_EQ(Download(server_.Url("/missing?key=1")), 8);
  EXPECT_EQ(Download("http://127.0.0.1:1/x?key=1"), -1);
  ASSERT_EQ(lines_.size(), 3u);
  EXPECT_EQ(lines_[0], "downloaded " + server_.Url("/x") + ", 4 B");
  EXPECT_THAT(lines_[1], StartsWith("not downloaded: "));
  EXPECT_THAT(lines_[2], StartsWith("not downloaded: http://127.0.0.1:1/x: "));
  EXPECT_THAT(lines_, Not(Contains(HasSubstr("key=1"))));
  EXPECT_THAT(observer_.answered, ElementsAre(server_.Url("") + ": 0", server_.Url("") + ": 8"));
  EXPECT_THAT(observer_.received, ElementsAre(4, 0, 0));
  EXPECT_THAT(Logged(), IsEmpty());
}

TEST_F(DownloadRoadTest, WhatDiffersFromItsOfferIsToldLoggedAndAskedOfTheNextSource) {
  const WatchedSteps watched(observer_);
  server_.SetBody("/oui_v2", "other");
  mirror_.SetBody("/oui_v2", content_);
  EXPECT_EQ(Download(link_), 0);
  const std::string why =
      link_ + ": it is not the package that the signed description names: it has 5 bytes and not " +
      std::to_string(content_.size()) + "; ask who runs the server";
  EXPECT_THAT(lines_,
              ElementsAre("not downloaded: " + why, "downloaded " + mirror_.Url("/oui_v2") + ", " +
                                                        base::HumanSize(content_.size())));
  EXPECT_THAT(Logged(), ElementsAre(server_.Url("") + ": " + why));
  EXPECT_THAT(observer_.answered, ElementsAre(server_.Url("") + ": -1", mirror_.Url("") + ": 0"));
  EXPECT_THAT(observer_.received, ElementsAre(content_.size() + 5));
  EXPECT_THAT(observer_.further, ElementsAre(0));
}

TEST_F(DownloadRoadTest, WhereAllFailTheFirstSaysWhyAndTheOthersAreCounted) {
  const WatchedSteps watched(observer_);
  mirror_.SetBody("/oui_v2", "other");
  EXPECT_EQ(Download(link_), 8);
  EXPECT_THAT(observer_.answered, ElementsAre(server_.Url("") + ": 8", mirror_.Url("") + ": -1"));
  EXPECT_THAT(observer_.received, ElementsAre(5));
  EXPECT_THAT(observer_.further, ElementsAre(1));
  EXPECT_EQ(Logged().size(), 2u);
}

TEST_F(DownloadRoadTest, WhatASourceAloneGivesIsNotComparedTwice) {
  testing::WriteFile("/usr/tolm/etc/data_update/operation.conf", "{}");
  const WatchedSteps watched(observer_);
  server_.SetBody("/oui_v2", "other");
  EXPECT_EQ(Download(link_), 0);
  EXPECT_THAT(observer_.answered, ElementsAre(server_.Url("") + ": 0"));
  EXPECT_THAT(lines_, ElementsAre("downloaded " + link_ + ", 5 B"));
}

TEST_F(DownloadRoadTest, DirectoryIsNamedAsItIsCalled) {
  fs::create_directory("/tmp/a?b");
  const TakenFrom directory("/tmp/a?b");
  const WatchedSteps watched(observer_);
  EXPECT_NE(Download(link_), 0);
  testing::WriteFile("/tmp/a?b/oui_v2", "text");
  EXPECT_EQ(Download(link_), 0);
  ASSERT_EQ(lines_.size(), 2u);
  EXPECT_THAT(lines_[0], StartsWith("not downloaded: /tmp/a?b/oui_v2"));
  EXPECT_EQ(lines_[1], "downloaded /tmp/a?b/oui_v2, 4 B");
  EXPECT_THAT(observer_.received, ElementsAre(0, 4));
}

// The signals are blocked before the servers begin threads of their own.
struct BlockedSignals {
  const Interrupt interrupt;
};

class InterruptedDownloadRoadTest : private BlockedSignals, public DownloadRoadTest {};

TEST_F(InterruptedDownloadRoadTest, SignalEndsTheAskingOfOneAfterTheOther) {
  const WatchedSteps watched(observer_);
  ASSERT_EQ(kill(getpid(), SIGTERM), 0);
  while (Interrupt::Received() == 0) {
    std::this_thread::yield();
  }
  EXPECT_NE(Download(link_), 0);
  EXPECT_EQ(mirror_.RequestCount("/oui_v2"), 0u);
  EXPECT_EQ(observer_.answered.size(), 1u);
}

// What was received before is kept on the volume of the operation that runs.
class KeptDownloadRoadTest : public DownloadRoadTest {
 protected:
  int Download() const {
    return TLIBCExecl(kWget, 0, "-N", link_.c_str(), "-O", kOnVolume, "-U", "agent", "--tries=1",
                      kEnd);
  }
  // After one byte, so that there is one; then there is nothing more to be had.
  void BreakOffOnce(std::atomic<bool>& is_first) {
    server_.SetHandler("/oui_v2", [this, &is_first](const testing::HttpRequest&) {
      testing::HttpAnswer answer;
      if (is_first.exchange(false)) {
        answer.stated_length = content_.size();
        answer.body = "x";
      } else {
        answer.status = 404;
      }
      return answer;
    });
  }
  static bool IsAnythingKept() { return fs::exists("/volume1/@database/partial-downloads"); }

  static constexpr char kOnVolume[] = "/volume1/@tmp/data_update/oui_v2";
  const testing::ScopedMount volume_ = testing::ScopedMount::Tmpfs("/volume1", 20 << 20);
  OwnGround ground_{"/volume1", "/volume1/@database/autoupdate/oui"};
};

TEST_F(KeptDownloadRoadTest, SaysWhereItGoesOnAndOnlyThen) {
  const WatchedSteps watched(observer_);
  ASSERT_TRUE(ground_.Make("/volume1/@tmp/data_update"));
  std::atomic<bool> is_first{true};
  BreakOffOnce(is_first);
  EXPECT_NE(Download(), 0);
  EXPECT_THAT(lines_, Not(Contains(StartsWith("going on with "))));
  ASSERT_TRUE(IsAnythingKept());
  fs::remove(kOnVolume);  // As the library does.
  lines_.clear();
  EXPECT_NE(Download(), 0);
  ASSERT_FALSE(lines_.empty());
  EXPECT_EQ(lines_[0], "going on with " + link_ + " at 1 B of " + base::HumanSize(content_.size()));
}

TEST_F(KeptDownloadRoadTest, WhatIsKeptMakesRoomForAPackageThatNeedsIt) {
  const WatchedSteps watched(observer_);
  ASSERT_TRUE(ground_.Make("/volume1/@tmp/data_update"));
  std::atomic<bool> is_first{true};
  BreakOffOnce(is_first);
  EXPECT_NE(Download(), 0);
  fs::remove(kOnVolume);  // It is the kept one.
  for (const std::size_t bytes : {std::size_t{1000}, std::size_t{2} << 20}) {
    EXPECT_TRUE(IsAnythingKept());
    testing::WriteFile(kOnVolume, std::string(bytes, 'x'));
    tolmarchive_open_with_keytype(nullptr, kOnVolume, 6);
    tolmarchive_extract_multiple(nullptr, nullptr, 4);
  }
  EXPECT_FALSE(IsAnythingKept());
}

TEST_F(KeptDownloadRoadTest, WhatDiffersIsNotGoneOnWith) {
  const WatchedSteps watched(observer_);
  ASSERT_TRUE(ground_.Make("/volume1/@tmp/data_update"));
  mirror_.SetBody("/oui_v2", std::string(content_.size(), 'y'));
  EXPECT_EQ(Download(), 8);
  EXPECT_FALSE(fs::exists(kOnVolume) && fs::file_size(kOnVolume) > 0);
  EXPECT_FALSE(IsAnythingKept());
}

TEST_F(KeptDownloadRoadTest, DirectoriesThatAreNotRootsAloneAreRefusedByThePlatformsNumber) {
  ASSERT_TRUE(ground_.Make("/volume1/@tmp/data_update"));
  EXPECT_EQ(TOLMFSMkdirP("/volume1/@tmp/data_update", 0, 0, -1, -1, -1), 0);
  EXPECT_EQ(TOLMFSMkdirP("/volume1/@database/autoupdate/oui", 0, 0, -1, -1, -1), 0);
  observer_.may_go_on = false;
  {
    const WatchedSteps watched(observer_);
    EXPECT_EQ(TOLMFSMkdirP("/volume1/@tmp/data_update", 0, 0, -1, -1, -1), -1);
  }
  const testing::ScopedMount another = testing::ScopedMount::Tmpfs("/volume1", 1 << 20);
  EXPECT_EQ(TOLMFSMkdirP("/volume1/@tmp/data_update", 0, 0, -1, -1, -1), -1);
  EXPECT_EQ(TOLMFSMkdirP("/volume1/@database/autoupdate/oui", 0, 0, -1, -1, -1), -1);
}

// ---- Bounds ----

class BoundedCallsTest : public PlatformCallsTest {
 protected:
  BoundedCallsTest() { testing::WriteFile("/tmp/oui_v2", "no package"); }
  ~BoundedCallsTest() override { tolmarchive_free(archive_); }

  // Opening a database file bounds what is written meanwhile, when scripts are bounded.
  static bool AreScriptsBounded() {
    sqlite3* opened = nullptr;
    EXPECT_EQ(sqlite3_open("/volume1/file.db", &opened), SQLITE_OK);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> connection(opened, sqlite3_close);
    rlimit limit{};
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    return limit.rlim_cur != RLIM_INFINITY;
  }
  void Unpack() const { tolmarchive_extract_multiple(archive_, nullptr, 4); }

  const testing::ScopedMount volume_ = testing::ScopedMount::Tmpfs("/volume1", 20 << 20);
  tolmarchive* const archive_ = tolmarchive_init("/tmp");
};

TEST_F(BoundedCallsTest, ScriptsAreBoundedFromUnpackingToTheNextCallOfAWatchedOperation) {
  Unpack();
  EXPECT_FALSE(AreScriptsBounded()) << "nobody watches";
  FakeDemands demands;
  {
    const WatchedSteps watched(observer_);
    const auto unbounded_by = [](const std::function<void()>& call) {
      tolmarchive_extract_multiple(nullptr, nullptr, 4);
      EXPECT_TRUE(AreScriptsBounded());
      call();
      return !AreScriptsBounded();
    };
    EXPECT_TRUE(unbounded_by([] { TOLMFSMkdirP("/tmp/one", 0, 0, -1, -1, -1); }));
    EXPECT_TRUE(
        unbounded_by([this] { tolmarchive_open_with_keytype(archive_, "/tmp/oui_v2", 6); }));
    EXPECT_TRUE(unbounded_by([] {
      void* handle = nullptr;
      ASSERT_EQ(TLIBPluginSDKInit("module", "none", &handle), 0);
      TLIBPluginAction(SDK_PLUGIN_ACTION_POST, handle);
      TLIBPluginExit(handle);
    }));
    EXPECT_TRUE(unbounded_by([&demands] { const DemandedCalls demanded(demands); }));
    Unpack();
    EXPECT_TRUE(AreScriptsBounded());
  }
  EXPECT_FALSE(AreScriptsBounded());
}

TEST_F(BoundedCallsTest, DecoderIsHeldToTheRoomOfItsOutputAndOnlyTheDecoder) {
  for (const char* program : {paths::kVcdiffDecoder, "/tmp/another"}) {
    testing::WriteFile(program, "#!/bin/sh\nulimit -f >/tmp/limit\n");
    ASSERT_EQ(chmod(program, 0755), 0);
  }
  const WatchedSteps watched(observer_);
  std::vector<std::string> lines;
  const Road road([&lines](const std::string& line) { lines.push_back(line); });
  EXPECT_EQ(TLIBCExecl(paths::kVcdiffDecoder, 0, "decoder", "/tmp/copies/sub.b.txt", "/volume1/out",
                       "/proc/patch", kEnd),
            0);
  constexpr int kBlocks = (20 << 20) / 20 * 19 / 512;
  EXPECT_EQ(testing::ReadFile("/tmp/limit"), std::to_string(kBlocks) + '\n');
  EXPECT_EQ(TLIBCExecl("/tmp/another", 0, "decoder", "/tmp/copies/sub.b.txt", "/volume1/out",
                       "/volume1/patch", kEnd),
            0);
  EXPECT_EQ(testing::ReadFile("/tmp/limit"), "unlimited\n");
  EXPECT_THAT(lines, ElementsAre("patched sub.b.txt", "patched sub.b.txt"));
}

}  // namespace
}  // namespace tolm::operation

// Tests of InfoGetter, which stands in update.cpp.

#include <gmock/gmock.h>
#include <json/json.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <csignal>
#include <memory>

#include "dataupdate/update.h"
#include "tests/src/engine_support.h"
#include "tests/src/fake_time.h"
#include "tests/src/service_doubles.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_platform.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/vtable_slot.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::DatabaseStatus;
using dataupdate::DiffInfo;
using dataupdate::FakeTime;
using dataupdate::FileStatus;
using dataupdate::InfoGetter;
using dataupdate::IOUtils;
using dataupdate::RemoteInfo;
using dataupdate::UpdateError;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kCache[] = "/var/cache/data_update/database_info.json";
constexpr char kCacheDirectory[] = "/var/cache/data_update";
constexpr char kFreshLock[] = "/run/data_update/fresh_info.lock";
constexpr char kVersionFile[] = "/var/lib/data_update/x/version.json";
constexpr char kInvalidOffer[] = "Invalid json object for RemoteInfo";

// Writes down the calls that InfoGetter makes and whether it holds its lock meanwhile; fails the
// one it is told to.
class RecordingIo : public IOUtils {
 public:
  explicit RecordingIo(Journal& journal) : journal_(journal) {}

  void TolmMkdir(const std::string& path) const override {
    Record("TolmMkdir " + path);
    IOUtils::TolmMkdir(path);
  }
  bool FileCreateOver(const std::string& path, int seconds) const override {
    Record("FileCreateOver " + path + " " + std::to_string(seconds));
    return IOUtils::FileCreateOver(path, seconds);
  }
  void Download(const std::string& output, const std::string& url) const override {
    Record("Download " + output + " " + url);
    WriteFile(output, downloaded);
  }
  Json::Value ReadJson(const std::string& path) const override {
    Record("ReadJson " + path);
    return IOUtils::ReadJson(path);
  }
  void WriteJson(const std::string& path, const Json::Value& value) const override {
    Record("WriteJson " + path);
    IOUtils::WriteJson(path, value);
  }

  std::string downloaded = "{}";
  std::string fails;  ///< The operation that throws.

 private:
  void Record(const std::string& call) const {
    journal_.push_back(call + (IsLocked(kFreshLock) ? " [locked]" : ""));
    if (!fails.empty() && call.rfind(fails, 0) == 0) {
      throw UpdateError(fails + " failed");
    }
  }

  Journal& journal_;
};

class InfoGetterTest : public ::testing::Test {
 protected:
  // Gives the cached description, so that nothing is downloaded.
  void Describe(const std::string& description) { WriteFile(kCache, description); }

  static void SetAge(int seconds) {
    const timespec modified = {time(nullptr) - seconds, 0};
    const timespec times[] = {modified, modified};
    ASSERT_EQ(utimensat(AT_FDCWD, kCache, times, 0), 0);
  }

  Journal journal_;
  std::shared_ptr<RecordingIo> io_ = std::make_shared<RecordingIo>(journal_);
  std::shared_ptr<FakeServiceConfig> config_ = std::make_shared<FakeServiceConfig>(journal_);
  const InfoGetter getter_ = InfoGetter(io_, config_);
  FakePlatform platform_;
};

TEST_F(InfoGetterTest, VirtualOperationsKeepTheirSlots) {
  EXPECT_TRUE(std::has_virtual_destructor_v<InfoGetter>);
  EXPECT_EQ(VtableSlot(&InfoGetter::GetRemoteInfo), 2U);
  EXPECT_EQ(VtableSlot(&InfoGetter::GetDiffInfos), 3U);
  EXPECT_EQ(VtableSlot(&InfoGetter::GetDatabaseStatus), 4U);
  EXPECT_EQ(VtableSlot(&InfoGetter::SetDatabaseStatus), 5U);
  EXPECT_EQ(VtableSlot(&InfoGetter::GetDatabaseInfo), 6U);
  EXPECT_EQ(VtableSlot(&InfoGetter::GetDatabaseUrl), 7U);
  EXPECT_EQ(VtableSlot(&InfoGetter::GetQueryString), 8U);
}

// --- The request

TEST_F(InfoGetterTest, QueryNamesDatabasesInByteOrder) {
  config_->Add("b").format_version = "1";
  config_->Add("a").format_version = "2";
  config_->Add("Z").format_version = "x y";
  EXPECT_EQ(getter_.GetQueryString(),
            "?os=tmo&dlid=0123456789abcdef&db_list[Z]=x y&db_list[a]=2&db_list[b]=1");
}

TEST_F(InfoGetterTest, QueryWithoutDatabasesNamesTheDevice) {
  EXPECT_EQ(getter_.GetQueryString(), "?os=tmo&dlid=0123456789abcdef");
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

// That the identifier is released in either case is checked by the fake.
TEST_F(InfoGetterTest, DeviceWithoutIdentifierAsksWithAnEmptyOne) {
  config_->Add("a");
  for (const bool init_fails : {true, false}) {
    SCOPED_TRACE(init_fails);
    SyslogCapture::Clear();
    platform_.hwid_init_fails = init_fails;
    platform_.hwid_str_fails = true;
    EXPECT_EQ(getter_.GetQueryString(), "?os=tmo&dlid=&db_list[a]=1");
    ASSERT_EQ(SyslogCapture::Lines().size(), 1U);
    EXPECT_EQ(SyslogCapture::Lines()[0].priority, LOG_ERR);
    EXPECT_EQ(SyslogCapture::Lines()[0].format, "Failed to init hwid context");
    EXPECT_EQ(SyslogCapture::Lines()[0].text, "Failed to init hwid context");
  }
}

TEST_F(InfoGetterTest, UrlIsSchemeHostVersionAndQuery) {
  config_->scheme = "https";
  config_->netloc = "updates.example:8443";
  config_->version = "v3";
  config_->Add("a");
  EXPECT_EQ(getter_.GetDatabaseUrl(),
            "https://updates.example:8443/database_info/v3?os=tmo&dlid=0123456789abcdef"
            "&db_list[a]=1");
}

TEST_F(InfoGetterTest, OperationsCallEachOtherThroughTheVirtualTable) {
  struct Replaced : InfoGetter {
    using InfoGetter::InfoGetter;
    std::string GetQueryString() const override { return "?replaced"; }
  };
  EXPECT_EQ(Replaced(io_, config_).GetDatabaseUrl(), "http://host:1/database_info/v1?replaced");

  struct ReplacedUrl : InfoGetter {
    using InfoGetter::InfoGetter;
    std::string GetDatabaseUrl() const override { return "replaced"; }
  };
  ReplacedUrl(io_, config_).GetDatabaseInfo();
  EXPECT_THAT(journal_,
              ::testing::Contains(std::string("Download ") + kCache + " replaced [locked]"));

  struct ReplacedInfo : InfoGetter {
    using InfoGetter::InfoGetter;
    Json::Value GetDatabaseInfo() const override {
      Json::Value info;
      Json::Value& entry = info["db_list"]["x"];
      entry["data_version"] = "9";
      entry["last_fetch_time"] = 3;
      entry["deprecated"] = false;
      entry["download_link"] = "link";
      entry["diff_files"]["9"]["download_link"] = "diff";
      entry["diff_files"]["9"]["file_size"] = 4;
      return info;
    }
  };
  EXPECT_EQ(ReplacedInfo(io_, config_).GetRemoteInfo("x"), RemoteInfo(9, 3, false, "link"));
  EXPECT_EQ(ReplacedInfo(io_, config_).GetDiffInfos("x"),
            (std::map<int, DiffInfo>{{9, DiffInfo("diff", 4)}}));
}

// --- The cached description

TEST_F(InfoGetterTest, MissingCacheIsDownloadedUnderTheLock) {
  io_->downloaded = R"({"answer": 42})";
  EXPECT_EQ(getter_.GetDatabaseInfo()["answer"], 42);
  EXPECT_THAT(journal_, ElementsAre("TolmMkdir /var/cache/data_update", "GetDatabaseIDs",
                                    std::string("Download ") + kCache +
                                        " http://host:1/database_info/v1?os=tmo&dlid="
                                        "0123456789abcdef [locked]",
                                    std::string("ReadJson ") + kCache + " [locked]"));
  EXPECT_FALSE(IsLocked(kFreshLock));
  EXPECT_TRUE(fs::exists(kFreshLock));
}

TEST_F(InfoGetterTest, CacheLivesOneHourOfItsModificationTime) {
  struct Row {
    const char* name;
    int age_seconds;
    bool downloaded;
  };
  // A minute on either side of the hour: the clock goes on while this runs.
  const Row rows[] = {
      {"new", 0, false},
      {"five minutes", 300, false},
      {"nearly an hour", 3540, false},
      {"over an hour", 3660, true},
      {"a week", 604800, true},
      {"from the future", -7200, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    io_->downloaded = R"({"answer": "new"})";
    Describe(R"({"answer": "old"})");
    SetAge(row.age_seconds);
    EXPECT_EQ(getter_.GetDatabaseInfo()["answer"], row.downloaded ? "new" : "old");
  }
  EXPECT_THAT(journal_,
              ::testing::Contains(std::string("FileCreateOver ") + kCache + " 3600 [locked]"));
}

TEST_F(InfoGetterTest, NothingIsKeptInMemory) {
  Describe(R"({"answer": 1})");
  EXPECT_EQ(getter_.GetDatabaseInfo()["answer"], 1);
  Describe(R"({"answer": 2})");
  EXPECT_EQ(getter_.GetDatabaseInfo()["answer"], 2);
}

TEST_F(InfoGetterTest, EachFailureOfRefreshingIsSaidAfterTheLockIsReleased) {
  for (const char* operation : {"TolmMkdir", "FileCreateOver", "Download", "ReadJson"}) {
    SCOPED_TRACE(operation);
    SyslogCapture::Clear();
    Describe("{}");
    SetAge(7200);
    io_->fails = operation;
    EXPECT_EQ(UpdateErrorOf([&] { getter_.GetDatabaseInfo(); }),
              std::string(operation) + " failed");
    std::vector<std::string> lines = SyslogCapture::TextsWithoutPlace(LOG_INFO);
    if (std::string(operation) != "TolmMkdir") {
      ASSERT_EQ(lines.size(), 4U);
      EXPECT_EQ(lines[0], std::string("Acquire lock on file: ") + kFreshLock);
      EXPECT_EQ(lines[1], std::string("Release lock on file: ") + kFreshLock);
      lines.erase(lines.begin(), lines.begin() + 2);
    }
    EXPECT_THAT(lines, ElementsAre("Fail during fresh database info",
                                   std::string("Error message: ") + operation + " failed"));
    EXPECT_THAT(SyslogCapture::Lines().back().text, StartsWith("update:"));
    EXPECT_EQ(SyslogCapture::Lines().back().format, "%s:%d Error message: %s");
    EXPECT_FALSE(IsLocked(kFreshLock));
  }
}

TEST_F(InfoGetterTest, LockThatIsNotHadInTenMinutesIsAFailureOfRefreshing) {
  const HeldLock other(kFreshLock, LOCK_SH);  // Keeps it from being held alone.
  const FakeTime time;
  const std::string message = std::string("Fail to lock ") + kFreshLock;
  EXPECT_EQ(UpdateErrorOf([&] { getter_.GetDatabaseInfo(); }), message);
  EXPECT_EQ(time.Passed(), std::chrono::seconds(600));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              ElementsAre("Fail during fresh database info", "Error message: " + message));
  EXPECT_THAT(journal_, ElementsAre("TolmMkdir /var/cache/data_update"));
}

TEST_F(InfoGetterTest, RealErrorsKeepTheirMessages) {
  const InfoGetter getter(std::make_shared<IOUtils>(), config_);
  const std::string url = getter.GetDatabaseUrl();
  EXPECT_EQ(UpdateErrorOf([&] { getter.GetDatabaseInfo(); }), "Fail to wget url: " + url);
  EXPECT_FALSE(fs::exists(kCache)) << "what a failed download left would count as fresh";
  platform_.OfferFile(url, "no description");
  EXPECT_EQ(UpdateErrorOf([&] { getter.GetDatabaseInfo(); }),
            std::string("Fail to decode: ") + kCache);
  EXPECT_THAT(
      platform_.Calls(),
      ElementsAre(std::string("mkdir ") + kCacheDirectory, "download " + url + " to " + kCache,
                  std::string("mkdir ") + kCacheDirectory, "download " + url + " to " + kCache));
}

TEST_F(InfoGetterTest, FailedDownloadIsTriedAgainByTheNextCall) {
  io_->fails = "Download";
  UpdateErrorOf([&] { getter_.GetDatabaseInfo(); });
  io_->fails = "";
  io_->downloaded = R"({"answer": 42})";
  EXPECT_EQ(getter_.GetDatabaseInfo()["answer"], 42);
}

TEST_F(InfoGetterTest, OtherExceptionsPassUnsaid) {
  platform_.SetProgram("/usr/bin/wget",
                       [](const auto&) -> int { throw std::runtime_error("not one of ours"); });
  const InfoGetter getter(std::make_shared<IOUtils>(), config_);
  EXPECT_THROW(getter.GetDatabaseInfo(), std::runtime_error);
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              ElementsAre(std::string("Acquire lock on file: ") + kFreshLock,
                          std::string("Release lock on file: ") + kFreshLock));
}

// Two processes and a real server; the first is held up inside its download until the second has
// come.
TEST(InfoGetterProcessTest, TwoProcessesWithAnExpiredCacheDownloadOnce) {
  WriteFile(kCache, R"({"answer": "old"})");
  const timespec old = {time(nullptr) - 7200, 0};
  const timespec times[] = {old, old};
  ASSERT_EQ(utimensat(AT_FDCWD, kCache, times, 0), 0);

  const auto ask = [](EventChannel& parent) {
    Journal journal;
    const auto config = std::make_shared<FakeServiceConfig>(journal);
    config->netloc = parent.Receive().value();
    config->Add("x");
    parent.Send("asking");
    const InfoGetter getter(std::make_shared<IOUtils>(), config);
    parent.Send(getter.GetDatabaseInfo()["answer"].asString());
    return 0;
  };
  ForkedChild first(ask);
  ForkedChild second(ask);
  HttpServer server;
  server.Hang("/database_info/v1", R"({"answer": "new"})");
  const std::string netloc = "127.0.0.1:" + std::to_string(server.Port());

  first.Channel().Send(netloc);
  ASSERT_EQ(first.Channel().Receive(), "asking");
  ASSERT_TRUE(server.WaitForRequest("/database_info/v1"));
  EXPECT_TRUE(IsLocked(kFreshLock));
  second.Channel().Send(netloc);
  ASSERT_EQ(second.Channel().Receive(), "asking");
  server.Release();
  EXPECT_EQ(first.Channel().Receive(), "new");
  EXPECT_EQ(second.Channel().Receive(), "new");
  EXPECT_EQ(server.RequestCount("/database_info/v1"), 1U);
  EXPECT_THAT(server.Requests().at(0).query, ::testing::EndsWith("&db_list[x]=1"));
}

// The program that the killed process was waiting for must not keep the lock.
TEST(InfoGetterProcessTest, KilledProcessLeavesTheLockFreeWhileItsDownloadHangs) {
  ForkedChild killed([](EventChannel& parent) {
    Journal journal;
    const auto config = std::make_shared<FakeServiceConfig>(journal);
    config->netloc = parent.Receive().value();
    InfoGetter(std::make_shared<IOUtils>(), config).GetDatabaseInfo();
    return 0;
  });
  HttpServer server;
  server.Hang("/database_info/v1");
  killed.Channel().Send("127.0.0.1:" + std::to_string(server.Port()));
  ASSERT_TRUE(server.WaitForRequest("/database_info/v1"));
  ASSERT_TRUE(IsLocked(kFreshLock));
  killed.Process().Signal(SIGKILL);
  EXPECT_EQ(killed.Process().Wait(), 128 + SIGKILL);
  EXPECT_FALSE(IsLocked(kFreshLock));
}

// --- The offer

std::string Description(const std::string& service_wide, const std::string& own) {
  return "{" + service_wide + R"("db_list": {"x": {"data_version": "7", "last_fetch_time": 70, )" +
         own + R"("download_link": "http://host/7"}}})";
}

TEST_F(InfoGetterTest, OfferIsReadFromTheDescription) {
  Describe(Description(R"("deprecated": false, )", R"("deprecated": false, "other": [], )"));
  EXPECT_EQ(getter_.GetRemoteInfo("x"), RemoteInfo(7, 70, false, "http://host/7"));
}

TEST_F(InfoGetterTest, ServiceWideDeprecationWins) {
  struct Row {
    const char* name;
    const char* service_wide;
    const char* own;
    const char* result;  // Null: the offer is invalid.
  };
  const Row rows[] = {
      {"true over false", "true", "false", "true"},
      {"true over true", "true", "true", "true"},
      {"true over absent", "true", "", "true"},
      {"true over another type", "true", "\"no\"", "true"},
      {"false leaves true", "false", "true", "true"},
      {"false leaves false", "false", "false", "false"},
      {"false for absent", "false", "", "false"},
      {"false leaves another type", "false", "\"no\"", nullptr},
      {"absent leaves true", "", "true", "true"},
      {"absent leaves false", "", "false", "false"},
      {"absent for absent", "", "", nullptr},
      {"null for absent", "null", "", nullptr},
      {"null leaves true", "null", "true", "true"},
      {"number zero leaves false", "0", "false", "false"},
      {"number counts as true but is no boolean", "1", "false", nullptr},
      {"string is invalid", "\"yes\"", "false", nullptr},
      {"array is invalid", "[true]", "false", nullptr},
      {"object is invalid", "{\"a\": 1}", "false", nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const auto member = [](const std::string& value) {
      return value.empty() ? "" : "\"deprecated\": " + value + ", ";
    };
    Describe(Description(member(row.service_wide), member(row.own)));
    if (row.result == nullptr) {
      EXPECT_EQ(UpdateErrorOf([&] { getter_.GetRemoteInfo("x"); }), kInvalidOffer);
    } else {
      EXPECT_EQ(getter_.GetRemoteInfo("x").deprecated, std::string(row.result) == "true");
    }
  }
}

TEST_F(InfoGetterTest, DescriptionOfAWrongShapeIsAnInvalidOffer) {
  struct Row {
    const char* description;
    const char* diffs_message;  // Null: there are no deltas.
  };
  const Row rows[] = {
      {"null", nullptr},
      {"[]", kInvalidOffer},
      {"[1]", kInvalidOffer},
      {"\"text\"", kInvalidOffer},
      {"5", kInvalidOffer},
      {"1.5", kInvalidOffer},
      {"true", kInvalidOffer},
      {"{}", nullptr},
      {R"({"deprecated": false})", nullptr},
      {R"({"deprecated": false, "db_list": null})", nullptr},
      {R"({"deprecated": false, "db_list": []})", kInvalidOffer},
      {R"({"deprecated": false, "db_list": "x"})", kInvalidOffer},
      {R"({"deprecated": false, "db_list": 5})", kInvalidOffer},
      {R"({"deprecated": false, "db_list": true})", kInvalidOffer},
      {R"({"deprecated": false, "db_list": {}})", nullptr},
      {R"({"deprecated": false, "db_list": {"y": {}}})", nullptr},
      {R"({"deprecated": false, "db_list": {"x": null}})", nullptr},
      {R"({"deprecated": false, "db_list": {"x": []}})", kInvalidOffer},
      {R"({"deprecated": false, "db_list": {"x": "7"}})", kInvalidOffer},
      {R"({"deprecated": false, "db_list": {"x": 7}})", kInvalidOffer},
      {R"({"deprecated": true, "db_list": {"x": true}})", kInvalidOffer},
      {R"({"deprecated": false, "db_list": {"x": {}}})", nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.description);
    Describe(row.description);
    EXPECT_EQ(UpdateErrorOf([&] { getter_.GetRemoteInfo("x"); }), kInvalidOffer);
    if (row.diffs_message != nullptr) {
      EXPECT_EQ(UpdateErrorOf([&] { getter_.GetDiffInfos("x"); }), row.diffs_message);
    } else {
      EXPECT_THAT(getter_.GetDiffInfos("x"), IsEmpty());
    }
  }
}

TEST_F(InfoGetterTest, DescriptionThatIsNestedTooDeepCannotBeDecoded) {
  Describe(std::string(100000, '[') + std::string(100000, ']'));
  EXPECT_EQ(UpdateErrorOf([&] { getter_.GetRemoteInfo("x"); }),
            std::string("Fail to decode: ") + kCache);
}

TEST_F(InfoGetterTest, DeltasAreReadFromTheDatabasesEntry) {
  Describe(R"({"db_list": {"x": {"diff_files": {
      "6": {"download_link": "six", "file_size": 60}, "7": {"download_link": "seven",
      "file_size": 70}}}}})");
  EXPECT_EQ(getter_.GetDiffInfos("x"),
            (std::map<int, DiffInfo>{{6, DiffInfo("six", 60)}, {7, DiffInfo("seven", 70)}}));
  EXPECT_THAT(getter_.GetDiffInfos("y"), IsEmpty());
}

TEST_F(InfoGetterTest, DeltasOfAWrongShape) {
  for (const char* diffs : {"null", "[]", "[1]", "\"x\"", "5", "true", "{}"}) {
    SCOPED_TRACE(diffs);
    Describe(std::string(R"({"db_list": {"x": {"diff_files": )") + diffs + "}}}");
    EXPECT_THAT(getter_.GetDiffInfos("x"), IsEmpty());
  }
  for (const char* diff : {"null", "[]", "5", "{}", R"({"download_link": "l"})",
                           R"({"download_link": 1, "file_size": 1})"}) {
    SCOPED_TRACE(diff);
    Describe(std::string(R"({"db_list": {"x": {"diff_files": {"7": )") + diff + "}}}}");
    EXPECT_EQ(UpdateErrorOf([&] { getter_.GetDiffInfos("x"); }),
              "Invalid json object for DiffInfo");
  }
}

TEST_F(InfoGetterTest, EachQuestionReadsTheDescriptionOnce) {
  Describe(Description(R"("deprecated": false, )", ""));
  getter_.GetRemoteInfo("x");
  getter_.GetDiffInfos("x");
  EXPECT_EQ(
      std::count(journal_.begin(), journal_.end(), std::string("ReadJson ") + kCache + " [locked]"),
      2);
}

// --- The installed state

TEST_F(InfoGetterTest, InstalledStateIsReadFromItsFile) {
  WriteFile(kVersionFile, R"({"data_version": "42", "last_fetch_time": 9,
                              "file_statuses": {"a": {"sha384_digest": "d"}}})");
  EXPECT_EQ(getter_.GetDatabaseStatus("x"), DatabaseStatus(42, 9, {{"a", FileStatus("d")}}));
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
  EXPECT_THAT(journal_, ElementsAre(std::string("ReadJson ") + kVersionFile));
}

TEST_F(InfoGetterTest, MissingVersionFileIsTheNeverInstalledState) {
  EXPECT_EQ(getter_.GetDatabaseStatus("x"), DatabaseStatus());
  EXPECT_EQ(getter_.GetDatabaseStatus("x").data_version, -1);
  SyslogCapture::Clear();
  getter_.GetDatabaseStatus("x");
  EXPECT_THAT(platform_.Calls(), IsEmpty());
  ASSERT_EQ(SyslogCapture::Lines().size(), 1U);
  EXPECT_EQ(SyslogCapture::Lines()[0].priority, LOG_INFO);
  EXPECT_EQ(SyslogCapture::Lines()[0].format, "%s:%d %s");
  EXPECT_EQ(SyslogCapture::WithoutPlace(SyslogCapture::Lines()[0].text),
            std::string("File not exist: ") + kVersionFile);
}

TEST_F(InfoGetterTest, DamagedVersionFileIsTheNeverInstalledStateWithAWarningPair) {
  const std::string undecodable = std::string("Fail to decode: ") + kVersionFile;
  const std::string invalid = "Invalid json object for DatabaseStatus";
  const std::pair<std::string, std::string> rows[] = {
      {"", undecodable},
      {"{", undecodable},
      {"not json", undecodable},
      {std::string(100000, '['), undecodable},
      {"{}", invalid},
      {"[]", invalid},
      {"null", invalid},
      {"5", invalid},
      {"\"42\"", invalid},
      {R"({"data_version": 42, "last_fetch_time": 9})", invalid},
      {R"({"data_version": "42", "last_fetch_time": "9"})", invalid},
      {R"({"data_version": "42", "last_fetch_time": 9, "file_statuses": {"a": "digest"}})",
       "Invalid json object for FileStatus"},
  };
  for (const auto& [content, message] : rows) {
    SCOPED_TRACE(content.substr(0, 80));
    SyslogCapture::Clear();
    WriteFile(kVersionFile, content);
    EXPECT_EQ(getter_.GetDatabaseStatus("x"), DatabaseStatus());
    EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING),
                ElementsAre(message, "x version file gone or corrupted or in the first updating"));
    EXPECT_EQ(SyslogCapture::Lines().size(), 2U);
    EXPECT_THAT(SyslogCapture::Lines()[0].text, StartsWith("update:"));
  }
}

TEST_F(InfoGetterTest, VersionThatIsNoNumberIsTheConversionsOwnError) {
  WriteFile(kVersionFile, R"({"data_version": "abc", "last_fetch_time": 9})");
  EXPECT_THROW(getter_.GetDatabaseStatus("x"), std::invalid_argument);
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST_F(InfoGetterTest, VersionBeyondAnIntIsTheConversionsOwnError) {
  WriteFile(kVersionFile, R"({"data_version": "2147483648", "last_fetch_time": 9})");
  EXPECT_THROW(getter_.GetDatabaseStatus("x"), std::out_of_range);
}

TEST_F(InfoGetterTest, OfferedVersionThatIsNoNumberIsTheConversionsOwnError) {
  for (const bool number : {true, false}) {
    const std::string version = number ? "2147483648" : "abc";
    Describe(R"({"deprecated": false, "db_list": {"x": {"data_version": ")" + version +
             R"(", "last_fetch_time": 9, "download_link": "l", "diff_files": {")" + version +
             R"(": {"download_link": "l", "file_size": 1}}}}})");
    if (number) {
      EXPECT_THROW(getter_.GetRemoteInfo("x"), std::out_of_range);
      EXPECT_THROW(getter_.GetDiffInfos("x"), std::out_of_range);
    } else {
      EXPECT_THROW(getter_.GetRemoteInfo("x"), std::invalid_argument);
      EXPECT_THROW(getter_.GetDiffInfos("x"), std::invalid_argument);
    }
  }
}

TEST_F(InfoGetterTest, StoredStateIsReadBack) {
  const DatabaseStatus status(42, 9, {{"a/b", FileStatus("d")}});
  getter_.SetDatabaseStatus("x", status);
  EXPECT_THAT(journal_, ElementsAre(std::string("WriteJson ") + kVersionFile));
  EXPECT_EQ(getter_.GetDatabaseStatus("x"), status);
  const std::string content = ReadFile(kVersionFile);
  EXPECT_THAT(content, ::testing::HasSubstr("\n\t\"data_version\" : \"42\""));
  EXPECT_THAT(content, ::testing::HasSubstr("\n\t\t\"a/b\" : \n"));
}

TEST_F(InfoGetterTest, StateThatCannotBeStoredIsAnError) {
  fs::create_directories("/var/lib/data_update");
  const ScopedMount mount = ScopedMount::ReadOnly("/var/lib/data_update");
  EXPECT_EQ(UpdateErrorOf([&] { getter_.SetDatabaseStatus("x", DatabaseStatus()); }),
            std::string("Fail to create parent folder: ") + kVersionFile);
}

TEST_F(InfoGetterTest, InstalledStateTakesNoLock) {
  getter_.SetDatabaseStatus("x", DatabaseStatus());
  getter_.GetDatabaseStatus("x");
  EXPECT_FALSE(fs::exists("/run/data_update"));
}

}  // namespace
}  // namespace tolm::testing

#include "operation/description_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "offer/signed_offer.h"
#include "operation/device_trust.h"
#include "operation/interrupt.h"
#include "operation/platform_calls.h"
#include "operation/trust_state.h"
#include "tests/offer/offers.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/opening_watch.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/told_time.h"

namespace {

// 0: the system's.
std::atomic<std::int64_t> test_nanoseconds{0};
std::atomic<std::int64_t> slept_microseconds{0};
// That comes when somebody waits.
std::atomic<int> signal_of_wait{0};

}  // namespace

// In place of the system's, for everything in this program.
extern "C" int clock_gettime(clockid_t clock, timespec* told) noexcept {
  if (clock == CLOCK_REALTIME && test_nanoseconds != 0) {
    constexpr std::int64_t kSecond = 1000000000;
    told->tv_sec = static_cast<std::time_t>(test_nanoseconds / kSecond);
    told->tv_nsec = static_cast<long>(test_nanoseconds % kSecond);
    return 0;
  }
  return static_cast<int>(syscall(SYS_clock_gettime, clock, told));
}

// Nobody waits here.
extern "C" int usleep(useconds_t microseconds) {
  slept_microseconds += microseconds;
  if (const int number = signal_of_wait.exchange(0); number != 0) {
    kill(getpid(), number);
    while (tolm::operation::Interrupt::Received() == 0) {
      const timespec moment{0, 1000000};
      nanosleep(&moment, nullptr);
    }
  }
  return 0;
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::UpdateError;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using testing::SyslogCapture;

const fs::path kDescription = "/var/cache/data_update/database_info.json";

// Of a device without databases.
constexpr char kEmptyDescription[] = R"({"db_list": {}})";

std::string RefusalBy(const dataupdate::IOUtils& io, const std::string& path = kDescription) {
  try {
    io.ReadJson(path);
  } catch (const UpdateError& error) {
    return error.what();
  }
  return "";
}

std::string Nested(std::uint64_t levels) {
  return std::string(levels, '[') + std::string(levels, ']');
}

std::string Array(std::uint64_t values) {
  std::string text = "[";
  for (std::uint64_t i = 1; i < values; ++i) {
    text += i == 1 ? "0" : ",0";
  }
  return text + ']';
}

std::string Text(std::uint64_t bytes) {
  return '"' + std::string(bytes - 2, 'x') + '"';
}

struct Bound {
  std::string (*make)(std::uint64_t);
  std::uint64_t most;
  const char* says;
};

class BoundTest : public ::testing::TestWithParam<Bound> {};

TEST_P(BoundTest, IsReadUpToItAndNotBeyond) {
  testing::WriteFile(kDescription, GetParam().make(GetParam().most));
  EXPECT_EQ(RefusalBy(DescriptionReader()), "");
  testing::WriteFile(kDescription, GetParam().make(GetParam().most + 1));
  EXPECT_EQ(RefusalBy(DescriptionReader()), "Fail to decode: " + kDescription.string() +
                                                " (it has " + std::to_string(GetParam().most + 1) +
                                                GetParam().says +
                                                ", 1 more than a description may have)");
  EXPECT_TRUE(fs::exists(kDescription));
}

INSTANTIATE_TEST_SUITE_P(Description, BoundTest,
                         ::testing::Values(Bound{Text, rules::kDescriptionBytes, " bytes"},
                                           Bound{Nested, rules::kDescriptionDepth, " levels"},
                                           Bound{Array, rules::kDescriptionValues, " values"}),
                         [](const ::testing::TestParamInfo<Bound>& row) {
                           return std::string(row.param.says + 1);
                         });

TEST(DescriptionReaderTest, OtherFilesHaveNoBounds) {
  testing::WriteFile("/tmp/other.json", Nested(100));
  EXPECT_EQ(RefusalBy(DescriptionReader(), "/tmp/other.json"), "");
}

TEST(DescriptionReaderTest, NoOtherFileThatIsAPipeIsOpenedEither) {
  ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
  EXPECT_EQ(RefusalBy(DescriptionReader(), "/tmp/pipe"), "Fail to read: /tmp/pipe");
}

TEST(DescriptionReaderTest, MissingOneIsToldByItsCode) {
  try {
    DescriptionKeeper().ReadJson(kDescription);
    FAIL();
  } catch (const UpdateError& error) {
    EXPECT_EQ(error.code(), UpdateError::kFileNotExist);
  }
}

TEST(DescriptionReaderTest, WhatIsNoRegularFileIsNotOpened) {
  fs::create_directories(kDescription.parent_path());
  ASSERT_EQ(mkfifo(kDescription.c_str(), 0600), 0);
  EXPECT_EQ(RefusalBy(DescriptionReader()),
            "Fail to read: " + kDescription.string() + " (it is not a regular file)");
  fs::remove(kDescription);
  testing::WriteFile("/tmp/elsewhere", "{}");
  fs::create_symlink("/tmp/elsewhere", kDescription);
  EXPECT_THAT(RefusalBy(DescriptionReader()), HasSubstr("not a regular file"));
}

TEST(DescriptionKeeperTest, WhatCannotBeParsedIsRemoved) {
  for (const std::string text : {"{", "", "\"x"}) {
    testing::WriteFile(kDescription, text);
    EXPECT_EQ(RefusalBy(DescriptionKeeper()), "Fail to decode: " + kDescription.string());
    EXPECT_FALSE(fs::exists(kDescription)) << text;
  }
  testing::WriteFile(kDescription, Nested(rules::kDescriptionDepth + 1));
  EXPECT_THAT(RefusalBy(DescriptionKeeper()), StartsWith("Fail to decode: "));
  EXPECT_FALSE(fs::exists(kDescription));
}

TEST(DescriptionKeeperTest, OtherFilesStay) {
  testing::WriteFile("/tmp/other.json", "{");
  EXPECT_NE(RefusalBy(DescriptionKeeper(), "/tmp/other.json"), "");
  EXPECT_TRUE(fs::exists("/tmp/other.json"));
}

TEST(DescriptionKeeperTest, OtherDownloadsAreNoDescriptions) {
  testing::HttpServer server;
  testing::WriteFile("/usr/share/data_update/data_update.conf",
                     R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:)" +
                         std::to_string(server.Port()) + R"("}})");
  server.SetBody("/x", "no description");
  DescriptionKeeper().Download("/tmp/other", server.Url("/x"));
  EXPECT_EQ(testing::ReadFile("/tmp/other"), "no description");
  EXPECT_FALSE(fs::exists(kDescription));
}

TEST(DescriptionKeeperTest, WhatIsTooLargeIsRemovedUnreadAndCountsAsOld) {
  testing::WriteFile(kDescription, kEmptyDescription);
  EXPECT_FALSE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  fs::resize_file(kDescription, rules::kDescriptionBytes + 1);
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_FALSE(fs::exists(kDescription));
}

TEST(DescriptionKeeperTest, LinkIsRemovedAndNotWhatItLeadsTo) {
  testing::WriteFile("/tmp/elsewhere", "{}");
  fs::create_directories(kDescription.parent_path());
  fs::create_symlink("/tmp/elsewhere", kDescription);
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_FALSE(fs::is_symlink(kDescription));
  EXPECT_TRUE(fs::exists("/tmp/elsewhere"));
}

TEST(DescriptionKeeperTest, OneOfTheFutureIsRemoved) {
  testing::WriteFile(kDescription, kEmptyDescription);
  fs::last_write_time(kDescription, fs::file_time_type::clock::now() + std::chrono::seconds(30));
  EXPECT_FALSE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  fs::last_write_time(kDescription, fs::file_time_type::clock::now() + std::chrono::minutes(10));
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_FALSE(fs::exists(kDescription));
}

TEST(DescriptionKeeperTest, MinuteOfTheFutureIsNone) {
  testing::WriteFile(kDescription, kEmptyDescription);
  struct stat status;
  ASSERT_EQ(stat(kDescription.c_str(), &status), 0);
  tolm::testing::test_time = status.st_mtime - rules::kClockToleranceSeconds;
  EXPECT_FALSE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  --tolm::testing::test_time;
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_FALSE(fs::exists(kDescription));
  tolm::testing::test_time = 0;
}

TEST(DescriptionKeeperTest, OldOneCountsAsOldAndStays) {
  testing::WriteFile(kDescription, kEmptyDescription);
  fs::last_write_time(kDescription, fs::file_time_type::clock::now() - std::chrono::hours(2));
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_TRUE(fs::exists(kDescription));
}

// ---- Whom it is asked from ----

// Explains a failure by that of the download, as an operation does.
class FakeObserver : public StepObserver {
 public:
  bool MayGoOn() override { return true; }
  bool MayDownload(const Step&) override { return true; }
  void Answered(const Source& source, const DownloadResult& result) override {
    answers.push_back(source.address + ": " + std::to_string(result.exit_status) +
                      (result.reason.empty() ? "" : ", " + result.reason));
  }
  void Downloaded(const Step&, const DownloadResult& result) override { failure_ = result.failure; }
  ExplainedError Explain(const UpdateError& error) override {
    return ExplainedError(error.what(), error.code(), failure_);
  }
  void Began(const Step&) override {}

  std::vector<std::string> answers;

 private:
  Failure failure_;
};

// A server and a mirror, a device without databases that may trust an authority.
class AskedDescriptionTest : public ::testing::Test {
 protected:
  AskedDescriptionTest() {
    testing::WriteFile(KeyringFile(".pem"), root_.Pem());
    testing::WriteFile(paths::kServiceDefaults,
                       R"({"config": {"download_scheme": "http", "db_ver": "1",
                                      "db_netloc": "127.0.0.1:)" +
                           std::to_string(server_.Port()) + R"("}})");
    fs::create_directories(kDescription.parent_path());
    slept_microseconds = 0;
    SyslogCapture::Clear();
  }

  void ConfigureMirror() const {
    testing::WriteFile(paths::kOperationSettings, R"({"mirrors": [")" + mirror_.Url("") + R"("]})");
  }

  std::string Signed(std::uint64_t counter) const {
    offer::Offer offer = testing::SomeOffer();
    offer.counter = counter;
    Json::Value document(Json::objectValue);
    offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), signer_));
    return Json::writeString(Json::StreamWriterBuilder(), document);
  }

  /// The server has none, this often; then that.
  void AnswerAfter(int statuses, int status, const std::string& body) {
    server_.SetHandler(kPath, [=](const testing::HttpRequest&) {
      testing::HttpAnswer answer;
      const bool is_there = server_.RequestCount(kPath) > static_cast<std::size_t>(statuses);
      answer.status = is_there ? 200 : status;
      answer.body = is_there ? body : "";
      return answer;
    });
  }

  /// Why it failed; empty when it did not.
  std::string Ask() {
    const WatchedSteps watched(observer_);
    try {
      DescriptionKeeper().Download(kDescription, server_.Url(kPath) + "?device=1");
    } catch (const UpdateError& error) {
      return error.what();
    }
    return "";
  }

  static constexpr char kPath[] = "/database_info/1";
  const Interrupt interrupt_;  // Before there are further threads.
  testing::HttpServer server_;
  testing::HttpServer mirror_;
  FakeObserver observer_;
  const testing::Authority root_;
  const package::Signer signer_ = [this] {
    testing::CertificateOptions options;
    options.extended_usage = package::kDescriptionSigningOid;
    return root_.NewSigner(options);
  }();
};

TEST_F(AskedDescriptionTest, OnlyServerThatHasNoneIsAskedOnceMoreTwoSecondsLater) {
  AnswerAfter(1, 404, kEmptyDescription);
  EXPECT_EQ(Ask(), "");
  EXPECT_EQ(server_.RequestCount(kPath), 2u);
  EXPECT_EQ(slept_microseconds, 2000000);
  EXPECT_EQ(testing::ReadFile(kDescription), kEmptyDescription);
  EXPECT_THAT(SyslogCapture::Texts(LOG_WARNING), IsEmpty());
}

TEST_F(AskedDescriptionTest, OnlyServerThatFailsIsLeftAloneAndItsFailureIsTold) {
  for (const int status : {403, 500}) {
    AnswerAfter(1000, status, "");
    const std::size_t before = server_.RequestCount(kPath);
    EXPECT_THAT(Ask(), StartsWith("Fail to wget url: "));
    EXPECT_EQ(server_.RequestCount(kPath), before + 1);
    EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_NOTICE),
                ::testing::Not(Contains(StartsWith(server_.Url("")))));
  }
  EXPECT_EQ(slept_microseconds, 0);
}

TEST_F(AskedDescriptionTest, SignalEndsThePauseBeforeTheSecondRequest) {
  signal_of_wait = SIGTERM;
  AnswerAfter(1, 404, kEmptyDescription);
  EXPECT_NE(Ask(), "");
  EXPECT_EQ(server_.RequestCount(kPath), 1u);
  EXPECT_FALSE(fs::exists(kDescription));
}

TEST_F(AskedDescriptionTest, MirrorIsAskedAtOnceAndMustSign) {
  ConfigureMirror();
  AnswerAfter(1000, 404, "");
  mirror_.SetBody(kPath, Signed(41));
  EXPECT_EQ(Ask(), "");
  EXPECT_EQ(server_.RequestCount(kPath), 1u);
  EXPECT_EQ(mirror_.RequestCount(kPath), 1u);
  EXPECT_TRUE(fs::exists(kDescription));
  EXPECT_EQ(ReadSignedState().accepted.counter, 41u);
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_NOTICE),
              Contains(StartsWith(server_.Url("") + ": 404 Not Found from ")));
}

TEST_F(AskedDescriptionTest, WhereAllFailTheFirstOneIsToldWithHowManyMoreFailed) {
  ConfigureMirror();
  AnswerAfter(1000, 404, "");
  mirror_.SetBody(kPath, kEmptyDescription);
  const std::string why = Ask();
  EXPECT_THAT(why, AllOf(StartsWith("Fail to wget url: "), HasSubstr(server_.Url(kPath)),
                         ::testing::EndsWith(", and a mirror failed too")));
  const std::optional<Failure> failure = RefusalIn(why);
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->text,
            "404 Not Found from " + server_.Url(kPath) + ", and a mirror failed too");
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_NOTICE),
              AllOf(Contains(StartsWith(server_.Url("") + ": ")),
                    Contains(StartsWith(mirror_.Url("") + ": "))));
  EXPECT_THAT(observer_.answers, ElementsAre(server_.Url("") + ": 8", mirror_.Url("") + ": 0",
                                             mirror_.Url("") + ": -1, it is of no use"))
      << "it is not signed";
}

TEST_F(AskedDescriptionTest, AnswerIsThisProcesssOwnUntilAnotherFileTakesItsPlace) {
  EXPECT_FALSE(IsCachedDescriptionOwn());
  testing::WriteFile(kDescription, kEmptyDescription);
  EXPECT_FALSE(IsCachedDescriptionOwn());
  server_.SetBody(kPath, kEmptyDescription);
  RefuseCachedDescription();
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_EQ(Ask(), "");
  EXPECT_FALSE(IsCachedDescriptionRefused());
  EXPECT_FALSE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_TRUE(IsCachedDescriptionOwn());
  testing::WriteFile("/var/cache/data_update/other", kEmptyDescription);
  fs::rename("/var/cache/data_update/other", kDescription);
  EXPECT_FALSE(IsCachedDescriptionOwn());
  fs::remove(kDescription);
  EXPECT_FALSE(IsCachedDescriptionOwn());
}

TEST_F(AskedDescriptionTest, DirectoryInItsPlaceGoes) {
  testing::WriteFile(kDescription / "file", "x");
  server_.SetBody(kPath, kEmptyDescription);
  EXPECT_EQ(Ask(), "");
  EXPECT_EQ(testing::ReadFile(kDescription), kEmptyDescription);
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ElementsAre("removed " + kDescription.string() + ": it is not a regular file"));
}

TEST_F(AskedDescriptionTest, WhereWhatWasAcceptedIsLostTheCachedOneSaysIt) {
  const std::string cached = Signed(41);
  testing::WriteFile(kDescription, cached);
  server_.SetBody(kPath, Signed(40));
  EXPECT_THAT(Ask(), HasSubstr(" is refused: "));
  EXPECT_EQ(ReadSignedState().accepted.counter, 41u);
  EXPECT_EQ(testing::ReadFile(kDescription), cached) << "it stays";
}

TEST_F(AskedDescriptionTest, OneThatIsNotBelievedStaysAndTheServerIsAskedAnew) {
  testing::WriteFile(kDescription, Signed(41));
  const testing::Authority other;
  testing::WriteFile(KeyringFile(".pem"), other.Pem());
  EXPECT_TRUE(DescriptionKeeper().FileCreateOver(kDescription, 3600));
  EXPECT_TRUE(fs::exists(kDescription)) << "a keyring may be brought";
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_NOTICE),
              Contains(StartsWith("the server is asked anew: the cached description is refused")));
}

// A file system's clock ticks a hundred times a second, or more often.
TEST_F(AskedDescriptionTest, SignedOneIsKeptOnceTheNextFileCannotHaveItsTimes) {
  constexpr std::int64_t kMillisecond = 1000000;
  testing::WriteFile(kDescription, Signed(41));
  struct stat status;
  ASSERT_EQ(stat(kDescription.c_str(), &status), 0);
  const std::int64_t written = status.st_ctim.tv_sec * 1000 * kMillisecond + status.st_ctim.tv_nsec;
  for (const bool is_old : {false, true}) {
    test_nanoseconds = written + (is_old ? 1000 : 50) * kMillisecond;
    DescriptionReader().ReadJson(kDescription);
    const testing::OpeningWatch watch(kDescription);
    DescriptionReader().ReadJson(kDescription);
    EXPECT_EQ(watch.HasSeen(), !is_old);
  }
  test_nanoseconds = 0;
}

}  // namespace
}  // namespace tolm::operation

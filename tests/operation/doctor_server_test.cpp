#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "base/json_scan.h"
#include "base/paths.h"
#include "base/rules.h"
#include "offer/signed_offer.h"
#include "operation/device_trust.h"
#include "operation/doctor_looks.h"
#include "operation/history.h"
#include "tests/offer/offers.h"
#include "tests/operation/doctor_report.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"

namespace {

// So much later it is than it would be.
std::atomic<std::int64_t> seconds_later{0};

}  // namespace

std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time_point(std::chrono::seconds(time.tv_sec + seconds_later) +
                    std::chrono::nanoseconds(time.tv_nsec));
}

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

constexpr char kPath[] = "/database_info/1";
constexpr char kUnsigned[] = R"({"db_list": {"oui": {"data_version": "2", "last_fetch_time": 1,
    "deprecated": false, "download_link": "http://127.0.0.1:1/x", "diff_files": {}}}})";
constexpr char kOffered[] = "ok offers: every configured database is offered\n";

// A server, a mirror, and an authority that both have descriptions of.
class DoctorServerTest : public ::testing::Test {
 protected:
  DoctorServerTest() {
    testing::WriteFile(KeyringFile(".pem"), root_.Pem());
    testing::CertificateOptions options;
    options.extended_usage = package::kDescriptionSigningOid;
    signer_ = root_.NewSigner(options);
    testing::WriteFile(paths::kServiceDefaults,
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:)" +
                           std::to_string(server_.Port()) +
                           R"(", "db_ver": "1", "cur_volume": ""}})");
    testing::WriteFile(paths::kDatabaseDefaults,
                       R"({"oui": {"format_version": "2", "install_dest": "%ROOTFS%"}})");
  }

  std::string Signed(std::uint64_t counter) const {
    offer::Offer offer = testing::SomeOffer();
    offer.counter = counter;
    offer.base = server_.Url("");
    offer.issued = issued_;
    offer.expires = expires_;
    Json::Value document(Json::objectValue);
    offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), signer_));
    return document.toStyledString();
  }
  void UseMirrors(const std::vector<std::string>& addresses) const {
    std::string list;
    for (const std::string& address : addresses) {
      list += (list.empty() ? "\"" : ", \"") + address + '"';
    }
    testing::WriteFile(paths::kOperationSettings, R"({"mirrors": [)" + list + "]}");
  }
  std::string ReportAt(std::int64_t now, bool asks) const {
    Patient patient{service_, now};
    patient.has_settings = true;
    patient.names = {"oui"};
    Findings findings;
    LookAtServer(patient, asks, findings);
    return testing::Report(findings.all());
  }
  std::string ReportOf(const std::string& description) {
    server_.SetBody(kPath, description);
    return ReportAt(issued_, true);
  }
  std::string Answers() const { return "ok server: " + server_.Url(kPath) + " answers\n"; }
  std::string IsSigned() const {
    return "signed: by repository " + std::string(32, '7') + ", issued " + TimeText(issued_) +
           ", valid until " + TimeText(expires_);
  }
  std::string Refused(const std::string& why) const {
    return "problem server: " + why + "; curl -v \"" + server_.Url(kPath) + "\" shows more\n";
  }

  testing::HttpServer server_;
  testing::HttpServer mirror_;
  const testing::Authority root_;
  package::Signer signer_;
  const std::int64_t issued_ = std::time(nullptr);
  const std::int64_t expires_ = issued_ + 10 * testing::kDay;
  const Service service_ = BuildService([](const std::string&) {});
};

TEST_F(DoctorServerTest, OffersThatEndWithinTwoDaysAreAProblem) {
  testing::WriteFile(paths::kDatabaseInfo, Signed(41));
  const std::string before = "skipped server: it was not to be asked\n";
  const std::int64_t last = expires_ - 2 * testing::kDay;
  EXPECT_EQ(ReportAt(last, false), before + "ok " + IsSigned() + '\n' + kOffered);
  EXPECT_EQ(ReportAt(last + 1, false),
            before + "problem " + IsSigned() +
                ": no update comes after that; ask the publisher, who signs anew by \"tolmdbpub "
                "refresh\"; or is a mirror behind?\n" +
                kOffered);
}

TEST_F(DoctorServerTest, AnswerIsToldOfAndLeftNowhere) {
  EXPECT_EQ(ReportOf(kUnsigned), Answers() + kOffered);
  EXPECT_EQ(ReportOf(Signed(41)), "ok " + IsSigned() + '\n' + Answers() + kOffered);
  EXPECT_FALSE(fs::exists(paths::kDatabaseInfo));
  for (const fs::directory_entry& entry : fs::directory_iterator(fs::temp_directory_path())) {
    EXPECT_EQ(entry.path().filename().string().find("doctor"), std::string::npos) << entry;
  }
  Patient patient{service_, issued_};
  Findings findings;
  LookAtServer(patient, true, findings);
  EXPECT_EQ(testing::Report(findings.all()), "skipped server: the settings do not tell it\n");
}

TEST_F(DoctorServerTest, AnswerThatIsNoDescriptionIsAProblem) {
  const std::string refused = Refused(
      "what it answers is no description: a page of something in between, or a wrong db_ver?");
  for (const char* answer : {"<html>", "[]", "7", "{}", R"({"db_list": []})", R"({"x": {}})"}) {
    EXPECT_EQ(ReportOf(answer), refused) << answer;
  }
}

TEST_F(DoctorServerTest, AnswerMayBeAsLargeDeepAndFullAsOneMayBe) {
  const auto with = [](const std::string& more) {
    const std::string text = kUnsigned;
    return text.substr(0, text.size() - 1) + R"(, "more": )" + more + '}';
  };
  const auto measure = [](const std::string& text) {
    base::JsonScan scan;
    scan.Add(text);
    return scan.measure();
  };
  const auto nested = [&](std::size_t depth) {
    return with(std::string(depth, '[') + std::string(depth, ']'));
  };
  const auto zeros = [&](std::size_t count) {
    std::string list = "[0";
    for (std::size_t i = 1; i < count; ++i) {
      list += ",0";
    }
    return with(list + ']');
  };
  const std::string well = Answers() + kOffered;
  const std::string refused = Refused("its description is larger than one may be");
  const std::string text = kUnsigned;
  EXPECT_EQ(ReportOf(text + std::string(rules::kDescriptionBytes - text.size(), ' ')), well);
  EXPECT_NE(ReportOf(text + std::string(rules::kDescriptionBytes + 1 - text.size(), ' ')), well);
  const std::size_t depth = rules::kDescriptionDepth - measure(nested(8)).depth + 8;
  ASSERT_EQ(measure(nested(depth)).depth, rules::kDescriptionDepth);
  EXPECT_EQ(ReportOf(nested(depth)), well);
  EXPECT_EQ(ReportOf(nested(depth + 1)), refused);
  const std::size_t values = rules::kDescriptionValues - measure(zeros(1)).values + 1;
  ASSERT_EQ(measure(zeros(values)).values, rules::kDescriptionValues);
  EXPECT_EQ(ReportOf(zeros(values)), well);
  EXPECT_EQ(ReportOf(zeros(values + 1)), refused);
}

TEST_F(DoctorServerTest, ServerHasHalfAMinuteToAnswer) {
  testing::HttpAnswer late;
  late.delay = std::chrono::milliseconds(1100);  // The watch looks once a second.
  late.body = kUnsigned;
  server_.SetAnswer(kPath, late);
  EXPECT_EQ(ReportAt(issued_, true), Answers() + kOffered);
  server_.Hang(kPath);
  std::thread clock([this] {
    EXPECT_TRUE(server_.WaitForRequest(kPath, 2));
    seconds_later = 31;
  });
  EXPECT_EQ(ReportAt(issued_, true), Refused("it has not answered within 30 s"));
  clock.join();
}

TEST_F(DoctorServerTest, MirrorsAreComparedWithTheServer) {
  UseMirrors({mirror_.Url("/same"), mirror_.Url("/behind"), mirror_.Url("/ahead"),
              mirror_.Url("/unsigned")});
  mirror_.SetBody(std::string("/same") + kPath, Signed(41));
  mirror_.SetBody(std::string("/behind") + kPath, Signed(40));
  mirror_.SetBody(std::string("/ahead") + kPath, Signed(42));
  mirror_.SetBody(std::string("/unsigned") + kPath, kUnsigned);
  const std::string time = TimeText(issued_);
  const auto of = [this](const std::string& path) { return "mirror: " + mirror_.Url(path) + ": "; };
  const auto answers = [&](const std::string& path) {
    return "ok " + of(path) + "it answers, with a description of " + time + '\n';
  };
  const std::string report = ReportOf(Signed(41));
  const std::string expected = "ok " + IsSigned() + '\n' + Answers() + answers("/same") + "note " +
                               of("/behind") + "it is behind the server: its description is of " +
                               time + ", the server's of " + time + '\n' + answers("/ahead") +
                               "problem " + of("/unsigned");
  EXPECT_EQ(report.substr(0, expected.size()), expected);
  UseMirrors({mirror_.Url("/behind")});
  EXPECT_EQ(ReportOf(kUnsigned), Answers() + answers("/behind") + kOffered)
      << "there is nothing to compare it with";
}

}  // namespace
}  // namespace tolm::operation

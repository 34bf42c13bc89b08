#include "operation/metrics.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>

#include "base/paths.h"
#include "offer/signed_offer.h"
#include "operation/device_trust.h"
#include "operation/history.h"
#include "operation/trust_state.h"
#include "tests/offer/offers.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;

TEST(MetricsTest, InterruptedOperationIsNoFailureInARowAndEndsNone) {
  testing::WriteFile("/usr/share/data_update/databases.conf",
                     R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"}})");
  const Service service = BuildService([](const std::string&) {});
  const auto expect_after = [&](const std::string& outcome, const std::string& in_row) {
    HistoryEntry entry;
    entry.time = "2026-11-21T10:00:00Z";
    entry.operation = "update";
    entry.database = "oui";
    entry.outcome = outcome;
    AppendToHistory(entry);
    EXPECT_THAT(CollectMetrics(service).text,
                HasSubstr("\ntolmdbud_failures_in_row{database=\"oui\"} " + in_row + "\n"))
        << "after " << outcome;
  };
  expect_after(kFailed, "1");
  expect_after(kInterrupted, "1");
  expect_after(kFailed, "2");
  expect_after(kUpToDate, "0");
  expect_after(kInterrupted, "0");
}

struct Ended {
  const char* operation;
  const char* database;
  const char* outcome;
  const char* time;
  double seconds;
  std::uint64_t bytes;
  const char* reason;
  bool fell_back;
};

void Append(const Ended& ended) {
  HistoryEntry entry;
  entry.operation = ended.operation;
  entry.database = ended.database;
  entry.outcome = ended.outcome;
  entry.time = ended.time;
  entry.seconds = ended.seconds;
  entry.bytes = ended.bytes;
  entry.failure.reason = ended.reason;
  if (ended.fell_back) {
    entry.fell_back = HistoryEntry::FellBack{};
  }
  AppendToHistory(entry);
}

std::string LinesOf(const std::string& metrics,
                    const std::function<bool(const std::string& line)>& is_wanted) {
  std::string samples;
  std::istringstream lines(metrics);
  for (std::string line; std::getline(lines, line);) {
    if (is_wanted(line)) {
      samples += line + '\n';
    }
  }
  return samples;
}

// The samples of what the history tells.
std::string SamplesOfHistory(const std::string& metrics) {
  return LinesOf(metrics, [](const std::string& line) {
    return line.rfind("tolmdbud_history_", 0) == 0 || line.rfind("tolmdbud_last_", 0) == 0 ||
           line.rfind("tolmdbud_failures_", 0) == 0;
  });
}

// All samples but those of the program and of the time of the look.
std::string SamplesOfNow(const std::string& metrics) {
  return LinesOf(metrics, [](const std::string& line) {
    return line[0] != '#' && line.rfind("tolmdbud_collected_", 0) != 0 &&
           line.rfind("tolmdbud_build_", 0) != 0;
  });
}

TEST(MetricsTest, HistoryIsSummedUpByDatabaseAndOperation) {
  testing::WriteFile("/usr/share/data_update/databases.conf",
                     R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"}})");
  for (const Ended& ended : {
           Ended{"update", "oui", kFailed, "2026-11-21T10:00:00Z", 1.5, 100, "http-status", false},
           Ended{"update", "", kSkipped, "2026-11-21T10:01:00Z", 0, 0, "", false},
           Ended{"update", "oui", kUpdated, "2026-11-21T10:02:00Z", 2, 1000, "", true},
           Ended{"update", "oui", kFailed, "2026-11-21T10:03:00Z", 0.25, 7, "", false},
           Ended{"update", "oui", kInterrupted, "2026-11-21T10:04:00Z", 4, 30, "", false},
           Ended{"trust-lower", "oui", kLowered, "2026-11-21T10:05:00Z", 8, 8, "", false},
           Ended{"fix", "oui", kIntact, "2026-11-21T10:06:00Z", 3, 5, "", false},
           Ended{"fix", "oui", kRepaired, "no time", 1, 6, "", false},
           Ended{"force-install", "oui", kInstalled, "", 16, 9, "", false},
           Ended{"update", "gone", kFailed, "2026-11-21T10:07:00Z", 1, 1, "", false},
       }) {
    Append(ended);
  }
  const Service service = BuildService([](const std::string&) {});
  EXPECT_EQ(SamplesOfHistory(CollectMetrics(service).text),
            R"(tolmdbud_history_begin_timestamp_seconds 1795255200
tolmdbud_history_cool_downs 1
tolmdbud_failures_in_row{database="oui"} 0
tolmdbud_last_attempt_timestamp_seconds{database="oui",operation="fix"} 1795255560
tolmdbud_last_attempt_timestamp_seconds{database="oui",operation="update"} 1795255440
tolmdbud_last_success_timestamp_seconds{database="oui",operation="fix"} 1795255560
tolmdbud_last_success_timestamp_seconds{database="oui",operation="update"} 1795255320
tolmdbud_last_duration_seconds{database="oui",operation="fix"} 1
tolmdbud_last_duration_seconds{database="oui",operation="force-install"} 16
tolmdbud_last_duration_seconds{database="oui",operation="update"} 4
tolmdbud_last_downloaded_bytes{database="oui",operation="fix"} 6
tolmdbud_last_downloaded_bytes{database="oui",operation="force-install"} 9
tolmdbud_last_downloaded_bytes{database="oui",operation="update"} 30
tolmdbud_history_duration_seconds{database="oui",operation="fix"} 4
tolmdbud_history_duration_seconds{database="oui",operation="force-install"} 16
tolmdbud_history_duration_seconds{database="oui",operation="update"} 7.75
tolmdbud_history_downloaded_bytes{database="oui",operation="fix"} 11
tolmdbud_history_downloaded_bytes{database="oui",operation="force-install"} 9
tolmdbud_history_downloaded_bytes{database="oui",operation="update"} 1137
tolmdbud_history_fallbacks{database="oui",operation="fix"} 0
tolmdbud_history_fallbacks{database="oui",operation="force-install"} 0
tolmdbud_history_fallbacks{database="oui",operation="update"} 1
tolmdbud_history_operations{database="oui",operation="fix",outcome="intact"} 1
tolmdbud_history_operations{database="oui",operation="fix",outcome="repaired"} 1
tolmdbud_history_operations{database="oui",operation="force-install",outcome="installed"} 1
tolmdbud_history_operations{database="oui",operation="update",outcome="failed"} 2
tolmdbud_history_operations{database="oui",operation="update",outcome="interrupted"} 1
tolmdbud_history_operations{database="oui",operation="update",outcome="updated"} 1
tolmdbud_history_failures{database="oui",operation="update",reason="http-status"} 1
tolmdbud_history_failures{database="oui",operation="update",reason="other"} 1
)");
}

// Three databases: one that an operation was cut short on, one that waits for its volume, and one
// of which nothing is installed nor offered.
TEST(MetricsTest, EveryStateOfADatabaseIsANumberOfItsOwn) {
  testing::WriteFile(paths::kServiceDefaults,
                     R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                    "db_ver": "1", "cur_volume": "/volume9"}})");
  testing::WriteFile(paths::kDatabaseDefaults,
                     R"({"cut": {"format_version": "2", "install_dest": "%ROOTFS%"},
                         "far": {"format_version": "2", "install_dest": "%VOLUME%",
                                 "auto_update": false},
                         "none": {"format_version": "2", "install_dest": "%ROOTFS%"}})");
  testing::WriteFile("/var/lib/data_update/cut/version.json",
                     R"({"data_version": "3", "last_fetch_time": 1, "file_status": {}})");
  testing::WriteFile("/var/lib/data_update/cut/recovery.mark", "");
  testing::WriteFile("/var/lib/data_update/far/version.json",
                     R"({"data_version": "2", "last_fetch_time": 0, "file_status": {}})");
  testing::WriteFile(paths::kDatabaseInfo, R"({"db_list": {
      "cut": {"data_version": "3", "last_fetch_time": 1, "deprecated": true, "file_size": 9,
              "download_link": "http://127.0.0.1:1/c", "diff_files": {}},
      "far": {"data_version": "0", "last_fetch_time": 0, "deprecated": false,
              "download_link": "http://127.0.0.1:1/f", "diff_files": {}},
      "none": {"data_version": "-1", "last_fetch_time": 1, "deprecated": false,
               "download_link": "http://127.0.0.1:1/n", "diff_files": {}}}})");
  const timespec written[] = {{1700000000, 0}, {1700000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, paths::kDatabaseInfo, written, 0), 0);
  testing::CertificateOptions options;
  options.not_before = 1700000000;
  options.not_after = 2000000000;
  // The second one ends at no time, the third one is cut off.
  const testing::Authority root = testing::Authority().NewAuthorityBelow(options);
  testing::WriteFile(
      KeyringFile(".pem"),
      root.Pem() + PemWithoutEnd(testing::Authority("Endless")) + root.Pem().substr(0, 99));
  const Metrics metrics = CollectMetrics(BuildService([](const std::string&) {}));
  EXPECT_TRUE(metrics.problems.empty());
  EXPECT_THAT(metrics.text, ContainsRegex("\ntolmdbud_build_info\\{version=\"[^\n]*\"\\} 1\n"));
  EXPECT_EQ(SamplesOfNow(metrics.text), R"(tolmdbud_settings_sound 1
tolmdbud_volume_chosen 1
tolmdbud_certificate_not_after_timestamp_seconds{file="/usr/tolm/etc/keyring/6.pem",subject="CN = Test signing",not_before="2023-11-14T22:13:20Z"} 2000000000
tolmdbud_offers_downloaded_timestamp_seconds 1700000000
tolmdbud_database_readable{database="cut"} 1
tolmdbud_database_readable{database="far"} 1
tolmdbud_database_readable{database="none"} 1
tolmdbud_installed_version{database="cut"} 3
tolmdbud_installed_version{database="far"} 2
tolmdbud_database_scheduled{database="cut"} 1
tolmdbud_database_scheduled{database="far"} 0
tolmdbud_database_scheduled{database="none"} 1
tolmdbud_cut_short{database="cut"} 1
tolmdbud_cut_short{database="far"} 0
tolmdbud_cut_short{database="none"} 0
tolmdbud_volume_missing{database="cut"} 0
tolmdbud_volume_missing{database="far"} 1
tolmdbud_volume_missing{database="none"} 0
tolmdbud_data_timestamp_seconds{database="cut"} 1
tolmdbud_offered_version{database="cut"} 3
tolmdbud_offered_version{database="far"} 0
tolmdbud_offered_data_timestamp_seconds{database="cut"} 1
tolmdbud_deprecated{database="cut"} 1
tolmdbud_deprecated{database="far"} 0
tolmdbud_up_to_date{database="cut"} 0
tolmdbud_up_to_date{database="far"} 1
tolmdbud_update_bytes{database="cut"} 9
tolmdbud_update_bytes{database="far"} 0
)");
}

TEST(MetricsTest, DamagedSettingsAndNoVolumeAreZeros) {
  testing::WriteFile(paths::kServiceDefaults, R"({"config": {"cur_volume": ""}})");
  testing::WriteFile(paths::kDatabaseDefaults, "{}");
  testing::WriteFile(paths::kOperationSettings, "{");
  EXPECT_EQ(SamplesOfNow(CollectMetrics(BuildService([](const std::string&) {})).text),
            "tolmdbud_settings_sound 0\ntolmdbud_volume_chosen 0\n");
}

// systemd has two seconds to answer, and a busy machine may need them for its stand-in.
TEST(MetricsTest, TimersAreToldAsSystemdTellsOfThem) {
  std::filesystem::create_directories("/run/systemd/system");
  std::filesystem::remove(paths::kSystemctl);
  testing::WriteFile(paths::kSystemctl,
                     "#!/bin/sh\n"
                     "cat <<'END'\n"
                     "Id=tolmdbud-update.timer\nLoadState=loaded\nActiveState=active\n"
                     "NextElapseUSecRealtime=Thu 2099-01-01 03:12:45 UTC\n\n"
                     "Id=tolmdbud-verify.timer\nLoadState=loaded\nActiveState=inactive\nEND\n");
  std::filesystem::permissions(paths::kSystemctl, std::filesystem::perms(0755));
  const Service service = BuildService([](const std::string&) {});
  constexpr int kTries = 20;
  std::string told;
  for (int i = 0; i < kTries && told.empty(); ++i) {
    told = LinesOf(CollectMetrics(service).text,
                   [](const std::string& line) { return line.rfind("tolmdbud_timer_", 0) == 0; });
  }
  EXPECT_EQ(told, R"(tolmdbud_timer_waiting{unit="tolmdbud-update.timer"} 1
tolmdbud_timer_waiting{unit="tolmdbud-verify.timer"} 0
tolmdbud_timer_next_timestamp_seconds{unit="tolmdbud-update.timer"} 4070920365
)");
}

// A newer signer offers less than what an older one had offered.
TEST(MetricsTest, HigherVersionThatIsToBeReplacedIsNotUpToDate) {
  testing::WriteFile(paths::kServiceDefaults,
                     R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                    "db_ver": "1", "cur_volume": ""}})");
  testing::WriteFile(paths::kDatabaseDefaults,
                     R"({"oui": {"format_version": "2", "install_dest": "%ROOTFS%"}})");
  const testing::Authority root;
  testing::WriteFile(KeyringFile(".pem"), root.Pem());
  testing::CertificateOptions options;
  options.extended_usage = package::kDescriptionSigningOid;
  offer::Offer offer = testing::SomeOffer();
  offer.issued = std::time(nullptr);
  offer.expires = offer.issued + 3600;
  Json::Value document(Json::objectValue);
  offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), root.NewSigner(options)));
  testing::WriteFile(paths::kDatabaseInfo, document.toStyledString());
  const int offered = offer.databases["oui"].version;
  const auto is_up_to_date = [](int installed) {
    testing::WriteFile("/var/lib/data_update/oui/version.json",
                       R"({"data_version": ")" + std::to_string(installed) +
                           R"(", "last_fetch_time": 1, "file_status": {}})");
    return LinesOf(
        CollectMetrics(BuildService([](const std::string&) {})).text,
        [](const std::string& line) { return line.rfind("tolmdbud_up_to_date", 0) == 0; });
  };
  const std::string yes = "tolmdbud_up_to_date{database=\"oui\"} 1\n";
  EXPECT_EQ(is_up_to_date(offered + 1), yes);
  offer::Acceptance acceptance;
  acceptance.accepted.repository = offer.repository;
  acceptance.is_newer_epoch = true;
  RememberAccepted(acceptance, {{"oui", {offered, offered + 1}}});
  EXPECT_EQ(is_up_to_date(offered + 1), "tolmdbud_up_to_date{database=\"oui\"} 0\n");
  EXPECT_EQ(is_up_to_date(offered), yes);
}

}  // namespace
}  // namespace tolm::operation

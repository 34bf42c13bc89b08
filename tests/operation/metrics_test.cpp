#include "operation/metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>

#include "operation/history.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

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

// The samples of what the history tells.
std::string SamplesOfHistory(const std::string& metrics) {
  std::string samples;
  std::istringstream lines(metrics);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("tolmdbud_history_", 0) == 0 || line.rfind("tolmdbud_last_", 0) == 0 ||
        line.rfind("tolmdbud_failures_", 0) == 0) {
      samples += line + '\n';
    }
  }
  return samples;
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

}  // namespace
}  // namespace tolm::operation

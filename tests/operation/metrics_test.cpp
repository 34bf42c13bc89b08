#include "operation/metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace tolm::operation

#include "operation/history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "base/paths.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::ReadFile;
using ::testing::StartsWith;
using testing::SyslogCapture;
using testing::WriteFile;

HistoryEntry Entry(const std::string& database, int to, const std::string& outcome = kUpdated) {
  HistoryEntry entry;
  entry.time = "2026-11-21T10:00:00Z";
  entry.operation = "update";
  entry.database = database;
  entry.scheduled = true;
  entry.from = to - 1;
  entry.to = to;
  entry.outcome = outcome;
  entry.seconds = 1.5;
  entry.bytes = 5000000000;
  return entry;
}

long CountLines(const std::string& text) {
  return std::count(text.begin(), text.end(), '\n');
}

TEST(HistoryTest, EntryIsOneLineOfJson) {
  HistoryEntry entry = Entry("oui", 2);
  entry.message = "why";
  AppendToHistory(entry);
  EXPECT_EQ(ReadFile(paths::kHistory),
            R"({"bytes":5000000000,"database":"oui","format":1,"from":1,"message":"why",)"
            R"("operation":"update","outcome":"updated","scheduled":true,"seconds":1.5,)"
            R"("time":"2026-11-21T10:00:00Z","to":2})"
            "\n");
}

TEST(HistoryTest, WhoGaveItStandsThereWhereAnythingCame) {
  HistoryEntry entry = Entry("oui", 2);
  AppendToHistory(entry);
  EXPECT_THAT(testing::ReadFile(paths::kHistory), ::testing::Not(::testing::HasSubstr("server")));
  EXPECT_EQ(LastOf("oui")->server, "");
  entry.server = "https://mirror.example.org/oui";
  AppendToHistory(entry);
  EXPECT_EQ(LastOf("oui")->server, entry.server);
}

TEST(HistoryTest, LastEntryOfTheDatabaseIsFound) {
  AppendToHistory(Entry("oui", 2));
  AppendToHistory(Entry("oui", 3, kFailed));
  AppendToHistory(Entry("geo", 7));
  const auto last = LastOf("oui");
  ASSERT_TRUE(last);
  EXPECT_EQ(last->time, "2026-11-21T10:00:00Z");
  EXPECT_EQ(last->operation, "update");
  EXPECT_EQ(last->database, "oui");
  EXPECT_TRUE(last->scheduled);
  EXPECT_EQ(last->from, 2);
  EXPECT_EQ(last->to, 3);
  EXPECT_EQ(last->outcome, kFailed);
  EXPECT_EQ(last->seconds, 1.5);
  EXPECT_EQ(last->bytes, 5000000000u);
  EXPECT_FALSE(LastOf("other"));
}

TEST(HistoryTest, WithoutAHistoryThereIsNoLastEntry) {
  EXPECT_FALSE(LastOf("oui"));
}

TEST(HistoryTest, SkippedRunIsNoLastOperation) {
  AppendToHistory(Entry("oui", 2));
  AppendToHistory(Entry("oui", 2, kSkipped));
  ASSERT_TRUE(LastOf("oui"));
  EXPECT_EQ(LastOf("oui")->outcome, kUpdated);
}

TEST(HistoryTest, HostileMessageIsOneBoundedLineOfAscii) {
  HistoryEntry entry = Entry("oui", 2, kFailed);
  entry.message = "a\nb\x1b[2J\xff\xc3" + std::string(100000, '\x01');
  AppendToHistory(entry);
  const std::string text = ReadFile(paths::kHistory);
  EXPECT_EQ(CountLines(text), 1);
  EXPECT_LT(text.size(), 10000u);
  EXPECT_TRUE(
      std::all_of(text.begin(), text.end() - 1, [](char c) { return c >= ' ' && c <= '~'; }));
  ASSERT_TRUE(LastOf("oui"));
  EXPECT_THAT(LastOf("oui")->message, StartsWith("a\nb\x1b[2J"));
}

TEST(HistoryTest, DamagedLinesArePassedOver) {
  AppendToHistory(Entry("oui", 2));
  const std::string good = ReadFile(paths::kHistory);
  const std::vector<std::string> damaged = {"garbage\n",
                                            "\n\n",
                                            "[]\n",
                                            "1\n",
                                            std::string(5000, '[') + "\n",
                                            std::string("\0\0\0", 3) + "\n",
                                            R"({"format":2,"database":"oui"})"
                                            "\n",
                                            R"({"format":1,"database":"oui","outcome":[]})"
                                            "\n",
                                            R"({"format":1,"database":"oui","to":"x"})"
                                            "\n",
                                            R"({"format":1,"database":"oui","bytes":-1})"
                                            "\n"};
  for (const std::string& line : damaged) {
    WriteFile(paths::kHistory, good + line);
    ASSERT_TRUE(LastOf("oui")) << line;
    EXPECT_EQ(LastOf("oui")->to, 2) << line;
  }
}

TEST(HistoryTest, LineCutOffAtAnyByteCostsNoOtherLine) {
  AppendToHistory(Entry("oui", 2));
  const std::string first = ReadFile(paths::kHistory);
  AppendToHistory(Entry("oui", 3));
  const std::string both = ReadFile(paths::kHistory);
  for (std::size_t size = first.size(); size + 1 < both.size(); ++size) {
    WriteFile(paths::kHistory, both.substr(0, size));
    ASSERT_TRUE(LastOf("oui")) << size;
    EXPECT_EQ(LastOf("oui")->to, 2) << size;
    AppendToHistory(Entry("geo", 9));
    EXPECT_EQ(LastOf("oui")->to, 2) << size;
    EXPECT_EQ(LastOf("geo")->to, 9) << size;
  }
}

TEST(HistoryTest, FileStaysBelowAMebibyteAndKeepsItsNewestEntries) {
  HistoryEntry entry = Entry("oui", 0);
  entry.message = std::string(900, 'm');
  for (int to = 1; to <= 3000; ++to) {
    entry.to = to;
    AppendToHistory(entry);
    ASSERT_LE(fs::file_size(paths::kHistory), std::uintmax_t{1} << 20);
  }
  EXPECT_EQ(LastOf("oui")->to, 3000);
  const std::string text = ReadFile(paths::kHistory);
  EXPECT_GT(CountLines(text), 400);
  EXPECT_THAT(text, StartsWith("{"));
  EXPECT_EQ(text.back(), '\n');
}

TEST(HistoryTest, ShortLinesAreForgottenByTheirNumber) {
  std::string text;
  for (int i = 0; i < 6000; ++i) {
    text += "{\"format\":1,\"database\":\"old\",\"message\":\"" + std::string(150, 'x') + "\"}\n";
  }
  WriteFile(paths::kHistory, text);
  while (fs::file_size(paths::kHistory) > 900000) {
    AppendToHistory(Entry("oui", 2));
  }
  EXPECT_EQ(CountLines(ReadFile(paths::kHistory)), 1000);
}

TEST(HistoryTest, HugeDamagedFileIsCutToo) {
  WriteFile(paths::kHistory, std::string(5 << 20, 'x'));
  AppendToHistory(Entry("oui", 2));
  EXPECT_LT(fs::file_size(paths::kHistory), 1000u);
  EXPECT_EQ(LastOf("oui")->to, 2);
}

TEST(HistoryTest, FailureToWriteIsAWarningInTheSystemLog) {
  fs::create_directories("/var/lib/data_update");
  const testing::ScopedMount read_only = testing::ScopedMount::ReadOnly("/var/lib/data_update");
  AppendToHistory(Entry("oui", 2));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ElementsAre(HasSubstr("The history is not written: Fail to open "
                                    "/var/lib/data_update/history.jsonl")));
}

TEST(HistoryTest, EntriesOfManyProcessesAreAllThere) {
  constexpr int kProcesses = 8;
  constexpr int kEntries = 50;
  std::vector<testing::ForkedChild> writers;
  for (int i = 0; i < kProcesses; ++i) {
    writers.emplace_back([i](testing::EventChannel&) {
      for (int entry = 0; entry < kEntries; ++entry) {
        AppendToHistory(Entry("db" + std::to_string(i), entry));
      }
      return 0;
    });
  }
  for (testing::ForkedChild& writer : writers) {
    EXPECT_EQ(writer.Process().Wait(), 0);
  }
  EXPECT_EQ(CountLines(ReadFile(paths::kHistory)), kProcesses * kEntries);
  for (int i = 0; i < kProcesses; ++i) {
    EXPECT_EQ(LastOf("db" + std::to_string(i))->to, kEntries - 1);
  }
}

TEST(HistoryTest, EveryEntryIsGivenOldestFirst) {
  std::vector<int> versions;
  const auto take = [&versions](const HistoryEntry& entry) { versions.push_back(entry.to); };
  ForEachEntry(take);
  EXPECT_TRUE(versions.empty());
  AppendToHistory(Entry("oui", 1));
  WriteFile(paths::kHistory, ReadFile(paths::kHistory) + "{\"format\":1,\n\n[]\n\xff\n");
  AppendToHistory(Entry("tz", 2));
  AppendToHistory(Entry("oui", 3));
  ForEachEntry(take);
  EXPECT_THAT(versions, ElementsAre(1, 2, 3));
}

TEST(HistoryTest, TimeIsWrittenInUtc) {
  EXPECT_EQ(TimeText(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(TimeText(1795255200), "2026-11-21T10:00:00Z");
}

TEST(HistoryTest, FailureAndFallBackAreReadAsTheyWereWritten) {
  HistoryEntry entry = Entry("oui", 2, kFailed);
  entry.seconds = 1.23456789;
  entry.failure.reason = "http-status";
  entry.failure.text = "404 Not Found";
  entry.failure.http_status = 404;
  entry.fell_back = HistoryEntry::FellBack{};
  entry.fell_back->failure.reason = "delta-unfit";
  entry.fell_back->failure.text = "it does not fit";
  entry.fell_back->bytes = 6000000000;
  AppendToHistory(entry);
  EXPECT_EQ(
      ReadFile(paths::kHistory),
      R"({"bytes":5000000000,"database":"oui","explanation":"404 Not Found",)"
      R"("fell_back":{"bytes":6000000000,"explanation":"it does not fit","reason":"delta-unfit"},)"
      R"("format":1,"from":1,"http_status":404,"message":"","operation":"update",)"
      R"("outcome":"failed","reason":"http-status","scheduled":true,"seconds":1.23457,)"
      R"("time":"2026-11-21T10:00:00Z","to":2})"
      "\n");
  const auto last = LastOf("oui");
  ASSERT_TRUE(last);
  EXPECT_EQ(last->failure.reason, "http-status");
  EXPECT_EQ(last->failure.text, "404 Not Found");
  EXPECT_EQ(last->failure.http_status, 404);
  ASSERT_TRUE(last->fell_back);
  EXPECT_EQ(last->fell_back->failure.reason, "delta-unfit");
  EXPECT_EQ(last->fell_back->failure.text, "it does not fit");
  EXPECT_EQ(last->fell_back->failure.http_status, 0);
  EXPECT_EQ(last->fell_back->bytes, 6000000000u);
}

TEST(HistoryTest, TextsOfServersAreCutAfterAThousandBytes) {
  HistoryEntry entry = Entry("oui", 2, kFailed);
  entry.message = std::string(999, 'm') + "12";
  entry.server = std::string(999, 's') + "12";
  entry.failure.reason = "other";
  entry.failure.text = std::string(999, 'f') + "12";
  AppendToHistory(entry);
  ASSERT_TRUE(LastOf("oui"));
  EXPECT_EQ(LastOf("oui")->message, std::string(999, 'm') + '1');
  EXPECT_EQ(LastOf("oui")->server, std::string(999, 's') + '1');
  EXPECT_EQ(LastOf("oui")->failure.text, std::string(999, 'f') + '1');
}

TEST(HistoryTest, ALineIsEndedOnlyWhereItWasCutOff) {
  AppendToHistory(Entry("oui", 2));
  const std::string line = ReadFile(paths::kHistory);
  AppendToHistory(Entry("oui", 2));
  EXPECT_EQ(ReadFile(paths::kHistory), line + line);
  WriteFile(paths::kHistory, "{");
  AppendToHistory(Entry("oui", 2));
  EXPECT_EQ(ReadFile(paths::kHistory), "{\n" + line);
}

TEST(HistoryTest, OnlyWhatIsLargerThanAMebibyteIsCutAndToHalfOfOne) {
  constexpr std::size_t kMebibyte = 1 << 20;
  constexpr std::size_t kLine = 4096;
  AppendToHistory(Entry("oui", 2));
  const std::string appended = ReadFile(paths::kHistory);
  std::string text;
  while (text.size() + kLine + appended.size() <= kMebibyte) {
    text += std::string(kLine - 1, ' ') + '\n';
  }
  text.insert(0, kMebibyte - appended.size() - text.size(), ' ');
  WriteFile(paths::kHistory, text);
  AppendToHistory(Entry("oui", 2));
  EXPECT_TRUE(ReadFile(paths::kHistory) == text + appended);
  WriteFile(paths::kHistory, ' ' + text);
  AppendToHistory(Entry("oui", 2));
  const std::string kept = ReadFile(paths::kHistory);
  EXPECT_LE(kept.size(), kMebibyte / 2);
  EXPECT_GT(kept.size() + kLine, kMebibyte / 2);
  EXPECT_TRUE(kept == (text + appended).substr(kMebibyte - kept.size()));
}

TEST(HistoryTest, EveryWholeLineAfterAHugeDamagedOneIsKept) {
  AppendToHistory(Entry("oui", 2));
  const std::string line = ReadFile(paths::kHistory);
  WriteFile(paths::kHistory, std::string(5 << 20, 'x') + '\n' + line);
  AppendToHistory(Entry("oui", 2));
  EXPECT_EQ(ReadFile(paths::kHistory), line + line);
}

TEST(HistoryTest, OutcomesAreToldInWords) {
  EXPECT_EQ(OutcomeText(Entry("oui", 7, kUpdated)), "updated to 7");
  EXPECT_EQ(OutcomeText(Entry("oui", 7, kRepaired)), "repaired with 7");
  EXPECT_EQ(OutcomeText(Entry("oui", 7, kInstalled)), "force-installed 7");
  EXPECT_EQ(OutcomeText(Entry("oui", 7, kLowered)), "accepts 7 and newer");
  EXPECT_EQ(OutcomeText(Entry("oui", 7, kUpToDate)), "up to date");
  EXPECT_EQ(OutcomeText(Entry("oui", 7, "unheard-of")), "unheard-of");
}

}  // namespace
}  // namespace tolm::operation

#include "operation/journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "operation/events.h"
#include "tests/support/journal_socket.h"

namespace tolm::operation {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::JournalEntry;
using testing::JournalSocket;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;

TEST(JournalTest, EntryArrivesWithItsFields) {
  const JournalSocket journal;
  SendToJournal({{"MESSAGE", "a=b"}, {"PRIORITY", "6"}});
  EXPECT_THAT(journal.Entries(),
              ElementsAre(ElementsAre(Pair("MESSAGE", "a=b"), Pair("PRIORITY", "6"))));
}

TEST(JournalTest, ValueMayHaveLinesAndAnyBytes) {
  const JournalSocket journal;
  const std::string value = std::string("one\nA=two\n\0\xff", 12) + "\n";
  SendToJournal({{"MESSAGE", value}, {"PRIORITY", "6"}});
  EXPECT_THAT(journal.Entries(),
              ElementsAre(ElementsAre(Pair("MESSAGE", value), Pair("PRIORITY", "6"))));
}

TEST(JournalTest, LongValueIsCut) {
  const JournalSocket journal;
  const std::string lines = std::string(100, 'x') + '\n' + std::string(1000000, 'y');
  SendToJournal({{"MESSAGE", std::string(1000000, 'x')}, {"LINES", lines}, {"PRIORITY", "6"}});
  EXPECT_THAT(journal.Entries(),
              ElementsAre(ElementsAre(Pair("LINES", lines.substr(0, kMostJournalBytes)),
                                      Pair("MESSAGE", std::string(kMostJournalBytes, 'x')),
                                      Pair("PRIORITY", "6"))));
}

TEST(JournalTest, LongValueIsCutAtTheEndOfACharacter) {
  const JournalSocket journal;
  std::string value(kMostJournalBytes - 2, 'x');
  SendToJournal({{"MESSAGE", value + "\xe2\x82\xac and more"}});
  SendToJournal({{"MESSAGE", value + "\xc3\xbc and more"}});
  SendToJournal({{"MESSAGE", value + "\xbf\xbf\xbf\xbf\xbf\xbf"}});
  EXPECT_THAT(journal.Entries(),
              ElementsAre(ElementsAre(Pair("MESSAGE", value)),
                          ElementsAre(Pair("MESSAGE", value + "\xc3\xbc")),
                          ElementsAre(Pair("MESSAGE", value.substr(0, value.size() - 1)))));
}

// journalctl gives null for a field of 4096 bytes or more with its name, and "=".
TEST(JournalTest, LongestValueIsGivenToPrograms) {
  EXPECT_LT(std::string("TOLMDBUD_EXPLANATION=").size() + kMostJournalBytes, 4096u);
}

TEST(JournalTest, NothingHappensWithoutAJournal) {
  SendToJournal({{"MESSAGE", "text"}});
  const JournalSocket journal;
  EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST(JournalTest, JournalThatTakesNothingHoldsNobodyUp) {
  const JournalSocket journal;
  constexpr int kMoreThanFit = 5000;
  for (int i = 0; i < kMoreThanFit; ++i) {
    SendToJournal({{"MESSAGE", std::string(1000, 'x')}});
  }
  EXPECT_THAT(journal.Entries(), Not(SizeIs(kMoreThanFit)));
}

TEST(EventsTest, EachOutcomeHasItsIdentifierForEver) {
  const std::pair<const char*, const char*> rows[] = {
      {kUpdated, "550c7d2118124e8895d891a6589ded07"},
      {kRepaired, "6eb55e749bf842aea240131f76087c51"},
      {kInstalled, "fabcfb7d12b746c3b4a9e0cf3a1f6475"},
      {kUpToDate, "362b8df365464157adf4608de6c99589"},
      {kIntact, "362b8df365464157adf4608de6c99589"},
      {kFailed, "3247a2eb62bf432b862e6472370a8dc0"},
      {kInterrupted, "0e0ae647ecdf445fa7936aadf92c0bdf"},
      {kSkipped, "5c00879662dc4407a0031f2dd5725923"},
  };
  for (const auto& [outcome, id] : rows) {
    const JournalSocket journal;
    HistoryEntry entry;
    entry.operation = "update";
    entry.outcome = outcome;
    TellEnded(entry, "");
    EXPECT_THAT(journal.Entries(), ElementsAre(Contains(Pair("MESSAGE_ID", id)))) << outcome;
  }
}

TEST(EventsTest, FailureSaysAllThatIsKnown) {
  const JournalSocket journal;
  HistoryEntry entry;
  entry.operation = "update";
  entry.database = "oui";
  entry.scheduled = true;
  entry.from = entry.to = 7;
  entry.outcome = kFailed;
  entry.seconds = 1.25;
  entry.bytes = 24103;
  entry.failure = {reasons::kHttpStatus, "404 Not Found\nfrom there", "look", "8", 404};
  entry.fell_back = HistoryEntry::FellBack{{reasons::kDeltaUnfit, "text"}, 3};
  TellEnded(entry, "updates.example.org:443");
  EXPECT_THAT(journal.Entries(),
              ElementsAre(::testing::IsSupersetOf(std::vector<std::pair<std::string, std::string>>{
                  {"MESSAGE", "oui: update: failed, 8: 404 Not Found\nfrom there; look"},
                  {"PRIORITY", "5"},
                  {"TOLMDBUD_BYTES", "24103"},
                  {"TOLMDBUD_DATABASE", "oui"},
                  {"TOLMDBUD_EXPLANATION", "8: 404 Not Found\nfrom there; look"},
                  {"TOLMDBUD_FELL_BACK", "delta-unfit"},
                  {"TOLMDBUD_FROM", "7"},
                  {"TOLMDBUD_OPERATION", "update"},
                  {"TOLMDBUD_OUTCOME", "failed"},
                  {"TOLMDBUD_REASON", "http-status"},
                  {"TOLMDBUD_SCHEDULED", "1"},
                  {"TOLMDBUD_SECONDS", "1.250"},
                  {"TOLMDBUD_SERVER", "updates.example.org:443"},
                  {"TOLMDBUD_TO", "7"}})));
}

TEST(EventsTest, ValuesAreTextsWhateverAServerSent) {
  const JournalSocket journal;
  HistoryEntry entry;
  entry.operation = "update";
  entry.database = "oui";
  entry.outcome = kFailed;
  entry.failure = {reasons::kHttpStatus, "\x1b[2J\xff\nM", "", "", 404};
  TellEnded(entry, "");
  Verification found{7, false, 1, 1, {{"a\nb.txt: missing\n", "missing"}}, {}, 0};
  TellDamage("oui", found);
  const std::vector<JournalEntry> entries = journal.Entries();
  ASSERT_THAT(entries, SizeIs(2));
  EXPECT_THAT(entries[0], Contains(Pair("TOLMDBUD_EXPLANATION", "\\x1b[2J\\xff\nM")));
  EXPECT_THAT(entries[1],
              Contains(Pair("TOLMDBUD_EXPLANATION", "a\\x0ab.txt: missing\\x0a: missing")));
}

TEST(EventsTest, WhatIsNotKnownIsNotSaid) {
  const JournalSocket journal;
  HistoryEntry entry;
  entry.operation = "update";
  entry.database = "oui";
  TellBegun(entry, "");
  const std::vector<JournalEntry> entries = journal.Entries();
  ASSERT_THAT(entries, SizeIs(1));
  std::vector<std::string> names;
  for (const auto& field : entries[0]) {
    names.push_back(field.first);
  }
  EXPECT_THAT(names, ElementsAre("MESSAGE", "MESSAGE_ID", "PRIORITY", "SYSLOG_IDENTIFIER",
                                 "TOLMDBUD_DATABASE", "TOLMDBUD_OPERATION", "TOLMDBUD_SCHEDULED"));
}

TEST(EventsTest, DamageNamesTheFiles) {
  const JournalSocket journal;
  Verification found{7, false, 3, 3, {{"a.txt", "missing"}, {"b.txt", "content differs"}}, {}, 0};
  TellDamage("oui", found);
  found.damaged.clear();
  TellDamage("oui", found);
  EXPECT_THAT(journal.Entries(),
              ElementsAre(::testing::IsSupersetOf(std::vector<std::pair<std::string, std::string>>{
                  {"MESSAGE", "oui: damage was found, 2 files"},
                  {"MESSAGE_ID", "2114aaffbf6c4e388bec9ab279de9693"},
                  {"TOLMDBUD_DAMAGED_FILES", "2"},
                  {"TOLMDBUD_DATABASE", "oui"},
                  {"TOLMDBUD_EXPLANATION", "a.txt: missing\nb.txt: content differs"},
                  {"TOLMDBUD_FROM", "7"},
                  {"TOLMDBUD_OPERATION", "verify"},
                  {"TOLMDBUD_OUTCOME", "damaged"}})));
}

TEST(JournalTest, LongValueThatIsNoTextIsCutByThreeBytesAtMost) {
  const JournalSocket journal;
  const std::string value(2 * kMostJournalBytes, '\xbf');
  SendToJournal({{"MESSAGE", value}});
  EXPECT_THAT(journal.Entries(),
              ElementsAre(ElementsAre(Pair("MESSAGE", value.substr(0, kMostJournalBytes - 3)))));
}

}  // namespace
}  // namespace tolm::operation

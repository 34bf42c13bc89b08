// status --metrics of the installed tool: what it tells of a device, to whom, and what is made of
// it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "tests/support/journal_socket.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/shifted_clock.h"
#include "tests/tools/golden.h"
#include "tests/tools/metrics_text.h"
#include "tests/tools/signed_descriptions.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr char kCoolDowns[] = "/var/lib/data_update/cooldown.json";
constexpr char kVerified[] = "/var/lib/data_update/oui/verified.json";

class MetricsTest : public DeviceTest {
 protected:
  static std::string Metrics() {
    const CommandResult result = Tool({"status", "--metrics"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    return result.out;
  }
  // systemd has two seconds to answer, and a busy machine may need them for its stand-in.
  static std::string MetricsWithTimers() {
    constexpr int kTries = 20;
    std::string metrics = Metrics();
    for (int i = 1; i < kTries && NamesIn(metrics).count("tolmdbud_timer_waiting") == 0; ++i) {
      metrics = Metrics();
    }
    return metrics;
  }
  // The text behind the name and the labels.
  static std::string ValueOf(const std::string& series, const std::string& metrics = Metrics()) {
    const std::size_t at = metrics.find('\n' + series + ' ');
    if (at == std::string::npos) {
      return "";
    }
    const std::size_t begin = at + series.size() + 2;
    return metrics.substr(begin, metrics.find('\n', begin) - begin);
  }
  void ServeSigned(offer::Offer offer) {
    Authority authority;
    AddToKeyring(authority.Pem());
    publisher_.Server().SetBody("/database_info/1",
                                Describe(offer, authority.NewSigner(ForDescriptions())));
  }
  void ServeSigned(int version) { ServeSigned(OfferOf(publisher_, version, 10)); }
  // The first version for all, and the second one by this plan.
  void ServeStaged(const offer::RolloutPlan& plan, std::uint64_t counter = 10) {
    offer::Offer made = OfferOf(publisher_, 1, counter);
    made.databases["oui"].next =
        offer::NextOffer{2, 1700000001, PackageOfferOf(publisher_.FullPackage("oui", 2)), {}, plan};
    ServeSigned(made);
  }
  // Everything that there can be to tell of.
  void LiveALot() {
    RunBySystemd(kWaitingTimer);
    ServeStaged({std::time(nullptr) + 3600, {{offer::kWholeShare, 0}}, {}, false});
    ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
    WriteFile(prefix_ / "a.txt", "damaged");
    ASSERT_EQ(Tool({"verify"}).exit_status, 11);
    const std::string now = std::to_string(std::time(nullptr));
    std::string history = ReadFile("/var/lib/data_update/history.jsonl");
    history += R"({"format":1,"time":"2026-11-21T10:00:00Z","operation":"update","database":"oui",)"
               R"("scheduled":true,"from":1,"to":1,"outcome":"failed","message":"m","reason":)"
               R"("timed-out","explanation":"e","seconds":2.5,"bytes":7,"fell_back":)"
               R"({"reason":"delta-unfit","explanation":"e","bytes":7}})"
               "\n";
    WriteFile("/var/lib/data_update/history.jsonl", history);
    WriteFile(kCoolDowns, R"({"format":1,"servers":{"a.example.org:443":{"asked":true,)"
                          R"("attempted":)" +
                              now + R"(,"failures":3,"until":)" +
                              std::to_string(std::time(nullptr) + 600) + "}}}");
  }
};

TEST_F(MetricsTest, DeviceThatIsUpToDateSaysSo) {
  InstallFirst();
  const std::string metrics = Metrics();
  for (const auto& [series, value] :
       {std::pair<const char*, const char*>{"tolmdbud_settings_sound", "1"},
        {"tolmdbud_volume_chosen", "1"},
        {"tolmdbud_database_readable{database=\"oui\"}", "1"},
        {"tolmdbud_database_scheduled{database=\"oui\"}", "1"},
        {"tolmdbud_installed_version{database=\"oui\"}", "1"},
        {"tolmdbud_offered_version{database=\"oui\"}", "1"},
        {"tolmdbud_floor_version{database=\"oui\"}", "1"},
        {"tolmdbud_up_to_date{database=\"oui\"}", "1"},
        {"tolmdbud_update_bytes{database=\"oui\"}", "0"},
        {"tolmdbud_cut_short{database=\"oui\"}", "0"},
        {"tolmdbud_volume_missing{database=\"oui\"}", "0"},
        {"tolmdbud_deprecated{database=\"oui\"}", "0"},
        {"tolmdbud_failures_in_row{database=\"oui\"}", "0"},
        {"tolmdbud_history_operations{database=\"oui\",operation="
         "\"update\",outcome=\"updated\"}",
         "1"},
        {"tolmdbud_history_cool_downs", "0"}}) {
    EXPECT_EQ(ValueOf(series, metrics), value) << series << '\n' << metrics;
  }
  const std::string of_update = "{database=\"oui\",operation=\"update\"}";
  const long long attempt =
      std::stoll(ValueOf("tolmdbud_last_attempt_timestamp_seconds" + of_update, metrics));
  EXPECT_NEAR(static_cast<double>(attempt), static_cast<double>(std::time(nullptr)), 300);
  EXPECT_EQ(ValueOf("tolmdbud_last_success_timestamp_seconds" + of_update, metrics),
            std::to_string(attempt));
  EXPECT_GT(std::stoll(ValueOf("tolmdbud_last_downloaded_bytes" + of_update, metrics)), 100);
}

TEST_F(MetricsTest, WhatIsNotKnownIsLeftOut) {
  const std::set<std::string> names = NamesIn(Metrics());
  ExpectAllIn(names,
              {"tolmdbud_build_info", "tolmdbud_collected_timestamp_seconds",
               "tolmdbud_settings_sound", "tolmdbud_volume_chosen",
               "tolmdbud_certificate_not_after_timestamp_seconds", "tolmdbud_database_readable",
               "tolmdbud_database_scheduled", "tolmdbud_cut_short", "tolmdbud_volume_missing"});
}

TEST_F(MetricsTest, OtherReadersUnderstandAllOfIt) {
  ExpectReadAlike(Metrics());
  LiveALot();
  ExpectReadAlike(MetricsWithTimers());
}

TEST_F(MetricsTest, RulesDashboardAndDocumentNameWhatIsPrinted) {
  LiveALot();
  const std::set<std::string> printed = NamesIn(MetricsWithTimers());
  ExpectAllIn(NamesInFile("packaging/monitoring/tolmdbud.rules.yml", "tolmdbud"), printed);
  ExpectAllIn(NamesInFile("packaging/monitoring/tolmdbud.rules.test.yml", "tolmdbud"), printed);
  ExpectAllIn(NamesInFile("packaging/monitoring/tolmdbud-dashboard.json", "tolmdbud"), printed);
  const std::set<std::string> described = NamesInFile("docs/monitoring.md", "tolmdbud");
  ExpectAllIn(described, printed);
  ExpectAllIn(printed, described);
}

TEST_F(MetricsTest, FailuresInARowAreCountedUntilASuccess) {
  InstallFirst();
  publisher_.Offer("oui", 2);
  fs::remove(kDescription);
  HttpAnswer gone;
  gone.status = 404;
  publisher_.Server().SetAnswer("/packages/oui_v2", gone);
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 1);
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 1);
  const std::string metrics = Metrics();
  EXPECT_EQ(ValueOf("tolmdbud_failures_in_row{database=\"oui\"}", metrics), "2");
  EXPECT_EQ(ValueOf("tolmdbud_history_failures{database=\"oui\",operation=\"update\",reason="
                    "\"http-status\"}",
                    metrics),
            "2");
  EXPECT_EQ(ValueOf("tolmdbud_up_to_date{database=\"oui\"}", metrics), "0");
  publisher_.Offer("oui", 1);
  ASSERT_EQ(Tool({"update", "oui", "--refresh"}).exit_status, 0);
  EXPECT_EQ(ValueOf("tolmdbud_failures_in_row{database=\"oui\"}"), "0");
}

TEST_F(MetricsTest, DamageIsToldFromItsDiscoveryToItsRepair) {
  InstallFirst();
  EXPECT_EQ(ValueOf("tolmdbud_damaged_files{database=\"oui\"}"), "");
  ASSERT_EQ(Tool({"verify"}).exit_status, 0);
  EXPECT_EQ(ValueOf("tolmdbud_damaged_files{database=\"oui\"}"), "0");
  WriteFile(prefix_ / "a.txt", "damaged");
  EXPECT_EQ(ValueOf("tolmdbud_damaged_files{database=\"oui\"}"), "0");
  ASSERT_EQ(Tool({"verify"}).exit_status, 11);
  const std::string metrics = Metrics();
  EXPECT_EQ(ValueOf("tolmdbud_damaged_files{database=\"oui\"}", metrics), "1");
  EXPECT_EQ(ValueOf("tolmdbud_verified_files{database=\"oui\"}", metrics), "3");
  ASSERT_EQ(Tool({"fix", "oui"}).exit_status, 0);
  EXPECT_EQ(ValueOf("tolmdbud_damaged_files{database=\"oui\"}"), "");
}

TEST_F(MetricsTest, WhatIsRememberedOfAVerificationMayBeDamaged) {
  InstallFirst();
  for (const char* damaged : {"", "{", "[]", R"({"format":2})",
                              R"({"format":1,"time":"x","installation":"","checked_files":1,)"
                              R"("damaged_files":1})"}) {
    WriteFile(kVerified, damaged);
    EXPECT_EQ(ValueOf("tolmdbud_damaged_files{database=\"oui\"}"), "") << damaged;
  }
  ASSERT_EQ(Tool({"verify"}).exit_status, 0);
  EXPECT_EQ(ValueOf("tolmdbud_damaged_files{database=\"oui\"}"), "0");
}

TEST_F(MetricsTest, NoServerIsAsked) {
  InstallFirst();
  fs::remove(kDescription);
  const std::size_t before = publisher_.Server().Requests().size();
  EXPECT_EQ(ValueOf("tolmdbud_offered_version{database=\"oui\"}"), "");
  EXPECT_EQ(publisher_.Server().Requests().size(), before);
}

TEST_F(MetricsTest, OffersThatCountNoMoreAreStillToldWhenTheyEnded) {
  ServeSigned(1);
  InstallFirst();
  const std::string before = Metrics();
  const std::string series =
      "tolmdbud_offers_expire_timestamp_seconds{repository=\"" + std::string(32, 'a') + "\"}";
  const std::string end = ValueOf(series, before);
  ASSERT_NE(end, "");
  EXPECT_EQ(ValueOf("tolmdbud_offered_version{database=\"oui\"}", before), "1");
  const CommandResult later =
      RunCommand({kTool, "status", "--metrics"}, {EnvironmentAt(std::stoll(end) + 60), {}, ""});
  EXPECT_EQ(later.exit_status, 0) << later.err;
  EXPECT_EQ(ValueOf(series, later.out), end);
  EXPECT_EQ(ValueOf("tolmdbud_offered_version{database=\"oui\"}", later.out), "");
  EXPECT_EQ(ValueOf("tolmdbud_installed_version{database=\"oui\"}", later.out), "1");
}

TEST_F(MetricsTest, StagedVersionIsToldWithThisDevicesTurn) {
  InstallFirst();
  EXPECT_THAT(Metrics(), Not(HasSubstr("tolmdbud_rollout_")));
  const auto value = [](const std::string& name, const std::string& metrics) {
    return ValueOf("tolmdbud_" + name + "{database=\"oui\"}", metrics);
  };
  const auto turn = std::time(nullptr) + 3600;
  ServeStaged({turn - 1800, {{1, 1800}, {offer::kWholeShare, 0}}, {}, false});
  WriteFile("/usr/tolm/etc/data_update/operation.conf", R"({"rollout": "late"})");
  ASSERT_EQ(Tool({"check", "--refresh"}).exit_status, 0);
  const std::string later = Metrics();
  EXPECT_EQ(value("offered_version", later), "1");
  EXPECT_EQ(value("up_to_date", later), "1");
  EXPECT_EQ(value("rollout_version", later), "2");
  EXPECT_EQ(value("rollout_reached_ratio", later), "0");
  EXPECT_EQ(value("rollout_position_ratio", later), "0.9999");
  EXPECT_EQ(value("rollout_offered", later), "0");
  EXPECT_EQ(value("rollout_taken", later), "0");
  EXPECT_EQ(value("rollout_turn_timestamp_seconds", later), std::to_string(turn));

  WriteFile("/usr/tolm/etc/data_update/operation.conf", R"({"rollout": "stable"})");
  const std::string never = Metrics();
  EXPECT_EQ(value("rollout_offered", never), "0");
  EXPECT_EQ(value("rollout_position_ratio", never), "");
  EXPECT_EQ(value("rollout_turn_timestamp_seconds", never), "");

  WriteFile("/usr/tolm/etc/data_update/operation.conf", R"({"rollout": "early"})");
  ServeStaged({std::time(nullptr) - 60, {{125, 0}}, {}, false}, 11);
  ASSERT_EQ(Tool({"check", "--refresh"}).exit_status, 10);
  const std::string reached = Metrics();
  EXPECT_EQ(value("offered_version", reached), "2");
  EXPECT_EQ(value("rollout_reached_ratio", reached), "0.0125");
  EXPECT_EQ(value("rollout_position_ratio", reached), "0");
  EXPECT_EQ(value("rollout_offered", reached), "1");
  EXPECT_EQ(value("rollout_taken", reached), "0");
  EXPECT_EQ(value("rollout_turn_timestamp_seconds", reached), "");
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(value("rollout_taken", Metrics()), "1");
}

TEST_F(MetricsTest, UnreadableDatabaseDoesNotHideTheRest) {
  InstallFirst();
  fs::remove("/var/lib/data_update/oui/installed.json");
  ReplaceInFile(version_file_, "\"1\"", "\"x\"");
  const CommandResult result = Tool({"status", "--metrics"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("tolmdbud: oui"));
  EXPECT_EQ(ValueOf("tolmdbud_database_readable{database=\"oui\"}", result.out), "0");
  EXPECT_EQ(ValueOf("tolmdbud_installed_version{database=\"oui\"}", result.out), "");
  EXPECT_EQ(ValueOf("tolmdbud_offered_version{database=\"oui\"}", result.out), "1");
}

TEST_F(MetricsTest, WithoutSettingsTheMachineIsStillToldOf) {
  fs::remove("/usr/share/data_update/databases.conf");
  const CommandResult result = Tool({"status", "--metrics"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("not configured"));
  EXPECT_EQ(NamesIn(result.out).count("tolmdbud_collected_timestamp_seconds"), 1u);
}

TEST_F(MetricsTest, OrdinaryAccountGetsAllButTheFloor) {
  if (!HasOrdinaryAccount()) {
    GTEST_SKIP() << kNoOrdinaryAccount;
  }
  InstallFirst();
  std::set<std::string> names = NamesIn(Metrics());
  const CommandResult result = RunCommand(AsOrdinaryAccount({kTool, "status", "--metrics"}));
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(names.erase("tolmdbud_floor_version"), 1u);
  EXPECT_EQ(NamesIn(result.out), names);
}

TEST_F(MetricsTest, FileForACollectorIsWrittenWhole) {
  InstallFirst();
  fs::create_directories("/tmp/textfiles");
  const CommandResult result = Tool({"status", "--metrics-file", "/tmp/textfiles/tolmdbud.prom"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(ValueOf("tolmdbud_installed_version{database=\"oui\"}",
                    ReadFile("/tmp/textfiles/tolmdbud.prom")),
            "1");
  EXPECT_THAT(ListTree("/tmp/textfiles"), ElementsAre("tolmdbud.prom"));
}

TEST_F(MetricsTest, MissingDirectoryOfTheCollectorIsNamed) {
  const CommandResult result = Tool({"status", "--metrics-file", "/tmp/none/tolmdbud.prom"});
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "tolmdbud: there is no directory /tmp/none for /tmp/none/tolmdbud.prom\n");
}

TEST_F(MetricsTest, GoTogetherWithNeitherNamesNorJson) {
  EXPECT_EQ(Tool({"status", "oui", "--metrics"}).exit_status, 2);
  EXPECT_EQ(Tool({"status", "--json", "--metrics"}).exit_status, 2);
  EXPECT_EQ(Tool({"status", "--json", "--metrics-file", "/tmp/x"}).exit_status, 2);
}

TEST_F(MetricsTest, NothingThatWasAskedForIsPassedOver) {
  for (const char* option : {"--metrics", "--metrics-file=/tmp/x"}) {
    EXPECT_EQ(Tool({"status", "--html", "/tmp/status.html", option}).exit_status, 2) << option;
  }
  EXPECT_EQ(Tool({"status", "--metrics-file", ""}).exit_status, 2);
}

TEST_F(MetricsTest, LinkOrDeviceIsNoFileForACollector) {
  WriteFile("/tmp/precious", "stays");
  fs::create_symlink("/tmp/precious", "/tmp/link.prom");
  for (const std::string place : {"/dev/null", "/tmp/link.prom"}) {
    const CommandResult result = Tool({"status", "--metrics-file", place});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.err, HasSubstr(place + " is no regular file"));
  }
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
  EXPECT_EQ(ReadFile("/tmp/precious"), "stays");
}

TEST_F(MetricsTest, DamagedTimesOfTheHistoryAreNone) {
  InstallFirst();
  std::string history;
  for (const char* time : {"2026-13-99T10:00:00Z", "99999999999-01-01T00:00:00Z", "later"}) {
    history += std::string(R"({"format":1,"time":")") + time +
               R"(","operation":"update","database":"oui","scheduled":true,"from":1,"to":1,)"
               R"("outcome":"updated","message":"","seconds":1,"bytes":7})"
               "\n";
  }
  WriteFile("/var/lib/data_update/history.jsonl", history);
  const std::set<std::string> names = NamesIn(Metrics());
  EXPECT_EQ(names.count("tolmdbud_history_operations"), 1u);
  for (const char* time :
       {"tolmdbud_history_begin_timestamp_seconds", "tolmdbud_last_attempt_timestamp_seconds",
        "tolmdbud_last_success_timestamp_seconds"}) {
    EXPECT_EQ(names.count(time), 0u) << time;
  }
}

// ---- Events ----

constexpr char kBegunId[] = "efa66414eb014f32a4f30faac14b61d0";

TEST_F(MetricsTest, UpdateIsToldToTheJournal) {
  const JournalSocket journal;
  InstallFirst();
  const std::vector<JournalEntry> entries = journal.Entries();
  ASSERT_THAT(entries, SizeIs(2));
  EXPECT_THAT(entries[0], IsSupersetOf(std::vector<std::pair<std::string, std::string>>{
                              {"MESSAGE", "oui: update begins"},
                              {"MESSAGE_ID", kBegunId},
                              {"SYSLOG_IDENTIFIER", "tolmdbud"},
                              {"TOLMDBUD_DATABASE", "oui"},
                              {"TOLMDBUD_SCHEDULED", "0"}}));
  EXPECT_THAT(entries[0], Not(Contains(Pair("TOLMDBUD_FROM", ::testing::_))));
  EXPECT_THAT(entries[1],
              IsSupersetOf(std::vector<std::pair<std::string, std::string>>{
                  {"MESSAGE", "oui: update: updated to 1"},
                  {"MESSAGE_ID", "550c7d2118124e8895d891a6589ded07"},
                  {"PRIORITY", "6"},
                  {"TOLMDBUD_OPERATION", "update"},
                  {"TOLMDBUD_OUTCOME", "updated"},
                  {"TOLMDBUD_SERVER", "127.0.0.1:" + std::to_string(publisher_.Server().Port())},
                  {"TOLMDBUD_TO", "1"}}));
}

TEST_F(MetricsTest, FailureAndHeldBackRunAreToldToTheJournalOnceEach) {
  HttpAnswer failure;
  failure.status = 500;
  publisher_.Server().SetAnswer("/database_info/1", failure);
  const JournalSocket journal;
  ASSERT_EQ(Tool({"update", "--all", "--scheduled"}).exit_status, 1);
  const std::vector<JournalEntry> failed = journal.Entries();
  ASSERT_THAT(failed, SizeIs(2));
  EXPECT_THAT(failed[1], IsSupersetOf(std::vector<std::pair<std::string, std::string>>{
                             {"MESSAGE_ID", "3247a2eb62bf432b862e6472370a8dc0"},
                             {"TOLMDBUD_REASON", "http-status"},
                             {"TOLMDBUD_SCHEDULED", "1"}}));
  ASSERT_EQ(Tool({"update", "--all", "--scheduled"}).exit_status, 0);
  ASSERT_EQ(Tool({"update", "--all", "--scheduled"}).exit_status, 0);
  const std::vector<JournalEntry> held_back = journal.Entries();
  ASSERT_THAT(held_back, SizeIs(1));
  EXPECT_THAT(held_back[0], IsSupersetOf(std::vector<std::pair<std::string, std::string>>{
                                {"MESSAGE_ID", "5c00879662dc4407a0031f2dd5725923"},
                                {"TOLMDBUD_OUTCOME", "skipped"}}));
  EXPECT_EQ(ValueOf("tolmdbud_history_cool_downs"), "1");
}

TEST_F(MetricsTest, WhoIsAskedIsToldToTheJournalBeforeAnybodyHasAnswered) {
  const JournalSocket journal;
  fs::create_directory("/tmp/stick");
  ASSERT_EQ(Tool({"update", "oui", "--from", "/tmp/stick"}).exit_status, 1);
  const std::vector<JournalEntry> entries = journal.Entries();
  ASSERT_THAT(entries, SizeIs(2));
  for (const JournalEntry& entry : entries) {
    EXPECT_THAT(entry, Contains(Pair("TOLMDBUD_SERVER", "/tmp/stick")));
  }
}

TEST_F(MetricsTest, DamageIsToldToTheJournal) {
  InstallFirst();
  fs::remove(prefix_ / "a.txt");
  const JournalSocket journal;
  ASSERT_EQ(Tool({"verify"}).exit_status, 11);
  EXPECT_THAT(journal.Entries(),
              ElementsAre(IsSupersetOf(std::vector<std::pair<std::string, std::string>>{
                  {"MESSAGE_ID", "2114aaffbf6c4e388bec9ab279de9693"},
                  {"TOLMDBUD_DAMAGED_FILES", "1"},
                  {"TOLMDBUD_EXPLANATION", "a.txt: missing"}})));
  ASSERT_EQ(Tool({"fix", "oui"}).exit_status, 0);
  EXPECT_THAT(journal.Entries(), Contains(Contains(Pair("TOLMDBUD_OUTCOME", "repaired"))));
}

}  // namespace
}  // namespace tolm::testing

#include "operation/run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/messages.h"
#include "dataupdate/error.h"
#include "operation/history.h"
#include "operation/interrupt.h"
#include "operation/road.h"
#include "operation/settings_check.h"
#include "operation/source_cool_downs.h"
#include "operation/sources.h"
#include "operation/survey.h"
#include "tests/support/files.h"
#include "tests/support/http_server.h"
#include "tests/support/journal_socket.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"
#include "tolm/archive.h"
#include "tolm/exec.h"

namespace tolm::operation {
namespace {

constexpr char kOverrides[] = "/usr/tolm/etc/data_update/databases.conf";

class ScheduledRunTest : public ::testing::Test {
 protected:
  // The server has failed just now.
  ScheduledRunTest() {
    testing::WriteFile("/usr/share/data_update/databases.conf",
                       R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"}})");
    testing::WriteFile("/usr/share/data_update/data_update.conf",
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                      "db_ver": "1", "cur_volume": "/volume1"}})");
    const std::vector<Source> sources = PresentSources();
    SourceCoolDowns(sources).BeginAttempt(sources.front());
  }

  Service service_ = BuildService([](const std::string&) {});
};

TEST_F(ScheduledRunTest, LeavesAServerAloneThatHasFailed) {
  EXPECT_TRUE(operation::Run(service_, true, false).HeldBack());
  EXPECT_FALSE(operation::Run(service_, false, false).HeldBack());
}

TEST_F(ScheduledRunTest, SaysThatSettingsAreDamagedThoughItsServerHasFailed) {
  testing::WriteFile(kOverrides, "{");
  operation::Run run(service_, true, false);
  EXPECT_FALSE(run.HeldBack());
  EXPECT_THROW(run.Update("oui"), DamagedSettings);
}

// Whoever runs the operations one by one, without a Run.
TEST(DamagedSettingsTest, OperationOfAServiceDoesNotBegin) {
  testing::WriteFile("/usr/share/data_update/databases.conf",
                     R"({"oui": {"format_version": "2", "install_dest": "%ROOTFS%"}})");
  testing::WriteFile(kOverrides, "{");
  const Service service = BuildService([](const std::string&) {});
  EXPECT_THROW(service.update->UpdateProject("oui"), DamagedSettings);
}

// ---- Operations that a test plays ----

constexpr char kServiceSettings[] = "/usr/share/data_update/data_update.conf";
constexpr char kOperatorSettings[] = "/usr/tolm/etc/data_update/operation.conf";
constexpr char kTemporary[] = "/volume1/@tmp/data_update";
constexpr char kHistory[] = "/var/lib/data_update/history.jsonl";

// Does what a test says in place of an operation's own work.
class PlayedUpdate : public dataupdate::Update {
 public:
  explicit PlayedUpdate(const std::function<void()>& action)
      : Update(nullptr, nullptr, nullptr), action_(action) {}
  void UpdateProject(const std::string&) const override { action_(); }
  void FixProject(const std::string&) const override { action_(); }
  void ForceInstall(const std::string&, int) const override { action_(); }

 private:
  const std::function<void()>& action_;
};

class PlayedRunTest : public ::testing::Test {
 protected:
  PlayedRunTest() {
    Choose("/volume1");
    testing::WriteFile("/usr/share/data_update/databases.conf",
                       R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"}})");
    std::filesystem::create_directories(kTemporary);
    service_.update = std::make_shared<PlayedUpdate>(action_);
    testing::SyslogCapture::Clear();
  }

  void Choose(const std::string& volume) const {
    testing::WriteFile(kServiceSettings,
                       R"({"config": {"download_scheme": "http", "db_ver": "1", "db_netloc": ")" +
                           Name() + R"(", "cur_volume": ")" + volume + R"("}})");
  }

  // Of the server, as programs and as people are told of it.
  std::string Name() const { return "127.0.0.1:" + std::to_string(server_.Port()); }
  std::string Address() const { return server_.Url(""); }

  void Install(int version) const {
    dataupdate::DatabaseStatus status = service_.info->GetDatabaseStatus("oui");
    status.data_version = version;
    service_.info->SetDatabaseStatus("oui", status);
  }

  // As the library asks for a package of that name.
  int Download(const std::string& name) const {
    const char* const end = nullptr;
    return TLIBCExecl("/usr/bin/wget", 0, "-N", server_.Url("/" + name).c_str(), "-O",
                      (std::string(kTemporary) + '/' + name).c_str(), "-U", "agent", "--tries=1",
                      end);
  }

  // A package that is none.
  static void Open(const std::string& name) {
    tolmarchive* const archive = tolmarchive_init(kTemporary);
    tolmarchive_open_with_keytype(archive, (std::string(kTemporary) + '/' + name).c_str(), 6);
    tolmarchive_free(archive);
  }

  // How an update ends in which this happens.
  HistoryEntry FailureOf(operation::Run& run, std::function<void()> action) {
    action_ = std::move(action);
    EXPECT_ANY_THROW(run.Update("oui"));
    return run.Results().back();
  }

  static std::vector<std::string> CoolingDown() {
    std::vector<std::string> names;
    for (const ServerCoolDown& server : PresentCoolDowns()) {
      names.push_back(server.server);
    }
    return names;
  }

  static bool IsHeldBack(const Service& service) {
    return operation::Run(service, true, false).HeldBack().has_value();
  }

  testing::HttpServer server_;
  testing::JournalSocket journal_;
  std::function<void()> action_ = [] {};
  Service service_ = BuildService([](const std::string&) {});
};

// Which blocks its signals before the server's threads begin.
struct Interruptible {
  Interrupt interrupt;
};

class InterruptedRunTest : public Interruptible, public PlayedRunTest {
 protected:
  static void Signal() {
    kill(getpid(), SIGTERM);
    ASSERT_TRUE(testing::WaitUntil([] { return Interrupt::Received() != 0; }));
  }
};

std::string Field(const testing::JournalEntry& entry, const std::string& name) {
  const auto found = entry.find("TOLMDBUD_" + name);
  return found == entry.end() ? "" : found->second;
}

TEST_F(PlayedRunTest, EachOperationIsWrittenDownByItself) {
  server_.SetBody("/oui_v2", "12345");
  server_.SetBody("/oui_v3", "1234567");
  std::vector<std::string> lines;
  const Road road([&lines](const std::string& line) { lines.push_back(line); });
  operation::Run run(service_, false, false);
  action_ = [&] {
    EXPECT_EQ(Download("oui_v2"), 0);
    EXPECT_EQ(Download("oui_v3"), 0);
    Install(3);
  };
  const HistoryEntry first = run.Update("oui");
  action_ = [] {};
  const HistoryEntry second = run.Fix("oui");
  action_ = [&] { Install(4); };
  const HistoryEntry third = run.ForceInstall("oui", 4);

  EXPECT_EQ(first.operation, "update");
  EXPECT_EQ(first.database, "oui");
  EXPECT_FALSE(first.scheduled);
  EXPECT_EQ(first.from, kNeverInstalled);
  EXPECT_EQ(first.to, 3);
  EXPECT_EQ(first.outcome, kUpdated);
  EXPECT_EQ(first.bytes, 12U);
  EXPECT_EQ(first.server, Address());
  EXPECT_EQ(second.operation, "fix");
  EXPECT_EQ(second.from, 3);
  EXPECT_EQ(second.to, 3);
  EXPECT_EQ(second.outcome, kIntact);
  EXPECT_EQ(second.bytes, 0U);
  EXPECT_EQ(second.server, "");
  EXPECT_EQ(third.operation, "force-install");
  EXPECT_EQ(third.outcome, kInstalled);
  EXPECT_EQ(run.Results().size(), 3U);
  ASSERT_TRUE(LastOf("oui"));
  EXPECT_EQ(LastOf("oui")->to, 4);

  const std::vector<testing::JournalEntry> told = journal_.Entries();
  ASSERT_EQ(told.size(), 6U) << "begun and ended";
  EXPECT_EQ(Field(told[0], "OUTCOME"), "");
  EXPECT_EQ(Field(told[1], "OUTCOME"), kUpdated);
  EXPECT_EQ(Field(told[2], "FROM"), "3");
  EXPECT_EQ(Field(told[3], "OUTCOME"), kIntact);
  for (const testing::JournalEntry& entry : told) {
    EXPECT_EQ(Field(entry, "SERVER"), Name());
  }
  EXPECT_THAT(lines,
              ::testing::IsSupersetOf(
                  {"oui: update is asked for, nothing is installed", "oui: next the full package 2",
                   "oui: next the full package 3", "oui: fix is asked for, 3 is installed"}));
}

TEST_F(PlayedRunTest, FailureSaysWhatBecameOfItsDownload) {
  operation::Run run(service_, false, false);
  const HistoryEntry failed = FailureOf(run, [&] {
    EXPECT_NE(Download("oui_v2"), 0);
    throw dataupdate::UpdateError("Fail to download " + server_.Url("/oui_v2"));
  });
  EXPECT_EQ(failed.outcome, kFailed);
  EXPECT_EQ(failed.server, "") << "it has given nothing";
  EXPECT_EQ(failed.message,
            "Fail to download " + server_.Url("/oui_v2") + " (the server answers with an error)");
  EXPECT_EQ(failed.failure.reason, reasons::kHttpStatus);
  EXPECT_EQ(failed.failure.http_status, 404);
  EXPECT_EQ(failed.failure.item, "2");
}

// Where there is only one, a good run ends its cool-down whatever it has given.
TEST_F(PlayedRunTest, OfSeveralServersTheOneThatGaveWhatIsFitCoolsDownNoLonger) {
  testing::WriteFile(kOperatorSettings, R"({"mirrors": ["http://127.0.0.1:1"]})");
  server_.SetBody("/oui_v2", "12345");
  {
    operation::Run run(service_, false, false);
    action_ = [&] { EXPECT_NE(Download("oui_v1"), 0); };
    run.Update("oui");
    run.Finish(true);
  }
  EXPECT_THAT(CoolingDown(), ::testing::ElementsAre(Name())) << "it has given nothing";
  {
    operation::Run run(service_, false, false);
    action_ = [&] { EXPECT_EQ(Download("oui_v2"), 0); };
    run.Update("oui");
    run.Finish(false);
  }
  EXPECT_THAT(CoolingDown(), ::testing::ElementsAre(Name())) << "the run was not good";
  {
    operation::Run run(service_, false, false);
    run.Update("oui");
    run.Finish(true);
  }
  EXPECT_THAT(CoolingDown(), ::testing::IsEmpty());
}

TEST_F(PlayedRunTest, CoolDownThatCannotBeWrittenIsAWarning) {
  server_.SetBody("/oui_v2", "12345");
  operation::Run run(service_, false, false);
  action_ = [&] { EXPECT_EQ(Download("oui_v2"), 0); };
  run.Update("oui");
  testing::SyslogCapture::Clear();
  const testing::ScopedMount read_only = testing::ScopedMount::ReadOnly("/var/lib/data_update");
  run.Finish(true);
  EXPECT_THAT(testing::SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ::testing::Contains(::testing::StartsWith("The cool-down is not written: ")));
}

TEST_F(InterruptedRunTest, WhatASignalEndedSaysNothingOfTheServer) {
  operation::Run run(service_, false, false);
  const HistoryEntry entry = FailureOf(run, [&] {
    EXPECT_NE(Download("oui_v1"), 0);
    Signal();
    server_.SetBody("/oui_v2", "12345");
    EXPECT_LT(Download("oui_v2"), 0) << "nothing more is downloaded";
    throw dataupdate::UpdateError("Fail to download " + server_.Url("/oui_v2"));
  });
  EXPECT_EQ(entry.outcome, kInterrupted);
  EXPECT_EQ(entry.failure.reason, operation::FailureOf(Interrupted()).reason);
  EXPECT_EQ(entry.bytes, 0U);
  EXPECT_THROW(run.Update("oui"), Interrupted);
  EXPECT_EQ(run.Results().size(), 1U) << "it did not begin";
  EXPECT_TRUE(IsHeldBack(service_)) << "until it is said how it ended";
  run.Finish(false);
  EXPECT_FALSE(IsHeldBack(service_));
}

TEST_F(InterruptedRunTest, ScheduledRunThatASignalEndedCoolsTheServerDown) {
  operation::Run run(service_, true, false);
  FailureOf(run, [&] {
    EXPECT_NE(Download("oui_v1"), 0);
    Signal();
    throw dataupdate::UpdateError("ended");
  });
  run.Finish(false);
  EXPECT_TRUE(IsHeldBack(service_));
}

TEST_F(PlayedRunTest, TooLittleRoomIsSaidWithItsPlace) {
  operation::Run run(service_, false, false);
  const auto too_low = [] { throw dataupdate::UpdateError(messages::kDiskSpaceTooLow); };
  const HistoryEntry entry = FailureOf(run, too_low);
  EXPECT_EQ(entry.failure.reason, reasons::kNoRoom);
  EXPECT_THAT(entry.failure.text, ::testing::StartsWith("no room on /volume1: more is needed"));
  testing::ScopedMount volume = testing::ScopedMount::Tmpfs("/volume7", 1 << 20);
  Choose("/volume7");
  const HistoryEntry gone = FailureOf(run, [&] {
    volume.Unmount();
    std::filesystem::remove("/volume7");
    too_low();
  });
  EXPECT_THAT(gone.failure.text, ::testing::HasSubstr("more is needed than the 0 B free"));
  Choose("/volume1");
  const HistoryEntry other = FailureOf(run, [] { throw dataupdate::UpdateError("another"); });
  EXPECT_EQ(other.failure.text, "another");
}

TEST_F(PlayedRunTest, FullPackageAfterADeltaInVainIsAFallBack) {
  server_.SetBody("/oui_d4", "no package");
  server_.SetBody("/oui_v4", "12345");
  operation::Run run(service_, false, false);
  action_ = [&] {
    EXPECT_NE(Download("oui_d3"), 0);
    EXPECT_EQ(Download("oui_v4"), 0);
  };
  const HistoryEntry missing = run.Update("oui");
  ASSERT_TRUE(missing.fell_back);
  EXPECT_EQ(missing.fell_back->failure.reason, reasons::kHttpStatus);
  EXPECT_EQ(missing.fell_back->failure.item, "delta 3");
  EXPECT_EQ(missing.fell_back->bytes, 5U);

  action_ = [&] {
    testing::WriteFile(std::string(kTemporary) + "/oui_v1", "no package");
    Open("oui_v1");
    EXPECT_EQ(Download("oui_d4"), 0);
    EXPECT_EQ(Download("oui_v4"), 0);
  };
  const HistoryEntry unfit = run.Update("oui");
  ASSERT_TRUE(unfit.fell_back);
  EXPECT_EQ(unfit.fell_back->failure.reason, reasons::kDeltaUnfit) << "not that of another one";
  EXPECT_EQ(unfit.fell_back->failure.item, "delta 4");

  action_ = [&] {
    EXPECT_EQ(Download("oui_d4"), 0);
    Open("oui_d4");
    EXPECT_NE(Download("oui_v5"), 0);
  };
  const HistoryEntry refused = run.Update("oui");
  ASSERT_TRUE(refused.fell_back);
  EXPECT_NE(refused.fell_back->failure.reason, reasons::kDeltaUnfit);
  EXPECT_EQ(refused.fell_back->failure.item, "delta 4");
  EXPECT_EQ(refused.fell_back->bytes, 0U);

  action_ = [&] {
    EXPECT_EQ(Download("missing/oui_d4"), 1) << "there is no such directory";
    EXPECT_EQ(Download("oui_v4"), 0);
  };
  const HistoryEntry unwritable = run.Update("oui");
  ASSERT_TRUE(unwritable.fell_back);
  EXPECT_NE(unwritable.fell_back->failure.reason, reasons::kDeltaUnfit);

  action_ = [&] { EXPECT_EQ(Download("oui_v4"), 0); };
  EXPECT_FALSE(run.Update("oui").fell_back);
}

TEST_F(PlayedRunTest, DeltaForWhichThereIsNoRoomIsNotAskedFor) {
  const testing::ScopedMount small = testing::ScopedMount::Tmpfs(kTemporary, 1 << 16);
  testing::WriteFile(std::string(kTemporary) + "/full", std::string(1 << 16, 'x'));
  server_.SetBody("/oui_d3", "12345");
  operation::Run run(service_, false, false);
  action_ = [&] {
    EXPECT_LT(Download("oui_d3"), 0);
    EXPECT_LT(Download("oui_v3"), 0);
  };
  const HistoryEntry entry = run.Update("oui");
  EXPECT_TRUE(server_.Requests().empty());
  ASSERT_TRUE(entry.fell_back);
  EXPECT_EQ(entry.fell_back->failure.reason, reasons::kNoRoom);
  EXPECT_EQ(entry.fell_back->failure.item, "delta 3");
  EXPECT_EQ(entry.fell_back->bytes, 0U);
}

TEST_F(PlayedRunTest, NothingBeginsWhatCannotEndWell) {
  bool has_begun = false;
  action_ = [&has_begun] { has_begun = true; };
  operation::Run run(service_, false, false);
  EXPECT_THROW(run.Update("geo"), dataupdate::UpdateError) << "it is not configured";
  testing::WriteFile(kOverrides, "{");
  EXPECT_THROW(run.Update("oui"), DamagedSettings);
  std::filesystem::remove(kOverrides);
  Choose("/volume9");
  EXPECT_THROW(run.Update("oui"), NoVolume);
  EXPECT_THROW(RequireVolume("/volume9"), NoVolume);
  EXPECT_THROW(RequireVolume(""), NoVolume);
  EXPECT_FALSE(has_begun);
  EXPECT_TRUE(run.Results().empty());
  EXPECT_FALSE(std::filesystem::exists(kHistory));
  Choose("/volume1");
  testing::WriteFile("/var/lib/data_update/move.json", R"({"from": "/volume1", "to": "/volume2"})");
  run.Update("oui");
  EXPECT_TRUE(has_begun);
  EXPECT_FALSE(std::filesystem::exists("/var/lib/data_update/move.json"))
      << "a move that was cut short is settled first";
}

TEST_F(PlayedRunTest, OutsideItsHoursAScheduledRunIsSkippedAndThatIsTold) {
  const std::time_t now = std::time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  const int later = local.tm_hour + 2;
  const auto hour = [](int number) {
    return (number % 24 < 10 ? "0" : "") + std::to_string(number % 24) + ":00";
  };
  const std::string hours = hour(later) + "-" + hour(later + 1);
  testing::WriteFile(kOperatorSettings, R"({"download_hours": ")" + hours + R"("})");
  std::vector<std::string> lines;
  const Road road([&lines](const std::string& line) { lines.push_back(line); });
  EXPECT_FALSE(operation::Run(service_, false, false).HeldBack());
  EXPECT_THAT(lines, ::testing::ElementsAre("scheduled runs download at " + hours +
                                            " (download_hours) only, this one goes on"));
  EXPECT_TRUE(journal_.Entries().empty());
  const std::string why = "scheduled runs download at " + hours + " (download_hours) only";
  EXPECT_EQ(operation::Run(service_, true, false).HeldBack(), why);
  std::vector<HistoryEntry> entries;
  ForEachEntry([&](const HistoryEntry& entry) { entries.push_back(entry); });
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].operation, "update");
  EXPECT_TRUE(entries[0].scheduled);
  EXPECT_EQ(entries[0].outcome, kSkipped);
  EXPECT_EQ(entries[0].message, why);
  const std::vector<testing::JournalEntry> told = journal_.Entries();
  ASSERT_EQ(told.size(), 1U);
  EXPECT_EQ(Field(told[0], "OUTCOME"), kSkipped);
  EXPECT_EQ(Field(told[0], "SCHEDULED"), "1");
  EXPECT_EQ(Field(told[0], "SERVER"), Name());
}

TEST_F(PlayedRunTest, FileThatGrowsTooLargeEndsNoProcessThatHasARun) {
  signal(SIGXFSZ, SIG_DFL);
  const operation::Run run(service_, false, false);
  EXPECT_EQ(signal(SIGXFSZ, SIG_DFL), SIG_IGN);
}

class TwoDatabasesTest : public tolm::testing::DeviceTest {};

TEST_F(TwoDatabasesTest, FullPackageOfOneIsNoFallBackFromTheDeltaOfTheOther) {
  ConfigureDevice(publisher_,
                  {{"oui", tolm::testing::kOnVolume}, {"zoo", tolm::testing::kOnVolume}});
  publisher_.PackFull("zoo", 1, {{"z", "zoo"}});
  publisher_.Offer("zoo", 1);
  InstallFirst();
  publisher_.Offer("oui", 2, {2});
  ASSERT_EQ(tolm::testing::Tool({"update", "oui", "zoo", "--refresh"}).exit_status, 0);
  ASSERT_TRUE(LastOf("oui"));
  EXPECT_EQ(LastOf("oui")->to, 2);
  ASSERT_TRUE(LastOf("zoo"));
  EXPECT_EQ(LastOf("zoo")->to, 1);
  EXPECT_FALSE(LastOf("zoo")->fell_back);
}

}  // namespace
}  // namespace tolm::operation

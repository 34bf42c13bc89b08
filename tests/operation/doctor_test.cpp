#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <system_error>

#include "base/paths.h"
#include "base/trusted_directory.h"
#include "operation/doctor_looks.h"
#include "operation/history.h"
#include "tests/operation/doctor_report.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/ordinary_account.h"
#include "tests/support/unique_descriptor.h"

// What errno is after a success says nothing.
int access(const char* path, int mode) noexcept {
  const int result = faccessat(AT_FDCWD, path, mode, 0);
  errno = result == 0 ? EACCES : errno;
  return result;
}

namespace tolm::operation {
namespace {

using State = Finding::State;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Field;

::testing::Matcher<Finding> IsProblem(const std::string& check, const std::string& message,
                                      const std::string& remedy) {
  return AllOf(Field(&Finding::check, check), Field(&Finding::state, State::kProblem),
               Field(&Finding::message, message), Field(&Finding::remedy, remedy));
}

void FindForeign(Findings& findings, const std::string& check, const std::string& what) {
  EXPECT_FALSE(findings.Try(check, "subject", "mend it",
                            [&] { throw base::ForeignGround(what, "chown root " + what); }));
}

TEST(FindingsTest, ForeignGroundIsToldOnceForEachPlaceAndCheck) {
  Findings findings;
  FindForeign(findings, "volume", "/volume1");
  FindForeign(findings, "volume", "/volume1");
  FindForeign(findings, "volume", "/volume1/@database");
  FindForeign(findings, "state", "/volume1");
  EXPECT_THAT(findings.all(), ElementsAre(IsProblem("volume", "/volume1", "chown root /volume1"),
                                          IsProblem("volume", "/volume1/@database",
                                                    "chown root /volume1/@database"),
                                          IsProblem("state", "/volume1", "chown root /volume1")));
}

TEST(FindingsTest, FailureWithoutARemedyOfItsOwnGetsTheCallers) {
  Findings findings;
  EXPECT_TRUE(findings.Try("volume", "subject", "mend it", [] {}));
  EXPECT_FALSE(findings.Try("volume", "subject", "mend it",
                            [] { throw std::runtime_error("it is damaged"); }));
  EXPECT_THAT(findings.all(), ElementsAre(IsProblem("volume", "it is damaged", "mend it")));
}

TEST(FindingsTest, ErrorOfTheSystemIsAProblemUnlessRightsAreMissing) {
  Findings findings;
  for (const int number : {EACCES, EPERM, EIO}) {
    EXPECT_FALSE(findings.Try("volume", "subject", "mend it", [number] {
      throw std::system_error(number, std::generic_category(), "open");
    }));
  }
  EXPECT_EQ(testing::Report(findings.all()),
            "skipped volume: subject: it needs root's rights to look at: open: Permission denied\n"
            "skipped volume: subject: it needs root's rights to look at: open: Operation not "
            "permitted\n"
            "problem volume: subject: open: Input/output error; mend it\n");
}

TEST(FindingsTest, CheckIsWellWhateverOthersHaveFound) {
  Findings findings;
  EXPECT_TRUE(findings.IsWell("rights"));
  findings.Ok("rights", "", "well");
  findings.Problem("volume", "", "not well", "");
  EXPECT_TRUE(findings.IsWell("rights"));
  EXPECT_FALSE(findings.IsWell("volume"));
  findings.Note("rights", "", "worth knowing");
  EXPECT_FALSE(findings.IsWell("rights"));
}

// ---- A device ----

// Two databases are configured, of which nothing is installed, and nobody is asked.
class DiagnoseTest : public ::testing::Test {
 protected:
  DiagnoseTest() {
    Configure(R"("db_ver": "1", "cur_volume": "/volume9")");
    testing::WriteFile(paths::kDatabaseDefaults,
                       R"({"geo": {"format_version": "2", "install_dest": "%ROOTFS%"},
                           "oui": {"format_version": "2", "install_dest": "%ROOTFS%"}})");
  }

  static void Configure(const std::string& more) {
    testing::WriteFile(
        paths::kServiceDefaults,
        R"({"config": {"download_scheme": "http", "db_netloc": "s.example", )" + more + "}}");
  }
  static std::string Found(const std::string& check) {
    return testing::Report(Diagnose(BuildService([](const std::string&) {}), false), check);
  }
  // Until the end of what is returned.
  static testing::UniqueDescriptor Hold(const std::string& lock) {
    testing::WriteFile(lock, "");
    testing::UniqueDescriptor file(open(lock.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(flock(file.Get(), LOCK_EX | LOCK_NB), 0);
    return file;
  }
  static std::string Here() { return "process " + std::to_string(getpid()) + ", operation_docto"; }

  const std::string state_ = std::string(paths::kStateDirectory) + "/oui/";
};

TEST_F(DiagnoseTest, SettingsAreWellWhereEachOfThemIsThere) {
  EXPECT_EQ(Found("configuration"), "ok configuration: 2 databases from http://s.example\n");
  Configure(R"("cur_volume": "")");
  EXPECT_THAT(Found("configuration"), ::testing::StartsWith("problem configuration: "));
  Configure(R"("db_ver": "1", "cur_volume": "")");
  testing::WriteFile(paths::kDatabaseDefaults, R"({"oui": {"install_dest": "%ROOTFS%"}})");
  EXPECT_THAT(Found("configuration"), ::testing::StartsWith("problem configuration: oui: "));
  testing::WriteFile(paths::kDatabaseDefaults,
                     R"({"oui": {"format_version": "2", "install_dest": "%ROOTFS%"}})");
  EXPECT_EQ(Found("configuration"), "ok configuration: 1 database from http://s.example\n");
  const std::string aside = std::string(paths::kDatabaseOverrides) + ".aside";
  testing::WriteFile(aside, "{");
  EXPECT_THAT(Found("configuration"),
              ::testing::StartsWith("note configuration: " + aside + ": was set aside "));
}

TEST_F(DiagnoseTest, CronBeginsTheRunsWhereItsTableIs) {
  const testing::ScopedMount etc = testing::ScopedMount::Tmpfs("/etc", 1 << 16);
  testing::WriteFile(paths::kCronTable, "");
  EXPECT_EQ(Found("timers"),
            std::string("ok timers: ") + paths::kCronTable + ": cron begins the runs\n");
}

// systemd has two seconds to answer, and a busy machine may need them for its stand-in.
TEST_F(DiagnoseTest, EachStateOfATimerIsTold) {
  std::filesystem::create_directories("/run/systemd/system");
  std::filesystem::remove(paths::kSystemctl);
  testing::WriteFile(paths::kSystemctl,
                     "#!/bin/sh\ncat <<'END'\n"
                     "Id=tolmdbud-update.timer\nLoadState=not-found\nActiveState=inactive\n\n"
                     "Id=tolmdbud-verify.timer\nLoadState=loaded\nUnitFileState=enabled\nEND\n");
  ASSERT_EQ(chmod(paths::kSystemctl, 0755), 0);
  constexpr int kTries = 20;
  std::string found = Found("timers");
  for (int i = 1; i < kTries && found.find("did not answer") != std::string::npos; ++i) {
    found = Found("timers");
  }
  EXPECT_EQ(found,
            "note timers: tolmdbud-update.timer: it is not installed\n"
            "note timers: tolmdbud-verify.timer: it is enabled and not started; systemctl enable "
            "--now tolmdbud-verify.timer\n");
}

TEST_F(DiagnoseTest, CoolDownTellsItsFailures) {
  const std::time_t now = std::time(nullptr);
  const auto with_failures = [now](int failures) {
    return R"({"failures": )" + std::to_string(failures) + R"(, "attempted": )" +
           std::to_string(now) + R"(, "until": )" + std::to_string(now + 600) +
           R"(, "asked": true})";
  };
  testing::WriteFile(paths::kCoolDowns, R"({"format": 1, "servers": {"a.example:80": )" +
                                            with_failures(1) + R"(, "b.example:80": )" +
                                            with_failures(2) + "}}");
  const auto line = [now](const std::string& server, const std::string& failures) {
    return "note cool-down: " + server + ": scheduled runs leave it alone until " +
           TimeText(now + 600) + " after " + failures +
           "; tolmdbud update --all, which does not wait\n";
  };
  EXPECT_EQ(Found("cool-down"),
            line("a.example:80", "1 failure") + line("b.example:80", "2 failures in a row"));
}

TEST_F(DiagnoseTest, EachStateOfARecordIsToldOnce) {
  EXPECT_EQ(Found("records"), "ok records: no operation was cut short\n");
  testing::WriteFile(state_ + "version.json",
                     R"({"data_version": "3", "last_fetch_time": 1, "file_status": {}})");
  EXPECT_EQ(Found("records"), "ok records: no operation was cut short\n");
  testing::WriteFile(state_ + "installed.json", "{");
  EXPECT_EQ(Found("records"),
            "problem records: oui: installed.json is damaged; tolmdbud fix oui\n");
  std::filesystem::remove(state_ + "installed.json");
  std::filesystem::create_symlink("/proc/self/mem", state_ + "installed.json");
  EXPECT_EQ(Found("records"),
            "problem records: oui: installed.json or version.json cannot be read; look after the "
            "disk, then tolmdbud fix oui\n");
}

TEST_F(DiagnoseTest, MarkAndTemporaryFilesOfAnOperationThatRunsAreItsOwn) {
  testing::WriteFile(state_ + "recovery.mark", "");
  testing::WriteFile("/volume9/@tmp/data_update/x", "");
  const std::string cut =
      "problem records: oui: an operation was cut short, files may be half replaced; tolmdbud "
      "update oui\n";
  const std::string left =
      "note left-overs: /volume9/@tmp/data_update: an operation that was ended has left temporary "
      "files; nothing, the next operation removes them\n";
  EXPECT_EQ(Found("records"), cut);
  EXPECT_EQ(Found("left-overs"), left);
  for (const char* lock : {paths::kOperatorLock, paths::kUpdateAnyLock}) {
    const testing::UniqueDescriptor held = Hold(lock);
    EXPECT_EQ(Found("records"), "ok records: no operation was cut short\n") << lock;
    EXPECT_EQ(Found("left-overs"), "") << lock;
  }
  std::filesystem::remove_all("/volume9/@tmp");
  EXPECT_EQ(Found("left-overs"), "ok left-overs: there are no temporary files\n");
  Configure(R"("db_ver": "1", "cur_volume": "")");
  EXPECT_EQ(Found("left-overs"), "") << "there is no place for them";
}

TEST_F(DiagnoseTest, LockOfADatabaseIsToldWithItsHolder) {
  EXPECT_EQ(Found("locks"), "ok locks: nobody holds one\n");
  const std::string lock = std::string(paths::kLockDirectory) + "/update_oui.lock";
  const testing::UniqueDescriptor held = Hold(lock);
  EXPECT_EQ(Found("locks"),
            "note locks: " + lock + ": " + Here() + ", holds it: an operation runs\n");
}

TEST_F(DiagnoseTest, AccountIsToldThatItMayNotLookAtVersions) {
  if (!testing::HasOrdinaryAccount()) {
    GTEST_SKIP() << testing::kNoOrdinaryAccount;
  }
  testing::WriteFile(state_ + "version.json", "{}");
  ASSERT_EQ(chmod((state_ + "version.json").c_str(), 0600), 0);
  EXPECT_EQ(testing::CallAsOrdinaryAccount([] {
              return Found("records") ==
                             "skipped records: oui: it needs root's rights to look at "
                             "version.json\n"
                         ? 0
                         : 1;
            }),
            0);
}

}  // namespace
}  // namespace tolm::operation

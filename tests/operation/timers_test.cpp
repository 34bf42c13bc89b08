#include "operation/timers.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>

#include "tests/support/files.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::WriteFile;

constexpr char kSystemctl[] = "/usr/bin/systemctl";

// A systemctl that says that, and leaves how it was called in /tmp/asked.
void RunBySystemd(const std::string& words, int exit_status = 0) {
  fs::create_directories("/run/systemd/system");
  WriteFile("/tmp/words", words);
  WriteFile(kSystemctl, "#!/bin/sh\necho \"$TZ $LC_ALL $*\" >/tmp/asked\ncat /tmp/words\nexit " +
                            std::to_string(exit_status) + "\n");
  ASSERT_EQ(chmod(kSystemctl, 0755), 0);
}

// The next time of a timer that waits, when systemd gives it so.
std::optional<std::int64_t> NextOf(const std::string& time) {
  RunBySystemd("Id=tolmdbud-update.timer\nActiveState=active\nNextElapseUSecRealtime=" + time +
               "\n");
  return ExamineTimers().update.next;
}

TEST(TimersTest, AreToldAsSystemdHasThem) {
  RunBySystemd(
      "Id=tolmdbud-verify.timer\nLoadState=not-found\nUnitFileState=\nActiveState=inactive\n"
      "NextElapseUSecRealtime=Mon 2026-11-23 03:12:45 UTC\n"
      "\n\n"
      "NextElapseUSecRealtime=Mon 2026-11-23 03:12:45 UTC\nActiveState=active\n"
      "UnitFileState=enabled-runtime\nLoadState=loaded\nId=tolmdbud-update.timer\n"
      "\n"
      "Id=other.timer\nLoadState=loaded\nUnitFileState=enabled\nActiveState=active");
  const Timers timers = ExamineTimers();
  EXPECT_TRUE(timers.is_known);
  EXPECT_FALSE(timers.is_silent);
  EXPECT_EQ(timers.update.unit, "tolmdbud-update.timer");
  EXPECT_TRUE(timers.update.is_installed);
  EXPECT_TRUE(timers.update.is_enabled);
  EXPECT_TRUE(timers.update.is_waiting);
  EXPECT_EQ(timers.update.next, 1795403565);
  EXPECT_EQ(timers.verify.unit, "tolmdbud-verify.timer");
  EXPECT_FALSE(timers.verify.is_installed);
  EXPECT_FALSE(timers.verify.is_enabled);
  EXPECT_FALSE(timers.verify.is_waiting);
  EXPECT_FALSE(timers.verify.next) << "it does not wait";
  EXPECT_EQ(testing::ReadFile("/tmp/asked"),
            "UTC C show "
            "--property=Id,LoadState,UnitFileState,ActiveState,NextElapseUSecRealtime "
            "tolmdbud-update.timer tolmdbud-verify.timer\n");
}

TEST(TimersTest, TimerThatIsDisabledIsNotEnabled) {
  RunBySystemd(
      "Id=tolmdbud-update.timer\nLoadState=loaded\nUnitFileState=disabled\n\n"
      "Id=tolmdbud-verify.timer\nUnitFileState=not enabled");
  const Timers timers = ExamineTimers();
  EXPECT_TRUE(timers.update.is_installed);
  EXPECT_FALSE(timers.update.is_enabled);
  EXPECT_FALSE(timers.update.is_waiting);
  EXPECT_FALSE(timers.verify.is_enabled);
}

TEST(TimersTest, LastLineNeedsNoEnd) {
  RunBySystemd("Id=tolmdbud-update.timer\nActiveState=active");
  EXPECT_TRUE(ExamineTimers().update.is_waiting);
}

TEST(TimersTest, OnlyATimeIsATime) {
  EXPECT_EQ(NextOf("Thu 1970-01-01 00:00:01 UTC"), 1);
  EXPECT_EQ(NextOf("Thu 1970-01-01 00:00:00 UTC"), std::nullopt);
  for (const char* const text : {"", "n/a", "infinity", "Mon 2026-11-23 03:12 UTC"}) {
    EXPECT_EQ(NextOf(text), std::nullopt) << text;
  }
}

TEST(TimersTest, SystemdThatSaysNothingIsSilent) {
  for (const int exit_status : {1, 0}) {
    RunBySystemd(exit_status == 0 ? "" : "Id=tolmdbud-update.timer\nLoadState=loaded\n",
                 exit_status);
    const Timers timers = ExamineTimers();
    EXPECT_FALSE(timers.is_known);
    EXPECT_TRUE(timers.is_silent);
    EXPECT_FALSE(timers.update.is_installed);
    EXPECT_EQ(timers.update.unit, "tolmdbud-update.timer");
  }
}

TEST(TimersTest, SystemdIsAskedOnlyWhereItRunsTheMachine) {
  RunBySystemd("Id=tolmdbud-update.timer\nLoadState=loaded\n");
  EXPECT_TRUE(ExamineTimers().is_known);
  fs::remove("/tmp/asked");
  fs::remove("/run/systemd/system");
  const Timers timers = ExamineTimers();
  EXPECT_FALSE(timers.is_known);
  EXPECT_FALSE(timers.is_silent);
  EXPECT_FALSE(fs::exists("/tmp/asked"));
  fs::create_directory("/run/systemd/system");
  fs::remove(kSystemctl);
  EXPECT_FALSE(ExamineTimers().is_silent);
}

}  // namespace
}  // namespace tolm::operation

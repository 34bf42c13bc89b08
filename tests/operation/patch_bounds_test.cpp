#include "operation/patch_bounds.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "operation/download_limit.h"
#include "operation/interrupt.h"
#include "tests/support/files.h"
#include "tests/support/later_clock.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/unique_descriptor.h"

namespace tolm::operation {
namespace {

constexpr char kFile[] = "/volume1/file.db";
constexpr char kEndless[] =
    "WITH RECURSIVE r(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM r) SELECT count(*) FROM r";
constexpr char kLong[] =
    "WITH RECURSIVE r(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM r LIMIT 100000) "
    "SELECT count(*) FROM r";
constexpr char kGrow[] =
    "WITH RECURSIVE r(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM r LIMIT 64) "
    "INSERT INTO t SELECT zeroblob(1048576) FROM r";

using Connection = std::unique_ptr<sqlite3, int (*)(sqlite3*)>;

Connection Open(const char* file = kFile) {
  sqlite3* connection = nullptr;
  EXPECT_EQ(sqlite3_open(file, &connection), SQLITE_OK);
  return {connection, sqlite3_close};
}

int Execute(const Connection& connection, const char* statement) {
  return sqlite3_exec(connection.get(), statement, nullptr, nullptr, nullptr);
}

rlim_t FileSizeLimitNow() {
  rlimit limit{};
  EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  return limit.rlim_cur;
}

class PatchBoundsTest : public ::testing::Test {
 protected:
  PatchBoundsTest() { IgnoreFileSizeSignal(); }
  ~PatchBoundsTest() override {
    BoundScripts(false);
    tolm::testing::passed_seconds = 0;
  }

  static constexpr std::uint64_t kVolumeBytes = 20 << 20;
  const testing::ScopedMount volume_ = testing::ScopedMount::Tmpfs("/volume1", kVolumeBytes);
};

TEST_F(PatchBoundsTest, StatementEndsWithASignal) {
  const Interrupt interrupt;
  BoundScripts(true);
  const Connection connection = Open();
  std::thread sender([] { kill(getpid(), SIGTERM); });
  EXPECT_EQ(Execute(connection, kEndless), SQLITE_INTERRUPT);
  sender.join();
}

TEST_F(PatchBoundsTest, FileDoesNotGrowOverTheLastFivePerCent) {
  BoundScripts(true);
  const Connection connection = Open();
  EXPECT_EQ(Execute(connection, "CREATE TABLE t(x)"), SQLITE_OK);
  const int result = Execute(connection, kGrow);
  EXPECT_EQ(result, SQLITE_IOERR) << sqlite3_errmsg(connection.get());
  struct statvfs space;
  ASSERT_EQ(statvfs("/volume1", &space), 0);
  constexpr std::uint64_t kJournalBytes = 16384;
  EXPECT_GE(space.f_bavail * space.f_frsize, kVolumeBytes / 20 - kJournalBytes);
}

TEST_F(PatchBoundsTest, FileThatIsLargerThanWhatIsFreeCanBeChanged) {
  {
    const Connection connection = Open();
    ASSERT_EQ(Execute(connection, "CREATE TABLE t(x); INSERT INTO t VALUES (zeroblob(12582912))"),
              SQLITE_OK);
  }
  BoundScripts(true);
  const Connection connection = Open();
  EXPECT_EQ(Execute(connection, "INSERT INTO t VALUES (zeroblob(1048576))"), SQLITE_OK);
}

TEST_F(PatchBoundsTest, LimitEndsWithTheConnection) {
  const rlim_t before = FileSizeLimitNow();
  BoundScripts(true);
  Connection connection = Open();
  EXPECT_EQ(FileSizeLimitNow(), kVolumeBytes / 20 * 19);
  connection.reset();
  EXPECT_EQ(FileSizeLimitNow(), before);
}

TEST_F(PatchBoundsTest, WhatAFileHasAlreadyIsNotCountedAgain) {
  constexpr std::uint64_t kBytes = 1 << 20;
  testing::WriteFile(kFile, std::string(kBytes, '\0'));
  BoundScripts(true);
  const Connection connection = Open();
  EXPECT_EQ(FileSizeLimitNow(), kVolumeBytes / 20 * 19);
}

TEST_F(PatchBoundsTest, TablesInMemoryHaveNoBounds) {
  const rlim_t before = FileSizeLimitNow();
  BoundScripts(true);
  for (const char* file : {":memory:", ""}) {
    const Connection connection = Open(file);
    EXPECT_EQ(FileSizeLimitNow(), before);
    tolm::testing::passed_seconds += 3601;
    EXPECT_EQ(Execute(connection, kLong), SQLITE_OK);
  }
}

TEST_F(PatchBoundsTest, StatementEndsAfterAnHour) {
  BoundScripts(true);
  const Connection connection = Open();
  tolm::testing::passed_seconds = 3599;
  EXPECT_EQ(Execute(connection, kLong), SQLITE_OK);
  tolm::testing::passed_seconds = 3601;
  testing::SyslogCapture::Clear();
  EXPECT_EQ(Execute(connection, kLong), SQLITE_INTERRUPT);
  EXPECT_THAT(testing::SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ::testing::ElementsAre("an SQL script is ended after 3600 s"));
}

TEST_F(PatchBoundsTest, StatementEndsWhereNothingIsFree) {
  BoundScripts(true);
  const Connection connection = Open();
  for (const char* file : {"/volume1/one", "/volume1/other"}) {
    testing::WriteFile(file, std::string(kVolumeBytes / 40 * 19 + 4096, 'x'));
  }
  EXPECT_EQ(Execute(connection, kEndless), SQLITE_INTERRUPT);
}

// The copy of a database and the script for it stand as in the deltas' directories.
class ScriptTest : public PatchBoundsTest {
 protected:
  ScriptTest() {
    std::filesystem::create_directories("/volume1/work/sum");
    BoundScripts(true);
    connection_ = Open("/volume1/work/sum/copy.db");
    testing::SyslogCapture::Clear();
  }

  int Commit() {
    EXPECT_EQ(Execute(connection_, "BEGIN"), SQLITE_OK);
    const int result = Execute(connection_, "CREATE TABLE IF NOT EXISTS t(x); COMMIT");
    if (result != SQLITE_OK) {
      EXPECT_EQ(Execute(connection_, "ROLLBACK"), SQLITE_OK);
    }
    return result;
  }

  static constexpr char kScript[] = "/volume1/work/delta/deep/t.sqlitediff";
  Connection connection_{nullptr, sqlite3_close};
};

TEST_F(ScriptTest, IsCommittedWhenItWasReadToItsEnd) {
  EXPECT_EQ(Commit(), SQLITE_OK) << "there is none";
  testing::WriteFile("/volume1/work/delta/other", "x");
  EXPECT_EQ(Commit(), SQLITE_OK) << "there is none among others";
  testing::WriteFile(kScript, "CREATE TABLE t(x);\n");
  const testing::UniqueDescriptor script(open(kScript, O_RDONLY | O_CLOEXEC));
  ASSERT_GT(lseek(script.Get(), 0, SEEK_END), 0);
  EXPECT_EQ(Commit(), SQLITE_OK);
  EXPECT_TRUE(testing::SyslogCapture::TextsWithoutPlace(LOG_WARNING).empty());
}

TEST_F(ScriptTest, IsNotCommittedWhenItWasReadInPartOrNotAtAll) {
  testing::WriteFile(kScript, "CREATE TABLE t(x);\n");
  EXPECT_EQ(Commit(), SQLITE_AUTH) << "it did not open";
  const testing::UniqueDescriptor script(open(kScript, O_RDONLY | O_CLOEXEC));
  for (const off_t at : {off_t{0}, off_t{5}}) {
    ASSERT_EQ(lseek(script.Get(), at, SEEK_SET), at);
    EXPECT_EQ(Commit(), SQLITE_AUTH) << at;
    EXPECT_EQ(lseek(script.Get(), 0, SEEK_CUR), at);
  }
  const std::string said = "the script for /volume1/work/sum/copy.db was not read to its end";
  EXPECT_THAT(testing::SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ::testing::ElementsAre(said, said, said));
}

TEST_F(ScriptTest, IsNotCommittedWhereItCannotBeLookedFor) {
  std::filesystem::rename("/volume1/work", "/volume1/elsewhere");
  EXPECT_EQ(Execute(connection_, "BEGIN"), SQLITE_OK);
  EXPECT_EQ(Execute(connection_, "COMMIT"), SQLITE_AUTH);
}

TEST_F(PatchBoundsTest, OtherThreadsAndTimesHaveNoBounds) {
  const rlim_t before = FileSizeLimitNow();
  BoundScripts(true);
  std::thread([before] {
    const Connection connection = Open();
    EXPECT_EQ(FileSizeLimitNow(), before);
  }).join();
  BoundScripts(false);
  const Connection connection = Open();
  EXPECT_EQ(FileSizeLimitNow(), before);
}

TEST_F(PatchBoundsTest, DecoderWritesNoMoreThanLeavesFivePerCentFree) {
  rlim_t during = 0;
  const rlim_t before = FileSizeLimitNow();
  EXPECT_EQ(RunDecoder("/volume1/out",
                       [&] {
                         during = FileSizeLimitNow();
                         return 7;
                       }),
            7);
  EXPECT_EQ(during, kVolumeBytes / 20 * 19);
  EXPECT_EQ(FileSizeLimitNow(), before);
}

}  // namespace
}  // namespace tolm::operation

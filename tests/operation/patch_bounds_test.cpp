#include "operation/patch_bounds.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <memory>
#include <thread>

#include "operation/download_limit.h"
#include "operation/interrupt.h"
#include "tests/support/mounts.h"

namespace tolm::operation {
namespace {

constexpr char kFile[] = "/volume1/file.db";
constexpr char kEndless[] =
    "WITH RECURSIVE r(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM r) SELECT count(*) FROM r";
constexpr char kGrow[] =
    "WITH RECURSIVE r(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM r LIMIT 64) "
    "INSERT INTO t SELECT zeroblob(1048576) FROM r";

using Connection = std::unique_ptr<sqlite3, int (*)(sqlite3*)>;

Connection Open() {
  sqlite3* connection = nullptr;
  EXPECT_EQ(sqlite3_open(kFile, &connection), SQLITE_OK);
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
  ~PatchBoundsTest() override { BoundScripts(false); }

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
  EXPECT_NE(FileSizeLimitNow(), before);
  connection.reset();
  EXPECT_EQ(FileSizeLimitNow(), before);
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

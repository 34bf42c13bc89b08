// Scripts as a device executes them: by the library's own delta strategy.

#include <gmock/gmock.h>

#include <filesystem>

#include "dataupdate/strategy.h"
#include "sqldelta/sql_delta.h"
#include "sqldelta/sqlite_compare.h"
#include "tests/sqldelta/sqlite_files.h"
#include "tests/src/engine_support.h"
#include "tests/support/fake_platform.h"
#include "tests/support/files.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::DatabaseStatus;
using dataupdate::DiffInfo;
using dataupdate::DiffStrategy;
using dataupdate::RemoteInfo;
using ::testing::StartsWith;

constexpr char kInstalled[] = "/volume1/db/abc/x.db";

class SqlDeltaDeviceTest : public ::testing::Test {
 protected:
  SqlDeltaDeviceTest() {
    for (const char* directory : {"/volume1/db/abc", "/work_files"}) {
      fs::remove_all(directory);
      fs::create_directories(directory);
    }
  }

  // Three releases, and the deltas between them on offer; the first is installed.
  void Publish(const std::string& first, const std::string& second, const std::string& third) {
    ExecuteOn("/work_files/1.db", first);
    for (const auto& [version, sql] : {std::make_pair(2, second), std::make_pair(3, third)}) {
      const std::string old_file = "/work_files/" + std::to_string(version - 1) + ".db";
      const std::string new_file = "/work_files/" + std::to_string(version) + ".db";
      CopyOver(old_file, new_file);
      ExecuteOn(new_file, sql);
      ASSERT_EQ(sqldelta::MakeSqlDelta(old_file, new_file, "/work_files/script"), std::nullopt);
      platform_.OfferPackage(
          Url(version), {{"patch_infos.json",
                          R"({"/x.db": {"operation": "update", "input_file": "x.db.sqlitediff"}})"},
                         {"x.db.sqlitediff", ReadFile("/work_files/script")}});
    }
    CopyOver("/work_files/1.db", kInstalled);
  }

  static DiffStrategy MakeStrategy(int installed) {
    std::map<int, DiffInfo> diffs;
    for (const int version : {2, 3}) {
      diffs.emplace(version, DiffInfo(Url(version), 1));
    }
    return DiffStrategy("abc", DatabaseStatus(installed, 0, {}),
                        RemoteInfo(3, 50, false, "http://host/full"), diffs, "/volume1",
                        "/volume1/db/abc", "/volume1");
  }

  static std::string Url(int version) { return "http://host/d" + std::to_string(version); }

  FakePlatform platform_;
};

constexpr char kFirst[] =
    "CREATE TABLE t(a INTEGER PRIMARY KEY,b UNIQUE); INSERT INTO t VALUES(1,'one'),(2,'two');"
    "CREATE VIRTUAL TABLE f USING fts5(x); INSERT INTO f VALUES('some words');"
    "CREATE TRIGGER g BEFORE UPDATE ON t BEGIN SELECT raise(ABORT,'no'); END;";
constexpr char kSecond[] =
    "DROP TRIGGER g; UPDATE t SET b='x' WHERE a=1; UPDATE t SET b='one' WHERE a=2;"
    "UPDATE t SET b='two' WHERE a=1; INSERT INTO f VALUES('other\nwords');"
    "CREATE TRIGGER g\nBEFORE UPDATE ON t BEGIN SELECT raise(ABORT,'no'); END;";
constexpr char kThird[] =
    "ALTER TABLE t ADD COLUMN c REAL; INSERT INTO t VALUES(3,'three',1.0/3); PRAGMA user_version=3";

TEST_F(SqlDeltaDeviceTest, ChainOfScriptsGivesTheNewestContent) {
  Publish(kFirst, kSecond, kThird);
  DiffStrategy strategy = MakeStrategy(1);
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(sqldelta::CompareSqlite(kInstalled, "/work_files/3.db"), std::nullopt);
}

TEST_F(SqlDeltaDeviceTest, ChangedBaseIsRefusedBeforeAnythingIsInstalled) {
  Publish(kFirst, kSecond, kThird);
  ExecuteOn(kInstalled, "DROP TRIGGER g; UPDATE t SET b='uno' WHERE a=1");
  const std::string before = ReadFile(kInstalled);
  DiffStrategy strategy = MakeStrategy(1);
  EXPECT_THAT(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
              StartsWith("Fail apply sql cmd: integer overflow"));
  EXPECT_TRUE(ReadFile(kInstalled) == before) << "the file has changed";
}

TEST_F(SqlDeltaDeviceTest, ScriptIsRefusedWhereItHasBeenAppliedAlready) {
  Publish(kFirst, kSecond, kThird);
  CopyOver("/work_files/2.db", kInstalled);
  DiffStrategy strategy = MakeStrategy(1);
  EXPECT_THAT(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), StartsWith("Fail apply sql cmd: "));
}

}  // namespace
}  // namespace tolm::testing

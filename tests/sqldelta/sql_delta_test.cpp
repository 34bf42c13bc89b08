#include "sqldelta/sql_delta.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

#include "sqldelta/error.h"
#include "sqldelta/sqlite_compare.h"
#include "tests/sqldelta/sqlite_files.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using sqldelta::CompareSqlite;
using sqldelta::MakeSqlDelta;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int kOldestVersions[] = {3033000, 3032000};
// Every script refuses a file with one object more.
constexpr char kAnotherTable[] = "CREATE TABLE spoilt(a)";

struct Case {
  const char* name;
  std::string old_sql;
  // What makes the new file of a copy of the old one, or of nothing after kFresh.
  std::string new_sql;
  // Changes to a base that the script must not take.
  std::vector<std::string> spoilers = {};
  // Rowids are content, and VACUUM changes them.
  bool vacuum_spoils = false;
  std::vector<int> oldest_versions = {3033000, 3032000};
};

const std::string kFresh = "-- fresh\n";
const std::string kThreeRows =
    "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c); INSERT INTO t VALUES(1,'x',2),(2,'y',3),(3,'z',4);";
const std::string kDocuments =
    "CREATE VIRTUAL TABLE f USING fts5(x); INSERT INTO f VALUES('hello world'),('foo bar');";

std::string Repeat(const std::string& text, int count) {
  std::string repeated;
  for (int i = 0; i < count; ++i) {
    repeated += text;
  }
  return repeated;
}

// "c1,c2..."
std::string ManyColumns(int count) {
  std::string columns = "c1";
  for (int i = 2; i <= count; ++i) {
    columns += ",c" + std::to_string(i);
  }
  return columns;
}

std::string ManyUpdates(int count) {
  std::string sql;
  for (int i = 1; i <= count; ++i) {
    const std::string number = std::to_string(i);
    sql += "UPDATE t SET c" + number + "=c" + number + "+1 WHERE a=" + number + ";";
  }
  return sql;
}

void MakeFiles(const std::string& directory, const std::string& old_sql,
               const std::string& new_sql) {
  ExecuteOn(directory + "/old.db", old_sql);
  if (new_sql.rfind(kFresh, 0) != 0) {
    CopyOver(directory + "/old.db", directory + "/new.db");
  }
  ExecuteOn(directory + "/new.db", new_sql);
}

class SqlDeltaTest : public ::testing::Test {
 protected:
  std::string At(const std::string& name) const { return directory_.Path() / name; }

  void MakeDatabases(const std::string& old_sql, const std::string& new_sql) {
    MakeFiles(directory_.Path(), old_sql, new_sql);
  }

  std::optional<std::string> MakeDelta(int oldest_sqlite_version = kOldestVersions[0]) {
    return MakeSqlDelta(At("old.db"), At("new.db"), At("script"), {oldest_sqlite_version});
  }

  // Makes the delta, and the new content with it.
  void ExpectRightScript(int oldest_sqlite_version) {
    ASSERT_EQ(MakeDelta(oldest_sqlite_version), std::nullopt);
    CopyOver(At("old.db"), At("patched.db"));
    ASSERT_EQ(ErrorOfScript(At("patched.db"), At("script")), "");
    EXPECT_EQ(CompareSqlite(At("patched.db"), At("new.db")), std::nullopt);
    EXPECT_EQ(IntegrityOf(At("patched.db")), "ok");
  }

  // The script fails on the file, which it leaves as it is.
  void ExpectRefused(const std::string& path) {
    const std::string before = ReadFile(path);
    EXPECT_NE(ErrorOfScript(path, At("script")), "");
    EXPECT_TRUE(ReadFile(path) == before) << "the file has changed";
  }

  void ExpectRightFromVacuumed(bool spoilt) {
    CopyOver(At("old.db"), At("vacuumed.db"));
    ExecuteOn(At("vacuumed.db"), "VACUUM");
    if (spoilt) {
      ExpectRefused(At("vacuumed.db"));
      return;
    }
    ASSERT_EQ(ErrorOfScript(At("vacuumed.db"), At("script")), "");
    EXPECT_EQ(CompareSqlite(At("vacuumed.db"), At("new.db")), std::nullopt);
  }

  void ExpectSpoiltIsRefused(const std::string& spoiler) {
    SCOPED_TRACE(spoiler);
    CopyOver(At("old.db"), At("spoilt.db"));
    ExecuteOn(At("spoilt.db"), spoiler);
    ExpectRefused(At("spoilt.db"));
  }

  TemporaryDirectory directory_;
};

class SqlDeltaCases : public SqlDeltaTest, public ::testing::WithParamInterface<Case> {};

// Where foreign keys are enforced from the start, as some builds of SQLite do.
TEST_P(SqlDeltaCases, AreRightOrRefusedWhereForeignKeysAreEnforced) {
  const Case& row = GetParam();
  MakeDatabases(row.old_sql, row.new_sql);
  ASSERT_EQ(MakeDelta(row.oldest_versions.front()), std::nullopt);
  CopyOver(At("old.db"), At("patched.db"));
  const std::string before = ReadFile(At("patched.db"));
  if (ErrorOfScript(At("patched.db"), At("script"), "PRAGMA foreign_keys=ON") == "") {
    EXPECT_EQ(CompareSqlite(At("patched.db"), At("new.db")), std::nullopt);
  } else {
    EXPECT_THAT(row.old_sql + row.new_sql, HasSubstr("REFERENCES"));
    EXPECT_TRUE(ReadFile(At("patched.db")) == before) << "the file has changed";
  }
}

TEST_P(SqlDeltaCases, TurnTheOldContentIntoTheNewAndRefuseAnyOther) {
  const Case& row = GetParam();
  MakeDatabases(row.old_sql, row.new_sql);
  for (const int version : row.oldest_versions) {
    SCOPED_TRACE(version);
    ExpectRightScript(version);
    ExpectRefused(At("patched.db"));
    ExpectRightFromVacuumed(row.vacuum_spoils);
    ExpectSpoiltIsRefused(kAnotherTable);
    for (const std::string& spoiler : row.spoilers) {
      ExpectSpoiltIsRefused(spoiler);
    }
  }
}

const Case kCases[] = {
    {"RowsChangedGoneAndNew",
     kThreeRows,
     "UPDATE t SET b='Q' WHERE a=2; DELETE FROM t WHERE a=3; INSERT INTO t VALUES(9,x'00ff',1e300),"
     "(10,char(10)||'a''b',-9223372036854775808),(11,9e999,0.1),(12,-9e999,1.0/3),(13,NULL,-0.0),"
     "(14,cast(x'ff00' as text),5e-324)",
     {"UPDATE t SET b='y2' WHERE a=2", "UPDATE t SET c=4 WHERE a=2", "UPDATE t SET b=1 WHERE a=3",
      "DELETE FROM t WHERE a=2", "DELETE FROM t WHERE a=1", "UPDATE t SET a=8 WHERE a=1",
      "INSERT INTO t VALUES(9,1,1)", "INSERT INTO t VALUES(8,1,1)"}},
    {"ChecksChange",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b CHECK(b IN('x','y')),c UNIQUE); CREATE INDEX i ON "
     "t(b);"
     "INSERT INTO t VALUES(1,'x',1),(2,'y',2),(3,'y',3)",
     kFresh + "CREATE TABLE t(a INTEGER PRIMARY KEY,b CHECK(b IN('x','z')),c UNIQUE /* now */);"
              "CREATE INDEX i ON t(b); INSERT INTO t VALUES(1,'x',1),(2,'z',3),(4,'z',2)",
     {"UPDATE t SET b='x' WHERE a=2", "DELETE FROM t WHERE a=3"}},
    {"ForeignKeysAndCommentsChange",
     "CREATE TABLE p(a TEXT PRIMARY KEY) WITHOUT ROWID; CREATE TABLE t(a,b REFERENCES p);"
     "INSERT INTO t VALUES(1,1),(2,2)",
     kFresh + "CREATE TABLE p(a TEXT PRIMARY KEY -- a line\n) WITHOUT ROWID; CREATE TABLE t(a,\nb);"
              "INSERT INTO t VALUES(1,1),(3,3)",
     {"UPDATE t SET b=3 WHERE a=2"}},
    {"CollationOfAnIndexedColumnChanges",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b); CREATE INDEX i ON t(b);"
     "INSERT INTO t VALUES(1,'b'),(2,'B'),(3,'a'),(4,'C')",
     kFresh + "CREATE TABLE t(a INTEGER PRIMARY KEY,b COLLATE NOCASE); CREATE INDEX i ON t(b);"
              "INSERT INTO t VALUES(1,'b'),(2,'B'),(3,'a'),(4,'C')"},
    {"DefaultThatOldRowsReadChanges",
     "CREATE TABLE t(a INTEGER PRIMARY KEY); INSERT INTO t VALUES(1),(2);"
     "ALTER TABLE t ADD COLUMN b DEFAULT 5",
     kFresh +
         "CREATE TABLE t(a INTEGER PRIMARY KEY, b DEFAULT 6); INSERT INTO t VALUES(1,5),(2,5)"},
    {"OrderOfAKeyChanges",
     "CREATE TABLE t(a,b,PRIMARY KEY(a,b)); INSERT INTO t VALUES(1,'x'),(2,'y')",
     kFresh + "CREATE TABLE t(a,b,PRIMARY KEY(b DESC,a)); INSERT INTO t VALUES(1,'x'),(2,'y')"},
    {"AutoincrementComesToStay",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t VALUES(1,'x'),(2,'y')",
     kFresh + "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT,b);"
              "INSERT INTO t VALUES(1,'x'),(2,'y'),(3,'z'); DELETE FROM t WHERE a=3"},
    {"TextKey",
     "CREATE TABLE t(a TEXT PRIMARY KEY,b); INSERT INTO t VALUES('a',1),('b',2),('c',3)",
     kFresh + "CREATE TABLE t(a TEXT PRIMARY KEY,b); INSERT INTO t VALUES('c',3),('b',5),('d',2)",
     {"UPDATE t SET b=9 WHERE a='b'", "UPDATE t SET b=9 WHERE a='a'",
      "UPDATE t SET a='e' WHERE a='b'"}},
    {"NullInATextKey",
     "CREATE TABLE t(a TEXT PRIMARY KEY,b); INSERT INTO t VALUES('a',1),(NULL,2),('c',3)",
     "UPDATE t SET b=8 WHERE a IS NULL",
     {"UPDATE t SET b=9 WHERE a IS NULL", "UPDATE t SET a='x' WHERE a IS NULL"}},
    {"NoKey",
     "CREATE TABLE t(a,b); INSERT INTO t VALUES(1,1),(1,1),(2,2)",
     "DELETE FROM t WHERE rowid=2; INSERT INTO t VALUES(5,5)",
     {"UPDATE t SET a=3 WHERE rowid=2", "DELETE FROM t WHERE rowid=3"}},
    {"NoKeyWithGaps",
     "CREATE TABLE t(a,b); INSERT INTO t VALUES(1,1),(1,1),(2,2); DELETE FROM t WHERE rowid=1",
     "UPDATE t SET b=7 WHERE rowid=3; INSERT INTO t VALUES(5,5)",
     {"UPDATE t SET b=3 WHERE rowid=3"},
     true},
    {"WithoutRowidAndNocaseKey",
     "CREATE TABLE t(a COLLATE NOCASE,b,c,PRIMARY KEY(a,b)) WITHOUT ROWID;"
     "INSERT INTO t VALUES('a',1,1),('b',2,2),('c',3,3)",
     "UPDATE t SET a='A' WHERE a='a'; UPDATE t SET c=9 WHERE a='b'; DELETE FROM t WHERE a='c';"
     "INSERT INTO t VALUES('d',1,1)",
     {"UPDATE t SET c=8 WHERE a='a'", "UPDATE t SET c=8 WHERE a='b'",
      "UPDATE t SET c=8 WHERE a='c'", "UPDATE t SET a='B' WHERE a='b'"}},
    {"SwappedUniqueValues",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b UNIQUE,c);"
     "INSERT INTO t VALUES(1,'x',1),(2,'y',2),(3,'z',3)",
     "UPDATE t SET b='t' WHERE a=1; UPDATE t SET b='x' WHERE a=2; UPDATE t SET b='y' WHERE a=1;"
     "UPDATE t SET c=7 WHERE a=3",
     {"UPDATE t SET b='w' WHERE a=1", "UPDATE t SET b='w' WHERE a=3"}},
    {"UniqueWithNulls",
     "CREATE TABLE t(a UNIQUE,b,c); CREATE UNIQUE INDEX u ON t(b) WHERE c;"
     "INSERT INTO t VALUES(1,1,1),(NULL,2,1),(NULL,2,0),(NULL,NULL,1)",
     "UPDATE t SET a=NULL WHERE a=1; UPDATE t SET a=1 WHERE rowid=3; UPDATE t SET c=NOT c WHERE "
     "b=2",
     {"UPDATE t SET c=5 WHERE rowid=2"}},
    {"SwappedValuesOfAUniqueExpression",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c); CREATE UNIQUE INDEX u ON t(b+c);"
     "INSERT INTO t VALUES(1,1,1),(2,2,2)",
     "UPDATE t SET b=9 WHERE a=1; UPDATE t SET b=1,c=1 WHERE a=2; UPDATE t SET b=2,c=2 WHERE a=1",
     {"UPDATE t SET b=5 WHERE a=2"}},
    {"RaisingTriggers",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b); CREATE TABLE l(x);"
     "CREATE TRIGGER g BEFORE UPDATE ON t BEGIN SELECT raise(ABORT,'no'); END;"
     "CREATE TRIGGER h AFTER INSERT ON t BEGIN INSERT INTO l VALUES(new.a); END;"
     "INSERT INTO t VALUES(1,1)",
     "DROP TRIGGER g; UPDATE t SET b=2;"
     "CREATE TRIGGER g BEFORE UPDATE ON t BEGIN SELECT raise(ABORT,'no'); END;"
     "INSERT INTO t VALUES(2,2); DELETE FROM l",
     {"INSERT INTO l VALUES(7)", "DROP TRIGGER g"}},
    {"TriggersOnTablesThatDoNotChange",
     kThreeRows +
         "CREATE TABLE u(a); CREATE TRIGGER g AFTER INSERT ON t BEGIN INSERT INTO u VALUES(1); END;"
         "CREATE TRIGGER h AFTER DELETE ON u BEGIN DELETE FROM t; END; INSERT INTO u VALUES(1),(2)",
     "DROP TRIGGER h; DELETE FROM u WHERE a=2;"
     "CREATE TRIGGER h AFTER DELETE ON u BEGIN DELETE FROM t; END;",
     {"UPDATE u SET a=3 WHERE a=2", "INSERT INTO t VALUES(7,7,7)"}},
    {"SchemaOverSeveralLines", kThreeRows,
     "CREATE TRIGGER g BEFORE UPDATE ON t\nBEGIN\n SELECT raise(ABORT,'no'); -- comment\nEND;"
     "CREATE VIEW v AS\n SELECT * FROM t; CREATE INDEX i ON\r\n t(b); CREATE TABLE\n u(a, -- "
     "first\n"
     " b DEFAULT 'x' /* with\n a break */);INSERT INTO u VALUES(1,2)"},
    {"OnlyAViewOverSeveralLines", kThreeRows, "CREATE VIEW v AS\n SELECT * FROM t"},
    {"SchemaObjectLongerThan4000Bytes",
     kThreeRows + "CREATE VIEW v AS SELECT '" + Repeat("long text ", 900) + "' AS x;",
     "UPDATE t SET b=1; CREATE VIEW w AS\nSELECT '" + Repeat("text so long ", 900) + "' AS x;",
     {"DROP VIEW v; CREATE VIEW v AS SELECT '" + Repeat("long text ", 899) + "long tent ' AS x;"}},
    {"ViewsOnViews",
     kThreeRows + "CREATE VIEW v AS SELECT a,b FROM t; CREATE VIEW w AS SELECT b FROM v;",
     "DROP VIEW v; CREATE VIEW v AS SELECT b FROM t"},
    {"AddedColumn",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t VALUES(1,1),(2,2);"
     "CREATE INDEX i ON t(b); CREATE VIEW v AS SELECT * FROM t",
     "ALTER TABLE t ADD COLUMN c DEFAULT 5; UPDATE t SET c=6 WHERE a=1",
     {"INSERT INTO t VALUES(3,3)", "UPDATE t SET b=10 WHERE a=2"}},
    {"DroppedColumn",
     kThreeRows + "CREATE INDEX i ON t(b)",
     "DROP INDEX i; ALTER TABLE t DROP COLUMN b",
     {"UPDATE t SET c=300 WHERE a=2"}},
    {"RenamedTable",
     "CREATE TABLE t(a,b); INSERT INTO t VALUES(1,2)",
     "ALTER TABLE t RENAME TO u",
     {"INSERT INTO t VALUES(2,3)"}},
    {"RenamedColumn",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t VALUES(1,2); CREATE INDEX i ON t(b)",
     "ALTER TABLE t RENAME COLUMN b TO c"},
    {"AnotherKey", "CREATE TABLE t(a PRIMARY KEY,b); INSERT INTO t VALUES(1,NULL),(2,2)",
     "DROP TABLE t; CREATE TABLE t(a PRIMARY KEY,b NOT NULL) WITHOUT ROWID;"
     "INSERT INTO t VALUES(1,0),(2,2)"},
    {"ColumnBecomesTheRowid",
     "CREATE TABLE t(a,b); INSERT INTO t VALUES(7,'x'),(5,'y')",
     "DROP TABLE t; CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t VALUES(7,'x'),(5,'y')",
     {"UPDATE t SET a=70 WHERE a=7"}},
    {"ColumnIsTheRowidNoLonger",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t VALUES(7,'x'),(5,'y')",
     "DROP TABLE t; CREATE TABLE t(a,b); INSERT INTO t VALUES(7,'x'),(5,'y')",
     {"UPDATE t SET a=70 WHERE a=7"}},
    {"ColumnOfAnyTypeBecomesTheRowid",
     "CREATE TABLE t(a,b); INSERT INTO t "
     "VALUES('one',1),(2,'2'),('3',3),(4.5,4),(x'05',5),(NULL,6),"
     "(7,7)",
     "DROP TABLE t; CREATE TABLE t(a INTEGER PRIMARY KEY,b);"
     "INSERT INTO t VALUES(1,1),(2,'2'),(3,3),(4,4),(5,5),(7,7)",
     {"DELETE FROM t WHERE a=7", "UPDATE t SET b=8 WHERE a=2"}},
    {"StricterType", "CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t VALUES(1,'x'),(2,5)",
     "DROP TABLE t; CREATE TABLE t(a INTEGER PRIMARY KEY,b INT) STRICT; INSERT INTO t VALUES(1,7),"
     "(2,5)"},
    {"AffinityChanges",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t VALUES(1,'1'),(2,2),(3,3.5)",
     "DROP TABLE t; CREATE TABLE t(a INTEGER PRIMARY KEY,b TEXT);"
     "INSERT INTO t VALUES(1,'1'),(2,2),(3,x'00')"},
    {"NewConstraint",
     kThreeRows,
     "DROP TABLE t; CREATE TABLE t(a INTEGER PRIMARY KEY,b UNIQUE CHECK(b<>'y'),c NOT NULL);"
     "INSERT INTO t VALUES(1,'x',2),(2,'w',3),(3,'z',4)",
     {"UPDATE t SET c=50 WHERE a=3"}},
    {"Autoincrement",
     "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT,b); INSERT INTO t(b) VALUES(1),(2)",
     "INSERT INTO t(b) VALUES(5); DELETE FROM t WHERE a=3",
     {"UPDATE sqlite_sequence SET seq=9"}},
    {"AutoincrementIsNew", "CREATE TABLE x(y)",
     "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT,b); INSERT INTO t(b) VALUES(1),(2)"},
    {"AutoincrementIsBeyondItsRowsInATableMadeAnew",
     "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT,b); INSERT INTO t(b) VALUES(1),(2);"
     "UPDATE sqlite_sequence SET seq=50",
     "ALTER TABLE t ADD COLUMN c",
     {"UPDATE sqlite_sequence SET seq=9"}},
    {"CountersAreGone",
     "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT,b); INSERT INTO t(b) VALUES(1),(2);"
     "CREATE TABLE u(a INTEGER PRIMARY KEY AUTOINCREMENT)",
     kFresh + "CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t(b) VALUES(1),(2)",
     {"INSERT INTO t(b) VALUES(3)"},
     false,
     {3040000}},
    {"CountersAreGoneWithTheirTables",
     "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT); CREATE TABLE tolm_spare(a)",
     "DROP TABLE t; VACUUM",
     {},
     false,
     {3040000}},
    {"AutoincrementOfATableThatGoes",
     "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT,b); INSERT INTO t(b) VALUES(1),(2);"
     "CREATE TABLE u(a INTEGER PRIMARY KEY AUTOINCREMENT); INSERT INTO u VALUES(8)",
     "DROP TABLE u"},
    {"GeneratedColumnsAndTheirIndices",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c AS (b*2) STORED,d AS (b+1));"
     "CREATE INDEX i ON t(d) WHERE b>0; CREATE INDEX e ON t(b+a); INSERT INTO t(a,b) VALUES(1,1),"
     "(2,2)",
     "UPDATE t SET b=7 WHERE a=2; INSERT INTO t(a,b) VALUES(3,3)",
     {"UPDATE t SET b=3 WHERE a=2"}},
    {"UniqueGeneratedColumn",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c AS (b*2) UNIQUE); INSERT INTO t(a,b) VALUES(1,1),"
     "(2,2)",
     "UPDATE t SET b=9 WHERE a=1; UPDATE t SET b=1 WHERE a=2; UPDATE t SET b=2 WHERE a=1",
     {"UPDATE t SET b=5 WHERE a=1"}},
    {"GeneratedColumnIsNew", kThreeRows, "ALTER TABLE t ADD COLUMN d AS (c+1)"},
    {"FullText",
     kDocuments,
     "INSERT INTO f VALUES('more text'); DELETE FROM f WHERE rowid=1",
     {"DELETE FROM f WHERE rowid=1", "INSERT INTO f VALUES('further')"}},
    {"FullTextIsNew", "CREATE TABLE t(a)", kDocuments},
    {"FullTextIsGone", "CREATE TABLE t(a);" + kDocuments, "DROP TABLE f"},
    {"FullTextIsDefinedAnew", kDocuments,
     "DROP TABLE f; CREATE VIRTUAL TABLE f USING fts5(x,y); INSERT INTO f VALUES('a','b')"},
    {"FullTextOfAnotherTable",
     "CREATE TABLE t(b TEXT); INSERT INTO t VALUES('one two'),('three'),('four');"
     "DELETE FROM t WHERE b='three'; CREATE VIRTUAL TABLE f USING fts5(b,content='t');"
     "INSERT INTO f(f) VALUES('rebuild');"
     "CREATE TRIGGER g AFTER INSERT ON t BEGIN INSERT INTO f(rowid,b) VALUES(new.rowid,new.b); END;"
     "CREATE TRIGGER h AFTER DELETE ON t BEGIN INSERT INTO f(f,rowid,b) VALUES('delete',old.rowid,"
     "old.b); END;",
     "INSERT INTO t VALUES('five six'); DELETE FROM t WHERE b='four'",
     {"UPDATE t SET b='forty' WHERE b='four'"},
     true},
    {"FullTextBecomesATable",
     kDocuments,
     "DROP TABLE f; CREATE TABLE f(x); INSERT INTO f VALUES(1)",
     {},
     false,
     {3040000}},
    {"TableBecomesFullText", "CREATE TABLE f(x); INSERT INTO f VALUES(1)",
     "DROP TABLE f;" + kDocuments},
    {"TableBecomesAView", kThreeRows + "CREATE TABLE u(a)",
     "DROP TABLE t; CREATE VIEW t AS SELECT 1 AS a; INSERT INTO u VALUES(1)"},
    {"ViewBecomesATable", "CREATE VIEW t AS SELECT 1 AS a", "DROP VIEW t;" + kThreeRows},
    {"IndexBecomesATable", kThreeRows + "CREATE INDEX i ON t(b)",
     "DROP INDEX i; CREATE TABLE i(a); INSERT INTO i VALUES(1)"},
    {"IndexMovesToAnotherTable", kThreeRows + "CREATE TABLE u(b); CREATE INDEX i ON t(b)",
     "DROP INDEX i; CREATE INDEX i ON u(b)"},
    {"Rtree",
     "CREATE VIRTUAL TABLE r USING rtree(id,a,b); INSERT INTO r VALUES(1,2,3)",
     "INSERT INTO r VALUES(2,3,4)",
     {"DELETE FROM r"}},
    {"Settings",
     "CREATE TABLE t(a)",
     "PRAGMA user_version=7; PRAGMA application_id=-5",
     {"PRAGMA user_version=3", "PRAGMA application_id=3"}},
    {"StatisticsAreNew", "CREATE TABLE t(a); CREATE INDEX i ON t(a); INSERT INTO t VALUES(1),(2)",
     "ANALYZE"},
    {"StatisticsChange",
     "CREATE TABLE t(a); CREATE INDEX i ON t(a); INSERT INTO t VALUES(1),(2); ANALYZE",
     "INSERT INTO t VALUES(3); ANALYZE",
     {"UPDATE sqlite_stat1 SET stat='9 9'"}},
    {"StatisticsAreGone",
     "CREATE TABLE t(a); CREATE INDEX i ON t(a); INSERT INTO t VALUES(1),(2); ANALYZE",
     "DROP TABLE sqlite_stat1; INSERT INTO t VALUES(3)"},
    {"StatisticsOfATableMadeAnew",
     kThreeRows + "CREATE INDEX i ON t(b); ANALYZE",
     "ALTER TABLE t ADD COLUMN d",
     {"UPDATE sqlite_stat1 SET stat='9 9'"}},
    {"Utf16",
     "PRAGMA encoding='UTF-16le'; CREATE TABLE t(a,b); INSERT INTO t "
     "VALUES('\u00e4\u00f6',1),('x',2)",
     "INSERT INTO t VALUES('\u00f6\u00e4'||char(10)||'x\U0001f600',3); UPDATE t SET b='\u20ac' "
     "WHERE b=1",
     {"UPDATE t SET b=5 WHERE b=1", "CREATE VIEW v AS SELECT 1", "UPDATE t SET a='\u00f6\u00e4'"}},
    {"Utf16BrokenTexts",
     "PRAGMA encoding='UTF-16be'; CREATE TABLE t(a INTEGER PRIMARY KEY,b);"
     "INSERT INTO t VALUES(1,CAST(x'0041d800' AS TEXT)),(2,CAST(x'0041fffd' AS TEXT))",
     "UPDATE t SET b=CAST(x'0041fffd' AS TEXT) WHERE a=1;"
     "UPDATE t SET b=CAST(x'dc000041' AS TEXT) WHERE a=2;"
     "INSERT INTO t VALUES(3,CAST(x'004100000042' AS TEXT)),(4,CAST(x'feff0041' AS TEXT)),"
     "(5,CAST(x'0041fffe' AS TEXT)),(6,char(0)),(7,CAST(x'd83dde00000a' AS TEXT))",
     {"UPDATE t SET b=CAST(x'0042d800' AS TEXT) WHERE a=1"}},
    {"Utf16SchemaTexts",
     "PRAGMA encoding='UTF-16le';" + kThreeRows + "CREATE VIEW v AS SELECT 'abcdefgh' AS x",
     "UPDATE t SET b=1; CREATE VIEW w AS\nSELECT '\u00e4' AS x",
     {"DROP VIEW v; CREATE VIEW v AS SELECT 'abcdefgk' AS x",
      "DROP VIEW v; CREATE VIEW v AS SELECT 'abdcefgh' AS x"}},
    {"NamesWithQuotesAndBlanks",
     "CREATE TABLE \"a \"\"b'\"(\"c d\" PRIMARY KEY, [e f]); INSERT INTO \"a \"\"b'\" VALUES(1,2)",
     "UPDATE \"a \"\"b'\" SET [e f]='it''s'",
     {"UPDATE \"a \"\"b'\" SET [e f]=3"}},
    {"NamesOfTheScriptsOwnTables",
     "CREATE TABLE tolm_rows(k1 PRIMARY KEY,c1); CREATE TABLE tolm_kept(c1,c2);"
     "CREATE VIEW tolm_spare AS SELECT 1; INSERT INTO tolm_rows VALUES(1,2),(2,3);"
     "INSERT INTO tolm_kept VALUES(1,2)",
     "UPDATE tolm_rows SET c1=5 WHERE k1=1; ALTER TABLE tolm_kept ADD COLUMN k1;"
     "CREATE VIEW v AS\nSELECT * FROM tolm_rows",
     {"UPDATE tolm_rows SET c1=3 WHERE k1=1"}},
    {"NamesLikeTheAliases",
     "CREATE TABLE d(t PRIMARY KEY,k1,o,n); CREATE TABLE t(d PRIMARY KEY,c1,i,x,b,h);"
     "INSERT INTO d VALUES(1,2,3,4),(2,2,2,2); INSERT INTO t VALUES(1,2,3,4,5,6),(7,8,9,0,1,2)",
     "UPDATE d SET k1=7,o=8; UPDATE t SET c1=0,h=1; DELETE FROM d WHERE t=2",
     {"UPDATE d SET k1=3 WHERE t=1", "UPDATE t SET h=7 WHERE d=7"}},
    {"NamesLikeKeywords",
     "CREATE TABLE \"select\"(\"from\" INTEGER PRIMARY KEY,\"where\",\"order\",\"null\",\"\");"
     "CREATE INDEX \"index\" ON \"select\"(\"where\"); INSERT INTO \"select\" VALUES(1,2,3,4,5),"
     "(2,3,4,5,6)",
     "UPDATE \"select\" SET \"null\"=9,\"\"=8 WHERE \"from\"=1;"
     "CREATE TABLE \"table\"(\"group\" TEXT PRIMARY KEY); INSERT INTO \"table\" VALUES('by')",
     {"UPDATE \"select\" SET \"null\"=0 WHERE \"from\"=1"}},
    {"NamesInOtherScripts",
     "CREATE TABLE \u8868(\u952e INTEGER PRIMARY KEY,\u503c); INSERT INTO \u8868 "
     "VALUES(1,'\u503c')",
     "UPDATE \u8868 SET \u503c='\u65b0'",
     {"UPDATE \u8868 SET \u503c='\u65e7'"}},
    {"SomeRowidNamesAreColumns",
     "CREATE TABLE t(rowid,_rowid_,b); INSERT INTO t VALUES(1,2,3)",
     "UPDATE t SET b=4",
     {"UPDATE t SET b=5"}},
    {"RowidColumnIsTheKey",
     "CREATE TABLE t(rowid TEXT PRIMARY KEY,oid,b); INSERT INTO t VALUES('1',2,3),('2',3,4)",
     "UPDATE t SET b=4",
     {"UPDATE t SET b=5"}},
    {"ForeignKeys",
     "CREATE TABLE p(a INTEGER PRIMARY KEY); CREATE TABLE c(b REFERENCES p ON DELETE CASCADE);"
     "INSERT INTO p VALUES(1),(2); INSERT INTO c VALUES(1),(2)",
     "DELETE FROM c WHERE b=1; DELETE FROM p WHERE a=1; INSERT INTO p VALUES(3)",
     {"UPDATE c SET b=2 WHERE b=1"}},
    {"ParentOfACascadeGoes",
     "CREATE TABLE p(a INTEGER PRIMARY KEY); CREATE TABLE c(b REFERENCES p ON DELETE CASCADE);"
     "INSERT INTO p VALUES(1),(2); INSERT INTO c VALUES(1),(2)",
     "PRAGMA foreign_keys=OFF; DROP TABLE p"},
    {"ForeignKeysAreBroken",
     "CREATE TABLE p(a INTEGER PRIMARY KEY); CREATE TABLE c(b REFERENCES p);"
     "INSERT INTO p VALUES(1),(2); INSERT INTO c VALUES(1),(2)",
     "DELETE FROM p WHERE a=1; INSERT INTO c VALUES(9)",
     {"DELETE FROM p WHERE a=1"}},
    {"Strict",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b TEXT,c ANY) STRICT;"
     "INSERT INTO t VALUES(1,'x','1'),(2,'y',1)",
     "INSERT INTO t VALUES(3,'y','007'); UPDATE t SET c='2' WHERE a=2",
     {"UPDATE t SET c='1' WHERE a=2"}},
    {"StrictTableWithADefaultThatItRefuses",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b REAL DEFAULT 'd',c TEXT NOT NULL,d BLOB NOT NULL)"
     "STRICT; INSERT INTO t VALUES(1,1.5,'x',x'00'),(2,2.5,'y',x'01')",
     "UPDATE t SET b=2 WHERE a=1; UPDATE t SET c='z' WHERE a=2",
     {"UPDATE t SET c='w' WHERE a=2"}},
    {"StrictTableMadeAnew",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b TEXT,c ANY) STRICT; INSERT INTO t VALUES(1,'x','007')",
     "ALTER TABLE t ADD COLUMN d REAL"},
    {"TableIsGone", "CREATE TABLE t(a); CREATE TABLE u(a)", "DROP TABLE t"},
    {"LastTableIsGone", "CREATE TABLE t(a)", "DROP TABLE t"},
    {"TablesWithoutRows", "CREATE TABLE t(a,b); CREATE TABLE u(a PRIMARY KEY) WITHOUT ROWID",
     "CREATE TABLE v(a INTEGER PRIMARY KEY AUTOINCREMENT); ALTER TABLE t ADD COLUMN c;"
     "CREATE INDEX i ON u(a)"},
    {"AllRowsGo", kThreeRows, "DELETE FROM t", {"UPDATE t SET b=1 WHERE a=2", "DELETE FROM t"}},
    {"FirstRowsCome",
     "CREATE TABLE t(a,b)",
     "INSERT INTO t VALUES(1,2),(3,4)",
     {"INSERT INTO t VALUES(9,9)"}},
    {"InsteadOfTriggers",
     "CREATE TABLE t(a); CREATE VIEW v AS SELECT * FROM t;"
     "CREATE TRIGGER i INSTEAD OF INSERT ON v BEGIN INSERT INTO t VALUES(new.a); END;"
     "INSERT INTO v VALUES(1)",
     "INSERT INTO t VALUES(2); DROP VIEW v; CREATE VIEW v AS SELECT a FROM t;"
     "CREATE TRIGGER i INSTEAD OF INSERT ON v BEGIN INSERT INTO t VALUES(new.a); END;",
     {"DELETE FROM t"}},
    {"ViewOfAColumnThatGoes", "CREATE TABLE t(a,b); CREATE VIEW v AS SELECT b FROM t",
     "DROP VIEW v; ALTER TABLE t DROP COLUMN b"},
    {"ViewThatWorksNoLonger",
     "CREATE TABLE t(a); CREATE VIEW v AS SELECT b FROM gone",
     "INSERT INTO t VALUES(1)",
     {"INSERT INTO t VALUES(2)"}},
    {"OddTexts",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t VALUES(1,'one'),(2,'a'||char(0)||'b')",
     "UPDATE t SET b=char(13,10)||'x'||char(10)||''''||char(1,2,3,4,5,6,7,8,9) WHERE a=1;"
     "INSERT INTO t VALUES(3,char(0)),(4,''),(5,x''),(6,CAST(x'c0af' AS TEXT)),"
     "(7,CAST(x'eda080' AS TEXT)),(8,CAST(x'f4908080' AS TEXT)),(9,char(65279)||'bom'),"
     "(10,char(13)),(11,char(133,8232)),(12,'a'||char(0)||'b'),(13,CAST(x'41ff' AS TEXT)),"
     "(14,'; -- /* \"'),(15,char(127)),(16,'100%'),(17,char(1114111))",
     {"UPDATE t SET b='two' WHERE a=1", "UPDATE t SET b='a' WHERE a=1"}},
    {"TextsWithNulChange",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t VALUES(1,'a'||char(0)||'bcd')",
     "UPDATE t SET b='a'||char(0)||'xyz'",
     {"UPDATE t SET b='a'||char(0)||'bce'", "UPDATE t SET b='a'"}},
    {"EdgesOfNumbers",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b); CREATE TABLE r(a INTEGER PRIMARY KEY,b REAL);"
     "INSERT INTO t VALUES(1,-9223372036854775807-1),(2,9223372036854775807),(3,-0.0),(4,0.0);"
     "INSERT INTO r VALUES(1,0.1),(2,1e30)",
     "UPDATE t SET b=9223372036854775807 WHERE a=1; UPDATE t SET b=-9223372036854775807 WHERE a=2;"
     "UPDATE t SET b=0.0 WHERE a=3; UPDATE t SET b=-0.0 WHERE a=4;"
     "UPDATE r SET b=0.1+1e-17 WHERE a=1; UPDATE r SET b=1.0000000000000002e30 WHERE a=2;"
     "INSERT INTO t VALUES(9223372036854775807,5e-324),(-9223372036854775807-1,"
     "1.7976931348623157e308),(10,-1.7976931348623157e308),(11,2.2250738585072014e-308),"
     "(12,2.2250738585072009e-308),(13,9007199254740993),(14,9007199254740993.0),(15,1.0),(16,1),"
     "(17,'1'),(18,'1.0'),(19,9.2233720368547758e18),(20,9e999),(21,-9e999);"
     "INSERT INTO r VALUES(3,1),(4,-0.0),(5,9e999),(6,1.0/3),(7,9223372036854775807)",
     {"UPDATE t SET b=1 WHERE a=1", "UPDATE r SET b=0.2 WHERE a=1", "UPDATE r SET b=2e30 WHERE a=2",
      "UPDATE t SET b=0.5 WHERE a=3"}},
    {"OnlyTheTypeChanges",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b);"
     "INSERT INTO t VALUES(1,1),(2,1.0),(3,'1'),(4,x'31'),(5,NULL),(6,'')",
     "UPDATE t SET b=1.0 WHERE a=1; UPDATE t SET b='1' WHERE a=2; UPDATE t SET b=x'31' WHERE a=3;"
     "UPDATE t SET b=1 WHERE a=4; UPDATE t SET b='' WHERE a=5; UPDATE t SET b=NULL WHERE a=6",
     {"UPDATE t SET b='1' WHERE a=1", "UPDATE t SET b=1 WHERE a=2"}},
    {"MiddleOfATextChanges",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c);"
     "INSERT INTO t VALUES(1,'a text that goes on for some time',x'000102030405060708090a0b0c0d')",
     "UPDATE t SET b='a text that goes in for some time',c=x'000102030405060701090a0b0c0d'",
     {"UPDATE t SET b='a text that goes on for some lime'",
      "UPDATE t SET c=x'000102030405060708190a0b0c0d'"}},
    {"ColumnThatDoesNotChangeIsSpoilt",
     kThreeRows,
     "UPDATE t SET b='Q' WHERE a=2",
     {"UPDATE t SET c=4 WHERE a=2", "UPDATE t SET c=4 WHERE a=1"}},
    {"ManyColumns",
     "CREATE TABLE t(" + ManyColumns(900) + "); INSERT INTO t DEFAULT VALUES",
     "UPDATE t SET c1=1,c700=2,c900='x'; INSERT INTO t(c899) VALUES(5)",
     {"UPDATE t SET c700=3"}},
    {"ManySetsOfChangedColumns",
     "CREATE TABLE t(a INTEGER PRIMARY KEY," + ManyColumns(12) +
         "); INSERT INTO t WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<20)"
         " SELECT i,1,2,3,4,5,6,7,8,9,10,11,12 FROM n",
     ManyUpdates(12),
     {"UPDATE t SET c12=0 WHERE a=12", "UPDATE t SET c5=0 WHERE a=12"}},
    {"LongKeys",
     "CREATE TABLE t(a TEXT,b BLOB,c REAL,d,PRIMARY KEY(a,b,c)) WITHOUT ROWID;"
     "INSERT INTO t VALUES('x',x'01',0.1,1),('x',x'01',0.3,2),('x'||char(10),x'',1e-300,3)",
     "UPDATE t SET d=5 WHERE c=0.3; UPDATE t SET d=6 WHERE c=1e-300; DELETE FROM t WHERE c=0.1;"
     "INSERT INTO t VALUES('y'||char(0),x'00',1.0/3,1)",
     {"UPDATE t SET d=3 WHERE c=0.3", "UPDATE t SET d=4 WHERE c=0.1"}},
    {"KeysThatAreEqualAcrossTypes",
     "CREATE TABLE t(a PRIMARY KEY,b) WITHOUT ROWID; INSERT INTO t VALUES(1,1),(2.0,2),('3',3)",
     "UPDATE t SET a=1.0 WHERE a=1; UPDATE t SET b=4 WHERE a=2; DELETE FROM t WHERE a='3';"
     "INSERT INTO t VALUES(3,3)",
     {"UPDATE t SET b=9 WHERE a=2"}},
    {"RowMovesToAnotherKey",
     kThreeRows,
     "UPDATE t SET a=a+10 WHERE a=2",
     {"UPDATE t SET b='Y' WHERE a=2"}},
    {"DescendingKey",
     "CREATE TABLE t(a INTEGER PRIMARY KEY DESC,b); INSERT INTO t VALUES(1,1),(2,2);"
     "CREATE TABLE u(a INT,b,PRIMARY KEY(a DESC)) WITHOUT ROWID; INSERT INTO u VALUES(1,1),(2,2)",
     "UPDATE t SET b=9 WHERE a=2; UPDATE u SET b=9 WHERE a=2; INSERT INTO u VALUES(3,3)",
     {"UPDATE u SET b=7 WHERE a=2", "UPDATE t SET b=7 WHERE a=2"}},
    {"ExistingRowsBreakAConstraint",
     "CREATE TABLE t(a CHECK(a>0),b NOT NULL DEFAULT 5); PRAGMA ignore_check_constraints=ON;"
     "INSERT INTO t VALUES(-1,1),(1,1)",
     "UPDATE t SET b=2 WHERE a=-1; INSERT INTO t VALUES(2,2)",
     {"UPDATE t SET b=3 WHERE rowid=1"}},
    {"EmptyFileGetsTables", "PRAGMA user_version=1", kThreeRows, {}},
};

INSTANTIATE_TEST_SUITE_P(All, SqlDeltaCases, ::testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.name; });

struct DeclinedCase {
  const char* name;
  std::string old_sql;
  std::string new_sql;
  const char* reason;
};

class SqlDeltaDeclined : public SqlDeltaTest, public ::testing::WithParamInterface<DeclinedCase> {};

TEST_P(SqlDeltaDeclined, SaysWhyAndLeavesNoFile) {
  const DeclinedCase& row = GetParam();
  MakeDatabases(row.old_sql, row.new_sql);
  const std::string old_content = ReadFile(At("old.db"));
  const std::string new_content = ReadFile(At("new.db"));
  const std::optional<std::string> reason = MakeDelta();
  ASSERT_TRUE(reason.has_value());
  EXPECT_THAT(*reason, HasSubstr(row.reason));
  EXPECT_EQ(ListTree(directory_.Path()), (std::vector<std::string>{"new.db", "old.db"}));
  EXPECT_TRUE(ReadFile(At("old.db")) == old_content);
  EXPECT_TRUE(ReadFile(At("new.db")) == new_content);
}

const DeclinedCase kDeclinedCases[] = {
    {"WalMode", "PRAGMA journal_mode=wal; CREATE TABLE t(a)", "INSERT INTO t VALUES(1)",
     "the database is in WAL mode"},
    {"OnlyTheNewFileIsInWalMode", "CREATE TABLE t(a)",
     "PRAGMA journal_mode=wal; INSERT INTO t VALUES(1)", "the database is in WAL mode"},
    {"PageSize", "CREATE TABLE t(a)", kFresh + "PRAGMA page_size=8192; CREATE TABLE t(a)",
     "page_size changes"},
    {"Encoding", "CREATE TABLE t(a)", kFresh + "PRAGMA encoding='UTF-16le'; CREATE TABLE t(a)",
     "encoding changes"},
    {"AutoVacuum", "CREATE TABLE t(a)", kFresh + "PRAGMA auto_vacuum=FULL; CREATE TABLE t(a)",
     "auto_vacuum changes"},
    {"NoNameReachesTheRowid", "CREATE TABLE t(rowid,_rowid_,oid); INSERT INTO t VALUES(1,2,3)",
     "UPDATE t SET oid=4", "the rowid of table t has no name"},
    {"BlobThatFitsNoStatement", "CREATE TABLE t(a INTEGER PRIMARY KEY,b)",
     "INSERT INTO t VALUES(1,randomblob(600000))", "a row is too long for a statement"},
    {"ColumnsThatFitNoQuery", "CREATE TABLE t(" + ManyColumns(1500) + ")",
     "INSERT INTO t(c1) VALUES(1)", "too many columns in result set"},
    {"UnknownCollation",
     "CREATE TABLE t(a TEXT COLLATE nocase PRIMARY KEY,b); INSERT INTO t VALUES('a',1),('b',2);"
     "PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql=replace(sql,'nocase','klingon');",
     "UPDATE t SET b=2", "no such collation sequence: klingon"},
    {"NewRowsBreakAConstraint", "CREATE TABLE t(a CHECK(a>0)); INSERT INTO t VALUES(1)",
     "PRAGMA ignore_check_constraints=ON; INSERT INTO t VALUES(-1)",
     "CHECK constraint failed: a>0"},
    {"OldRowsBreakANewConstraint", "CREATE TABLE t(a CHECK(a>0)); INSERT INTO t VALUES(1),(2)",
     kFresh + "PRAGMA ignore_check_constraints=ON; CREATE TABLE t(a CHECK(a>1));"
              "INSERT INTO t VALUES(1),(2)",
     "CHECK constraint failed: a>1"},
    {"NewRowsBreakAConstraintOfARebuiltTable",
     "CREATE TABLE t(a CHECK(a>0)); INSERT INTO t VALUES(1)",
     kFresh + "PRAGMA ignore_check_constraints=ON; CREATE TABLE t(a CHECK(a>0),b);"
              "INSERT INTO t VALUES(1,1),(-1,1)",
     "CHECK constraint failed: a>0"},
    {"LineBreakInADefault", "CREATE TABLE t(a)", "CREATE TABLE u(a DEFAULT 'x\ny')",
     "a name or text in the schema has a line break"},
    {"CountersAreGoneForAnOldSqlite", "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT)",
     kFresh + "CREATE TABLE t(a INTEGER PRIMARY KEY)", "only SQLite 3.40 and newer"},
    {"FullTextBecomesATableForAnOldSqlite", kDocuments, "DROP TABLE f; CREATE TABLE f(x)",
     "only SQLite 3.40 and newer"},
    {"NulInAColumnOfNumbers", "CREATE TABLE t(a INTEGER PRIMARY KEY,b INT)",
     "INSERT INTO t VALUES(1,'12'||char(0)||'x')",
     "a text with a NUL is in column b of t, which is for numbers"},
    {"NulIsPutIntoAColumnOfNumbers",
     "PRAGMA encoding='UTF-16le'; CREATE TABLE t(a INTEGER PRIMARY KEY,b REAL);"
     "INSERT INTO t VALUES(1,1)",
     "UPDATE t SET b='12'||char(0)||'x'",
     "a text with a NUL is in column b of t, which is for numbers"},
};

INSTANTIATE_TEST_SUITE_P(All, SqlDeltaDeclined, ::testing::ValuesIn(kDeclinedCases),
                         [](const auto& row) { return row.param.name; });

TEST_F(SqlDeltaTest, WhatIsNoDatabaseIsDeclined) {
  MakeDatabases(kThreeRows, "UPDATE t SET b=1");
  WriteFile(At("old.db"), Repeat("no database ", 500));
  EXPECT_EQ(MakeDelta(), "file is not a database");
}

TEST_F(SqlDeltaTest, DamagedDatabaseIsDeclined) {
  MakeDatabases(kThreeRows, "UPDATE t SET b=1");
  std::string content = ReadFile(At("new.db"));
  content.replace(4096, 200, 200, '\x55');  // the second page is the table's
  WriteFile(At("new.db"), content);
  const std::optional<std::string> reason = MakeDelta();
  ASSERT_TRUE(reason.has_value());
  EXPECT_THAT(*reason, HasSubstr("damaged"));
}

TEST_F(SqlDeltaTest, FilesThatCannotBeReadOrWrittenAreErrors) {
  using sqldelta::FileError;
  MakeDatabases(kThreeRows, "UPDATE t SET b=1");
  const auto failure = [this](const char* old_file, const char* new_file, const char* script) {
    try {
      MakeSqlDelta(At(old_file), At(new_file), At(script));
    } catch (const FileError& error) {
      return error;
    }
    throw std::runtime_error("no failure");
  };
  EXPECT_EQ(failure("gone.db", "new.db", "script").action(), FileError::Action::kRead);
  EXPECT_EQ(failure("old.db", "gone.db", "script").action(), FileError::Action::kRead);
  const FileError unwritten = failure("old.db", "new.db", "gone/script");
  EXPECT_EQ(unwritten.action(), FileError::Action::kWrite);
  EXPECT_EQ(unwritten.errno_value(), ENOENT);
}

TEST_F(SqlDeltaTest, SameInputGivesTheSameBytes) {
  MakeDatabases(kDocuments + kThreeRows, "UPDATE t SET b=1; INSERT INTO f VALUES('more')");
  ASSERT_EQ(MakeDelta(), std::nullopt);
  const std::string script = ReadFile(At("script"));
  ASSERT_EQ(MakeDelta(), std::nullopt);
  EXPECT_TRUE(ReadFile(At("script")) == script);
}

TEST_F(SqlDeltaTest, SameContentGivesAScriptThatOnlyLooks) {
  MakeDatabases(kThreeRows, "VACUUM");
  ASSERT_EQ(MakeDelta(), std::nullopt);
  const std::string before = ReadFile(At("old.db"));
  ApplyScript(At("old.db"), At("script"));
  EXPECT_TRUE(ReadFile(At("old.db")) == before) << "the file has changed";
}

// Most of it are guards.
TEST_F(SqlDeltaTest, OneChangedRowOfASmallTableMakesASmallScript) {
  const std::string rows =
      "INSERT INTO t WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 "
      "FROM n WHERE i<5) SELECT i,replace(hex(zeroblob(1500)),'00','abc'),i "
      "FROM n;";
  for (const std::string& old_sql :
       {kThreeRows, "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c);" + rows}) {
    fs::remove(At("old.db"));
    MakeDatabases(old_sql, "UPDATE t SET c=9 WHERE a=2");
    ASSERT_EQ(MakeDelta(), std::nullopt);
    EXPECT_LT(fs::file_size(At("script")), 3'900U);
    ExpectSpoiltIsRefused("UPDATE t SET b=b||' ' WHERE a=3");
  }
}

TEST_F(SqlDeltaTest, ScriptHoldsNoStatementThatADeviceRefuses) {
  MakeDatabases(
      kThreeRows + kDocuments,
      "UPDATE t SET b='line'||char(10)||'break'; DROP TABLE f; CREATE VIEW v AS\nSELECT 1");
  ASSERT_EQ(MakeDelta(), std::nullopt);
  std::ifstream script(At("script"), std::ios::binary);
  for (std::string line; std::getline(script, line);) {
    EXPECT_THAT(line, Not(ContainsRegex("^(BEGIN|COMMIT|END|ROLLBACK|SAVEPOINT|ATTACH|VACUUM)")));
    EXPECT_EQ(sqlite3_complete(line.c_str()), 1) << line;
  }
}

TEST_F(SqlDeltaTest, TableOfWhichOnlyTheTextChangesIsNotMadeAnew) {
  MakeDatabases(
      "CREATE TABLE t(a INTEGER PRIMARY KEY,b CHECK(b IN(1,2)),c); CREATE INDEX i ON t(c);"
      "INSERT INTO t VALUES(1,1,1),(2,2,2)",
      kFresh +
          "CREATE TABLE t(a INTEGER PRIMARY KEY,b CHECK(b IN(1,3)),c); CREATE INDEX i ON "
          "t(c); INSERT INTO t VALUES(1,1,1),(2,3,2),(3,3,3)");
  for (const int version : kOldestVersions) {
    ExpectRightScript(version);
    EXPECT_THAT(ReadFile(At("script")),
                AllOf(Not(HasSubstr("DROP TABLE main")), Not(HasSubstr("CREATE INDEX"))));
    // The new CHECK holds, and the old one does not.
    EXPECT_THROW(ExecuteOn(At("patched.db"), "UPDATE t SET b=2"), SQLite::Exception);
    EXPECT_NO_THROW(ExecuteOn(At("patched.db"), "UPDATE t SET b=3"));
  }
}

TEST_F(SqlDeltaTest, ManyRowsAreChangedByFewStatements) {
  MakeDatabases(
      "CREATE TABLE t(a INTEGER PRIMARY KEY,b TEXT,c);"
      "INSERT INTO t WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<20000)"
      " SELECT i,'text number '||i,i FROM n",
      "UPDATE t SET b='another text '||a,c=c+1 WHERE a%2; DELETE FROM t WHERE a%10=2;"
      "INSERT INTO t SELECT a+100000,b,c FROM t WHERE a%10=1");
  for (const int version : kOldestVersions) {
    ExpectRightScript(version);
    ExpectRefused(At("patched.db"));
    ExpectSpoiltIsRefused("UPDATE t SET b='text number 19998' WHERE a=19999");
    ExpectSpoiltIsRefused("UPDATE t SET c=5 WHERE a=3");
    ExpectSpoiltIsRefused("UPDATE t SET c=5 WHERE a=10000");  // a row that stays as it is
    ExpectSpoiltIsRefused("DELETE FROM t WHERE a=10000");
    const std::string script = ReadFile(At("script"));
    EXPECT_LT(std::count(script.begin(), script.end(), '\n'), 40);
  }
}

struct CheckCase {
  const char* name;
  const char* new_table;
};

class SqlDeltaChecks : public SqlDeltaTest, public ::testing::WithParamInterface<CheckCase> {};

// Whatever the script does not touch, and none of its other guards would notice.
TEST_P(SqlDeltaChecks, ThatComeFindRowsThatBreakThem) {
  const std::string numbers =
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<5000)";
  const std::string rows =
      "INSERT INTO t(a,b,c) " + numbers + " SELECT i,'text '||i,iif(i%2,'odd','two') FROM n;";
  MakeDatabases(
      "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c CHECK(c IN('odd','two')));" + rows,
      kFresh + GetParam().new_table + ";" + rows + "UPDATE t SET b='new' WHERE a IN(77,3000)");
  for (const int version : kOldestVersions) {
    ExpectRightScript(version);
    ExpectSpoiltIsRefused("PRAGMA ignore_check_constraints=ON; UPDATE t SET c='bad' WHERE a=4000");
  }
}

const CheckCase kCheckCases[] = {
    {"TableStays", "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c CHECK(c IN('odd','two','six')))"},
    {"ConstraintOfTheTable",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c -- CHECK(c\n,CHECK (a>0),"
     "CONSTRAINT \"check(\" chEck/* ) */\n((c<>')' AND (c IN('odd',\n'two','(('))) OR c IS NULL))"},
    {"TableIsMadeAnew",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c CHECK(c IN('odd','two','six')),d)"},
    {"TableIsMadeAnewWithAFunctionThatCameLater",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c CHECK(iif(c='odd',1,c='two')),d)"},
};

INSTANTIATE_TEST_SUITE_P(All, SqlDeltaChecks, ::testing::ValuesIn(kCheckCases),
                         [](const auto& row) { return row.param.name; });

// Old rows that break a CHECK that comes are other ones than in the publisher's file.
TEST_F(SqlDeltaTest, RowsThatBreakACheckUntilTheyChangeAreKnown) {
  const std::string rows =
      "INSERT INTO t WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<5000)"
      " SELECT i,'text '||i,CASE WHEN i IN(7,77) THEN 'six' ELSE 'odd' END FROM n;";
  MakeDatabases("CREATE TABLE t(a INTEGER PRIMARY KEY,b,c);" + rows,
                kFresh + "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c CHECK(c='odd'));" +
                    "PRAGMA ignore_check_constraints=ON;" + rows +
                    "UPDATE t SET c='odd' WHERE c='six'");
  for (const int version : kOldestVersions) {
    ExpectRightScript(version);
    ExpectSpoiltIsRefused("UPDATE t SET c='add' WHERE a=4000");
    ExpectSpoiltIsRefused("UPDATE t SET c='six' WHERE a=4000; UPDATE t SET c='odd' WHERE a=7");
  }
}

TEST_F(SqlDeltaTest, RowsThatBreakACheckOnlyWithTheirNewValuesAreFound) {
  const std::string rows =
      "INSERT INTO t WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<5000)"
      " SELECT i,'one',0 FROM n;";
  MakeDatabases("CREATE TABLE t(a INTEGER PRIMARY KEY,b,c);" + rows,
                kFresh + "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c,CHECK(b='one' OR c=0));" + rows +
                    "UPDATE t SET c=1 WHERE a%5=0");
  for (const int version : kOldestVersions) {
    ExpectRightScript(version);
    ExpectSpoiltIsRefused("UPDATE t SET b='two' WHERE a=4000");
  }
}

// A function that every connection of this process has, until this goes.
class AddedFunction {
 public:
  static constexpr char kName[] = "tolm_added";

  AddedFunction() { sqlite3_auto_extension(reinterpret_cast<void (*)()>(Add)); }
  ~AddedFunction() { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(Add)); }
  AddedFunction(const AddedFunction&) = delete;
  AddedFunction& operator=(const AddedFunction&) = delete;

 private:
  static int Add(sqlite3* database, const char**, const sqlite3_api_routines*) {
    return sqlite3_create_function(database, kName, 1,
                                   SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS, nullptr,
                                   Call, nullptr, nullptr);
  }
  static void Call(sqlite3_context* context, int, sqlite3_value** arguments) {
    sqlite3_result_value(context, arguments[0]);
  }
};

struct FunctionCase {
  const char* name;
  const char* old_table;
  const char* new_table;
};

class SqlDeltaFunctions : public SqlDeltaTest,
                          public ::testing::WithParamInterface<FunctionCase> {};

// Such as those that came with a later SQLite.
TEST_P(SqlDeltaFunctions, ThatADeviceLacksAreNotAskedByGuards) {
  const std::string rows =
      "INSERT INTO t WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<5000)"
      " SELECT i,'text '||i,0 FROM n;";
  for (const int version : kOldestVersions) {
    {
      const AddedFunction known_to_the_publisher;
      fs::remove(At("old.db"));
      fs::remove(At("new.db"));
      MakeDatabases(GetParam().old_table + (";" + rows),
                    kFresh + GetParam().new_table + ";" + rows +
                        "UPDATE t SET c=1 WHERE a%5=0; INSERT INTO t VALUES(0,'more',0)");
      ASSERT_EQ(MakeDelta(version), std::nullopt);
    }
    CopyOver(At("old.db"), At("patched.db"));
    EXPECT_EQ(ErrorOfScript(At("patched.db"), At("script")), "");
    EXPECT_EQ(CompareSqlite(At("patched.db"), At("new.db")), std::nullopt);
    // What every SQLite can tell is asked.
    ExpectSpoiltIsRefused("PRAGMA ignore_check_constraints=ON; UPDATE t SET b='abc' WHERE a=4001");
  }
}

const FunctionCase kFunctionCases[] = {
    {"InACheckThatComes", "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c)",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b CHECK(length(b)>3),c,CHECK(tolm_added(c)<>b))"},
    {"InACheckThatStays", "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c,CHECK(tolm_added(c)<>b))",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b CHECK(length(b)>3),c,CHECK(tolm_added(c)<>b))"},
    {"InACheckThatGoes", "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c,CHECK(tolm_added(c)<>b))",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b CHECK(length(b)>3),c)"},
    {"WithItsNameInQuotes", "CREATE TABLE t(a INTEGER PRIMARY KEY,b,c)",
     "CREATE TABLE t(a INTEGER PRIMARY KEY,b CHECK(length(b)>3),c CHECK(\"tolm_added\" (c)>=0))"},
};

INSTANTIATE_TEST_SUITE_P(All, SqlDeltaFunctions, ::testing::ValuesIn(kFunctionCases),
                         [](const auto& row) { return row.param.name; });

std::string NumberedRows(const std::string& table, int count) {
  return "CREATE TABLE " + table +
         ";INSERT INTO t WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<" +
         std::to_string(count) + ") SELECT ";
}

// Of rows in a table that is made anew, some gone, some new, some changed.
struct MovedCase {
  const char* name;
  std::string old_sql;
  std::string new_sql;
};

class SqlDeltaMoves : public SqlDeltaTest, public ::testing::WithParamInterface<MovedCase> {};

TEST_P(SqlDeltaMoves, AreNotSentAgain) {
  MakeDatabases(GetParam().old_sql, GetParam().new_sql);
  for (const int version : kOldestVersions) {
    ExpectRightScript(version);
    ExpectRefused(At("patched.db"));
    ExpectSpoiltIsRefused("UPDATE t SET b='spoilt' WHERE rowid=2500");
    ExpectSpoiltIsRefused("DELETE FROM t WHERE rowid=2500");
    EXPECT_LT(ReadFile(At("script")).size(), 12'000U);
  }
}

const std::string kKeyedRows =
    NumberedRows("t(a INTEGER PRIMARY KEY,b TEXT UNIQUE,c)", 5000) + "i,'text '||i,i%7 FROM n;";

const MovedCase kMovedCases[] = {
    {"RowIsInsertedInTheMiddle", kKeyedRows,
     "UPDATE t SET a=-a-1 WHERE a>100; UPDATE t SET a=-a WHERE a<0;"
     "INSERT INTO t VALUES(101,'new',0)"},
    {"RowsAreGone", kKeyedRows,
     "DELETE FROM t WHERE a%1000=1; CREATE TABLE u AS SELECT b,c FROM t ORDER BY a; DELETE FROM t;"
     "INSERT INTO t(b,c) SELECT b,c FROM u ORDER BY rowid; DROP TABLE u"},
    {"RowsComeAndGoAndChange", kKeyedRows,
     "DELETE FROM t WHERE a BETWEEN 300 AND 310; UPDATE t SET a=-a-20 WHERE a>2000;"
     "UPDATE t SET a=-a WHERE a<0; UPDATE t SET a=-a+11 WHERE a BETWEEN 311 AND 2000;"
     "UPDATE t SET a=-a WHERE a<0; UPDATE t SET c=77 WHERE a%2000=7;"
     "INSERT INTO t SELECT a+1700,'new '||a,9 FROM t WHERE a BETWEEN 300 AND 310"},
    {"HiddenRowids", NumberedRows("t(b,c)", 5000) + "'text '||i,i%7 FROM n;",
     "UPDATE t SET rowid=-rowid-3 WHERE rowid>10; UPDATE t SET rowid=-rowid WHERE rowid<0"},
    {"TableHasIndices",
     kKeyedRows + "CREATE INDEX i ON t(c); CREATE UNIQUE INDEX u\nON t(b,c);"
                  "CREATE INDEX p ON t(c) WHERE c>3; ANALYZE",
     "UPDATE t SET a=-a-1 WHERE a>100; UPDATE t SET a=-a WHERE a<0;"
     "INSERT INTO t VALUES(101,'new',0)"},
    {"FewAtTheEnd", kKeyedRows,
     "UPDATE t SET a=-a-5 WHERE a>4000; UPDATE t SET a=-a WHERE a<0;"
     "DELETE FROM t WHERE a BETWEEN 4500 AND 4520"},
    {"SomeGoAndOthersKeepTheirNumbers", kKeyedRows,
     "DELETE FROM t WHERE a BETWEEN 300 AND 310; UPDATE t SET a=-a-5 WHERE a>1000;"
     "UPDATE t SET a=-a WHERE a<0"},
    {"NewInFrontAndTheLastGone", kKeyedRows,
     "DELETE FROM t WHERE a>4990; UPDATE t SET a=-a-10; UPDATE t SET a=-a;"
     "INSERT INTO t SELECT a-10,'new '||a,0 FROM t WHERE a<=20"},
    {"NewLateAndTheLastGone", kKeyedRows,
     "DELETE FROM t WHERE a>4990; UPDATE t SET a=-a-10 WHERE a>4000; UPDATE t SET a=-a WHERE a<0;"
     "INSERT INTO t SELECT a+4000,'new '||a,0 FROM t WHERE a<=10"},
    {"LongGaps", kKeyedRows,
     "DELETE FROM t WHERE a BETWEEN 1000 AND 2200; UPDATE t SET a=a-1201 WHERE a>2200"},
};

INSTANTIATE_TEST_SUITE_P(All, SqlDeltaMoves, ::testing::ValuesIn(kMovedCases),
                         [](const auto& row) { return row.param.name; });

// Counted by SQLite: pages that had to be written, and their journal synced, before the end.
TEST_F(SqlDeltaTest, ScriptsForLargeFilesTakeALargerPageCacheWithinTheTransaction) {
  const std::string rows = NumberedRows("t(a INTEGER PRIMARY KEY,b,c)", 5000);
  MakeDatabases(rows + "i,1,zeroblob(1000) FROM n;", "UPDATE t SET b=2");
  ASSERT_EQ(MakeDelta(), std::nullopt);
  SQLite::Database database(At("old.db"), SQLite::OPEN_READWRITE);
  SQLite::Transaction transaction(database);
  std::ifstream script(At("script"), std::ios::binary);
  for (std::string line; std::getline(script, line);) {
    database.exec(line);
  }
  int spilled = -1;
  int highest = 0;
  sqlite3_db_status(database.getHandle(), SQLITE_DBSTATUS_CACHE_SPILL, &spilled, &highest, 0);
  EXPECT_EQ(spilled, 0);
  transaction.commit();
}

TEST_F(SqlDeltaTest, ScriptsThatChangeFewRowsKeepTheUsualPageCache) {
  MakeDatabases(NumberedRows("t(a INTEGER PRIMARY KEY,b,c)", 5000) + "i,1,zeroblob(1000) FROM n;",
                "UPDATE t SET b=2 WHERE a<200");
  ASSERT_EQ(MakeDelta(), std::nullopt);
  EXPECT_THAT(ReadFile(At("script")), Not(HasSubstr("cache_size")));
}

TEST_F(SqlDeltaTest, RowsWithNullAreSummedLikeOthers) {
  const std::string rows = NumberedRows("t(a INTEGER PRIMARY KEY,b,c,d)", 5000) +
                           "i,iif(i%3,'text '||i,NULL),iif(i%5,i,NULL),iif(i%7,i*0.5,NULL) FROM n;";
  // Most rows change, so all that is in them is summed; of few, what is not written.
  for (const std::string change :
       {"UPDATE t SET b=b||'!',c=c+1,d=d+1", "UPDATE t SET b='new' WHERE a BETWEEN 301 AND 360"}) {
    fs::remove(At("old.db"));
    fs::remove(At("new.db"));
    MakeDatabases(rows, change);
    ExpectRightScript(kOldestVersions[0]);
    ExpectSpoiltIsRefused("UPDATE t SET c=9999 WHERE a=3");            // where b is NULL
    ExpectSpoiltIsRefused("UPDATE t SET b='spoilt text' WHERE a=10");  // where c is
    ExpectSpoiltIsRefused("UPDATE t SET c=9999 WHERE a=14");           // where d is
    ExpectSpoiltIsRefused("UPDATE t SET d=9999.5 WHERE a=15");         // where b and c are
    ExpectSpoiltIsRefused("UPDATE t SET b=NULL WHERE a=10");
    ExpectSpoiltIsRefused("UPDATE t SET c=NULL WHERE a=14");
  }
}

// Nothing works through the whole of a value that no script can write.
class SqlDeltaLongValue : public SqlDeltaTest, public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(All, SqlDeltaLongValue, ::testing::Values("UTF-8", "UTF-16le"));

TEST_P(SqlDeltaLongValue, IsToldByItsLengthAndItsEnds) {
  const std::string values =
      "(1,zeroblob(20000000),1),(2,replace(hex(zeroblob(5000000)),'0','ä'),2)";
  MakeDatabases("PRAGMA encoding='" + std::string(GetParam()) +
                    "'; CREATE TABLE t(a INTEGER PRIMARY KEY,b,c); INSERT INTO t VALUES" + values,
                "UPDATE t SET c=-c; UPDATE t SET b='short' WHERE a=2");
  ExpectRightScript(kOldestVersions[0]);
  ExpectRefused(At("patched.db"));
  const char* const spoilers[] = {
      "UPDATE t SET b=zeroblob(20000001) WHERE a=1", "UPDATE t SET b=zeroblob(19999999) WHERE a=1",
      "UPDATE t SET b=CAST(b AS TEXT) WHERE a=1", "UPDATE t SET b=x'01'||b WHERE a=1",
      "UPDATE t SET b=CAST(substr(b,2)||x'01' AS BLOB) WHERE a=1"};
  for (const char* const spoiler : spoilers) {
    SCOPED_TRACE(spoiler);
    CopyOver(At("old.db"), At("spoilt.db"));
    ExecuteOn(At("spoilt.db"), spoiler);
    ExpectRefused(At("spoilt.db"));
  }
}

TEST_F(SqlDeltaTest, TableThatIsNotTouchedMayHoldOtherValues) {
  MakeDatabases(kThreeRows + "CREATE TABLE local(a,b); INSERT INTO local VALUES(1,'x'),(2,'y')",
                "UPDATE t SET b='new' WHERE a=2");
  ASSERT_EQ(MakeDelta(), std::nullopt);
  CopyOver(At("old.db"), At("other.db"));
  ExecuteOn(At("other.db"), "UPDATE local SET b='somebody else''s'");
  EXPECT_EQ(ErrorOfScript(At("other.db"), At("script")), "");
  ExecuteOn(At("new.db"), "UPDATE local SET b='somebody else''s'");
  EXPECT_EQ(CompareSqlite(At("other.db"), At("new.db")), std::nullopt);
}

// Numbers that are negative or too large have no place to go by.
TEST_F(SqlDeltaTest, RowsWithNegativeNumbersAreNotMoved) {
  MakeDatabases(kKeyedRows + "INSERT INTO t VALUES(-5,'minus',1)",
                "UPDATE t SET a=a+9000000 WHERE a>100; UPDATE t SET a=a-8999999 WHERE a>100");
  ExpectRightScript(kOldestVersions[0]);
}

// The one who has the file open reads the schema again when its number changes.
TEST_F(SqlDeltaTest, OpenConnectionsNoticeANewView) {
  MakeDatabases(kThreeRows, "CREATE VIEW v AS\nSELECT 5");
  ASSERT_EQ(MakeDelta(), std::nullopt);
  SQLite::Database reader(At("old.db"), SQLite::OPEN_READONLY);
  EXPECT_EQ(reader.execAndGet("SELECT count(*) FROM t").getInt(), 3);
  ApplyScript(At("old.db"), At("script"));
  EXPECT_EQ(reader.execAndGet("SELECT * FROM v").getInt(), 5);
}

}  // namespace
}  // namespace tolm::testing

#include "sqldelta/sqlite_compare.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sqldelta/sqlite_changes.h"
#include "sqldelta/sqlite_reader.h"
#include "tests/sqldelta/sqlite_files.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using sqldelta::CompareSqlite;

struct Case {
  const char* name;
  std::string one;
  std::string other;
  const char* difference;  // nothing when they are the same
};

class CompareCases : public ::testing::TestWithParam<Case> {
 protected:
  TemporaryDirectory directory_;
};

TEST_P(CompareCases, AreFound) {
  const Case& row = GetParam();
  const std::string one = directory_.Path() / "1.db";
  const std::string other = directory_.Path() / "2.db";
  ExecuteOn(one, row.one);
  ExecuteOn(other, row.other);
  const std::string content = ReadFile(one);
  EXPECT_EQ(CompareSqlite(one, other).value_or(""), row.difference);
  EXPECT_EQ(CompareSqlite(other, one).has_value(), *row.difference != '\0');
  EXPECT_EQ(CompareSqlite(one, one), std::nullopt);
  EXPECT_TRUE(ReadFile(one) == content) << "the file has changed";
  EXPECT_EQ(ListTree(directory_.Path()), (std::vector<std::string>{"1.db", "2.db"}));
}

std::string Value(const std::string& literal) {
  return "CREATE TABLE t(a INTEGER PRIMARY KEY,b); INSERT INTO t VALUES(1," + literal + ")";
}

const std::string kTable = "CREATE TABLE t(a,b);";
const std::string kKeyed = "CREATE TABLE t(a TEXT PRIMARY KEY,b);";
constexpr char kRowDiffers[] = "table t: row 1 in the order of \"a\" differs";

const Case kCases[] = {
    {"Nothing", kTable, kTable, ""},
    {"UserVersion", kTable, kTable + "PRAGMA user_version=1", "user_version differs"},
    {"ApplicationId", kTable, kTable + "PRAGMA application_id=1", "application_id differs"},
    {"Encoding", kTable, "PRAGMA encoding='UTF-16le';" + kTable, "encoding differs"},
    {"PageSize", kTable, "PRAGMA page_size=8192;" + kTable, "page_size differs"},
    {"AutoVacuum", kTable, "PRAGMA auto_vacuum=FULL;" + kTable, "auto_vacuum differs"},
    {"TableMore", kTable, kTable + "CREATE TABLE u(a)", "no table u in the first"},
    {"TableLess", kTable + "CREATE TABLE u(a)", kTable, "no table u in the second"},
    {"IndexMore", kTable, kTable + "CREATE INDEX i ON t(a)", "no index i in the first"},
    {"ViewText", kTable + "CREATE VIEW v AS SELECT a FROM t",
     kTable + "CREATE VIEW v AS SELECT  a FROM t", "the text of view v differs"},
    {"TriggerTable",
     "CREATE TABLE t(a); CREATE TABLE u(a);"
     "CREATE TRIGGER g AFTER INSERT ON t BEGIN SELECT 1; END;",
     "CREATE TABLE t(a); CREATE TABLE u(a);"
     "CREATE TRIGGER g AFTER INSERT ON u BEGIN SELECT 1; END;",
     "the text of trigger g differs"},
    {"CaseOfATableText", "CREATE TABLE t(a INT)", "CREATE TABLE t(a int)",
     "the text of table t differs"},
    {"OrderOfSchemaObjects", "CREATE TABLE t(a); CREATE TABLE u(a)",
     "CREATE TABLE u(a); CREATE TABLE t(a)", ""},
    {"IntegerAndReal", Value("1"), Value("1.0"), kRowDiffers},
    {"IntegerAndText", Value("1"), Value("'1'"), kRowDiffers},
    {"TextAndBlob", Value("'1'"), Value("x'31'"), kRowDiffers},
    {"NullAndEmpty", Value("NULL"), Value("''"), kRowDiffers},
    {"EmptyTextAndEmptyBlob", Value("''"), Value("x''"), kRowDiffers},
    {"SignOfZero", Value("0.0"), Value("-1.0/9e999"), kRowDiffers},
    {"LastBitOfAReal", Value("0.1"), Value("0.1+2e-17"), kRowDiffers},
    {"CaseOfAText", Value("'a'"), Value("'A'"), kRowDiffers},
    {"BehindANul", Value("'a'||char(0)||'b'"), Value("'a'||char(0)||'c'"), kRowDiffers},
    {"NormalisationOfAText", Value("char(228)"), Value("char(97,776)"), kRowDiffers},
    {"LineEnds", Value("char(10)"), Value("char(13,10)"), kRowDiffers},
    {"BrokenUtf16", "PRAGMA encoding='UTF-16le';" + Value("CAST(x'00d8' AS TEXT)"),
     "PRAGMA encoding='UTF-16le';" + Value("CAST(x'fdff' AS TEXT)"), kRowDiffers},
    {"RowMissing", kTable + "INSERT INTO t VALUES(1,2),(3,4)", kTable + "INSERT INTO t VALUES(1,2)",
     "table t: one ends with row 1"},
    {"RowsOfNone", kTable, kTable + "INSERT INTO t VALUES(1,2)", "table t: one ends with row 0"},
    {"LastRow", kTable + "INSERT INTO t VALUES(1,2),(3,4)",
     kTable + "INSERT INTO t VALUES(1,2),(3,5)",
     "table t: row 2 in the order of \"rowid\" differs"},
    {"CaseOfANocaseKey",
     "CREATE TABLE t(a COLLATE NOCASE PRIMARY KEY) WITHOUT ROWID; INSERT INTO t VALUES('x')",
     "CREATE TABLE t(a COLLATE NOCASE PRIMARY KEY) WITHOUT ROWID; INSERT INTO t VALUES('X')",
     kRowDiffers},
    {"RowidsWhereRowsHaveAKey", kKeyed + "INSERT INTO t VALUES('x',1),('y',2)",
     kKeyed + "INSERT INTO t(rowid,a,b) VALUES(7,'y',2),(9,'x',1)", ""},
    {"RowidsWhereRowsHaveNoKey", kTable + "INSERT INTO t VALUES(1,2)",
     kTable + "INSERT INTO t(rowid,a,b) VALUES(5,1,2)",
     "table t: row 1 in the order of \"rowid\" differs"},
    {"RowidsWhereKeysAreNull", kKeyed + "INSERT INTO t VALUES('x',1),(NULL,2)",
     kKeyed + "INSERT INTO t(rowid,a,b) VALUES(7,'x',1),(9,NULL,2)",
     "table t: row 1 in the order of \"rowid\" differs"},
    {"RowidsThatAViewShows",
     kKeyed + "CREATE VIEW v AS SELECT rowid FROM t; INSERT INTO t VALUES('x',1)",
     kKeyed + "CREATE VIEW v AS SELECT rowid FROM t; INSERT INTO t(rowid,a,b) VALUES(7,'x',1)",
     "table t: row 1 in the order of \"rowid\" differs"},
    {"RowidsThatAFullTextIndexRefersTo",
     kKeyed + "CREATE VIRTUAL TABLE f USING fts5(a,content='t'); INSERT INTO t VALUES('x',1)",
     kKeyed + "CREATE VIRTUAL TABLE f USING fts5(a,content='t'); INSERT INTO t(rowid,a,b) "
              "VALUES(7,'x',1)",
     "table t: row 1 in the order of \"rowid\" differs"},
    {"Counters", "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT); INSERT INTO t VALUES(1)",
     "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT); INSERT INTO t VALUES(1); UPDATE "
     "sqlite_sequence SET seq=5",
     "table sqlite_sequence: row 1 in the order of \"rowid\" differs"},
    {"OrderOfCounters",
     "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT);"
     "CREATE TABLE u(a INTEGER PRIMARY KEY AUTOINCREMENT);"
     "INSERT INTO t VALUES(1); INSERT INTO u VALUES(1)",
     "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT);"
     "CREATE TABLE u(a INTEGER PRIMARY KEY AUTOINCREMENT);"
     "INSERT INTO u VALUES(1); INSERT INTO t VALUES(1)",
     ""},
    {"PlaceInTheFile", kTable + "INSERT INTO t VALUES(1,randomblob(90000)); DELETE FROM t", kTable,
     ""},
};

INSTANTIATE_TEST_SUITE_P(All, CompareCases, ::testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.name; });

TEST(CompareTest, FilesThatCannotBeReadAreErrors) {
  const TemporaryDirectory directory;
  const std::string good = directory.Path() / "good.db";
  const std::string bad = directory.Path() / "bad.db";
  ExecuteOn(good, kTable);
  WriteFile(bad, std::string(5000, 'x'));
  EXPECT_THROW(CompareSqlite(good, bad), sqldelta::SqliteError);
  EXPECT_THROW(CompareSqlite(bad, good), sqldelta::SqliteError);
  EXPECT_THROW(CompareSqlite(good, directory.Path() / "gone.db"), sqldelta::SqliteError);
}

// The changes in one line.
std::string ChangesText(const sqldelta::SqliteChanges& changes) {
  constexpr const char* kKinds[] = {"new ", "gone ", "changed "};
  std::string text;
  for (const std::string& setting : changes.settings) {
    text += setting + "; ";
  }
  for (const sqldelta::SchemaChange& change : changes.schema) {
    text += kKinds[static_cast<int>(change.kind)] + change.type + ' ' + change.name + "; ";
  }
  for (const sqldelta::TableRowChanges& rows : changes.rows) {
    text += rows.table + " +" + std::to_string(rows.added) + " -" + std::to_string(rows.removed) +
            " ~" + std::to_string(rows.changed) + "; ";
  }
  return text;
}

class ChangeCases : public CompareCases {};

TEST_P(ChangeCases, AreCounted) {
  const Case& row = GetParam();
  const std::string one = directory_.Path() / "1.db";
  const std::string other = directory_.Path() / "2.db";
  ExecuteOn(one, row.one);
  ExecuteOn(other, row.other);
  EXPECT_EQ(ChangesText(sqldelta::FindChanges(one, other)), row.difference);
  EXPECT_TRUE(sqldelta::FindChanges(one, one).AreNone());
  EXPECT_EQ(ListTree(directory_.Path()), (std::vector<std::string>{"1.db", "2.db"}));
}

const std::string kRows = "INSERT INTO t VALUES('a',1),('b',2),('c',3);";

const Case kChangeCases[] = {
    {"Nothing", kKeyed + kRows, kKeyed + kRows, ""},
    {"Settings", kTable, "PRAGMA page_size=8192;PRAGMA user_version=3;" + kTable,
     "user_version 0 -> 3; page_size 4096 -> 8192; "},
    {"Encoding", kTable, "PRAGMA encoding='UTF-16le';" + kTable, "encoding UTF-8 -> UTF-16le; "},
    {"RowsByKey", kKeyed + kRows, kKeyed + "INSERT INTO t VALUES('b',2),('c',4),('d',5),('e',6)",
     "t +2 -1 ~1; "},
    {"RowsByRowid", kTable + kRows, kTable + kRows + "UPDATE t SET b=9 WHERE a='b'",
     "t +0 -0 ~1; "},
    {"TypeOfAValue", kKeyed + kRows, kKeyed + kRows + "UPDATE t SET b='1' WHERE a='a'",
     "t +0 -0 ~1; "},
    {"NullIsAValue", kKeyed + kRows, kKeyed + kRows + "UPDATE t SET b=NULL WHERE a='a'",
     "t +0 -0 ~1; "},
    {"KeyInOtherLetters", "CREATE TABLE t(a TEXT COLLATE NOCASE PRIMARY KEY,b);" + kRows,
     "CREATE TABLE t(a TEXT COLLATE NOCASE PRIMARY KEY,b);" + kRows +
         "UPDATE t SET a='A' WHERE a='a'",
     "t +0 -0 ~1; "},
    {"WithoutRowid", "CREATE TABLE t(a,b,PRIMARY KEY(a,b)) WITHOUT ROWID;" + kRows,
     "CREATE TABLE t(a,b,PRIMARY KEY(a,b)) WITHOUT ROWID;" + kRows + "DELETE FROM t WHERE b=2",
     "t +0 -1 ~0; "},
    {"ColumnMore", kKeyed + kRows, kKeyed + kRows + "ALTER TABLE t ADD COLUMN c DEFAULT 5",
     "changed table t; "},
    {"AnotherKey", kKeyed + kRows, "CREATE TABLE t(a,b INTEGER PRIMARY KEY);" + kRows,
     "changed table t; t +3 -3 ~0; "},
    {"TablesComeAndGo", kKeyed + kRows,
     "CREATE TABLE \"u \"\"x\"(a); INSERT INTO \"u \"\"x\" VALUES(1)",
     "gone table t; new table u \"x; t +0 -3 ~0; u \"x +1 -0 ~0; "},
    {"Objects", kTable + "CREATE INDEX i ON t(a); CREATE VIEW v AS SELECT 1",
     kTable + "CREATE INDEX i ON t(b); CREATE TRIGGER g AFTER INSERT ON t BEGIN SELECT 1; END",
     "changed index i; new trigger g; gone view v; "},
    {"Counters", "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT); INSERT INTO t VALUES(1)",
     "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT); INSERT INTO t VALUES(1),(2)",
     "sqlite_sequence +1 -1 ~0; t +1 -0 ~0; "}};

INSTANTIATE_TEST_SUITE_P(All, ChangeCases, ::testing::ValuesIn(kChangeCases),
                         [](const auto& row) { return row.param.name; });

TEST(ChangesTest, TableOfManyColumnsIsCompared) {
  const TemporaryDirectory directory;
  std::string columns = "k INTEGER PRIMARY KEY";
  for (int i = 0; i < 1500; ++i) {
    columns += ",c" + std::to_string(i);
  }
  const std::string sql = "CREATE TABLE t(" + columns + ");INSERT INTO t(k) VALUES(1),(2);";
  const std::string one = directory.Path() / "1.db";
  const std::string other = directory.Path() / "2.db";
  ExecuteOn(one, sql);
  ExecuteOn(other, sql + "UPDATE t SET c1499='x' WHERE k=2");
  EXPECT_EQ(ChangesText(sqldelta::FindChanges(one, other)), "t +0 -0 ~1; ");
}

}  // namespace
}  // namespace tolm::testing

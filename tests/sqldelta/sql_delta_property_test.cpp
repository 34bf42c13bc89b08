// Random schemas with random content and random edits. Every seed is a case of its own that can be
// repeated; what a failing one boils down to belongs into sql_delta_test.cpp. A long run, here of
// so many seeds from 1000 on, says how many statements it has edited files with:
//
//   TOLM_SQL_SEEDS=16000 sqldelta_sql_delta_property_test
//
// TOLM_SQL_FIRST=N has it begin with another seed. TOLM_SQL_DEVICE=COMMAND has tolm-sqlite-device
// execute the scripts, which COMMAND may start with another SQLite than this process has.
//
// It meets spoilt values in large tables that no guard promises to notice because they are
// overwritten anyway: then the result has to be right.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "sqldelta/sql_delta.h"
#include "sqldelta/sqlite_compare.h"
#include "sqldelta/sqlite_reader.h"
#include "tests/sqldelta/sqlite_files.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using sqldelta::CompareSqlite;
using sqldelta::MakeSqlDelta;
using sqldelta::QuoteName;

class RandomSql {
 public:
  explicit RandomSql(unsigned seed) : random_(seed), has_nuls_(Chance(25)) {}

  std::size_t Below(std::size_t bound) { return random_() % bound; }
  bool Chance(std::size_t one_in) { return Below(one_in) == 0; }
  template <typename T>
  const T& One(const std::vector<T>& of) {
    return of[Below(of.size())];
  }

  std::string Text() {
    static const std::vector<std::string> kParts = {
        "a",      "b",      "word ",      "'", "\n", "\r\n", "\"",   "--",   ";",           "%",
        "\u00e4", "\u20ac", "\U0001f600", "Z", "0",  "12",   "\x01", "\xff", "longer text "};
    std::string text;
    for (std::size_t left = Below(Chance(20) ? 300 : 6); left > 0; --left) {
      text += One(kParts);
    }
    return has_nuls_ && Chance(20) ? text + std::string("\0", 1) + text : text;
  }

  std::string Value() {
    sqldelta::SqliteValue value;
    switch (Below(8)) {
      case 0:
        return "NULL";
      case 1:
      case 2:
        return std::to_string(Below(20));
      case 3:
        value.type = SQLITE_INTEGER;
        value.integer = static_cast<std::int64_t>(std::uint64_t{random_()} << 32 ^ random_());
        return Literal(value);
      case 4:
        return One<std::string>({"0.5", "-0.0", "9e999", "-9e999", "5e-324",
                                 "1.7976931348623157e308", "1e15", "0.1", "3.0", "-123.456",
                                 "1.0/3", "1e-7"});
      case 5:
        return "x'" + One<std::string>({"", "00", "ff00ff", "61", "0a0d"}) + "'";
      default:
        value.type = SQLITE_TEXT;
        value.bytes = Text();
        return Literal(value);
    }
  }

  std::string Name() {
    static const std::vector<std::string> kNames = {
        "a",    "b",  "c",  "d",     "select", "x y",   "q\"u", "rowid",  "A1", "\u00e4",
        "tolm", "k1", "c1", "order", "it's",   "value", "n",    "sum(x)", "t",  "o"};
    return One(kNames);
  }

  // A column's definition, or nothing when the name is taken.
  std::string Column(std::vector<std::string>& names, bool strict, const std::string& suffix = "") {
    const std::string name = Name() + suffix;
    for (const std::string& other : names) {
      if (sqlite3_stricmp(other.c_str(), name.c_str()) == 0) {
        return "";
      }
    }
    std::string column =
        QuoteName(name) + " " +
        (strict ? One<std::string>({"INT", "ANY", "TEXT", "REAL", "BLOB"})
                : One<std::string>({"", "INT", "TEXT", "REAL", "NUMERIC", "BLOB", "VARCHAR(10)"}));
    if (!names.empty() && Chance(10)) {
      return column + " AS (" + QuoteName(names.front()) + "||'x')" + (Chance(2) ? " STORED" : "");
    }
    names.push_back(name);
    column += One<std::string>({"", "", "", "", " UNIQUE", " NOT NULL DEFAULT 0", " COLLATE NOCASE",
                                " DEFAULT 'd'", " CHECK(1)"});
    return column;
  }

  // Statements that make one table of the number.
  std::vector<std::string> Table(std::size_t number) {
    const std::string table = QuoteName("t" + std::to_string(number));
    const bool strict = Chance(8);
    bool without_rowid = false;
    std::vector<std::string> names;
    std::string columns;
    switch (Below(6)) {
      case 0:
        names = {"id"};
        columns = Chance(2) ? "id INTEGER PRIMARY KEY" : "id INTEGER PRIMARY KEY AUTOINCREMENT";
        break;
      case 1:
        names = {"id"};
        columns = "id TEXT PRIMARY KEY";
        break;
      case 2:
        names = {"id", "id2"};
        columns = "id TEXT COLLATE NOCASE,id2 INT,PRIMARY KEY(id,id2)";
        without_rowid = true;
        break;
      case 3:
        names = {"id", "id2"};
        columns = "id INT NOT NULL,id2 TEXT NOT NULL,UNIQUE(id,id2)";
        break;
      default:
        names = {"id"};
        columns = "id TEXT";
        break;
    }
    // Constraints of the table stand behind all columns.
    std::string constraint;
    if (names.size() == 2) {
      const std::size_t at =
          columns.find(columns.find(",PRIMARY") != std::string::npos ? ",PRIMARY" : ",UNIQUE");
      constraint = columns.substr(at);
      columns.resize(at);
    }
    for (std::size_t left = 1 + Below(5); left > 0; --left) {
      const std::string column = Column(names, strict);
      columns += (column.empty() ? "" : "," + column);
    }
    std::string options = without_rowid ? "WITHOUT ROWID" : "";
    options += strict ? (options.empty() ? "STRICT" : ",STRICT") : "";
    const std::string line = Chance(4) ? "\n " : " ";
    std::vector<std::string> sql = {"CREATE TABLE " + table + line + "(" + columns + constraint +
                                    ")" + options};
    for (std::size_t rows = Chance(15) ? 400 + Below(1000) : Below(30); rows > 0; --rows) {
      sql.push_back(Insert(table, names));
    }
    return sql;
  }

  std::string Insert(const std::string& table, const std::vector<std::string>& names) {
    std::string list;
    std::string values;
    for (const std::string& name : names) {
      list += (list.empty() ? "" : ",") + QuoteName(name);
      values += (values.empty() ? "" : ",") + Value();
    }
    return "INSERT OR IGNORE INTO " + table + "(" + list + ") VALUES(" + values + ")";
  }

 private:
  std::mt19937 random_;
  const bool has_nuls_;  // rarely: in columns of numbers they make scripts impossible
};

struct TableOf {
  std::string name;
  std::vector<std::string> columns;  // that can be written to
};

std::vector<std::string> Strings(SQLite::Database& database, const std::string& sql) {
  std::vector<std::string> strings;
  SQLite::Statement query(database, sql);
  while (query.executeStep()) {
    strings.push_back(query.getColumn(0).getString());
  }
  return strings;
}

std::vector<TableOf> TablesOf(SQLite::Database& database) {
  std::vector<TableOf> tables;
  for (const std::string& name : Strings(
           database, "SELECT name FROM sqlite_master WHERE type='table' AND name GLOB 't[0-9]*'")) {
    tables.push_back({name, Strings(database, "SELECT name FROM pragma_table_xinfo('" + name +
                                                  "') WHERE hidden=0")});
  }
  return tables;
}

// Executes what can be executed: random statements break constraints every now and then. Whether
// this one could.
bool Try(SQLite::Database& database, const std::string& sql) {
  return database.tryExec(sql) == SQLITE_OK;
}

class RandomEdits {
 public:
  RandomEdits(RandomSql& random, const std::string& path)
      : random_(random), database_(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE) {
    database_.exec("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY");
  }

  void Make() {
    if (random_.Chance(6)) {
      Try(database_, "PRAGMA encoding='UTF-16le'");
    }
    Try(database_, "BEGIN");
    for (std::size_t table = 1 + random_.Below(4); table > 0; --table) {
      for (const std::string& sql : random_.Table(table)) {
        Try(database_, sql);
      }
    }
    if (random_.Chance(4)) {
      Try(database_, "CREATE VIRTUAL TABLE f USING fts5(x)");
      ChangeDocuments();
    }
    for (std::size_t left = random_.Below(5); left > 0; --left) {
      ChangeSchema();
    }
    Try(database_, "COMMIT");
  }

  // How many statements have edited the file.
  int Edit() {
    executed_ = 0;
    testing::Try(database_, "BEGIN");
    const std::vector<std::string> triggers =
        Strings(database_, "SELECT sql FROM sqlite_master WHERE type='trigger'");
    for (const std::string& name :
         Strings(database_, "SELECT name FROM sqlite_master WHERE type='trigger'")) {
      testing::Try(database_, "DROP TRIGGER " + QuoteName(name));
    }
    for (std::size_t left = random_.Below(4); left > 0; --left) {
      ChangeRows();
    }
    ChangeDocuments();
    for (std::size_t left = random_.Chance(2) ? random_.Below(4) : 0; left > 0; --left) {
      ChangeSchema();
    }
    if (random_.Chance(2)) {
      ChangeRows();
    }
    for (const std::string& trigger : triggers) {
      if (!random_.Chance(5)) {
        testing::Try(database_, trigger);
      }
    }
    testing::Try(database_, "COMMIT");
    if (random_.Chance(6)) {
      testing::Try(database_, "VACUUM");
    }
    return executed_;
  }

 private:
  void ChangeDocuments() {
    for (std::size_t left = random_.Below(4); left > 0; --left) {
      Try(database_, random_.Chance(3)
                         ? "DELETE FROM f WHERE rowid=" + std::to_string(random_.Below(5))
                         : "INSERT INTO f VALUES(" + random_.Value() + ")");
    }
  }

  void ChangeRows() {
    const std::vector<TableOf> tables = TablesOf(database_);
    if (tables.empty()) {
      return;
    }
    const TableOf& table = random_.One(tables);
    const std::string name = QuoteName(table.name);
    for (std::size_t left = 1 + random_.Below(4); left > 0; --left) {
      const std::string column = QuoteName(random_.One(table.columns));
      switch (random_.Below(6)) {
        case 0:
          Try(database_, "DELETE FROM " + name + Condition(table));
          break;
        case 5:
          Try(database_, "UPDATE " + name + " SET _rowid_=-_rowid_-" +
                             std::to_string(random_.Below(9)) + " WHERE _rowid_>" +
                             std::to_string(random_.Below(30)));
          Try(database_, "UPDATE " + name + " SET _rowid_=-_rowid_ WHERE _rowid_<-4");
          break;
        case 1:
          Try(database_, random_.Insert(name, table.columns));
          break;
        case 2:
          Try(database_, "UPDATE OR IGNORE " + name + " SET " + column + "=" +
                             QuoteName(random_.One(table.columns)) + Condition(table));
          break;
        default:
          Try(database_, "UPDATE OR IGNORE " + name + " SET " + column + "=" + random_.Value() +
                             Condition(table));
          break;
      }
    }
  }

  // Of some rows, the same ones in every run.
  std::string Condition(const TableOf& table) {
    return " WHERE (length(quote(" + QuoteName(random_.One(table.columns)) + "))+" +
           std::to_string(random_.Below(9)) + ")%" + std::to_string(1 + random_.Below(6)) + "=0";
  }

  void ChangeSchema() {
    const std::vector<TableOf> tables = TablesOf(database_);
    if (tables.empty()) {
      return;
    }
    const TableOf& table = random_.One(tables);
    const std::string name = QuoteName(table.name);
    const std::string column = QuoteName(random_.One(table.columns));
    const std::string number = std::to_string(random_.Below(5));
    const std::string line = random_.Chance(2) ? "\n" : " ";
    std::vector<std::string> columns = table.columns;
    switch (random_.Below(14)) {
      case 0:
        return Try(database_,
                   "ALTER TABLE " + name + " ADD COLUMN " + random_.Column(columns, false, number));
      case 1:
        return Try(database_, "ALTER TABLE " + name + " DROP COLUMN " + column);
      case 2:
        return Try(database_, "ALTER TABLE " + name + " RENAME COLUMN " + column + " TO " +
                                  QuoteName(random_.Name() + number));
      case 3:
        return Try(database_, "ALTER TABLE " + name + " RENAME TO t1" + number);
      case 4:
        return Try(database_, "DROP TABLE " + name);
      case 5:
        for (const std::string& sql : random_.Table(random_.Below(20))) {
          Try(database_, sql);
        }
        return;
      case 6:
        return Try(database_, "CREATE INDEX i" + number + " ON" + line + name + "(" + column + ")");
      case 7:
        return Try(database_, "CREATE UNIQUE INDEX u" + number + " ON " + name + "(" + column +
                                  "||'y')" + line + "WHERE " + column + ">1");
      case 8:
        return Try(database_, "DROP INDEX i" + number);
      case 9:
        return Try(database_, "CREATE VIEW v" + number + " AS" + line + "SELECT * FROM " + name);
      case 10:
        return Try(database_, "DROP VIEW v" + number);
      case 11:
        return Try(database_, "CREATE TRIGGER g" + number + " AFTER" + line + "UPDATE ON " + name +
                                  " BEGIN SELECT raise(ABORT,'no'); END");
      case 12:
        return Try(database_,
                   random_.Chance(2) ? "PRAGMA user_version=" + number : std::string("ANALYZE"));
      default:
        return Try(database_, "DROP TABLE f");
    }
  }

  void Try(SQLite::Database& database, const std::string& sql) {
    executed_ += testing::Try(database, sql) ? 1 : 0;
  }

  RandomSql& random_;
  SQLite::Database database_;
  int executed_ = 0;
};

// Changes one value of a row that differs in the new file; whether there is one.
bool SpoilARow(const std::string& path, const std::string& new_path) {
  SQLite::Database database(path, SQLite::OPEN_READWRITE);
  database.exec("PRAGMA synchronous=OFF");
  database.exec("ATTACH '" + new_path + "' AS n");
  for (const TableOf& table : TablesOf(database)) {
    const std::string name = QuoteName(table.name);
    for (const std::string& column : table.columns) {
      const std::string quoted = QuoteName(column);
      // Rows that are the only ones with their "id" in both files are the same row.
      const auto only = [&](const std::string& schema) {
        return " AND (SELECT count(*) FROM " + schema + "." + name + " x WHERE x.id=o.id)=1";
      };
      const int done =
          database.tryExec("UPDATE OR IGNORE main." + name + " SET " + quoted +
                           "='spoilt' WHERE id IN (SELECT o.id FROM main." + name + " o JOIN n." +
                           name + " n ON o.id=n.id AND o." + quoted + " IS NOT n." + quoted +
                           " AND o." + quoted + " IS NOT 'spoilt' AND n." + quoted +
                           " IS NOT 'spoilt'" + only("main") + only("n") + " LIMIT 1)");
      if (done == SQLITE_OK && database.getChanges() > 0) {
        return true;
      }
    }
  }
  return false;
}

// Reasons that lie in the content.
bool IsExpected(const std::string& reason) {
  const char* const reasons[] = {
      // SQLite lets defaults into strict tables that it finds fault with afterwards.
      "the database is damaged", "cannot store", "a text with a NUL is in column",
      "only SQLite 3.40 and newer",
      // It is left over where the last table with AUTOINCREMENT is gone.
      "the table sqlite_sequence cannot be made by a script"};
  return std::any_of(std::begin(reasons), std::end(reasons), [&](const char* expected) {
    return reason.find(expected) != std::string::npos;
  });
}

// "" unless another program plays the device.
std::string DeviceCommand() {
  const char* const command = std::getenv("TOLM_SQL_DEVICE");
  return command == nullptr ? "" : command;
}

struct DeviceAnswer {
  int status;  // that of tolm-sqlite-device
  std::string wrong;
};

DeviceAnswer AskDevice(const std::string& arguments) {
  DeviceAnswer answer{-1, ""};
  FILE* const pipe = popen((DeviceCommand() + " " + arguments).c_str(), "r");
  if (pipe == nullptr) {
    throw std::runtime_error("the device's program cannot be started");
  }
  char buffer[4096];
  for (std::size_t got = 0; (got = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
    answer.wrong.append(buffer, got);
  }
  const int status = pclose(pipe);
  answer.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (answer.status != 0 && answer.status != 1 && answer.status != 3) {
    throw std::runtime_error("the device's program fails: " + answer.wrong);
  }
  return answer;
}

// What is wrong when a device executes the script on the file, with its SQLite; nothing when it
// succeeds, and leaves the file in order.
std::string ErrorOnDevice(const std::string& path, const std::string& script) {
  if (!DeviceCommand().empty()) {
    const DeviceAnswer answer = AskDevice(path + " " + script);
    return answer.status == 0 ? "" : "the device: " + answer.wrong;
  }
  const std::string error = ErrorOfScript(path, script);
  if (!error.empty()) {
    return error;
  }
  const std::string found = IntegrityOf(path);
  return found == "ok" ? "" : found;
}

// Whether the device's SQLite cannot read the file as it was published, or takes it for damaged: it
// may have no such schemas, or write numbers in an index as other texts. No package serves it then.
bool IsNothingForDevice(const std::string& path) {
  return !DeviceCommand().empty() && AskDevice(path).status == 3;
}

struct Counts {
  int made = 0;
  int spoilt = 0;
  int edits = 0;
  int overwritten = 0;
  int for_no_device = 0;
};

constexpr unsigned kFirstSeed = 1000;
constexpr unsigned kTests = 8;

const char* AskedSeeds() {
  return std::getenv("TOLM_SQL_SEEDS");
}

unsigned FirstSeed() {
  const char* const asked = std::getenv("TOLM_SQL_FIRST");
  return asked == nullptr ? kFirstSeed : static_cast<unsigned>(std::strtoul(asked, nullptr, 10));
}

bool IsLongRun() {
  return AskedSeeds() != nullptr;
}

unsigned SeedsOfATest() {
  return IsLongRun() ? static_cast<unsigned>(std::strtoul(AskedSeeds(), nullptr, 10)) / kTests : 50;
}

class SqlDeltaProperty : public ::testing::Test {
 protected:
  std::string At(const std::string& name) const { return directory_.Path() / name; }

  void ExpectRefused(const std::string& path) {
    const std::string before = ReadFile(path);
    EXPECT_NE(ErrorOnDevice(path, At("script")), "");
    EXPECT_TRUE(ReadFile(path) == before) << "the file has changed";
  }

  void Check(unsigned seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomSql random(seed);
    for (const char* name : {"old.db", "new.db", "patched.db", "script"}) {
      std::filesystem::remove(At(name));
    }
    RandomEdits(random, At("old.db")).Make();
    CopyOver(At("old.db"), At("new.db"));
    counts_.edits += RandomEdits(random, At("new.db")).Edit();
    const int version = random.Chance(4) ? 3032000 : 3033000;
    const auto reason = MakeSqlDelta(At("old.db"), At("new.db"), At("script"), {version});
    if (reason && IsExpected(*reason)) {
      return;
    }
    ASSERT_EQ(reason, std::nullopt);
    ++counts_.made;
    CopyOver(At("old.db"), At("patched.db"));
    const std::string error = ErrorOnDevice(At("patched.db"), At("script"));
    if (!error.empty() && (IsNothingForDevice(At("old.db")) || IsNothingForDevice(At("new.db")))) {
      ++counts_.for_no_device;
      return;
    }
    ASSERT_EQ(error, "");
    ASSERT_EQ(CompareSqlite(At("patched.db"), At("new.db")), std::nullopt);
    if (CompareSqlite(At("old.db"), At("new.db")).has_value()) {
      ExpectRefused(At("patched.db"));
    }
    CopyOver(At("old.db"), At("patched.db"));
    if (SpoilARow(At("patched.db"), At("new.db"))) {
      ++counts_.spoilt;
      if (IsLongRun() && ErrorOnDevice(At("patched.db"), At("script")).empty()) {
        ++counts_.overwritten;
        EXPECT_EQ(CompareSqlite(At("patched.db"), At("new.db")), std::nullopt);
        return;
      }
      ExpectRefused(At("patched.db"));
    }
  }

  TemporaryDirectory directory_;
  Counts counts_;
};

class SqlDeltaSeeds : public SqlDeltaProperty, public ::testing::WithParamInterface<unsigned> {};

TEST_P(SqlDeltaSeeds, GiveRightScriptsThatRefuseAnyOtherBase) {
  const unsigned seeds = SeedsOfATest();
  const unsigned first = FirstSeed() + GetParam() * seeds;
  for (unsigned seed = first; seed < first + seeds && !HasFailure(); ++seed) {
    Check(seed);
  }
  std::cout << "seeds " << first << " to " << first + seeds - 1 << ": " << counts_.made
            << " scripts of " << counts_.edits << " edits, " << counts_.spoilt << " spoilt, "
            << counts_.overwritten << " of them overwritten, " << counts_.for_no_device
            << " for no such device\n";
  EXPECT_GT(counts_.made, static_cast<int>(seeds) * 8 / 10);
  EXPECT_GT(counts_.spoilt, (static_cast<int>(seeds) - counts_.for_no_device) / 10);
}

INSTANTIATE_TEST_SUITE_P(From, SqlDeltaSeeds, ::testing::Range(0U, kTests),
                         [](const auto& row) { return std::to_string(row.param); });

}  // namespace
}  // namespace tolm::testing

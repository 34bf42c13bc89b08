// A target for libFuzzer: what a publisher reads of SQLite files that others make, and the scripts
// that come of them. The first byte says what the rest is: statements that make the old file and,
// behind a line "====", the new one of that; a file; the text of a table. Whatever they are: no
// crash, no access beyond what is there, and a script that was made leads from the old file to the
// new one, also for who applies it as devices do.

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "sqldelta/error.h"
#include "sqldelta/sql_delta.h"
#include "sqldelta/sql_tokens.h"
#include "sqldelta/sqlite_changes.h"
#include "sqldelta/sqlite_compare.h"
#include "sqldelta/sqlite_file.h"
#include "sqldelta/sqlite_reader.h"
#include "tests/sqldelta/sqlite_files.h"
#include "tests/support/fuzzing.h"

struct sqlite3_api_routines;

namespace {

using namespace tolm::sqldelta;
using tolm::testing::Expect;
using tolm::testing::Put;
namespace fs = std::filesystem;

constexpr char kRoot[] = "/tmp/fuzz-sqldelta";
const std::string kOld = std::string(kRoot) + "/old";
const std::string kNew = std::string(kRoot) + "/new";
const std::string kScript = std::string(kRoot) + "/script";
const std::string kDevice = std::string(kRoot) + "/device";

// While a file is made: statements may run for ever, or make much of nothing.
bool bounds_connections = false;

int BoundConnection(sqlite3* connection, char**, const sqlite3_api_routines*) {
  constexpr int kSteps = 20000;
  constexpr int kMostBytes = 1 << 16;
  if (bounds_connections) {
    sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, kMostBytes);
    sqlite3_limit(connection, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_progress_handler(
        connection, kSteps, [](void*) { return 1; }, nullptr);
  }
  return SQLITE_OK;
}

// As many of the statements as can be executed.
void Execute(const std::string& path, const std::string& sql) {
  bounds_connections = true;
  try {
    SQLite::Database database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    database.exec("PRAGMA synchronous=OFF; PRAGMA cache_size=-2000");
    database.exec(sql);
  } catch (const SQLite::Exception&) {
    // What came before it stays.
  }
  bounds_connections = false;
}

void ApplyTo(const std::string& device) {
  tolm::testing::CopyOver(kOld, device);
  Expect(tolm::testing::ErrorOfScript(device, kScript).empty());
}

// Both files are as others may have made them.
void MakeScript() {
  fs::remove(kScript);
  const std::optional<std::string> reason = MakeSqlDelta(kOld, kNew, kScript);
  Expect(fs::exists(kScript) != reason.has_value() && (!reason || !reason->empty()));
  if (!reason) {
    ApplyTo(kDevice);
    Expect(!CompareSqlite(kNew, kDevice));
    Expect(FindChanges(kNew, kDevice).AreNone());
  }
}

void ReadStatements(const std::string& text) {
  constexpr char kSeparator[] = "\n====\n";
  const std::size_t end = text.find(kSeparator);
  Execute(kOld, text.substr(0, end));
  if (!fs::exists(kOld) || !IsSqliteFile(kOld)) {
    return;
  }
  tolm::testing::CopyOver(kOld, kNew);
  if (end != std::string::npos) {
    Execute(kNew, text.substr(end + sizeof kSeparator - 1));
  }
  const std::optional<std::string> difference = CompareSqlite(kOld, kNew);
  Expect(difference.has_value() == CompareSqlite(kNew, kOld).has_value());
  FindChanges(kOld, kNew);
  MakeScript();
}

void ReadFile(const std::string& bytes) {
  Put(kNew, bytes);
  Execute(kOld,
          "CREATE TABLE a(k INTEGER PRIMARY KEY, t TEXT UNIQUE, n);"
          "INSERT INTO a VALUES(1, 'one', NULL), (2, 'two', 2.5), (3, 'three', x'00ff')");
  IsSqliteFile(kNew);
  try {
    MakeScript();
    CompareSqlite(kOld, kNew);
  } catch (const SqliteError&) {
    // As the header says.
  }
  FindChanges(kNew, kOld);
}

void ReadText(const std::string& sql) {
  for (std::size_t at = 0; at < sql.size();) {
    const std::size_t end = TokenAt(sql, at).end;
    Expect(end > at && end <= sql.size());
    at = end;
  }
  EverySqliteKnowsFunctionsOf(sql);
  const std::string literal = TextLiteral(sql);
  Expect(literal.find('\n') == std::string::npos);
  SqliteConnection connection = SqliteConnection::OpenScratch(":memory:");
  Expect(connection.Single("SELECT " + literal).bytes == sql);
  for (const std::string& check : ChecksOf(sql)) {
    Expect(check.find('\n') == std::string::npos);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int bounded = sqlite3_auto_extension(reinterpret_cast<void (*)()>(BoundConnection));
  Expect(bounded == SQLITE_OK);
  fs::remove_all(kRoot);
  fs::create_directories(kRoot);
  const auto [kind, rest] = tolm::testing::ToInput(data, size);
  try {
    switch (kind) {
      case 'q':
        ReadStatements(rest);
        break;
      case 'f':
        ReadFile(rest);
        break;
      case 't':
        ReadText(rest);
        break;
      default:
        break;
    }
  } catch (const SqliteError&) {
    // What is wrong is told like this, or by one of these.
  } catch (const FileError&) {
  } catch (const std::runtime_error&) {
    Expect(kind == 't');
  }
  return 0;
}

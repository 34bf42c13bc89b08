#include "sqldelta/sql_delta.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "base/file.h"
#include "sqldelta/error.h"
#include "sqldelta/sql_difference.h"
#include "sqldelta/sql_guards.h"
#include "sqldelta/sql_moves.h"
#include "sqldelta/sql_rows.h"
#include "sqldelta/sql_schema_changes.h"
#include "sqldelta/sql_script.h"
#include "sqldelta/sql_text.h"
#include "sqldelta/sqlite_compare.h"

namespace tolm::sqldelta {
namespace {

namespace fs = std::filesystem;

// So many rows have to change before it is asked whether they only have other numbers.
constexpr std::int64_t kRowsWorthMoving = 50;
// And moving them has to save so many times the statements.
constexpr std::int64_t kMovesGain = 4;

// SQLite's own page cache, and one in which the pages that a script writes stay as far as possible:
// what does not fit is written, and the journal synced, in the middle of the transaction.
constexpr std::int64_t kUsualCacheKiB = 2000;
constexpr std::int64_t kCacheKiB = 8192;
// Where fewer rows change, it only costs time that guards read through a larger one.
constexpr std::int64_t kRowsWorthACache = 200;

constexpr std::size_t kPieceBytes = 256 * 1024;

// Writes a script from "main" of a scratch connection to kNew, in a transaction of the caller's.
class Generator {
 public:
  Generator(SqliteConnection& scratch, SqlScript& script, const SqlDeltaOptions& options)
      : options_(options),
        scratch_(scratch),
        script_(script),
        difference_(scratch),
        guards_(scratch, script, difference_),
        schema_changes_(scratch, script, difference_, options.oldest_sqlite_version) {}

  void Run() {
    guards_.GuardBeginning();
    if (difference_.IsThere()) {
      ChangeContent();
    }
    ChangeSettings();
    guards_.GuardEnd();
    schema_changes_.Finish();
  }

  // Fails where rows break the CHECKs of a text that has changed, which the script has not asked.
  // `result` is the scratch file opened again; its triggers must not fire.
  void RequireChecks(SqliteConnection& result) const {
    for (const std::string& table : difference_.changed_tables()) {
      const SchemaObject& object = difference_.new_schema().at({"table", table});
      if (Contains(object.sql, "check") && !Holds(difference_.old_schema(), object)) {
        // Only the CHECKs of columns that are written are asked.
        const TableLayout layout = ReadLayout(result, "main", table, true);
        Names assignments;
        for (const std::string& name : Quoted(AllOf(layout))) {
          assignments.push_back(name + "=" + name);
        }
        result.Execute("UPDATE " + InMain(table) + " SET " + Join(assignments, ","));
      }
    }
  }

 private:
  void ChangeContent() {
    if (difference_.old_schema() != difference_.new_schema()) {
      EnlargeCache();
    }
    schema_changes_.DropObjects();
    schema_changes_.ChangeTables();
    for (const std::string& table : TablesOf(difference_.new_schema())) {
      // What changes in other tables changes internal ones as well: they come last.
      if (difference_.IsChanged(table) && !IsInternal(table)) {
        ChangeRows(difference_.LayoutOf(table));
      }
    }
    script_.EnforceChecks(true, true);
    schema_changes_.DropCounters();
    schema_changes_.CreateObjects();
    ReplaceInternalRows();
    schema_changes_.RestoreTexts();
  }

  void EnlargeCache() {
    const std::int64_t bytes = scratch_.Single("PRAGMA main.page_count").integer *
                               scratch_.Single("PRAGMA main.page_size").integer;
    if (!cache_is_large_ && bytes > kUsualCacheKiB * 1024) {
      cache_is_large_ = true;
      script_.Line("PRAGMA main.cache_size=-" + std::to_string(kCacheKiB) + ";");
    }
  }

  void ChangeRows(const TableLayout& table) {
    if (schema_changes_.HasUnaskedRows(table.name)) {
      guards_.GuardChecks(table.name, !schema_changes_.HasOldText(table.name));
    }
    auto changes = FindRowChanges(table);
    if (changes->Count() + changes->InsertedRows() >= kRowsWorthACache) {
      EnlargeCache();
    }
    bool moved = false;
    if (table.keyed_by_rowid && changes->Count() >= kRowsWorthMoving) {
      const RowMoves moves(scratch_, table);
      if (moves.IsPossible() && moves.Cost() * kMovesGain < changes->Count()) {
        if (!guards_.IsExact(table.name)) {
          guards_.GuardValues(table.name);
        }
        if (HasChecks(table.name)) {
          script_.EnforceChecks(false, false);
        }
        if (moves.AreMost()) {
          schema_changes_.DropIndicesOf(table.name);
        }
        moves.Write(script_);
        changes = FindRowChanges(table);
        moved = true;
      }
    }
    WriteRows(table.name, *changes, moved);
    if (schema_changes_.HasOldText(table.name)) {
      guards_.GuardChecksAcross(table.name, changes->ChangedColumns());
    }
  }

  std::unique_ptr<RowChanges> FindRowChanges(const TableLayout& table) {
    const RowChanges::Options options = {options_.oldest_sqlite_version, HasChecks(table.name),
                                         schema_changes_.HasOldText(table.name)};
    return std::make_unique<RowChanges>(scratch_, script_, table, options);
  }

  bool HasChecks(const std::string& table) const {
    const auto has_checks = [&](const Schema& schema) {
      const auto found = schema.find({"table", table});
      return found != schema.end() && Contains(found->second.sql, "check");
    };
    return has_checks(difference_.new_schema()) ||
           (schema_changes_.HasOldText(table) && has_checks(difference_.old_schema()));
  }

  void WriteRows(const std::string& table, RowChanges& changes, bool moved) {
    if (guards_.IsExact(table)) {
      changes.Write();
      return;
    }
    changes.GuardFirstRows();
    if (changes.HasFewRows()) {
      guards_.GuardValuesToChange(table, changes.ChangedColumns(), moved);
    } else if (changes.AreMost() && !moved) {
      guards_.GuardValues(table);
    }
    changes.Write();
    changes.GuardFirstRows();
  }

  void ReplaceInternalRows() {
    const Schema present = ReadSchema(scratch_, "main");
    for (const std::string& table : TablesOf(difference_.new_schema())) {
      if (!IsInternal(table) || !HasOrdinary(present, table)) {
        continue;
      }
      const TableLayout layout = difference_.LayoutOf(table);
      if (difference_.RowsDiffer(layout)) {
        ReplaceRows(layout);
        if (!difference_.IsChanged(table)) {
          difference_.AddChanged(table);
        }
      }
    }
  }

  void ReplaceRows(const TableLayout& table) {
    script_.Line("DELETE FROM " + InMain(table.name) + ";");
    {
      SqliteRows rows(scratch_, SelectAll(table, kNew));
      SqlRows lines(
          script_,
          "INSERT INTO " + InMain(table.name) + "(" + Join(Quoted(table.columns), ",") + ") ", "",
          true);
      while (rows.Next()) {
        lines.Add(Literals(rows, 0, static_cast<int>(table.columns.size())));
      }
      lines.Finish();
    }
    script_.ExecuteDeferred();
  }

  void ChangeSettings() {
    for (const std::string setting : {"user_version", "application_id"}) {
      const SqliteValue value = scratch_.Single(std::string("PRAGMA ") + kNew + "." + setting);
      if (value != scratch_.Single("PRAGMA main." + setting)) {
        script_.Line("PRAGMA main." + setting + "=" + Literal(value) + ";");
      }
    }
  }

  const SqlDeltaOptions options_;
  SqliteConnection& scratch_;
  SqlScript& script_;
  SqlDifference difference_;
  SqlGuards guards_;
  SqlSchemaChanges schema_changes_;
  bool cache_is_large_ = false;
};

void WriteScript(const std::string& new_path, const std::string& script_path,
                 const std::string& scratch_path, const SqlDeltaOptions& options) {
  SqliteConnection scratch = SqliteConnection::OpenScratch(scratch_path);
  SqlScript script(script_path, scratch);
  scratch.AttachImmutable(new_path, kNew);
  scratch.Execute("BEGIN");
  Generator generator(scratch, script, options);
  generator.Run();
  script.Close();
  scratch.Execute("COMMIT");
  SqliteConnection result = SqliteConnection::OpenScratch(scratch_path);
  sqlite3_db_config(result.handle(), SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  generator.RequireChecks(result);
}

// By the file format version for writing
// (https://www.sqlite.org/fileformat2.html#the_database_header).
bool IsInWalMode(const std::string& path) {
  constexpr std::streamoff kWriteVersion = 18;
  constexpr int kWal = 2;
  std::ifstream in(path, std::ios::binary);
  in.seekg(kWriteVersion);
  return in.get() == kWal;
}

// What a script cannot change, or must not be used with.
void RequireSameForm(const std::string& old_path, const std::string& new_path) {
  for (const std::string& path : {old_path, new_path}) {
    if (IsInWalMode(path)) {
      throw Declined("the database is in WAL mode");  // The file is not complete by itself.
    }
  }
  SqliteConnection old_file = SqliteConnection::OpenImmutable(old_path);
  SqliteConnection new_file = SqliteConnection::OpenImmutable(new_path);
  for (const char* setting : {"encoding", "page_size", "auto_vacuum"}) {
    const std::string pragma = std::string("PRAGMA ") + setting;
    if (old_file.Single(pragma) != new_file.Single(pragma)) {
      throw Declined(std::string(setting) + " changes");
    }
  }
  for (SqliteConnection* file : {&old_file, &new_file}) {
    const SqliteValue check = file->Single("PRAGMA quick_check(1)");
    if (check.bytes != "ok") {
      throw Declined("the database is damaged: " + check.bytes);
    }
  }
}

// A file that goes when this does.
class TemporaryFile {
 public:
  explicit TemporaryFile(fs::path path) : path_(std::move(path)) {}
  ~TemporaryFile() {
    std::error_code ignored;
    if (!path_.empty()) {
      fs::remove(path_, ignored);
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  void Keep() { path_.clear(); }

 private:
  fs::path path_;
};

// The standard library's copy calls a full file system an input or output error.
void CopyToScratch(const std::string& from, const std::string& to) {
  try {
    const base::File in(from, O_RDONLY);
    base::File out(to, O_WRONLY | O_CREAT | O_TRUNC);
    out.SetMode(S_IRUSR | S_IWUSR);
    std::uint64_t offset = 0;
    for (std::string piece; !(piece = in.Read(offset, kPieceBytes)).empty();) {
      out.Write(piece);
      offset += piece.size();
    }
    out.Close();
  } catch (const base::FileError& error) {
    const auto action = error.path() == from ? FileError::Action::kRead : FileError::Action::kWrite;
    throw FileError(action, error.path() + ": " + error.code().message(), error.code().value());
  }
}

std::optional<std::string> Generate(const std::string& old_path, const std::string& new_path,
                                    const std::string& script_path,
                                    const SqlDeltaOptions& options) {
  const std::string scratch_path = script_path + ".scratch";
  const TemporaryFile scratch(scratch_path);
  try {
    RequireSameForm(old_path, new_path);
    CopyToScratch(old_path, scratch_path);
    WriteScript(new_path, script_path, scratch_path, options);
    const auto difference = CompareSqlite(scratch_path, new_path);
    return difference
               ? std::optional<std::string>("the script's result is not right: " + *difference)
               : std::nullopt;
  } catch (const SqliteError& error) {
    if (error.code() == SQLITE_FULL || error.code() == SQLITE_IOERR) {
      throw FileError(FileError::Action::kWrite, script_path + ": " + error.what(),
                      error.code() == SQLITE_FULL ? ENOSPC : EIO);
    }
    if (error.code() == SQLITE_CANTOPEN) {
      throw FileError(FileError::Action::kRead, old_path + ", " + new_path + ": " + error.what());
    }
    return error.what();
  } catch (const FileError&) {
    throw;
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

}  // namespace

std::optional<std::string> MakeSqlDelta(const std::string& old_path, const std::string& new_path,
                                        const std::string& script_path,
                                        const SqlDeltaOptions& options) {
  TemporaryFile script(script_path);
  std::optional<std::string> reason = Generate(old_path, new_path, script_path, options);
  if (!reason) {
    script.Keep();
  }
  return reason;
}

}  // namespace tolm::sqldelta

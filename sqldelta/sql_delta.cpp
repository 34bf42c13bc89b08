#include "sqldelta/sql_delta.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <vector>

#include "sqldelta/error.h"
#include "sqldelta/sql_digest.h"
#include "sqldelta/sql_moves.h"
#include "sqldelta/sql_one_line.h"
#include "sqldelta/sql_rows.h"
#include "sqldelta/sql_script.h"
#include "sqldelta/sql_text.h"
#include "sqldelta/sqlite_compare.h"
#include "sqldelta/sqlite_schema.h"

namespace tolm::sqldelta {
namespace {

namespace fs = std::filesystem;
// Of tables with so many bytes of values all of them are compared, of larger ones only some or
// sums.
constexpr std::int64_t kExactBytes = 32 * 1024;
// So many rows have to change before it is asked whether they only have other numbers.
constexpr std::int64_t kRowsWorthMoving = 50;
// And moving them has to save so many times the statements.
constexpr std::int64_t kMovesGain = 4;

// Seen to work from here on, and to do nothing in 3.34.
constexpr int kResetVersion = 3040000;

// SQLite's own table of the last rowids of AUTOINCREMENT tables.
constexpr char kCounters[] = "sqlite_sequence";

class Generator {
 public:
  Generator(const std::string& new_path, const std::string& script_path,
            const std::string& scratch_path, const SqlDeltaOptions& options)
      : options_(options),
        scratch_(SqliteConnection::OpenScratch(scratch_path)),
        script_(script_path, scratch_) {
    scratch_.AttachImmutable(new_path, kNew);
    new_schema_ = ReadSchema(scratch_, kNew);
    old_schema_ = ReadSchema(scratch_, "main");
    rowids_are_content_ = RowidsAreContent(old_schema_) || RowidsAreContent(new_schema_);
  }

  void Run() {
    scratch_.Execute("BEGIN");
    FindChanges();
    GuardBeginning();
    if (!changed_tables_.empty() || old_schema_ != new_schema_) {
      DropObjects();
      ChangeTables();
      for (const std::string& table : TablesOf(new_schema_)) {
        ChangeRows(table);
      }
      DropCounters();
      CreateObjects();
      ReplaceInternalRows();
      RestoreTexts();
    }
    ChangeSettings();
    GuardEnd();
    script_.Close();
    scratch_.Execute("COMMIT");
  }

 private:
  static bool IsInternal(const std::string& name) { return name.rfind("sqlite_", 0) == 0; }

  static bool HasOrdinary(const Schema& schema, const std::string& table) {
    const auto found = schema.find({"table", table});
    return found != schema.end() && !found->second.IsVirtual();
  }

  static Names TablesOf(const Schema& schema) {
    Names names;
    for (const auto& [id, object] : schema) {
      if (object.type == "table" && !object.IsVirtual()) {
        names.push_back(object.name);
      }
    }
    return names;
  }

  static const SchemaObject* Find(const Schema& schema, const SchemaObject& object) {
    const auto found = schema.find({object.type, object.name});
    return found == schema.end() ? nullptr : &found->second;
  }

  static bool StaysAsItIs(const Schema& schema, const SchemaObject& object) {
    const SchemaObject* other = Find(schema, object);
    return other != nullptr && *other == object;
  }

  // The layout that holds for both files.
  TableLayout LayoutOf(const std::string& table) {
    TableLayout layout = ReadLayout(scratch_, kNew, table, rowids_are_content_);
    if (layout.keys != ReadLayout(scratch_, "main", table, rowids_are_content_).keys) {
      layout = ReadLayout(scratch_, kNew, table, true);
    }
    return layout;
  }

  void FindChanges() {
    for (const std::string& table : TablesOf(new_schema_)) {
      const SchemaObject& object = new_schema_.at({"table", table});
      if (!StaysAsItIs(old_schema_, object) || RowsDiffer(LayoutOf(table))) {
        changed_tables_.push_back(table);
        RequireNumbers(kNew, table);
        if (HasOrdinary(old_schema_, table)) {
          RequireNumbers("main", table);
        }
      }
    }
    for (const std::string& table : TablesOf(old_schema_)) {
      if (!HasOrdinary(new_schema_, table)) {
        removed_tables_.push_back(table);
      }
    }
  }

  // A text with a NUL may look like a number up to there. In a column for numbers SQLite 3.53 makes
  // it one whenever it writes the row, where 3.40 keeps the text.
  void RequireNumbers(const std::string& schema_name, const std::string& table) {
    const TableLayout layout = ReadLayout(scratch_, schema_name, table, true);
    for (const std::string& column : layout.numeric_columns) {
      const std::string name = QuoteName(column);
      SqliteRows rows(scratch_, "SELECT 1 FROM " + schema_name + "." + QuoteName(table) +
                                    " WHERE typeof(" + name + ")='text' AND instr(" + name +
                                    ",char(0)) LIMIT 1");
      if (rows.Next()) {
        throw Declined("a text with a NUL is in column " + column + " of " + table +
                       ", which is for numbers");
      }
    }
  }

  bool RowsDiffer(const TableLayout& table) {
    SqliteRows old_rows(scratch_, SelectAll(table, "main"));
    SqliteRows new_rows(scratch_, SelectAll(table, kNew));
    while (true) {
      const bool more = old_rows.Next();
      if (more != new_rows.Next()) {
        return true;
      }
      if (!more) {
        return false;
      }
      for (int column = 0; column < old_rows.Width(); ++column) {
        if (old_rows.Value(column) != new_rows.Value(column)) {
          return true;
        }
      }
    }
  }

  static std::string SelectAll(const TableLayout& table, const std::string& schema_name) {
    const bool is_a_set = IsInternal(table.name);
    const Names columns = is_a_set ? table.columns : AllOf(table);
    return "SELECT " + Join(Quoted(columns), ",") + " FROM " + schema_name + "." +
           QuoteName(table.name) + " ORDER BY " +
           Join(Quoted(is_a_set ? columns : table.keys), ",");
  }

  bool IsChanged(const std::string& table) const {
    return std::find(changed_tables_.begin(), changed_tables_.end(), table) !=
           changed_tables_.end();
  }

  void GuardBeginning() {
    script_.Guard(SchemaDigest());
    script_.Guard(
        "SELECT user_version||' '||application_id FROM pragma_user_version,pragma_application_id");
    if (HasForeignKeys(old_schema_) || HasForeignKeys(new_schema_)) {
      // Where they are enforced, dropping a table would empty others.
      script_.Guard("SELECT foreign_keys FROM pragma_foreign_keys");
    }
    Names counts;
    for (const std::string& table : TablesOf(old_schema_)) {
      const bool is_touched = IsChanged(table) || !HasOrdinary(new_schema_, table);
      if (IsInternal(table) || (is_touched && IsSmall(table))) {
        GuardContent(table);
        exact_tables_.insert(table);
      } else {
        counts.push_back("(SELECT count(*) FROM " + InMain(table) + ")");
      }
    }
    for (const Names& group : Grouped(counts)) {
      script_.Guard("SELECT " + Balanced(group, "||' '||"));
    }
  }

  static bool HasForeignKeys(const Schema& schema) {
    return std::any_of(schema.begin(), schema.end(), [](const auto& entry) {
      return entry.second.type == "table" && !entry.second.IsVirtual() &&
             Contains(entry.second.sql, "references");
    });
  }

  // Whether the table's content can be compared exactly. Reads no more of it than that.
  bool IsSmall(const std::string& table) {
    const TableLayout layout = ReadLayout(scratch_, "main", table, true);
    SqliteRows rows(scratch_,
                    "SELECT " + Join(Quoted(AllOf(layout)), ",") + " FROM " + InMain(table));
    std::int64_t bytes = 0;
    while (bytes <= kExactBytes && rows.Next()) {
      bytes += BytesOf(rows, 0, rows.Width());
    }
    return bytes <= kExactBytes;
  }

  // Exactly what the table in "main" holds now.
  void GuardContent(const std::string& table) {
    const bool is_internal = IsInternal(table);
    const TableLayout layout =
        ReadLayout(scratch_, "main", table, is_internal || rowids_are_content_);
    for (const Names& group : Grouped(is_internal ? layout.columns : AllOf(layout))) {
      script_.Guard(ExactDigest(SelectBlobs(scratch_, Quoted(group), InMain(table))));
    }
  }

  // Sums over what is in these columns of the table now, or in all when there are none, and samples
  // of the texts in some.
  void GuardSums(const std::string& table, const std::set<std::string>& only,
                 const std::set<std::string>& sampled) {
    const TableLayout layout = ReadLayout(scratch_, "main", table, rowids_are_content_);
    const std::map<std::string, SummedColumn> columns = ColumnsToSum(layout, sampled);
    std::vector<SummedColumn> keys;
    for (const std::string& key : layout.keys) {
      keys.push_back(columns.at(key));
    }
    Names summed = layout.columns;
    summed.erase(std::remove_if(summed.begin(), summed.end(),
                                [&](const std::string& column) {
                                  return !only.empty() && only.count(column) == 0;
                                }),
                 summed.end());
    for (const Names& group : Grouped(summed.empty() ? layout.keys : summed)) {
      std::vector<SummedColumn> values;
      for (const std::string& column : group) {
        values.push_back(columns.at(column));
      }
      script_.Guard(SumDigest(keys, values, InMain(table)));
    }
  }

  // By name.
  std::map<std::string, SummedColumn> ColumnsToSum(const TableLayout& layout,
                                                   const std::set<std::string>& sampled) {
    const Names names = AllOf(layout);
    std::vector<SummedColumn> columns;
    for (const std::string& name : names) {
      columns.push_back({QuoteName(name), 0, sampled.count(name) != 0});
    }
    SqliteRows rows(scratch_,
                    "SELECT " + Join(Quoted(names), ",") + " FROM " + InMain(layout.name));
    while (rows.Next()) {
      for (std::size_t i = 0; i < columns.size(); ++i) {
        columns[i].types |= 1U << rows.Type(static_cast<int>(i));
      }
    }
    std::map<std::string, SummedColumn> by_name;
    for (std::size_t i = 0; i < names.size(); ++i) {
      by_name[names[i]] = columns[i];
    }
    return by_name;
  }

  // Triggers could fire or refuse, and views and indices stand in the way of new tables.
  void DropObjects() {
    for (const char* type : {"trigger", "view", "index"}) {
      for (const auto& [id, object] : old_schema_) {
        const bool in_the_way = object.type == "trigger" || !StaysAsItIs(new_schema_, object);
        if (object.type == type && object.has_sql && in_the_way) {
          script_.Line("DROP " + object.type + " main." + QuoteName(object.name) + ";");
        }
      }
    }
  }

  void ChangeTables() {
    for (const auto& [id, object] : old_schema_) {
      if (object.IsVirtual() && !StaysAsItIs(new_schema_, object)) {
        // DROP would want the table's module, and do what it likes with the tables behind it.
        EditSchema("DELETE FROM main.sqlite_master WHERE type='table' AND name=" +
                   TextLiteral(object.name) + ";");
        name_is_free_ = name_is_free_ && !HasOrdinary(new_schema_, object.name);
      }
    }
    if (!name_is_free_) {
      ForgetSchema();
    }
    for (const std::string& table : removed_tables_) {
      if (table != kCounters) {  // Tables that are there still may count by them.
        script_.Line("DROP TABLE " + InMain(table) + ";");
      }
    }
    for (const std::string& table : changed_tables_) {
      const SchemaObject& object = new_schema_.at({"table", table});
      if (StaysAsItIs(old_schema_, object)) {
        continue;
      }
      if (HasOrdinary(old_schema_, table)) {
        RebuildTable(object);
      } else {
        CreateTable(object);
      }
    }
  }

  // Makes SQLite read again what EditSchema has changed.
  void ForgetSchema() {
    if (options_.oldest_sqlite_version < kResetVersion) {
      throw Declined(
          "only SQLite 3.40 and newer can give the name of a virtual table to another "
          "table, or go without sqlite_sequence again");
    }
    script_.Line("PRAGMA writable_schema=RESET;");
    schema_is_writable_ = false;
  }

  // SQLite lets nobody drop this table, as long as it knows it by this name.
  void DropCounters() {
    if (!HasOrdinary(old_schema_, kCounters) || HasOrdinary(new_schema_, kCounters)) {
      return;
    }
    const std::string name = UnusedName();
    EditSchema("UPDATE main.sqlite_master SET name=" + TextLiteral(name) + ",tbl_name=" +
               TextLiteral(name) + ",sql=" + TextLiteral("CREATE TABLE " + name + "(name,seq)") +
               " WHERE name=" + TextLiteral(kCounters) + ";");
    ForgetSchema();
    script_.Line("DROP TABLE " + InMain(name) + ";");
  }

  void CreateTable(const SchemaObject& table) {
    if (table.name == "sqlite_stat1") {
      script_.Line("ANALYZE sqlite_master;");
    } else if (!IsInternal(table.name)) {  // sqlite_sequence comes with who needs it.
      script_.Line(OneLine(table.sql) + ";");
    }
  }

  // Keeps the rows as far as the new table takes them; what is different then is changed row by
  // row.
  void RebuildTable(const SchemaObject& table) {
    const TableLayout old = ReadLayout(scratch_, "main", table.name, true);
    const TableLayout now = ReadLayout(scratch_, kNew, table.name, true);
    if (IsInternal(table.name)) {
      throw Declined("the text of " + table.name + " differs");
    }
    const std::vector<KeptColumn> kept = KeptColumns(old, now);
    Names targets;
    Names sources;
    for (const KeptColumn& column : kept) {
      targets.push_back(QuoteName(column.target));
      sources.push_back(QuoteName(column.source));
    }
    const bool keeps = !kept.empty();
    if (keeps) {
      script_.Line("CREATE TEMP TABLE tolm_kept AS SELECT " + Aliased(sources) + " FROM " +
                   InMain(table.name) + ";");
    }
    script_.Line("DROP TABLE " + InMain(table.name) + ";");
    CreateTable(table);
    if (keeps) {
      script_.Line("INSERT OR IGNORE INTO " + InMain(table.name) + "(" + Join(targets, ",") +
                   ") SELECT * FROM temp.tolm_kept;");
      script_.Line("DROP TABLE temp.tolm_kept;");
    }
  }

  struct KeptColumn {
    std::string target;
    std::string source;
  };

  static std::vector<KeptColumn> KeptColumns(const TableLayout& old, const TableLayout& now) {
    std::vector<KeptColumn> kept;
    for (const std::string& column : AllOf(now)) {
      const bool is_key = now.keyed_by_rowid && column == now.keys.front();
      if (old.types.count(column) != 0 && !(is_key && now.rowid_is_hidden)) {
        // A strict table refuses what is of another type, whatever is to be ignored.
        if (!now.is_strict || SameType(old, now, column)) {
          kept.push_back({column, column});
        }
      } else if (is_key && old.keyed_by_rowid) {
        kept.push_back({column, old.keys.front()});
      }
    }
    return kept;
  }

  static bool SameType(const TableLayout& old, const TableLayout& now, const std::string& column) {
    return old.is_strict && old.types.at(column) == now.types.at(column);
  }

  static std::string Aliased(const Names& expressions) {
    Names aliased;
    for (std::size_t i = 0; i < expressions.size(); ++i) {
      aliased.push_back(expressions[i] + " AS c" + std::to_string(i + 1));
    }
    return Join(aliased, ",");
  }

  void ChangeRows(const std::string& name) {
    if (!IsChanged(name)) {
      return;
    }
    if (IsInternal(name)) {
      return;  // What changes in other tables changes these as well: they come last.
    }
    const TableLayout table = LayoutOf(name);
    const bool is_exact = exact_tables_.count(name) != 0;
    const RowChanges::Options options = {options_.oldest_sqlite_version,
                                         Contains(new_schema_.at({"table", name}).sql, "check")};
    auto changes = std::make_unique<RowChanges>(scratch_, script_, table, options);
    if (table.keyed_by_rowid && changes->Count() >= kRowsWorthMoving) {
      const RowMoves moves(scratch_, table);
      if (moves.IsPossible() && moves.Cost() * kMovesGain < changes->Count()) {
        if (!is_exact) {
          GuardSums(name, {}, {});
        }
        moves.Write(script_);
        changes = std::make_unique<RowChanges>(scratch_, script_, table, options);
      }
    }
    WriteRows(name, *changes, is_exact);
  }

  void WriteRows(const std::string& name, RowChanges& changes, bool is_exact) {
    if (is_exact) {
      changes.Write();
      return;
    }
    changes.GuardFirstRows();
    const std::set<std::string> changed = changes.ChangedColumns();
    if (changes.HasFewRows()) {
      GuardSums(name, {}, changed);
      summed_columns_[name] = changed;
    } else if (changes.AreMost()) {
      GuardSums(name, {}, {});
    }
    changes.Write();
    changes.GuardFirstRows();
  }

  void CreateObjects() {
    for (const char* type : {"index", "view", "trigger"}) {
      const Schema present = ReadSchema(scratch_, "main");
      for (const auto& [id, object] : new_schema_) {
        if (object.type == type && object.has_sql && Find(present, object) == nullptr) {
          CreateObject(object);
        }
      }
    }
    for (const auto& [id, object] : new_schema_) {
      if (object.IsVirtual() && !StaysAsItIs(old_schema_, object)) {
        InsertIntoSchema(object);
      }
    }
  }

  void ReplaceInternalRows() {
    const Schema present = ReadSchema(scratch_, "main");
    for (const std::string& table : TablesOf(new_schema_)) {
      if (!IsInternal(table) || !HasOrdinary(present, table)) {
        continue;
      }
      const TableLayout layout = LayoutOf(table);
      if (RowsDiffer(layout)) {
        ReplaceRows(layout);
        if (!IsChanged(table)) {
          changed_tables_.push_back(table);
        }
      }
    }
  }

  void CreateObject(const SchemaObject& object) {
    const bool has_storage = object.type == "index";
    if (has_storage || object.sql.find('\n') == std::string::npos) {
      script_.Line(OneLine(object.sql) + ";");
    } else {
      InsertIntoSchema(object);
    }
  }

  // For what has no storage of its own.
  void InsertIntoSchema(const SchemaObject& object) {
    EditSchema("INSERT INTO main.sqlite_master(type,name,tbl_name,rootpage,sql) VALUES(" +
               TextLiteral(object.type) + "," + TextLiteral(object.name) + "," +
               TextLiteral(object.table) + ",0," + TextLiteral(object.sql) + ");");
  }

  void EditSchema(const std::string& sql) {
    if (!schema_is_writable_) {
      script_.Line("PRAGMA writable_schema=ON;");
      schema_is_writable_ = true;
    }
    script_.Line(sql);
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

  // A text that was made on one line, or that ALTER has changed, gets its own form back.
  void RestoreTexts() {
    const Schema present = ReadSchema(scratch_, "main");
    for (const auto& [id, object] : new_schema_) {
      const SchemaObject* found = Find(present, object);
      if (found == nullptr) {
        throw Declined("the " + object.type + " " + object.name + " cannot be made by a script");
      }
      if (*found != object) {
        EditSchema("UPDATE main.sqlite_master SET sql=" + TextLiteral(object.sql) + " WHERE type=" +
                   TextLiteral(object.type) + " AND name=" + TextLiteral(object.name) + ";");
      }
    }
  }

  void ChangeSettings() {
    for (const std::string setting : {"user_version", "application_id"}) {
      const SqliteValue value = scratch_.Single(std::string("PRAGMA ") + kNew + "." + setting);
      if (value != scratch_.Single("PRAGMA main." + setting)) {
        script_.Line("PRAGMA main." + setting + "=" + Literal(value) + ";");
      }
    }
  }

  void GuardEnd() {
    script_.Guard(SchemaDigest());
    for (const std::string& table : changed_tables_) {
      const auto summed = summed_columns_.find(table);
      if (IsInternal(table) || IsSmall(table)) {
        GuardContent(table);
      } else if (summed != summed_columns_.end()) {
        GuardSums(table, summed->second, {});
      } else {
        script_.Guard("SELECT count(*) FROM " + InMain(table));
      }
    }
    if (schema_is_writable_) {
      // Who has the file open notices changes of the schema by SQLite's own statements only.
      const std::string view = InMain(UnusedName());
      script_.Line("CREATE VIEW " + view + " AS SELECT 1; DROP VIEW " + view + ";");
      script_.Line("PRAGMA writable_schema=OFF;");
    }
  }

  std::string UnusedName() const {
    std::string name = "tolm_spare";
    const auto is_used = [&](const auto& entry) { return entry.second.name == name; };
    while (std::any_of(new_schema_.begin(), new_schema_.end(), is_used)) {
      name += "_";
    }
    return name;
  }

  const SqlDeltaOptions options_;
  SqliteConnection scratch_;
  SqlScript script_;
  Schema old_schema_;
  Schema new_schema_;
  bool rowids_are_content_ = false;
  Names changed_tables_;
  Names removed_tables_;
  std::set<std::string> exact_tables_;
  std::map<std::string, std::set<std::string>> summed_columns_;  // by table
  bool schema_is_writable_ = false;
  bool name_is_free_ = true;  // no table takes the name of a virtual one
};

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

void CopyToScratch(const std::string& from, const std::string& to) {
  std::error_code error;
  fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
  if (error) {
    throw FileError(FileError::Action::kWrite, to + ": " + error.message(), error.value());
  }
  fs::permissions(to, fs::perms::owner_read | fs::perms::owner_write);
}

std::optional<std::string> Generate(const std::string& old_path, const std::string& new_path,
                                    const std::string& script_path,
                                    const SqlDeltaOptions& options) {
  const std::string scratch_path = script_path + ".scratch";
  const TemporaryFile scratch(scratch_path);
  try {
    RequireSameForm(old_path, new_path);
    CopyToScratch(old_path, scratch_path);
    Generator(new_path, script_path, scratch_path, options).Run();
    const auto difference = CompareSqlite(scratch_path, new_path);
    return difference
               ? std::optional<std::string>("the script's result is not right: " + *difference)
               : std::nullopt;
  } catch (const SqliteError& error) {
    if (error.code() == SQLITE_FULL || error.code() == SQLITE_IOERR) {
      throw FileError(FileError::Action::kWrite, script_path + ": " + error.what());
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

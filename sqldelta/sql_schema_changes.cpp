#include "sqldelta/sql_schema_changes.h"

#include <algorithm>
#include <vector>

#include "sqldelta/error.h"
#include "sqldelta/sql_one_line.h"

namespace tolm::sqldelta {
namespace {

// Seen to work from here on, and to do nothing in 3.34.
constexpr int kResetVersion = 3040000;

// SQLite's own table of the last rowids of AUTOINCREMENT tables.
constexpr char kCounters[] = "sqlite_sequence";

struct KeptColumn {
  std::string target;
  std::string source;
  // Rows are refused then that have no integer there, whatever is to be ignored.
  bool becomes_rowid = false;
};

bool SameType(const TableLayout& old, const TableLayout& now, const std::string& column) {
  return old.is_strict && old.types.at(column) == now.types.at(column);
}

std::vector<KeptColumn> KeptColumns(const TableLayout& old, const TableLayout& now) {
  std::vector<KeptColumn> kept;
  for (const std::string& column : AllOf(now)) {
    const bool is_key = now.keyed_by_rowid && column == now.keys.front();
    if (old.types.count(column) != 0 && !(is_key && now.rowid_is_hidden)) {
      // A strict table refuses what is of another type, whatever is to be ignored.
      if (!now.is_strict || SameType(old, now, column)) {
        const bool is_rowid = old.keyed_by_rowid && column == old.keys.front();
        kept.push_back({column, column, is_key && !is_rowid});
      }
    } else if (is_key && old.keyed_by_rowid) {
      kept.push_back({column, old.keys.front(), false});
    }
  }
  return kept;
}

std::string Aliased(const Names& expressions) {
  Names aliased;
  for (std::size_t i = 0; i < expressions.size(); ++i) {
    aliased.push_back(expressions[i] + " AS c" + std::to_string(i + 1));
  }
  return Join(aliased, ",");
}

}  // namespace

void SqlSchemaChanges::DropObjects() {
  for (const char* type : {"trigger", "view", "index"}) {
    for (const auto& [id, object] : difference_.old_schema()) {
      const bool in_the_way = object.type == "trigger" || !Holds(difference_.new_schema(), object);
      if (object.type == type && object.has_sql && in_the_way) {
        script_.Line("DROP " + object.type + " main." + QuoteName(object.name) + ";");
      }
    }
  }
}

void SqlSchemaChanges::ChangeTables() {
  DropVirtualTables();
  for (const std::string& table : difference_.removed_tables()) {
    if (table != kCounters) {  // Tables that are there still may count by them.
      script_.Line("DROP TABLE " + InMain(table) + ";");
    }
  }
  for (const std::string& table : difference_.changed_tables()) {
    const SchemaObject& object = difference_.new_schema().at({"table", table});
    if (Holds(difference_.old_schema(), object)) {
      continue;
    }
    if (!HasOrdinary(difference_.old_schema(), table)) {
      CreateTable(object);
    } else if (IsInternal(table) || !AreStoredAlike(scratch_, "main", kNew, table)) {
      RebuildTable(object);
    } else {
      old_texts_.insert(table);
    }
  }
}

bool SqlSchemaChanges::HasUnaskedRows(const std::string& table) const {
  const SchemaObject& object = difference_.new_schema().at({"table", table});
  return HasOrdinary(difference_.old_schema(), table) && !Holds(difference_.old_schema(), object);
}

void SqlSchemaChanges::DropIndicesOf(const std::string& table) {
  for (const auto& [id, object] : ReadSchema(scratch_, "main")) {
    // A text of several lines might not be made on one.
    if (object.type == "index" && object.table == table && object.has_sql &&
        object.sql.find('\n') == std::string::npos) {
      script_.Line("DROP INDEX " + InMain(object.name) + ";");
    }
  }
}

// SQLite lets nobody drop this table, as long as it knows it by this name.
void SqlSchemaChanges::DropCounters() {
  if (!HasOrdinary(difference_.old_schema(), kCounters) ||
      HasOrdinary(difference_.new_schema(), kCounters)) {
    return;
  }
  const std::string name = UnusedName();
  EditSchema("UPDATE main.sqlite_master SET name=" + TextLiteral(name) + ",tbl_name=" +
             TextLiteral(name) + ",sql=" + TextLiteral("CREATE TABLE " + name + "(name,seq)") +
             " WHERE name=" + TextLiteral(kCounters) + ";");
  ForgetSchema();
  script_.Line("DROP TABLE " + InMain(name) + ";");
}

void SqlSchemaChanges::CreateObjects() {
  for (const char* type : {"index", "view", "trigger"}) {
    const Schema present = ReadSchema(scratch_, "main");
    for (const auto& [id, object] : difference_.new_schema()) {
      if (object.type == type && object.has_sql && Find(present, object) == nullptr) {
        CreateObject(object);
      }
    }
  }
  for (const auto& [id, object] : difference_.new_schema()) {
    if (object.IsVirtual() && !Holds(difference_.old_schema(), object)) {
      InsertIntoSchema(object);
    }
  }
}

// A text that was made on one line, or that ALTER has changed, gets its own form back.
void SqlSchemaChanges::RestoreTexts() {
  const Schema present = ReadSchema(scratch_, "main");
  for (const auto& [id, object] : difference_.new_schema()) {
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

void SqlSchemaChanges::Finish() {
  if (!schema_is_writable_) {
    return;
  }
  // Who has the file open notices changes of the schema by SQLite's own statements only.
  const std::string view = InMain(UnusedName());
  script_.Line("CREATE VIEW " + view + " AS SELECT 1; DROP VIEW " + view + ";");
  script_.Line("PRAGMA writable_schema=OFF;");
}

// DROP would want the table's module, and do what it likes with the tables behind it.
void SqlSchemaChanges::DropVirtualTables() {
  bool name_is_taken = false;  // by an ordinary table
  for (const auto& [id, object] : difference_.old_schema()) {
    if (object.IsVirtual() && !Holds(difference_.new_schema(), object)) {
      EditSchema("DELETE FROM main.sqlite_master WHERE type='table' AND name=" +
                 TextLiteral(object.name) + ";");
      name_is_taken = name_is_taken || HasOrdinary(difference_.new_schema(), object.name);
    }
  }
  if (name_is_taken) {
    ForgetSchema();
  }
}

// Makes SQLite read again what EditSchema has changed.
void SqlSchemaChanges::ForgetSchema() {
  if (oldest_sqlite_version_ < kResetVersion) {
    throw Declined(
        "only SQLite 3.40 and newer can give the name of a virtual table to another "
        "table, or go without sqlite_sequence again");
  }
  script_.Line("PRAGMA writable_schema=RESET;");
  schema_is_writable_ = false;
}

void SqlSchemaChanges::CreateTable(const SchemaObject& table) {
  if (table.name == "sqlite_stat1") {
    script_.Line("ANALYZE sqlite_master;");
  } else if (!IsInternal(table.name)) {  // sqlite_sequence comes with who needs it.
    script_.Line(OneLine(table.sql) + ";");
  }
}

// Keeps the rows as far as the new table takes them; what is different then is changed row by
// row.
void SqlSchemaChanges::RebuildTable(const SchemaObject& table) {
  const TableLayout old = ReadLayout(scratch_, "main", table.name, true);
  const TableLayout now = ReadLayout(scratch_, kNew, table.name, true);
  if (IsInternal(table.name)) {
    throw Declined("the text of " + table.name + " differs");
  }
  const std::vector<KeptColumn> kept = KeptColumns(old, now);
  Names targets;
  Names sources;
  std::string condition;
  for (const KeptColumn& column : kept) {
    targets.push_back(QuoteName(column.target));
    sources.push_back(QuoteName(column.source));
    if (column.becomes_rowid) {
      condition = " WHERE typeof(" + sources.back() + ")='integer'";
    }
  }
  const bool keeps = !kept.empty();
  if (keeps) {
    script_.Line("CREATE TEMP TABLE tolm_kept AS SELECT " + Aliased(sources) + " FROM " +
                 InMain(table.name) + condition + ";");
  }
  script_.Line("DROP TABLE " + InMain(table.name) + ";");
  CreateTable(table);
  if (keeps) {
    if (Contains(table.sql, "check")) {
      // SQLite would take long for it, and refuse rows that are about to change.
      script_.EnforceChecks(false, false);
    }
    script_.Line("INSERT OR IGNORE INTO " + InMain(table.name) + "(" + Join(targets, ",") +
                 ") SELECT * FROM temp.tolm_kept;");
    script_.Line("DROP TABLE temp.tolm_kept;");
  }
}

void SqlSchemaChanges::CreateObject(const SchemaObject& object) {
  const bool has_storage = object.type == "index";
  if (has_storage || object.sql.find('\n') == std::string::npos) {
    script_.Line(OneLine(object.sql) + ";");
  } else {
    InsertIntoSchema(object);
  }
}

// For what has no storage of its own.
void SqlSchemaChanges::InsertIntoSchema(const SchemaObject& object) {
  EditSchema("INSERT INTO main.sqlite_master(type,name,tbl_name,rootpage,sql) VALUES(" +
             TextLiteral(object.type) + "," + TextLiteral(object.name) + "," +
             TextLiteral(object.table) + ",0," + TextLiteral(object.sql) + ");");
}

void SqlSchemaChanges::EditSchema(const std::string& sql) {
  if (!schema_is_writable_) {
    script_.Line("PRAGMA writable_schema=ON;");
    schema_is_writable_ = true;
  }
  script_.Line(sql);
}

std::string SqlSchemaChanges::UnusedName() const {
  std::string name = "tolm_spare";
  const auto is_used = [&](const auto& entry) { return entry.second.name == name; };
  while (std::any_of(difference_.new_schema().begin(), difference_.new_schema().end(), is_used)) {
    name += "_";
  }
  return name;
}

}  // namespace tolm::sqldelta

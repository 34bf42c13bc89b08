#ifndef TOLM_SQLDELTA_SQLITE_SCHEMA_H_
#define TOLM_SQLDELTA_SQLITE_SCHEMA_H_

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "sqldelta/sqlite_reader.h"

namespace tolm::sqldelta {

/// One row of sqlite_schema, without its place in the file.
struct SchemaObject {
  std::string type;  ///< "table", "index", "view" or "trigger"
  std::string name;
  std::string table;
  bool has_sql = false;  ///< indices that constraints bring have none
  std::string sql;

  bool operator==(const SchemaObject& other) const {
    return std::tie(type, name, table, has_sql, sql) ==
           std::tie(other.type, other.name, other.table, other.has_sql, other.sql);
  }
  bool operator!=(const SchemaObject& other) const { return !(*this == other); }
  bool IsVirtual() const;
};

/// By type and name.
using Schema = std::map<std::pair<std::string, std::string>, SchemaObject>;

/// Whether SQLite itself keeps this table.
bool IsInternal(const std::string& table);

/// Whether there is such a table and it is no virtual one.
bool HasOrdinary(const Schema& schema, const std::string& table);

/// The names of all such tables.
std::vector<std::string> TablesOf(const Schema& schema);

/// What has the object's type and name, null without it.
const SchemaObject* Find(const Schema& schema, const SchemaObject& object);

/// Whether it is there, and the same.
bool Holds(const Schema& schema, const SchemaObject& object);

/// How one table's rows are told apart and what they hold.
struct TableLayout {
  std::string name;
  /// What identifies a row: the rowid by a name of its own, or columns that are never NULL.
  std::vector<std::string> keys;
  bool keyed_by_rowid = false;
  bool rowid_is_hidden = false;  ///< keyed_by_rowid, and no column shows it
  bool is_strict = false;
  std::map<std::string, std::string> types;  ///< as declared, of all columns that are stored
  /// Columns in which SQLite makes numbers of texts that look like some.
  std::set<std::string> numeric_columns;
  /// Further columns that are stored: no generated ones, and not the alias of the rowid.
  std::vector<std::string> columns;
  std::set<std::string> default_columns;  ///< that are not NULL when they are left out
  /// Those of `columns` in which two rows may not hold the same; all when it cannot be told.
  std::set<std::string> unique_columns;
  /// Whether any row with a key, some of `columns` and the fillers can be offered for insertion
  /// without a failure other than that the key is there, as far as CHECK constraints do not care.
  bool takes_partial_rows = false;
  /// Columns that may not be left out, and a literal for each.
  std::vector<std::pair<std::string, std::string>> fillers;
};

/// Whether the text holds the word, which is in small letters, in any case, or as a part of a
/// longer one.
bool Contains(const std::string& text, const std::string& word);

/// @p schema_name is "main" or what was attached.
Schema ReadSchema(const SqliteConnection& connection, const std::string& schema_name);

/// Whether rows are told apart by what they hold where that is possible. The rowid of a table
/// without INTEGER PRIMARY KEY is SQLite's own business, unless something in the schema may refer
/// to it: full-text indices and other virtual tables, or a text that names it.
bool RowidsAreContent(const Schema& schema);

/// Throws std::runtime_error for a table whose rowid no name reaches.
TableLayout ReadLayout(const SqliteConnection& connection, const std::string& schema_name,
                       const std::string& table, bool rowids_are_content);

/// Whether the rows of the table and the entries of its constraints' indices lie in both files as
/// the other's text of the table would have it: the same columns, types, collations, defaults and
/// keys, so that only the likes of CHECKs, foreign keys and comments differ. @p one and @p other
/// are names of schemas that have the table. Of a table with generated columns that is never said.
bool AreStoredAlike(const SqliteConnection& connection, const std::string& one,
                    const std::string& other, const std::string& table);

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQLITE_SCHEMA_H_

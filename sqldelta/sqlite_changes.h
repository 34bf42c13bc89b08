#ifndef TOLM_SQLDELTA_SQLITE_CHANGES_H_
#define TOLM_SQLDELTA_SQLITE_CHANGES_H_

#include <cstdint>
#include <string>
#include <vector>

namespace tolm::sqldelta {

struct SchemaChange {
  enum class Kind { kNew, kGone, kChanged };
  Kind kind = Kind::kNew;
  std::string type;  ///< "table", "index", "view" or "trigger"
  std::string name;
};

/// How many rows of a table are different. Rows are the same one when their keys are: the primary
/// key, or the rowid of a table that has none.
struct TableRowChanges {
  std::string table;
  std::uint64_t added = 0;
  std::uint64_t removed = 0;
  std::uint64_t changed = 0;
};

/// What is different between two SQLite files, for people.
struct SqliteChanges {
  std::vector<std::string> settings;  ///< "user_version 1 -> 2"
  std::vector<SchemaChange> schema;   ///< by type and name; no indices that constraints bring
  std::vector<TableRowChanges> rows;  ///< by table, those that differ, new and gone ones too

  bool AreNone() const { return settings.empty() && schema.empty() && rows.empty(); }
};

/// Compares the files. Of tables that have other columns now, the columns of both are compared;
/// columns that are generated, and what virtual tables hold themselves, are not. Files with
/// different encodings of texts are not compared further. Neither file is changed; memory does not
/// grow with them. Throws SqliteError when one cannot be read.
SqliteChanges FindChanges(const std::string& old_path, const std::string& new_path);

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQLITE_CHANGES_H_

#ifndef TOLM_SQLDELTA_SQL_DIFFERENCE_H_
#define TOLM_SQLDELTA_SQL_DIFFERENCE_H_

#include <string>

#include "sqldelta/sql_text.h"
#include "sqldelta/sqlite_schema.h"

namespace tolm::sqldelta {

/// What is different between "main", on which a script is executed while it is made, and kNew. The
/// schemas are those of the beginning.
class SqlDifference {
 public:
  /// Finds out. @p scratch has kNew attached, and must outlive this. Throws Declined for rows that
  /// not every SQLite would write alike.
  explicit SqlDifference(const SqliteConnection& scratch);

  const Schema& old_schema() const noexcept { return old_schema_; }
  const Schema& new_schema() const noexcept { return new_schema_; }
  /// Whether rows are told apart by their rowids in all tables.
  bool rowids_are_content() const noexcept { return rowids_are_content_; }
  /// Tables whose text or rows change, new ones too; no virtual ones.
  const Names& changed_tables() const noexcept { return changed_tables_; }
  const Names& removed_tables() const noexcept { return removed_tables_; }

  bool IsThere() const { return !changed_tables_.empty() || old_schema_ != new_schema_; }
  bool IsChanged(const std::string& table) const;
  /// For one that other changes have changed.
  void AddChanged(const std::string& table) { changed_tables_.push_back(table); }

  /// The layout that holds for both files.
  TableLayout LayoutOf(const std::string& table) const;
  /// Whether the rows of the table differ now.
  bool RowsDiffer(const TableLayout& table) const;

 private:
  void FindChanges();
  void RequireNumbers(const std::string& schema_name, const std::string& table) const;

  const SqliteConnection& scratch_;
  const Schema old_schema_;
  const Schema new_schema_;
  const bool rowids_are_content_;
  Names changed_tables_;
  Names removed_tables_;
};

/// All rows of the table in "main" or kNew, in an order that tells whether two files hold the same.
std::string SelectAll(const TableLayout& table, const std::string& schema_name);

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_DIFFERENCE_H_

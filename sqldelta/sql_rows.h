#ifndef TOLM_SQLDELTA_SQL_ROWS_H_
#define TOLM_SQLDELTA_SQL_ROWS_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "sqldelta/sql_script.h"
#include "sqldelta/sql_text.h"
#include "sqldelta/sqlite_schema.h"

namespace tolm::sqldelta {

/// The lines of a script that turn the rows of one table in "main" into those in kNew.
class RowChanges {
 public:
  struct Options {
    int oldest_sqlite_version = 0;
    bool has_checks = false;     ///< the table has CHECK constraints
    bool checks_change = false;  ///< and they are still those of the old text
  };

  /// Finds out what changes. @p table is the layout of both.
  RowChanges(SqliteConnection& scratch, SqlScript& script, TableLayout table,
             const Options& options);

  /// Of rows that change or go.
  std::int64_t Count() const { return touched_rows_; }
  /// Of new rows, and of those that go and come again.
  std::int64_t InsertedRows() const;
  /// Whether looking at all rows costs little by itself.
  bool HasFewRows() const { return old_rows_ <= kFewRows; }
  /// Whether it costs little in comparison with the changes.
  bool AreMost() const { return 2 * touched_rows_ >= old_rows_; }
  /// The names of the columns that change in rows that stay.
  std::set<std::string> ChangedColumns() const;

  /// Adds a line that fails unless the first of the rows that change or go, as many as can be
  /// compared exactly in a short time, are there as they are in "main" now.
  void GuardFirstRows();
  void Write();

 private:
  static constexpr std::int64_t kFewRows = 20'000;

  // Which of the table's columns change in a row.
  using ColumnMask = std::vector<bool>;
  struct RowChange;

  std::string SelectBoth(const char* join) const;
  RowChange Classify(const SqliteRows& rows) const;
  void Note(const SqliteRows& rows, const RowChange& change);
  void WriteDeletions();
  void WriteUpserts(const ColumnMask& mask);
  void WriteJoinedUpdates(const ColumnMask& mask);
  // The rows in which exactly the columns of the mask change, or all when there is one mask only.
  void AddUpdates(SqlRows& lines, const ColumnMask& mask);
  std::string SelectInsertions(const std::vector<std::string>& names) const;
  std::vector<std::string> InsertedColumns() const;
  void WriteInsertions();
  std::string JoinedUpdate(const Names& columns) const;
  std::string LookedUpUpdate(const Names& columns) const;
  std::string KeyTuple() const;
  Names Masked(const ColumnMask& mask) const;
  bool CanUpsert() const;

  SqliteConnection& scratch_;
  SqlScript& script_;
  const TableLayout table_;
  const Options options_;
  const int keys_;
  const int columns_;
  std::int64_t old_rows_ = 0;
  std::int64_t touched_rows_ = 0;
  std::int64_t deleted_rows_ = 0;
  std::int64_t first_bytes_ = 0;
  Names first_keys_;  // of the first rows that are touched
  std::set<ColumnMask> masks_;
  bool any_mask_ = false;
};

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_ROWS_H_

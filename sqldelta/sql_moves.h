#ifndef TOLM_SQLDELTA_SQL_MOVES_H_
#define TOLM_SQLDELTA_SQL_MOVES_H_

#include <cstdint>
#include <utility>
#include <vector>

#include "sqldelta/sql_script.h"
#include "sqldelta/sqlite_schema.h"

namespace tolm::sqldelta {

/// Rows that have kept their content and their order, and got other numbers: those behind an
/// inserted or removed row, in a table whose rows are simply counted. Giving the old rows the new
/// numbers first leaves little to be changed. What is found is a matter of size only: whatever
/// rows are moved to, the changes of rows that follow put right.
class RowMoves {
 public:
  /// Looks for them from "main" to kNew. @p table is keyed by rowids.
  RowMoves(const SqliteConnection& scratch, const TableLayout& table);

  /// About how many rows have to be spoken of when rows are moved; none when they cannot be.
  bool IsPossible() const { return possible_; }
  std::int64_t Cost() const { return cost_; }

  /// Whether most rows of the table have to move, so that it costs less to write all of them in
  /// their order than to find the place of each twice. That is best done without indices.
  bool AreMost() const { return 2 * moved_rows_ >= kept_rows_; }

  void Write(SqlScript& script) const;

 private:
  class Window;
  // Old rows from one key to another, whose keys all change by as much.
  struct Run {
    std::int64_t first = 0;
    std::int64_t last = 0;
    std::int64_t change = 0;
  };

  // So many rows on either side belong together with none.
  struct Gap {
    std::size_t old_count = 0;
    std::size_t new_count = 0;
  };

  void Align(Window& old_rows, Window& new_rows);
  static Gap FindGap(Window& old_rows, Window& new_rows);
  void Pair(Window& old_rows, Window& new_rows);
  void Drop(Window& old_rows, std::size_t count);
  void WriteOneByOne(SqlScript& script) const;
  void WriteAll(SqlScript& script) const;

  const TableLayout& table_;
  bool possible_ = true;
  std::int64_t cost_ = 0;
  std::int64_t kept_rows_ = 0;
  std::int64_t moved_rows_ = 0;
  std::vector<Run> runs_;  // of all rows that are kept, also where they are
  bool drops_go_on_ = false;
  std::vector<Run> dropped_;  // without a place in the new order
};

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_MOVES_H_

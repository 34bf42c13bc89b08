#ifndef TOLM_SQLDELTA_SQL_GUARDS_H_
#define TOLM_SQLDELTA_SQL_GUARDS_H_

#include <map>
#include <set>
#include <string>
#include <vector>

#include "sqldelta/sql_difference.h"
#include "sqldelta/sql_digest.h"
#include "sqldelta/sql_script.h"

namespace tolm::sqldelta {

/// The lines of a script that fail unless "main" holds what it held when the script was made: at
/// the beginning, before rows change, and at the end. docs/formats/sql-delta.md says what they
/// notice. What is small is compared exactly; of the rest sums are compared where that costs
/// little.
class SqlGuards {
 public:
  SqlGuards(const SqliteConnection& scratch, SqlScript& script, const SqlDifference& difference)
      : scratch_(scratch), script_(script), difference_(difference) {}

  void GuardBeginning();
  /// Whether that compared all of the table's content.
  bool IsExact(const std::string& table) const { return exact_tables_.count(table) != 0; }

  /// Which of the rows that are kept break a CHECK of the table's new text: none, unless they are
  /// about to change. Of a table that is not made anew, whose text a device stores without a look
  /// at its functions, only CHECKs that every SQLite can ask.
  void GuardChecks(const std::string& table, bool made_anew);
  /// The same after @p changed columns of a table that is not made anew were written without a
  /// CHECK, for CHECKs that compare them with others.
  void GuardChecksAcross(const std::string& table, const std::set<std::string>& changed);

  /// All values of the table.
  void GuardValues(const std::string& table);
  /// The same, with samples of the texts in the columns that are to change, which are looked at
  /// again in the end. Only those columns when all of the table's are @p guarded already.
  void GuardValuesToChange(const std::string& table, const std::set<std::string>& columns,
                           bool guarded);

  void GuardEnd();

 private:
  bool IsSmall(const std::string& table) const;
  void GuardContent(const std::string& table);
  void GuardConditions(const std::string& table, const std::vector<std::string>& conditions);
  void GuardSums(const std::string& table, const std::set<std::string>& only,
                 const std::set<std::string>& sampled);
  std::map<std::string, SummedColumn> ColumnsToSum(const TableLayout& layout,
                                                   const std::set<std::string>& sampled) const;

  const SqliteConnection& scratch_;
  SqlScript& script_;
  const SqlDifference& difference_;
  std::set<std::string> exact_tables_;
  std::map<std::string, std::set<std::string>> summed_columns_;  // by table
};

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_GUARDS_H_

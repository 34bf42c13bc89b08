#ifndef TOLM_SQLDELTA_SQL_SCHEMA_CHANGES_H_
#define TOLM_SQLDELTA_SQL_SCHEMA_CHANGES_H_

#include <set>
#include <string>

#include "sqldelta/sql_difference.h"
#include "sqldelta/sql_script.h"

namespace tolm::sqldelta {

/// The lines of a script that turn the schema of "main" into that of kNew. The steps are to be
/// taken in the order in which they stand here, with the changes of rows after ChangeTables(). All
/// throw Declined when no statement does it.
class SqlSchemaChanges {
 public:
  SqlSchemaChanges(const SqliteConnection& scratch, SqlScript& script,
                   const SqlDifference& difference, int oldest_sqlite_version)
      : scratch_(scratch),
        script_(script),
        difference_(difference),
        oldest_sqlite_version_(oldest_sqlite_version) {}

  /// Triggers could fire or refuse, and views and indices stand in the way of new tables.
  void DropObjects();
  /// Keeps the rows of a table whose text changes, as far as the new one takes them. A table that
  /// stores its rows as before keeps its text too, until RestoreTexts().
  void ChangeTables();
  /// Whether ChangeTables() has left this table its text although it changes.
  bool HasOldText(const std::string& table) const { return old_texts_.count(table) != 0; }
  /// Whether ChangeTables() has kept rows of this table that no CHECK of its new text was asked
  /// about.
  bool HasUnaskedRows(const std::string& table) const;
  /// Those of a table whose rows are about to be written, which SQLite makes faster all at once:
  /// CreateObjects() brings them again.
  void DropIndicesOf(const std::string& table);
  void DropCounters();
  void CreateObjects();
  void RestoreTexts();
  /// After everything else, guards too.
  void Finish();

 private:
  void DropVirtualTables();
  void ForgetSchema();
  void CreateTable(const SchemaObject& table);
  void RebuildTable(const SchemaObject& table);
  void CreateObject(const SchemaObject& object);
  void InsertIntoSchema(const SchemaObject& object);
  void EditSchema(const std::string& sql);
  std::string UnusedName() const;

  const SqliteConnection& scratch_;
  SqlScript& script_;
  const SqlDifference& difference_;
  const int oldest_sqlite_version_;
  bool schema_is_writable_ = false;
  std::set<std::string> old_texts_;  // tables
};

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_SCHEMA_CHANGES_H_

#include "sqldelta/sql_difference.h"

#include <algorithm>

#include "sqldelta/error.h"

namespace tolm::sqldelta {

SqlDifference::SqlDifference(const SqliteConnection& scratch)
    : scratch_(scratch),
      old_schema_(ReadSchema(scratch, "main")),
      new_schema_(ReadSchema(scratch, kNew)),
      rowids_are_content_(RowidsAreContent(old_schema_) || RowidsAreContent(new_schema_)) {
  FindChanges();
}

bool SqlDifference::IsChanged(const std::string& table) const {
  return std::find(changed_tables_.begin(), changed_tables_.end(), table) != changed_tables_.end();
}

TableLayout SqlDifference::LayoutOf(const std::string& table) const {
  TableLayout layout = ReadLayout(scratch_, kNew, table, rowids_are_content_);
  if (layout.keys != ReadLayout(scratch_, "main", table, rowids_are_content_).keys) {
    layout = ReadLayout(scratch_, kNew, table, true);
  }
  return layout;
}

bool SqlDifference::RowsDiffer(const TableLayout& table) const {
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

void SqlDifference::FindChanges() {
  for (const std::string& table : TablesOf(new_schema_)) {
    const SchemaObject& object = new_schema_.at({"table", table});
    if (!Holds(old_schema_, object) || RowsDiffer(LayoutOf(table))) {
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
void SqlDifference::RequireNumbers(const std::string& schema_name, const std::string& table) const {
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

std::string SelectAll(const TableLayout& table, const std::string& schema_name) {
  const bool is_a_set = IsInternal(table.name);
  const Names columns = is_a_set ? table.columns : AllOf(table);
  return "SELECT " + Join(Quoted(columns), ",") + " FROM " + schema_name + "." +
         QuoteName(table.name) + " ORDER BY " + Join(Quoted(is_a_set ? columns : table.keys), ",");
}

}  // namespace tolm::sqldelta

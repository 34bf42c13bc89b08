#include "sqldelta/sql_rows.h"

#include <algorithm>

#include "sqldelta/sql_digest.h"

namespace tolm::sqldelta {
namespace {

// Rows to be updated, with columns k1, k2... and c1, c2...
constexpr char kRows[] = "temp.tolm_rows";
// So many sets of columns get updates of their own; what is beyond is written with all of them.
constexpr std::size_t kMaxMasks = 8;
constexpr int kUpsertVersion = 3024000;
constexpr int kUpdateFromVersion = 3033000;
constexpr std::int64_t kFirstRowsBytes = 4 * 1024;

// The keys of `a` and those of `b`, which are aliases of tables with the same keys.
std::string SameKeys(const TableLayout& table, const std::string& a, const std::string& b) {
  Names conditions;
  for (const std::string& key : Quoted(table.keys)) {
    conditions.push_back(a + "." + key + "=" + b + "." + key);
  }
  return Join(conditions, " AND ");
}

// The same with `d`, whose keys have numbers.
std::string SameNumberedKeys(const TableLayout& table, const std::string& a) {
  Names conditions;
  for (std::size_t i = 0; i < table.keys.size(); ++i) {
    // First the table's own column: its collation counts.
    conditions.push_back(a + "." + QuoteName(table.keys[i]) + "=d.k" + std::to_string(i + 1));
  }
  return Join(conditions, " AND ");
}

Names Assignments(const Names& columns, const Names& values) {
  Names assignments;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    assignments.push_back(QuoteName(columns[i]) + "=" + values[i]);
  }
  return assignments;
}

}  // namespace

// What one row of SelectBoth says.
struct RowChanges::RowChange {
  bool goes = false;  // also when it comes again as another one
  ColumnMask changed;
  bool Changes() const { return std::find(changed.begin(), changed.end(), true) != changed.end(); }
};

RowChanges::RowChanges(SqliteConnection& scratch, SqlScript& script, TableLayout table,
                       const Options& options)
    : scratch_(scratch),
      script_(script),
      table_(std::move(table)),
      options_(options),
      keys_(static_cast<int>(table_.keys.size())),
      columns_(static_cast<int>(table_.columns.size())) {
  SqliteRows rows(scratch_, SelectBoth("LEFT JOIN"));
  while (rows.Next()) {
    Note(rows, Classify(rows));
  }
  if (masks_.size() > kMaxMasks) {
    ColumnMask all(table_.columns.size());
    for (const ColumnMask& mask : masks_) {
      std::transform(all.begin(), all.end(), mask.begin(), all.begin(),
                     [](bool a, bool b) { return a || b; });
    }
    masks_ = {all};
    any_mask_ = true;
  }
}

std::set<std::string> RowChanges::ChangedColumns() const {
  std::set<std::string> changed;
  for (const ColumnMask& mask : masks_) {
    const Names names = Masked(mask);
    changed.insert(names.begin(), names.end());
  }
  return changed;
}

void RowChanges::GuardFirstRows() {
  if (first_keys_.empty()) {
    return;
  }
  Names numbered;
  for (int i = 1; i <= keys_; ++i) {
    numbered.push_back("column" + std::to_string(i) + " AS k" + std::to_string(i));
  }
  const std::string from = "(SELECT " + Join(numbered, ",") + " FROM (VALUES(" +
                           Join(first_keys_, "),(") + "))) d CROSS JOIN " + InMain(table_.name) +
                           " t ON " + SameNumberedKeys(table_, "t");
  for (const Names& group : Grouped(Quoted(AllOf(table_), "t."))) {
    script_.Guard(ExactDigest(scratch_, SelectDigits(scratch_, group, from)));
  }
}

void RowChanges::Write() {
  if (deleted_rows_ > 0) {
    WriteDeletions();
  }
  if (options_.has_checks && !masks_.empty()) {
    script_.EnforceChecks(!options_.checks_change, !options_.checks_change);
  }
  for (const ColumnMask& mask : masks_) {
    if (CanUpsert()) {
      WriteUpserts(mask);
    } else {
      WriteJoinedUpdates(mask);
    }
  }
  if (InsertedRows() > 0) {
    if (options_.has_checks) {
      script_.EnforceChecks(false, !options_.checks_change);
    }
    WriteInsertions();
  }
}

// Old rows, each with what it becomes: NULL keys where it is gone.
std::string RowChanges::SelectBoth(const char* join) const {
  const Names all = AllOf(table_);
  return "SELECT " + Join(Concatenated(Quoted(all, "o."), Quoted(all, "n.")), ",") + " FROM " +
         InMain(table_.name) + " o " + join + " " + kNew + "." + QuoteName(table_.name) + " n ON " +
         SameKeys(table_, "n", "o") + " ORDER BY " + Join(Quoted(table_.keys, "o."), ",");
}

RowChanges::RowChange RowChanges::Classify(const SqliteRows& rows) const {
  RowChange change;
  change.changed.resize(table_.columns.size());
  change.goes = rows.IsNull(keys_ + columns_);
  for (int i = 0; i < keys_ && !change.goes; ++i) {
    change.goes = !rows.Same(i, keys_ + columns_ + i);  // "A" for "a" in a NOCASE key
  }
  for (int i = 0; i < columns_ && !change.goes; ++i) {
    const std::size_t at = static_cast<std::size_t>(i);
    change.changed[at] = !rows.Same(keys_ + i, 2 * keys_ + columns_ + i);
    // Two rows may swap values that must be unique at every moment.
    change.goes = change.changed[at] && table_.unique_columns.count(table_.columns[at]) != 0;
  }
  return change;
}

void RowChanges::Note(const SqliteRows& rows, const RowChange& change) {
  ++old_rows_;
  if (!change.goes && !change.Changes()) {
    return;
  }
  ++touched_rows_;
  first_bytes_ += BytesOf(rows, 0, keys_ + columns_);
  if (first_keys_.empty() || first_bytes_ <= kFirstRowsBytes) {
    first_keys_.push_back(Literals(rows, 0, keys_));
  }
  if (change.goes) {
    ++deleted_rows_;
  } else {
    masks_.insert(change.changed);
  }
}

void RowChanges::WriteDeletions() {
  const std::string delete_from = "DELETE FROM " + InMain(table_.name);
  if (deleted_rows_ == old_rows_) {
    script_.Line(delete_from + ";");
    return;
  }
  {
    SqliteRows rows(scratch_, SelectBoth("LEFT JOIN"));
    // Not while the rows are being read.
    const std::string among = delete_from + " WHERE " + KeyTuple() + " IN (";
    SqlRows lines(
        script_,
        keys_ == 1 ? SqlRows::Form{among, ",", ")"} : SqlRows::Form{among + "VALUES(", "),(", "))"},
        true);
    while (rows.Next()) {
      if (Classify(rows).goes) {
        lines.Add(Literals(rows, 0, keys_));
      }
    }
    lines.Finish();
  }
  script_.ExecuteDeferred();
}

// A row with the columns that change would be refused, or be another one, where not all of the
// others may be left out.
bool RowChanges::CanUpsert() const {
  return options_.oldest_sqlite_version >= kUpsertVersion && !options_.has_checks &&
         table_.takes_partial_rows;
}

void RowChanges::WriteUpserts(const ColumnMask& mask) {
  const Names columns = Masked(mask);
  Names targets = Concatenated(table_.keys, columns);
  Names sources = Numbered("column", targets.size());
  for (const auto& [column, filler] : table_.fillers) {
    if (std::find(targets.begin(), targets.end(), column) == targets.end()) {
      targets.push_back(column);
      sources.push_back(filler);
    }
  }
  const std::string insert_into =
      "INSERT INTO " + InMain(table_.name) + "(" + Join(Quoted(targets), ",") + ") ";
  const bool filled = sources.size() > table_.keys.size() + columns.size();
  const std::string on_conflict = std::string(filled ? ") WHERE 1" : "") + " ON CONFLICT(" +
                                  Join(Quoted(table_.keys), ",") + ") DO UPDATE SET " +
                                  Join(Assignments(columns, Quoted(columns, "excluded.")), ",");
  SqlRows lines(script_, insert_into + (filled ? "SELECT " + Join(sources, ",") + " FROM (" : ""),
                on_conflict, true);
  AddUpdates(lines, mask);
  script_.ExecuteDeferred();
}

void RowChanges::WriteJoinedUpdates(const ColumnMask& mask) {
  const Names columns = Masked(mask);
  const Names keys = Numbered("k", table_.keys.size());
  const Names numbered = Concatenated(keys, Numbered("c", columns.size()));
  const bool looked_up = options_.oldest_sqlite_version < kUpdateFromVersion;
  // What is looked up needs an order.
  const std::string order = looked_up ? ",PRIMARY KEY(" + Join(keys, ",") + ")" : "";
  script_.Line("CREATE TEMP TABLE tolm_rows(" + Join(numbered, ",") + order + ");");
  SqlRows lines(script_, std::string("INSERT INTO ") + kRows + " ", "", false);
  AddUpdates(lines, mask);
  script_.Line(looked_up ? LookedUpUpdate(columns) : JoinedUpdate(columns));
  script_.Line(std::string("DROP TABLE ") + kRows + ";");
}

std::string RowChanges::JoinedUpdate(const Names& columns) const {
  Names values;
  for (const std::string& name : Numbered("c", columns.size())) {
    values.push_back("d." + name);
  }
  return "UPDATE " + InMain(table_.name) + " AS t SET " + Join(Assignments(columns, values), ",") +
         " FROM " + kRows + " AS d WHERE " + SameNumberedKeys(table_, "t") + ";";
}

std::string RowChanges::LookedUpUpdate(const Names& columns) const {
  Names values;
  for (const std::string& name : Numbered("c", columns.size())) {
    values.push_back("(SELECT d." + name + " FROM " + kRows + " d WHERE " +
                     SameNumberedKeys(table_, InMain(table_.name)) + ")");
  }
  return "UPDATE " + InMain(table_.name) + " SET " + Join(Assignments(columns, values), ",") +
         " WHERE " + KeyTuple() + " IN (SELECT " + Join(Numbered("k", table_.keys.size()), ",") +
         " FROM " + kRows + ");";
}

std::string RowChanges::KeyTuple() const {
  const std::string names = Join(Quoted(table_.keys), ",");
  return keys_ == 1 ? names : "(" + names + ")";
}

Names RowChanges::Masked(const ColumnMask& mask) const {
  Names columns;
  for (std::size_t i = 0; i < mask.size(); ++i) {
    if (mask[i]) {
      columns.push_back(table_.columns[i]);
    }
  }
  return columns;
}

void RowChanges::AddUpdates(SqlRows& lines, const ColumnMask& mask) {
  const int first_new = 2 * keys_ + columns_;
  SqliteRows rows(scratch_, SelectBoth("JOIN"));
  while (rows.Next()) {
    const RowChange change = Classify(rows);
    if (change.goes || !(any_mask_ ? change.Changes() : change.changed == mask)) {
      continue;
    }
    Names values = {Literals(rows, 0, keys_)};
    for (std::size_t i = 0; i < mask.size(); ++i) {
      if (mask[i]) {
        values.push_back(Literal(rows.Value(first_new + static_cast<int>(i))));
      }
    }
    lines.Add(Join(values, ","));
  }
  lines.Finish();
}

std::int64_t RowChanges::InsertedRows() const {
  const std::string count = std::string("SELECT count(*) FROM ") + kNew + ".";
  return scratch_.Single(count + QuoteName(table_.name)).integer - (old_rows_ - deleted_rows_);
}

// With the columns of @p names.
std::string RowChanges::SelectInsertions(const Names& names) const {
  return "SELECT " + Join(Quoted(names, "n."), ",") + " FROM " + kNew + "." +
         QuoteName(table_.name) + " n LEFT JOIN " + InMain(table_.name) + " o ON " +
         SameKeys(table_, "o", "n") + " WHERE o." + QuoteName(table_.keys.front()) +
         " IS NULL ORDER BY " + Join(Quoted(table_.keys, "n."), ",");
}

// All but those that get NULL in every row, also when they are not spoken of.
Names RowChanges::InsertedColumns() const {
  const Names all = AllOf(table_);
  std::vector<bool> has_value(all.size());
  SqliteRows rows(scratch_, SelectInsertions(all));
  while (rows.Next()) {
    for (std::size_t i = 0; i < all.size(); ++i) {
      has_value[i] = has_value[i] || !rows.IsNull(static_cast<int>(i));
    }
  }
  Names inserted;
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (has_value[i] || i < table_.keys.size() || table_.default_columns.count(all[i]) != 0) {
      inserted.push_back(all[i]);
    }
  }
  return inserted;
}

void RowChanges::WriteInsertions() {
  const Names columns = InsertedColumns();
  {
    SqliteRows rows(scratch_, SelectInsertions(columns));
    SqlRows lines(script_,
                  "INSERT INTO " + InMain(table_.name) + "(" + Join(Quoted(columns), ",") + ") ",
                  "", true);
    while (rows.Next()) {
      lines.Add(Literals(rows, 0, static_cast<int>(columns.size())));
    }
    lines.Finish();
  }
  script_.ExecuteDeferred();
}

}  // namespace tolm::sqldelta

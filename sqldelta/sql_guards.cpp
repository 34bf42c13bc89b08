#include "sqldelta/sql_guards.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "sqldelta/sql_tokens.h"

namespace tolm::sqldelta {
namespace {

// Of tables with so many bytes of values all of them are compared, of larger ones only some or
// sums.
constexpr std::int64_t kExactBytes = 32 * 1024;

bool HasForeignKeys(const Schema& schema) {
  return std::any_of(schema.begin(), schema.end(), [](const auto& entry) {
    return entry.second.type == "table" && !entry.second.IsVirtual() &&
           Contains(entry.second.sql, "references");
  });
}

// The columns that are named, or all when none are; the keys when nothing is left.
Names ToSum(const TableLayout& layout, const std::set<std::string>& only) {
  Names names;
  for (const std::string& column : layout.columns) {
    if (only.empty() || only.count(column) != 0) {
      names.push_back(column);
    }
  }
  return names.empty() ? layout.keys : names;
}

std::vector<SummedColumn> Chosen(const std::map<std::string, SummedColumn>& columns,
                                 const Names& names) {
  std::vector<SummedColumn> chosen;
  for (const std::string& name : names) {
    chosen.push_back(columns.at(name));
  }
  return chosen;
}

}  // namespace

void SqlGuards::GuardBeginning() {
  script_.Guard(SchemaDigest(scratch_));
  script_.Guard(
      "SELECT user_version||' '||application_id FROM pragma_user_version,pragma_application_id");
  if (HasForeignKeys(difference_.old_schema()) || HasForeignKeys(difference_.new_schema())) {
    // Where they are enforced, dropping a table would empty others.
    script_.Guard("SELECT foreign_keys FROM pragma_foreign_keys");
  }
  Names counts;
  for (const std::string& table : TablesOf(difference_.old_schema())) {
    const bool is_touched =
        difference_.IsChanged(table) || !HasOrdinary(difference_.new_schema(), table);
    if (IsInternal(table) || (is_touched && IsSmall(table))) {
      GuardContent(table);
      exact_tables_.insert(table);
    } else {
      counts.push_back("(SELECT count(*) FROM " + InMain(table) + ")");
    }
  }
  for (const Names& group : Grouped(counts)) {
    script_.Guard("SELECT " + Balanced(group, "||' '||"));
  }
}

void SqlGuards::GuardChecks(const std::string& table) {
  const Names checks = ChecksOf(difference_.new_schema().at({"table", table}).sql);
  if (checks.empty() || IsExact(table)) {
    return;
  }
  const TableLayout layout = ReadLayout(scratch_, "main", table, difference_.rowids_are_content());
  script_.Guard(SumDigest(Chosen(ColumnsToSum(layout, {}), layout.keys), {},
                          InMain(table) + " WHERE NOT(" + Balanced(checks, " AND ") + ")"));
}

void SqlGuards::GuardValues(const std::string& table) {
  GuardSums(table, {}, {});
}

void SqlGuards::GuardValuesToChange(const std::string& table, const std::set<std::string>& columns,
                                    bool guarded) {
  if (!guarded) {
    GuardSums(table, {}, columns);
  } else if (!columns.empty()) {
    GuardSums(table, columns, columns);
  }
  summed_columns_[table] = columns;
}

void SqlGuards::GuardEnd() {
  script_.Guard(SchemaDigest(scratch_));
  for (const std::string& table : difference_.changed_tables()) {
    const auto summed = summed_columns_.find(table);
    if (IsInternal(table) || IsSmall(table)) {
      GuardContent(table);
    } else if (summed != summed_columns_.end()) {
      GuardSums(table, summed->second, {});
    } else {
      script_.Guard("SELECT count(*) FROM " + InMain(table));
    }
  }
}

// Whether the table's content can be compared exactly. Reads no more of it than that.
bool SqlGuards::IsSmall(const std::string& table) const {
  const TableLayout layout = ReadLayout(scratch_, "main", table, true);
  SqliteRows rows(scratch_,
                  "SELECT " + Join(Quoted(AllOf(layout)), ",") + " FROM " + InMain(table));
  std::int64_t bytes = 0;
  while (bytes <= kExactBytes && rows.Next()) {
    bytes += BytesOf(rows, 0, rows.Width());
  }
  return bytes <= kExactBytes;
}

// Exactly what the table in "main" holds now.
void SqlGuards::GuardContent(const std::string& table) {
  const bool is_internal = IsInternal(table);
  const TableLayout layout =
      ReadLayout(scratch_, "main", table, is_internal || difference_.rowids_are_content());
  for (const Names& group : Grouped(is_internal ? layout.columns : AllOf(layout))) {
    script_.Guard(ExactDigest(scratch_, SelectDigits(scratch_, Quoted(group), InMain(table))));
  }
}

// Sums over what is in these columns of the table now, or in all when there are none, and samples
// of the texts in some.
void SqlGuards::GuardSums(const std::string& table, const std::set<std::string>& only,
                          const std::set<std::string>& sampled) {
  const TableLayout layout = ReadLayout(scratch_, "main", table, difference_.rowids_are_content());
  const std::map<std::string, SummedColumn> columns = ColumnsToSum(layout, sampled);
  const std::vector<SummedColumn> keys = Chosen(columns, layout.keys);
  for (const Names& group : Grouped(ToSum(layout, only))) {
    script_.Guard(SumDigest(keys, Chosen(columns, group), InMain(table)));
  }
}

// By name.
std::map<std::string, SummedColumn> SqlGuards::ColumnsToSum(
    const TableLayout& layout, const std::set<std::string>& sampled) const {
  const Names names = AllOf(layout);
  std::vector<SummedColumn> columns;
  for (const std::string& name : names) {
    columns.push_back({QuoteName(name), 0, sampled.count(name) != 0});
  }
  SqliteRows rows(scratch_, "SELECT " + Join(Quoted(names), ",") + " FROM " + InMain(layout.name));
  while (rows.Next()) {
    for (std::size_t i = 0; i < columns.size(); ++i) {
      columns[i].types |= 1U << rows.Type(static_cast<int>(i));
    }
  }
  std::map<std::string, SummedColumn> by_name;
  for (std::size_t i = 0; i < names.size(); ++i) {
    by_name[names[i]] = columns[i];
  }
  return by_name;
}

}  // namespace tolm::sqldelta

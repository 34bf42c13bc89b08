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

// Whether an expression may speak of the column.
bool MayName(const std::string& expression, const std::string& column) {
  std::string name = column;
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; });
  return name.find_first_of("\"`[]'") != std::string::npos || Contains(expression, name);
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

// What is in a column, as far as sums care.
class ColumnContent {
 public:
  void Note(const SqliteRows& rows, int column) {
    const int type = rows.Type(column);
    types_ |= 1U << type;
    if (type == SQLITE_INTEGER) {
      const std::int64_t value = rows.Integer(column);
      small_ = small_ && value > -kSmall && value < kSmall;
    } else if (type == SQLITE_TEXT || type == SQLITE_BLOB) {
      NoteText(rows, column);
    }
    ++rows_;
  }

  SummedColumn Summed(const std::string& name, bool sampled) const {
    SummedColumn column;
    column.expression = QuoteName(name);
    column.types = types_;
    column.small = small_;
    column.has_gaps = has_gaps_;
    column.is_ascii = is_ascii_;
    column.sampled = sampled;
    column.frequent = Frequent(sampled ? kLeastShareOfSampled : kLeastShare);
    return column;
  }

 private:
  static constexpr std::int64_t kSmall = std::int64_t{1} << 30;
  // So many different texts are counted, of so many bytes each.
  static constexpr std::size_t kTexts = 64;
  static constexpr std::int64_t kTextBytes = 32;
  // One in so many rows has a frequent one: what is gained by each has to pay for looking at those
  // before it.
  static constexpr std::int64_t kLeastShare = 5;
  static constexpr std::int64_t kLeastShareOfSampled = 50;

  void NoteText(const SqliteRows& rows, int column) {
    const SqliteValue value = rows.Value(column);
    has_gaps_ = has_gaps_ || value.bytes.empty() || !value.utf16.empty() ||
                value.bytes.find('\0') != std::string::npos;
    is_ascii_ = is_ascii_ && value.type == SQLITE_TEXT && value.utf16.empty() &&
                std::all_of(value.bytes.begin(), value.bytes.end(),
                            [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (value.type != SQLITE_TEXT || rows.Bytes(column) > kTextBytes) {
      return;
    }
    const std::string literal = Literal(value);
    const auto found = counts_.find(literal);
    if (found != counts_.end()) {
      ++found->second;
    } else if (counts_.size() < kTexts && literal.front() == '\'') {  // no expression
      counts_[literal] = 1;
    }
  }

  std::vector<std::string> Frequent(std::int64_t least_share) const {
    std::vector<std::pair<std::int64_t, std::string>> found;
    for (const auto& [literal, count] : counts_) {
      if (count * least_share >= rows_) {
        found.emplace_back(-count, literal);
      }
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> literals;
    for (const auto& [count, literal] : found) {
      literals.push_back(literal);
    }
    return literals;
  }

  std::int64_t rows_ = 0;
  unsigned types_ = 0;
  bool small_ = true;
  bool has_gaps_ = false;
  bool is_ascii_ = true;
  std::map<std::string, std::int64_t> counts_;  // by literal
};

void RemoveWhatSomeCannotAsk(Names& conditions) {
  conditions.erase(std::remove_if(conditions.begin(), conditions.end(),
                                  [](const std::string& condition) {
                                    return !EverySqliteKnowsFunctionsOf(condition);
                                  }),
                   conditions.end());
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

void SqlGuards::GuardChecks(const std::string& table, bool made_anew) {
  Names conditions = ChecksOf(difference_.new_schema().at({"table", table}).sql);
  if (!made_anew) {
    RemoveWhatSomeCannotAsk(conditions);
  }
  GuardConditions(table, conditions);
}

void SqlGuards::GuardChecksAcross(const std::string& table, const std::set<std::string>& changed) {
  const Names all = AllOf(ReadLayout(scratch_, "main", table, true));
  Names conditions;
  for (const std::string& check : ChecksOf(difference_.new_schema().at({"table", table}).sql)) {
    const auto is_named = [&](const std::string& column) { return MayName(check, column); };
    const auto named = std::count_if(all.begin(), all.end(), is_named);
    const bool has_others = named > 1 || Contains(check, "rowid") || Contains(check, "oid");
    if (has_others && std::any_of(changed.begin(), changed.end(), is_named)) {
      conditions.push_back(check);
    }
  }
  RemoveWhatSomeCannotAsk(conditions);
  GuardConditions(table, conditions);
}

void SqlGuards::GuardConditions(const std::string& table, const Names& conditions) {
  if (conditions.empty() || IsExact(table)) {
    return;
  }
  const TableLayout layout = ReadLayout(scratch_, "main", table, difference_.rowids_are_content());
  script_.Guard(SumDigest(Chosen(ColumnsToSum(layout, {}), layout.keys), {},
                          InMain(table) + " WHERE NOT(" + Balanced(conditions, " AND ") + ")"));
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
  std::vector<ColumnContent> contents(names.size());
  SqliteRows rows(scratch_, "SELECT " + Join(Quoted(names), ",") + " FROM " + InMain(layout.name));
  while (rows.Next()) {
    for (std::size_t i = 0; i < contents.size(); ++i) {
      contents[i].Note(rows, static_cast<int>(i));
    }
  }
  std::map<std::string, SummedColumn> by_name;
  for (std::size_t i = 0; i < names.size(); ++i) {
    by_name[names[i]] = contents[i].Summed(names[i], sampled.count(names[i]) != 0);
  }
  return by_name;
}

}  // namespace tolm::sqldelta

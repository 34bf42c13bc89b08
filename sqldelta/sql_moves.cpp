#include "sqldelta/sql_moves.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <optional>
#include <unordered_map>

#include "sqldelta/sql_text.h"

namespace tolm::sqldelta {
namespace {

// So far ahead the same row is looked for.
constexpr std::size_t kWindow = 4096;
// After so many rows that are not found anywhere the two have no common order.
constexpr std::int64_t kMaxLost = 200;
// So much is kept in memory.
constexpr std::size_t kMaxMoves = 100'000;
// Negative numbers are free for rows on the move, and no number overflows.
constexpr std::int64_t kMaxKey = std::int64_t{1} << 60;

std::string SelectInOrder(const TableLayout& table, const std::string& schema_name) {
  return "SELECT " + Join(Quoted(AllOf(table)), ",") + " FROM " + schema_name + "." +
         QuoteName(table.name) + " ORDER BY " + QuoteName(table.keys.front());
}

// Of all but the key (FNV-1a). Equal hashes of different rows do no harm.
std::uint64_t HashOf(const SqliteRows& rows) {
  std::uint64_t hash = 14695981039346656037U;
  const auto add = [&](const void* data, std::size_t size) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
      hash = (hash ^ bytes[i]) * 1099511628211U;
    }
  };
  for (int column = 1; column < rows.Width(); ++column) {
    const SqliteValue value = rows.Value(column);
    add(&value.type, sizeof value.type);
    add(&value.integer, sizeof value.integer);
    add(&value.real, sizeof value.real);
    add(value.bytes.data(), value.bytes.size());
    add(value.utf16.data(), value.utf16.size());
  }
  return hash;
}

}  // namespace

// The rows of a table in their order, some way ahead.
class RowMoves::Window {
 public:
  struct Row {
    std::int64_t key = 0;
    std::uint64_t hash = 0;
  };

  Window(const SqliteConnection& scratch, const TableLayout& table, const std::string& schema_name)
      : rows_(scratch, SelectInOrder(table, schema_name)) {}

  // None behind the last row.
  const Row* At(std::size_t ahead) {
    while (!at_end_ && ahead_.size() <= ahead) {
      Read();
    }
    return ahead < ahead_.size() ? &ahead_[ahead] : nullptr;
  }

  void Pop() {
    const auto found = places_.find(ahead_.front().hash);
    if (found != places_.end() && found->second == popped_) {
      places_.erase(found);
    }
    ahead_.pop_front();
    ++popped_;
  }

  // How far ahead a row with this hash is, of those that have been read.
  std::optional<std::size_t> Find(std::uint64_t hash) const {
    const auto found = places_.find(hash);
    return found == places_.end() ? std::nullopt
                                  : std::optional<std::size_t>(found->second - popped_);
  }

 private:
  void Read() {
    at_end_ = !rows_.Next();
    if (!at_end_) {
      ahead_.push_back({rows_.Integer(0), HashOf(rows_)});
      places_.emplace(ahead_.back().hash, popped_ + ahead_.size() - 1);
    }
  }

  SqliteRows rows_;
  bool at_end_ = false;
  std::deque<Row> ahead_;
  std::size_t popped_ = 0;
  std::unordered_map<std::uint64_t, std::size_t> places_;  // of the first with each hash
};

RowMoves::RowMoves(const SqliteConnection& scratch, const TableLayout& table) : table_(table) {
  Window old_rows(scratch, table, "main");
  Window new_rows(scratch, table, kNew);
  Align(old_rows, new_rows);
  cost_ += static_cast<std::int64_t>(runs_.size() + dropped_.size());
}

void RowMoves::Align(Window& old_rows, Window& new_rows) {
  std::int64_t lost = 0;
  while (possible_ && old_rows.At(0) != nullptr && new_rows.At(0) != nullptr) {
    if (old_rows.At(0)->hash == new_rows.At(0)->hash) {
      Pair(old_rows, new_rows);
      continue;
    }
    Gap gap = FindGap(old_rows, new_rows);
    if (gap.old_count == kWindow) {
      gap = {1, 1};
      possible_ = ++lost < kMaxLost;
    }
    cost_ += static_cast<std::int64_t>(gap.new_count);
    if (gap.old_count == gap.new_count) {
      for (std::size_t i = 0; i < gap.old_count; ++i) {
        Pair(old_rows, new_rows);  // changed where they are
      }
      continue;
    }
    Drop(old_rows, gap.old_count);
    for (std::size_t i = 0; i < gap.new_count; ++i) {
      new_rows.Pop();
    }
  }
  while (possible_ && old_rows.At(0) != nullptr) {
    Drop(old_rows, 1);
  }
  for (; possible_ && new_rows.At(0) != nullptr; new_rows.Pop()) {
    ++cost_;
  }
}

// The smallest one before two rows with the same content, both of which are followed by such ones.
RowMoves::Gap RowMoves::FindGap(Window& old_rows, Window& new_rows) {
  Gap gap = {kWindow, kWindow};
  const auto goes_on = [&](std::size_t ahead, std::size_t found) {
    const auto* const next = old_rows.At(ahead + 1);
    const auto* const new_next = new_rows.At(found + 1);
    return next == nullptr || new_next == nullptr || next->hash == new_next->hash;
  };
  new_rows.At(kWindow);
  for (std::size_t ahead = 0; ahead < std::min(kWindow, gap.old_count + gap.new_count); ++ahead) {
    const auto* const row = old_rows.At(ahead);
    const auto found = row == nullptr ? std::nullopt : new_rows.Find(row->hash);
    if (found && ahead + *found < gap.old_count + gap.new_count && goes_on(ahead, *found)) {
      gap = {ahead, *found};
    }
  }
  return gap;
}

void RowMoves::Pair(Window& old_rows, Window& new_rows) {
  const std::int64_t from = old_rows.At(0)->key;
  const std::int64_t to = new_rows.At(0)->key;
  if (runs_.empty() || drops_go_on_ || runs_.back().change != to - from) {
    runs_.push_back({from, from, to - from});
  }
  runs_.back().last = from;
  ++kept_rows_;
  moved_rows_ += to != from ? 1 : 0;
  drops_go_on_ = false;
  possible_ =
      possible_ && from > 0 && to > 0 && from < kMaxKey && to < kMaxKey && runs_.size() < kMaxMoves;
  old_rows.Pop();
  new_rows.Pop();
}

void RowMoves::Drop(Window& old_rows, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::int64_t key = old_rows.At(0)->key;
    if (!drops_go_on_) {
      dropped_.push_back({key, key, 0});
    }
    dropped_.back().last = key;
    drops_go_on_ = true;
    possible_ = possible_ && key > 0 && key < kMaxKey && dropped_.size() < kMaxMoves;
    old_rows.Pop();
  }
}

void RowMoves::Write(SqlScript& script) const {
  if (AreMost()) {
    WriteAll(script);
  } else {
    WriteOneByOne(script);
  }
}

// By way of a copy, from which each row is taken once.
void RowMoves::WriteAll(SqlScript& script) const {
  const std::string table = InMain(table_.name);
  const std::string copied = Join(Numbered("c", table_.columns.size()), ",");
  const std::string and_copied = copied.empty() ? "" : "," + copied;
  const std::string all = Join(Quoted(AllOf(table_)), ",");
  script.Line("CREATE TEMP TABLE tolm_kept(k INTEGER PRIMARY KEY" + and_copied + ");");
  script.Line("INSERT INTO temp.tolm_kept SELECT " + all + " FROM " + table + ";");
  script.Line("DELETE FROM " + table + ";");
  script.Line("CREATE TEMP TABLE tolm_runs(a,b,d);");
  SqlRows lines(script, "INSERT INTO temp.tolm_runs ", "", false);
  for (const Run& run : runs_) {
    lines.Add(std::to_string(run.first) + "," + std::to_string(run.last) + "," +
              std::to_string(run.change));
  }
  lines.Finish();
  script.Line("INSERT INTO " + table + "(" + all + ") SELECT k+d" + and_copied +
              " FROM temp.tolm_runs CROSS JOIN temp.tolm_kept WHERE k BETWEEN a AND b;");
  script.Line("DROP TABLE temp.tolm_kept;");
  script.Line("DROP TABLE temp.tolm_runs;");
}

void RowMoves::WriteOneByOne(SqlScript& script) const {
  const std::string table = InMain(table_.name);
  const std::string key = QuoteName(table_.keys.front());
  const auto range = [&](const Run& run) {
    return " WHERE " + key + " BETWEEN " + std::to_string(run.first) + " AND " +
           std::to_string(run.last);
  };
  const std::string update = "UPDATE " + table + " SET " + key + "=-" + key;
  SqlRows lines(script, {"", ";", ""}, false);
  for (const Run& run : dropped_) {
    lines.Add("DELETE FROM " + table + range(run));
  }
  for (const Run& run : runs_) {
    if (run.change != 0) {
      // By way of negative numbers: no two rows may have one at any time.
      lines.Add(update + (run.change > 0 ? "-" : "+") + std::to_string(std::abs(run.change)) +
                range(run));
    }
  }
  lines.Add(update + " WHERE " + key + "<0");
  lines.Finish();
}

}  // namespace tolm::sqldelta

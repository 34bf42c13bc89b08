#include "publish/plausibility.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "base/human_text.h"
#include "package/error.h"
#include "publish/list.h"
#include "publish/sqlite_file.h"

namespace tolm::publish {
namespace {

// "/geo.sqlite" as people call it.
std::string Shown(const std::string& key) {
  return key.substr(1);
}

// "-33.4 %". Rounded up, so that it is never what the limit says, and never 100 while something is
// left.
std::string LossText(std::uint64_t before, std::uint64_t after) {
  const double lost = static_cast<double>(before - after) * 100 / static_cast<double>(before);
  const double shown = after == 0 ? 100 : std::min(std::ceil(lost * 10) / 10, 99.9);
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), shown == std::floor(shown) ? "-%.0f %%" : "-%.1f %%",
                shown);
  return text.data();
}

std::string RowsText(std::uint64_t rows) {
  return base::Grouped(rows) + (rows == 1 ? " row" : " rows");
}

std::string FilesText(std::uint64_t files) {
  return base::Grouped(files) + (files == 1 ? " file" : " files");
}

std::uint64_t BytesOf(const Tree& tree) {
  std::uint64_t bytes = 0;
  for (const auto& entry : tree.files) {
    bytes += entry.second.size_bytes;
  }
  return bytes;
}

std::size_t TablesInCommon(const TableRows& before, const TableRows& after) {
  return static_cast<std::size_t>(
      std::count_if(before.rows.begin(), before.rows.end(),
                    [&](const auto& table) { return after.rows.count(table.first) != 0; }));
}

std::size_t BeginningInCommon(const std::string& left, const std::string& right) {
  const auto end = std::mismatch(left.begin(), left.end(), right.begin(), right.end());
  return static_cast<std::size_t>(end.first - left.begin());
}

class Comparison {
 public:
  Comparison(const Tree& before, const Tree& after, int limit_percent)
      : before_(before), after_(after), limit_percent_(limit_percent) {}

  Shrinkage Run() {
    ReadCreated();
    for (const auto& [key, file] : before_.files) {
      CompareFile(key, file);
    }
    const std::vector<std::string> of_files = std::exchange(result_.findings, {});
    CompareBytes();
    if (IsTooMuch(before_.files.size(), after_.files.size(), kFewFiles)) {
      Find(FilesText(after_.files.size()) + ", " + base::Grouped(before_.files.size()) + " before",
           before_.files.size(), after_.files.size());
    }
    result_.findings.insert(result_.findings.end(), of_files.begin(), of_files.end());
    return std::move(result_);
  }

 private:
  bool IsTooMuch(std::uint64_t before, std::uint64_t after, std::uint64_t few) const {
    return after < before && before - after >= few &&
           static_cast<double>(before - after) * 100 >
               static_cast<double>(before) * static_cast<double>(limit_percent_);
  }

  void Find(const std::string& what, std::uint64_t before, std::uint64_t after) {
    result_.findings.push_back(what + " (" + LossText(before, after) + "); the limit is " +
                               std::to_string(limit_percent_) + " %");
  }

  // SQLite files whose rows were compared may be any size: VACUUM alone may halve one.
  void CompareBytes() {
    const std::uint64_t before = BytesOf(before_) - counted_bytes_before_;
    const std::uint64_t after = BytesOf(after_) - counted_bytes_;
    if (IsTooMuch(before, after, kFewBytes)) {
      const char* const which = counted_bytes_before_ == 0
                                    ? "all files together"
                                    : "all files but SQLite files whose rows are counted";
      Find(std::string(which) + " have " + base::Grouped(after) + " bytes, " +
               base::Grouped(before) + " before",
           before, after);
    }
  }

  static std::optional<TableRows> TablesOf(const TreeFile& file) {
    if (!IsSqliteFile(file.path)) {
      return std::nullopt;
    }
    return CountRows(file.path);
  }

  void CompareFile(const std::string& key, const TreeFile& file) {
    const auto found = after_.files.find(key);
    const bool is_gone = found == after_.files.end();
    if (is_gone ? renamed_.count(file.sha384) != 0 : found->second.sha384 == file.sha384) {
      return;
    }
    std::optional<TableRows> before;
    try {
      before = TablesOf(file);
    } catch (const package::Error& error) {
      result_.notes.push_back(Shown(key) + " of the release before: " + error.what());
    }
    if (!before) {
      FindEmptied(file);
      return;
    }
    if (is_gone) {
      CompareGone(file, *before);
      return;
    }
    const std::optional<TableRows> after = ReadNew(found->second);
    if (!after) {
      FindAllGone(Shown(key) + " is no SQLite file any more, and had table ", *before);
      return;
    }
    CompareTables(Shown(key), *before, *after);
    LeaveOut(file, *before, found->second, *after);
  }

  void LeaveOut(const TreeFile& before, const TableRows& tables_before, const TreeFile& after,
                const TableRows& tables) {
    if (tables_before.uncounted.empty() && tables.uncounted.empty()) {
      counted_bytes_before_ += before.size_bytes;
      counted_bytes_ += after.size_bytes;
    }
  }

  // Even if the sum of all files is far from its limit.
  void FindEmptied(const TreeFile& file) {
    const auto found = after_.files.find(file.key);
    if (found != after_.files.end() && found->second.size_bytes == 0 &&
        IsTooMuch(file.size_bytes, 0, kFewBytes)) {
      Find(Shown(file.key) + " is empty, and had " + base::Grouped(file.size_bytes) + " bytes",
           file.size_bytes, 0);
    }
  }

  // Files that are new are all read, so that none is released that nobody could open.
  void ReadCreated() {
    std::set<std::string> gone;
    for (const auto& [key, file] : before_.files) {
      if (after_.files.count(key) == 0) {
        gone.insert(file.sha384);
      }
    }
    for (const auto& [key, file] : after_.files) {
      if (before_.files.count(key) != 0) {
        continue;
      }
      std::optional<TableRows> tables = ReadNew(file);
      if (gone.count(file.sha384) != 0) {
        renamed_.insert(file.sha384);
      } else if (tables) {
        created_.emplace(key, std::move(*tables));
      }
    }
  }

  // With the new file that has most of its tables; of several, the one with the most similar name.
  void CompareGone(const TreeFile& gone, const TableRows& before) {
    const std::string& key = gone.key;
    const auto likeness = [&](const auto& file) {
      return std::make_pair(TablesInCommon(before, file.second),
                            BeginningInCommon(key, file.first));
    };
    const auto best = std::max_element(
        created_.begin(), created_.end(),
        [&](const auto& left, const auto& right) { return likeness(left) < likeness(right); });
    if (best == created_.end() || likeness(*best).first == 0) {
      FindAllGone(Shown(key) + " is gone, and with it table ", before);
      return;
    }
    CompareTables(Shown(best->first) + ", before " + Shown(key), before, best->second);
    LeaveOut(gone, before, after_.files.at(best->first), best->second);
    created_.erase(best);
  }

  void NoteLog(const TreeFile& file) {
    const auto log = after_.files.find(file.key + "-wal");
    if (log != after_.files.end() && log->second.size_bytes != 0) {
      result_.notes.push_back(Shown(file.key) +
                              " has a write-ahead log beside it that was not checkpointed: rows "
                              "that are only in " +
                              Shown(log->first) + " are not counted");
    }
  }

  std::optional<TableRows> ReadNew(const TreeFile& file) {
    try {
      std::optional<TableRows> tables = TablesOf(file);
      if (tables) {
        NoteLog(file);
        for (const auto& [table, reason] : tables->uncounted) {
          result_.notes.push_back(Shown(file.key) + ": " +
                                  (table.empty() ? "its tables" : "table " + table) +
                                  " cannot be counted: " + reason);
        }
      }
      return tables;
    } catch (const package::Error& error) {
      throw package::Error(error.code(), Shown(file.key) + ": " + error.what(),
                           error.errno_value());
    }
  }

  void FindAllGone(const std::string& what, const TableRows& before) {
    for (const auto& [table, rows] : before.rows) {
      if (IsTooMuch(rows, 0, 1)) {
        Find(what + table + " of " + RowsText(rows), rows, 0);
      }
    }
  }

  void CompareTables(const std::string& file, const TableRows& before, const TableRows& after) {
    for (const auto& [table, rows] : before.rows) {
      const auto found = after.rows.find(table);
      const std::string what = file + ": table " + table;
      if (found != after.rows.end()) {
        if (IsTooMuch(rows, found->second, found->second == 0 ? 1 : kFewRows)) {
          Find(what + " has " + RowsText(found->second) + ", " + base::Grouped(rows) + " before",
               rows, found->second);
        }
      } else if (after.uncounted.count(table) + after.uncounted.count("") == 0 &&
                 IsTooMuch(rows, 0, 1)) {
        Find(what + " is gone, and had " + RowsText(rows), rows, 0);
      }
    }
  }

  const Tree& before_;
  const Tree& after_;
  const int limit_percent_;
  std::set<std::string> renamed_;             // digests of files that have only another key now
  std::map<std::string, TableRows> created_;  // other new SQLite files, by key
  std::uint64_t counted_bytes_before_ = 0;    // of SQLite files that were compared by their rows
  std::uint64_t counted_bytes_ = 0;
  Shrinkage result_;
};

}  // namespace

Shrinkage FindShrinkage(const Tree& before, const Tree& after, int limit_percent) {
  return Comparison(before, after, limit_percent).Run();
}

}  // namespace tolm::publish

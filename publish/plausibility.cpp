#include "publish/plausibility.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>

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

class Comparison {
 public:
  Comparison(const Tree& before, const Tree& after, int limit_percent)
      : before_(before), after_(after), limit_percent_(limit_percent) {
    for (const auto& [key, file] : after.files) {
      if (before.files.count(key) == 0) {
        created_.emplace(file.sha384, key);
      }
    }
  }

  Shrinkage Run() {
    const std::uint64_t bytes_before = BytesOf(before_);
    const std::uint64_t bytes = BytesOf(after_);
    if (IsTooMuch(bytes_before, bytes, kFewBytes)) {
      Find("all files together have " + base::Grouped(bytes) + " bytes, " +
               base::Grouped(bytes_before) + " before",
           bytes_before, bytes);
    }
    if (IsTooMuch(before_.files.size(), after_.files.size(), kFewFiles)) {
      Find(FilesText(after_.files.size()) + ", " + base::Grouped(before_.files.size()) + " before",
           before_.files.size(), after_.files.size());
    }
    for (const auto& [key, file] : before_.files) {
      CompareFile(key, file);
    }
    RequireReadable();
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

  static std::optional<TableRows> TablesOf(const TreeFile& file) {
    if (!IsSqliteFile(file.path)) {
      return std::nullopt;
    }
    return CountRows(file.path);
  }

  void CompareFile(const std::string& key, const TreeFile& file) {
    const auto found = after_.files.find(key);
    const bool is_gone = found == after_.files.end();
    if (is_gone ? created_.count(file.sha384) != 0 : found->second.sha384 == file.sha384) {
      return;
    }
    std::optional<TableRows> before;
    try {
      before = TablesOf(file);
    } catch (const package::Error& error) {
      result_.notes.push_back(Shown(key) + " of the release before: " + error.what());
    }
    if (!before) {
      return;
    }
    if (is_gone) {
      FindAllGone(Shown(key) + " is gone, and with it table ", *before);
      return;
    }
    const std::optional<TableRows> after = ReadNew(found->second);
    if (!after) {
      FindAllGone(Shown(key) + " is no SQLite file any more, and had table ", *before);
      return;
    }
    CompareTables(Shown(key), *before, *after);
  }

  // Files that are new are read as well, so that none is released that nobody could open.
  void RequireReadable() {
    for (const auto& [key, file] : after_.files) {
      if (before_.files.count(key) == 0) {
        ReadNew(file);
      }
    }
  }

  std::optional<TableRows> ReadNew(const TreeFile& file) {
    try {
      std::optional<TableRows> tables = TablesOf(file);
      if (tables) {
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
  std::map<std::string, std::string> created_;  // key of a new file by its digest
  Shrinkage result_;
};

}  // namespace

Shrinkage FindShrinkage(const Tree& before, const Tree& after, int limit_percent) {
  return Comparison(before, after, limit_percent).Run();
}

}  // namespace tolm::publish

#include "sqldelta/sqlite_compare.h"

#include "sqldelta/sqlite_schema.h"

namespace tolm::sqldelta {
namespace {

std::string NamesOf(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) {
    list += (list.empty() ? "" : ", ") + QuoteName(name);
  }
  return list;
}

// All rows in an order that only their content decides.
std::string SelectAll(const TableLayout& layout, bool keeps_its_own_rowids) {
  std::vector<std::string> columns = layout.keys;
  if (keeps_its_own_rowids) {
    columns.clear();
  }
  columns.insert(columns.end(), layout.columns.begin(), layout.columns.end());
  return "SELECT " + NamesOf(columns) + " FROM main." + QuoteName(layout.name) + " ORDER BY " +
         NamesOf(keeps_its_own_rowids ? columns : layout.keys);
}

// SQLite's own tables of counters and statistics: sets of rows.
bool IsInternal(const std::string& table) {
  return table.rfind("sqlite_", 0) == 0;
}

class Comparison {
 public:
  Comparison(const std::string& path, const std::string& other_path)
      : one_(SqliteConnection::OpenImmutable(path)),
        other_(SqliteConnection::OpenImmutable(other_path)) {}

  std::optional<std::string> Run() {
    for (const char* setting :
         {"user_version", "application_id", "encoding", "page_size", "auto_vacuum"}) {
      const std::string pragma = std::string("PRAGMA ") + setting;
      if (one_.Single(pragma) != other_.Single(pragma)) {
        return std::string(setting) + " differs";
      }
    }
    const Schema schema = ReadSchema(one_, "main");
    if (const auto difference = CompareSchemas(schema, ReadSchema(other_, "main"))) {
      return difference;
    }
    const bool rowids_are_content = RowidsAreContent(schema);
    for (const auto& [id, object] : schema) {
      if (object.type == "table" && !object.IsVirtual()) {
        if (const auto difference = CompareRows(object.name, rowids_are_content)) {
          return difference;
        }
      }
    }
    return std::nullopt;
  }

 private:
  static std::optional<std::string> CompareSchemas(const Schema& schema, const Schema& other) {
    for (const auto& [id, object] : schema) {
      const auto found = other.find(id);
      if (found == other.end()) {
        return "no " + object.type + " " + object.name + " in the second";
      }
      if (found->second != object) {
        return "the text of " + object.type + " " + object.name + " differs";
      }
    }
    for (const auto& [id, object] : other) {
      if (schema.count(id) == 0) {
        return "no " + object.type + " " + object.name + " in the first";
      }
    }
    return std::nullopt;
  }

  std::optional<std::string> CompareRows(const std::string& table, bool rowids_are_content) {
    TableLayout layout = ReadLayout(one_, "main", table, rowids_are_content);
    if (layout.keys != ReadLayout(other_, "main", table, rowids_are_content).keys) {
      layout = ReadLayout(one_, "main", table, true);
    }
    const std::string select = SelectAll(layout, IsInternal(table));
    SqliteRows rows(one_, select);
    SqliteRows other_rows(other_, select);
    for (std::uint64_t row = 1;; ++row) {
      const bool more = rows.Next();
      if (more != other_rows.Next()) {
        return "table " + table + ": one ends with row " + std::to_string(row - 1);
      }
      if (!more) {
        return std::nullopt;
      }
      for (int column = 0; column < rows.Width(); ++column) {
        if (rows.Value(column) != other_rows.Value(column)) {
          return "table " + table + ": row " + std::to_string(row) + " in the order of " +
                 NamesOf(layout.keys) + " differs";
        }
      }
    }
  }

  SqliteConnection one_;
  SqliteConnection other_;
};

}  // namespace

std::optional<std::string> CompareSqlite(const std::string& path, const std::string& other_path) {
  return Comparison(path, other_path).Run();
}

}  // namespace tolm::sqldelta

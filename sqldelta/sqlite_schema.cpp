#include "sqldelta/sqlite_schema.h"

#include <strings.h>

#include <algorithm>
#include <optional>

namespace tolm::sqldelta {
namespace {

struct Column {
  std::string name;
  std::string type;
  bool not_null = false;
  bool has_default = false;
  std::int64_t key_position = 0;  // from 1, 0: not in the primary key
  bool generated = false;
};

struct Index {
  std::string name;
  bool unique = false;
  bool primary_key = false;
  bool partial = false;
};

bool SameName(const std::string& a, const std::string& b) {
  return strcasecmp(a.c_str(), b.c_str()) == 0;
}

std::string Pragma(const std::string& schema_name, const std::string& pragma,
                   const std::string& argument) {
  return "PRAGMA " + QuoteName(schema_name) + "." + pragma + "(" + QuoteName(argument) + ")";
}

std::vector<Column> ReadColumns(const SqliteConnection& connection, const std::string& schema_name,
                                const std::string& table) {
  std::vector<Column> columns;
  SqliteRows rows(connection, Pragma(schema_name, "table_xinfo", table));
  while (rows.Next()) {
    constexpr int kName = 1, kType = 2, kNotNull = 3, kDefault = 4, kKeyPosition = 5, kHidden = 6;
    columns.push_back({rows.Text(kName), rows.Text(kType), rows.Integer(kNotNull) != 0,
                       !rows.IsNull(kDefault), rows.Integer(kKeyPosition),
                       rows.Integer(kHidden) >= 2});
  }
  return columns;
}

std::vector<Index> ReadIndices(const SqliteConnection& connection, const std::string& schema_name,
                               const std::string& table) {
  std::vector<Index> indices;
  SqliteRows rows(connection, Pragma(schema_name, "index_list", table));
  while (rows.Next()) {
    constexpr int kName = 1, kUnique = 2, kOrigin = 3, kPartial = 4;
    indices.push_back({rows.Text(kName), rows.Integer(kUnique) != 0, rows.Text(kOrigin) == "pk",
                       rows.Integer(kPartial) != 0});
  }
  return indices;
}

struct IndexColumn {
  std::string name;
  std::string collation;
};

// None when the index is over an expression.
std::optional<std::vector<IndexColumn>> ReadIndexColumns(const SqliteConnection& connection,
                                                         const std::string& schema_name,
                                                         const std::string& index) {
  std::vector<IndexColumn> columns;
  SqliteRows rows(connection, Pragma(schema_name, "index_xinfo", index));
  while (rows.Next()) {
    constexpr int kName = 2, kCollation = 4, kIsKey = 5;
    if (rows.Integer(kIsKey) == 0) {
      continue;
    }
    if (rows.IsNull(kName)) {
      return std::nullopt;
    }
    columns.push_back({rows.Text(kName), rows.Text(kCollation)});
  }
  return columns;
}

bool HasNulls(const SqliteConnection& connection, const std::string& schema_name,
              const std::string& table, const std::string& column) {
  SqliteRows rows(connection, "SELECT 1 FROM " + QuoteName(schema_name) + "." + QuoteName(table) +
                                  " WHERE " + QuoteName(column) + " IS NULL LIMIT 1");
  return rows.Next();
}

// Whether values are told apart in the column by default as the index does it.
bool HasCollation(const SqliteConnection& connection, const std::string& schema_name,
                  const std::string& table, const IndexColumn& column) {
  const char* collation = nullptr;
  const int result = sqlite3_table_column_metadata(connection.handle(), schema_name.c_str(),
                                                   table.c_str(), column.name.c_str(), nullptr,
                                                   &collation, nullptr, nullptr, nullptr);
  return result == SQLITE_OK && collation != nullptr && SameName(collation, column.collation);
}

struct TableOptions {
  bool without_rowid = false;
  bool strict = false;
};

TableOptions ReadOptions(const SqliteConnection& connection, const std::string& schema_name,
                         const std::string& table) {
  SqliteRows rows(connection, Pragma(schema_name, "table_list", table));
  constexpr int kSchema = 0, kWithoutRowid = 4, kStrict = 5;
  while (rows.Next()) {
    if (rows.Text(kSchema) == schema_name) {
      return {rows.Integer(kWithoutRowid) != 0, rows.Integer(kStrict) != 0};
    }
  }
  return {};
}

std::vector<std::string> PrimaryKey(const std::vector<Column>& columns) {
  std::map<std::int64_t, std::string> keys;
  for (const Column& column : columns) {
    if (column.key_position > 0) {
      keys[column.key_position] = column.name;
    }
  }
  std::vector<std::string> names;
  for (const auto& [position, name] : keys) {
    names.push_back(name);
  }
  return names;
}

const Column& Find(const std::vector<Column>& columns, const std::string& name) {
  return *std::find_if(columns.begin(), columns.end(),
                       [&](const Column& column) { return SameName(column.name, name); });
}

// Columns by which rows of a table with rowids are told apart: unique and nowhere NULL.
std::vector<std::string> NaturalKey(const SqliteConnection& connection,
                                    const std::string& schema_name, const std::string& table,
                                    const std::vector<Column>& columns,
                                    const std::vector<Index>& indices) {
  const auto tells_apart = [&](const IndexColumn& key) {
    const Column& column = Find(columns, key.name);
    return !column.generated && HasCollation(connection, schema_name, table, key) &&
           (column.not_null || !HasNulls(connection, schema_name, table, key.name));
  };
  for (const bool primary_key : {true, false}) {
    for (const Index& index : indices) {
      if (!index.unique || index.partial || index.primary_key != primary_key) {
        continue;
      }
      const auto keys = ReadIndexColumns(connection, schema_name, index.name);
      if (keys && std::all_of(keys->begin(), keys->end(), tells_apart)) {
        std::vector<std::string> names;
        for (const IndexColumn& key : *keys) {
          names.push_back(key.name);
        }
        return names;
      }
    }
  }
  return {};
}

std::string RowidName(const std::string& table, const std::vector<Column>& columns) {
  for (const char* name : {"rowid", "_rowid_", "oid"}) {
    if (std::none_of(columns.begin(), columns.end(),
                     [&](const Column& column) { return SameName(column.name, name); })) {
      return name;
    }
  }
  throw std::runtime_error("the rowid of table " + table + " has no name");
}

// What must not be equal in two rows, besides the key.
std::set<std::string> UniqueColumns(const SqliteConnection& connection,
                                    const std::string& schema_name, const TableLayout& layout,
                                    const std::vector<Index>& indices) {
  const std::set<std::string> all(layout.columns.begin(), layout.columns.end());
  std::set<std::string> unique;
  for (const Index& index : indices) {
    if (!index.unique) {
      continue;
    }
    const auto names = ReadIndexColumns(connection, schema_name, index.name);
    const auto is_stored = [&](const IndexColumn& key) {
      return layout.types.count(key.name) != 0;
    };
    if (!names || index.partial || !std::all_of(names->begin(), names->end(), is_stored)) {
      return all;
    }
    for (const std::string& column : layout.columns) {
      if (std::any_of(names->begin(), names->end(),
                      [&](const IndexColumn& key) { return SameName(key.name, column); })) {
        unique.insert(column);
      }
    }
  }
  return unique;
}

// Further constraints, or expressions that may fail, could refuse the row first.
bool TakesPartialRows(const SqliteConnection& connection, const std::string& schema_name,
                      const TableLayout& layout, const std::vector<Column>& columns,
                      const std::vector<Index>& indices) {
  const auto is_simple = [&](const Index& index) {
    return !index.partial && ReadIndexColumns(connection, schema_name, index.name).has_value();
  };
  const auto unique = std::count_if(indices.begin(), indices.end(),
                                    [](const Index& index) { return index.unique; });
  return unique == (layout.keyed_by_rowid ? 0 : 1) &&
         std::all_of(indices.begin(), indices.end(), is_simple) &&
         std::none_of(columns.begin(), columns.end(),
                      [](const Column& column) { return column.generated; });
}

// By the rules of https://www.sqlite.org/datatype3.html#determination_of_column_affinity.
bool IsNumeric(const std::string& type, bool strict) {
  const bool is_any = type.empty() || Contains(type, "blob") || (strict && SameName(type, "ANY"));
  const bool is_text = Contains(type, "char") || Contains(type, "clob") || Contains(type, "text");
  return Contains(type, "int") || !(is_any || is_text);
}

// What decides how rows lie in the file; nothing where it cannot be told.
std::vector<std::string> StorageOf(const SqliteConnection& connection,
                                   const std::string& schema_name, const std::string& table) {
  const std::string names = TextLiteral(table) + "," + TextLiteral(schema_name);
  std::vector<std::string> storage = {ReadOptions(connection, schema_name, table).strict ? "strict"
                                                                                         : ""};
  SqliteRows columns(connection,
                     "SELECT hidden,name,quote(name)||quote(type)||\"notnull\"||quote(dflt_value)||"
                     "pk FROM pragma_table_xinfo(" +
                         names + ") ORDER BY cid");
  while (columns.Next()) {
    const char* collation = nullptr;
    int counts = 0;
    if (columns.Integer(0) != 0 ||
        sqlite3_table_column_metadata(connection.handle(), schema_name.c_str(), table.c_str(),
                                      columns.Text(1).c_str(), nullptr, &collation, nullptr,
                                      nullptr, &counts) != SQLITE_OK) {
      return {};
    }
    storage.push_back(columns.Text(2) + collation + std::to_string(counts));
  }
  SqliteRows indices(connection,
                     "SELECT quote(l.name)||l.\"unique\"||x.cid||','||x.\"desc\"||quote(x.coll)||x."
                     "key FROM pragma_index_list(" +
                         names + ") l,pragma_index_xinfo(l.name," + TextLiteral(schema_name) +
                         ") x WHERE l.origin<>'c' ORDER BY l.name,x.seqno");
  while (indices.Next()) {
    storage.push_back(indices.Text(0));
  }
  return storage;
}

// Of a type that a strict table takes as well.
std::string Filler(const std::string& type) {
  return SameName(type, "TEXT") ? "''" : SameName(type, "BLOB") ? "x''" : "0";
}

}  // namespace

bool SchemaObject::IsVirtual() const {
  static constexpr char kBeginning[] = "CREATE VIRTUAL TABLE";
  return type == "table" && strncasecmp(sql.c_str(), kBeginning, sizeof kBeginning - 1) == 0;
}

bool IsInternal(const std::string& table) {
  return table.rfind("sqlite_", 0) == 0;
}

bool HasOrdinary(const Schema& schema, const std::string& table) {
  const auto found = schema.find({"table", table});
  return found != schema.end() && !found->second.IsVirtual();
}

std::vector<std::string> TablesOf(const Schema& schema) {
  std::vector<std::string> names;
  for (const auto& [id, object] : schema) {
    if (object.type == "table" && !object.IsVirtual()) {
      names.push_back(object.name);
    }
  }
  return names;
}

const SchemaObject* Find(const Schema& schema, const SchemaObject& object) {
  const auto found = schema.find({object.type, object.name});
  return found == schema.end() ? nullptr : &found->second;
}

bool Holds(const Schema& schema, const SchemaObject& object) {
  const SchemaObject* found = Find(schema, object);
  return found != nullptr && *found == object;
}

Schema ReadSchema(const SqliteConnection& connection, const std::string& schema_name) {
  Schema schema;
  SqliteRows rows(connection, "SELECT type, name, tbl_name, sql FROM " + QuoteName(schema_name) +
                                  ".sqlite_master");
  while (rows.Next()) {
    SchemaObject object{rows.Text(0), rows.Text(1), rows.Text(2), !rows.IsNull(3), rows.Text(3)};
    schema[{object.type, object.name}] = object;
  }
  return schema;
}

bool Contains(const std::string& text, const std::string& word) {
  const auto small = [](char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c); };
  return std::search(text.begin(), text.end(), word.begin(), word.end(),
                     [&](char a, char b) { return small(a) == b; }) != text.end();
}

bool RowidsAreContent(const Schema& schema) {
  return std::any_of(schema.begin(), schema.end(), [](const auto& entry) {
    const SchemaObject& object = entry.second;
    const bool has_text = object.type == "view" || object.type == "trigger";
    return object.IsVirtual() ||
           (has_text && (Contains(object.sql, "rowid") || Contains(object.sql, "oid")));
  });
}

TableLayout ReadLayout(const SqliteConnection& connection, const std::string& schema_name,
                       const std::string& table, bool rowids_are_content) {
  const std::vector<Column> columns = ReadColumns(connection, schema_name, table);
  const std::vector<Index> indices = ReadIndices(connection, schema_name, table);
  const std::vector<std::string> primary_key = PrimaryKey(columns);
  TableLayout layout;
  layout.name = table;
  std::string alias;  // the column that is the rowid
  const TableOptions options = ReadOptions(connection, schema_name, table);
  layout.is_strict = options.strict;
  if (options.without_rowid) {
    layout.keys = primary_key;
  } else {
    const bool has_alias =
        primary_key.size() == 1 &&
        std::none_of(indices.begin(), indices.end(), [](const Index& i) { return i.primary_key; });
    alias = has_alias ? primary_key.front() : "";
    if (!has_alias && !rowids_are_content) {
      layout.keys = NaturalKey(connection, schema_name, table, columns, indices);
    }
    if (layout.keys.empty()) {
      layout.keyed_by_rowid = true;
      layout.rowid_is_hidden = !has_alias;
      layout.keys = {has_alias ? alias : RowidName(table, columns)};
    }
  }
  for (const Column& column : columns) {
    const bool is_key = std::any_of(layout.keys.begin(), layout.keys.end(),
                                    [&](const auto& key) { return SameName(key, column.name); });
    if (column.generated) {
      continue;
    }
    layout.types[column.name] = column.type;
    if (IsNumeric(column.type, layout.is_strict)) {
      layout.numeric_columns.insert(column.name);
    }
    if (column.has_default) {
      layout.default_columns.insert(column.name);
    }
    if (!is_key) {
      layout.columns.push_back(column.name);
    }
    // A strict table refuses a default of another type as well.
    if (!is_key && (column.not_null || (layout.is_strict && column.has_default))) {
      layout.fillers.emplace_back(column.name, Filler(column.type));
    }
  }
  layout.takes_partial_rows = TakesPartialRows(connection, schema_name, layout, columns, indices);
  layout.unique_columns = UniqueColumns(connection, schema_name, layout, indices);
  return layout;
}

bool AreStoredAlike(const SqliteConnection& connection, const std::string& one,
                    const std::string& other, const std::string& table) {
  const std::vector<std::string> storage = StorageOf(connection, one, table);
  return !storage.empty() && storage == StorageOf(connection, other, table);
}

}  // namespace tolm::sqldelta

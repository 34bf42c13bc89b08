#include "sqldelta/sqlite_changes.h"

#include <algorithm>
#include <set>

#include "sqldelta/sql_digest.h"
#include "sqldelta/sql_text.h"
#include "sqldelta/sqlite_schema.h"

namespace tolm::sqldelta {
namespace {

constexpr char kOld[] = "main";

std::string TextOf(const SqliteValue& value) {
  return value.type == SQLITE_TEXT ? value.bytes : std::to_string(value.integer);
}

// "o.k = n.k AND ...": by the index of the key, which has its collation.
std::string SameKey(const Names& keys) {
  Names terms;
  for (const std::string& key : keys) {
    terms.push_back("o." + QuoteName(key) + "=n." + QuoteName(key));
  }
  return Join(terms, " AND ");
}

// Whatever the columns' affinities and collations say.
std::string Differs(const Names& columns) {
  Names terms;
  for (const std::string& column : columns) {
    const std::string name = QuoteName(column);
    terms.push_back("(typeof(o." + name + ")<>typeof(n." + name + ") OR o." + name + " IS NOT n." +
                    name + " COLLATE BINARY)");
  }
  return Balanced(terms, " OR ");
}

class Finder {
 public:
  Finder(const std::string& old_path, const std::string& new_path)
      : both_(SqliteConnection::OpenImmutable(old_path)),
        new_path_(new_path),
        new_encoding_(SqliteConnection::OpenImmutable(new_path).encoding()) {}

  SqliteChanges Find() {
    if (both_.encoding() != new_encoding_) {
      changes_.settings.push_back("encoding " + both_.encoding() + " -> " + new_encoding_);
      return std::move(changes_);
    }
    both_.AttachImmutable(new_path_, kNew);
    CompareSettings();
    old_schema_ = ReadSchema(both_, kOld);
    new_schema_ = ReadSchema(both_, kNew);
    rowids_are_content_ = RowidsAreContent(old_schema_) || RowidsAreContent(new_schema_);
    CompareSchemas();
    Names tables = TablesOf(old_schema_);
    const Names more = TablesOf(new_schema_);
    const std::set<std::string> all = [&] {
      std::set<std::string> names(tables.begin(), tables.end());
      names.insert(more.begin(), more.end());
      return names;
    }();
    for (const std::string& table : all) {
      CompareRows(table);
    }
    return std::move(changes_);
  }

 private:
  void CompareSettings() {
    for (const std::string setting :
         {"user_version", "application_id", "page_size", "auto_vacuum"}) {
      const SqliteValue before = both_.Single("PRAGMA main." + setting);
      const SqliteValue after = both_.Single("PRAGMA " + std::string(kNew) + '.' + setting);
      if (before != after) {
        changes_.settings.push_back(setting + ' ' + TextOf(before) + " -> " + TextOf(after));
      }
    }
  }

  void CompareSchemas() {
    using Kind = SchemaChange::Kind;
    const auto add = [this](Kind kind, const SchemaObject& object) {
      if (object.has_sql && !IsInternal(object.name)) {
        changes_.schema.push_back({kind, object.type, object.name});
      }
    };
    for (const auto& [id, object] : old_schema_) {
      const SchemaObject* now = sqldelta::Find(new_schema_, object);
      if (now == nullptr) {
        add(Kind::kGone, object);
      } else if (*now != object) {
        add(Kind::kChanged, object);
      }
    }
    for (const auto& [id, object] : new_schema_) {
      if (sqldelta::Find(old_schema_, object) == nullptr) {
        add(Kind::kNew, object);
      }
    }
    std::sort(changes_.schema.begin(), changes_.schema.end(), [](const auto& a, const auto& b) {
      return std::tie(a.type, a.name) < std::tie(b.type, b.name);
    });
  }

  std::uint64_t Count(const std::string& from_and_where) {
    return static_cast<std::uint64_t>(
        both_.Single("SELECT count(*) FROM " + from_and_where).integer);
  }

  static std::string In(const char* schema, const std::string& table) {
    return std::string(schema) + '.' + QuoteName(table);
  }

  void CompareRows(const std::string& table) {
    TableRowChanges rows;
    rows.table = table;
    const bool was = HasOrdinary(old_schema_, table);
    const bool is = HasOrdinary(new_schema_, table);
    if (!was || !is || !CountByKeys(table, rows)) {
      rows.added = is ? Count(In(kNew, table)) : 0;
      rows.removed = was ? Count(In(kOld, table)) : 0;
    }
    if (rows.added + rows.removed + rows.changed > 0) {
      changes_.rows.push_back(rows);
    }
  }

  // Not when no row of one file can be the same as one of the other.
  bool CountByKeys(const std::string& table, TableRowChanges& rows) {
    TableLayout before = ReadLayout(both_, kOld, table, rowids_are_content_);
    TableLayout after = ReadLayout(both_, kNew, table, rowids_are_content_);
    if (before.keys != after.keys) {
      before = ReadLayout(both_, kOld, table, true);
      after = ReadLayout(both_, kNew, table, true);
    }
    if (IsInternal(table)) {
      CountAsSets(before, rows);
      return true;
    }
    if (before.keys != after.keys) {
      return false;
    }
    Names columns;
    for (const std::string& column : after.columns) {
      if (std::find(before.columns.begin(), before.columns.end(), column) != before.columns.end()) {
        columns.push_back(column);
      }
    }
    const std::string o = In(kOld, table) + " o";
    const std::string n = In(kNew, table) + " n";
    const std::string same = SameKey(after.keys);
    rows.added = Count(n + " WHERE NOT EXISTS(SELECT 1 FROM " + o + " WHERE " + same + ")");
    rows.removed = Count(o + " WHERE NOT EXISTS(SELECT 1 FROM " + n + " WHERE " + same + ")");
    rows.changed = Count(o + " CROSS JOIN " + n + " ON " + same + " WHERE " +
                         Differs(Concatenated(after.keys, columns)));
    return true;
  }

  // SQLite's own counters and statistics, which are few.
  void CountAsSets(const TableLayout& layout, TableRowChanges& rows) {
    const std::string columns = Join(Quoted(layout.columns), ",");
    const auto count = [&](const char* in, const char* but_not_in) {
      return Count("(SELECT " + columns + " FROM " + In(in, layout.name) + " EXCEPT SELECT " +
                   columns + " FROM " + In(but_not_in, layout.name) + ")");
    };
    rows.added = count(kNew, kOld);
    rows.removed = count(kOld, kNew);
  }

  SqliteConnection both_;
  const std::string new_path_;
  const std::string new_encoding_;
  Schema old_schema_;
  Schema new_schema_;
  bool rowids_are_content_ = false;
  SqliteChanges changes_;
};

}  // namespace

SqliteChanges FindChanges(const std::string& old_path, const std::string& new_path) {
  return Finder(old_path, new_path).Find();
}

}  // namespace tolm::sqldelta

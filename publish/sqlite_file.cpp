#include "publish/sqlite_file.h"

#include <cstring>
#include <set>

#include "package/error.h"
#include "sqldelta/error.h"
#include "sqldelta/sqlite_compare.h"
#include "sqldelta/sqlite_file.h"
#include "sqldelta/sqlite_reader.h"
#include "sqldelta/sqlite_schema.h"

namespace tolm::publish {
namespace {

using package::Code;
using sqldelta::FileError;

Code CodeOf(const FileError& error) {
  return error.action() == FileError::Action::kRead
             ? Code::kRead
             : package::WriteError("", error.errno_value()).code();
}

template <typename Action>
auto AsPackageErrors(const Action& action) {
  try {
    return action();
  } catch (const FileError& error) {
    throw package::Error(CodeOf(error), error.what(), error.errno_value());
  }
}

// What no program of this kind could read, unlike what needs an extension.
bool IsDamage(const sqldelta::SqliteError& error) {
  return error.code() == SQLITE_CORRUPT || error.code() == SQLITE_NOTADB ||
         error.code() == SQLITE_IOERR || error.code() == SQLITE_CANTOPEN;
}

[[noreturn]] void ThrowDamaged(const sqldelta::SqliteError& error) {
  throw package::Error(Code::kRead, std::string("SQLite cannot read it: ") + error.what());
}

std::uint64_t CountRowsOf(const sqldelta::SqliteConnection& connection, const std::string& table) {
  sqldelta::SqliteRows rows(connection, "SELECT count(*) FROM " + sqldelta::QuoteName(table));
  rows.Next();
  return static_cast<std::uint64_t>(rows.Integer(0));
}

// Of the tables behind a virtual one only these have a row for each of its rows; how many the
// others have is its own business and changes with every merge of an index.
bool HasRowForRow(const std::string& shadow) {
  for (const char* const ending : {"_content", "_rowid"}) {
    const std::size_t length = std::strlen(ending);
    if (shadow.size() >= length && shadow.compare(shadow.size() - length, length, ending) == 0) {
      return true;
    }
  }
  return false;
}

std::set<std::string> TablesToPassOver(const sqldelta::SqliteConnection& connection) {
  std::set<std::string> tables;
  sqldelta::SqliteRows rows(
      connection, "SELECT name FROM pragma_table_list WHERE schema = 'main' AND type = 'shadow'");
  while (rows.Next()) {
    if (!HasRowForRow(rows.Text(0))) {
      tables.insert(rows.Text(0));
    }
  }
  return tables;
}

}  // namespace

bool IsSqliteFile(const std::string& path) {
  return AsPackageErrors([&] { return sqldelta::IsSqliteFile(path); });
}

std::optional<std::string> MakeSqlDelta(const std::string& old_path, const std::string& new_path,
                                        const std::string& script_path,
                                        const sqldelta::SqlDeltaOptions& options) {
  return AsPackageErrors(
      [&] { return sqldelta::MakeSqlDelta(old_path, new_path, script_path, options); });
}

std::optional<sqldelta::SqliteChanges> FindSqliteChanges(const std::string& old_path,
                                                         const std::string& new_path,
                                                         std::string& problem) {
  try {
    return AsPackageErrors([&] { return sqldelta::FindChanges(old_path, new_path); });
  } catch (const std::runtime_error& error) {
    if (dynamic_cast<const package::Error*>(&error) != nullptr) {
      throw;
    }
    problem = error.what();
    return std::nullopt;
  }
}

bool HoldTheSame(const std::string& path, const std::string& other_path) {
  if (!IsSqliteFile(path) || !IsSqliteFile(other_path)) {
    return false;
  }
  try {
    return !sqldelta::CompareSqlite(path, other_path);
  } catch (const sqldelta::SqliteError&) {
    return false;
  }
}

bool TableNameLess::operator()(const std::string& left, const std::string& right) const {
  return sqlite3_stricmp(left.c_str(), right.c_str()) < 0;
}

TableRows CountRows(const std::string& path) {
  TableRows tables;
  const auto unless_damaged = [&](const std::string& table, const auto& action) {
    try {
      action();
    } catch (const sqldelta::SqliteError& error) {
      if (IsDamage(error)) {
        ThrowDamaged(error);
      }
      tables.uncounted[table] = error.what();
    }
  };
  unless_damaged("", [&] {
    const auto connection = sqldelta::SqliteConnection::OpenImmutable(path);
    const std::set<std::string> passed_over = TablesToPassOver(connection);
    for (const std::string& table : TablesOf(ReadSchema(connection, "main"))) {
      if (!sqldelta::IsInternal(table) && passed_over.count(table) == 0) {
        unless_damaged(table, [&] { tables.rows[table] = CountRowsOf(connection, table); });
      }
    }
  });
  return tables;
}

}  // namespace tolm::publish

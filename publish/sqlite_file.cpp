#include "publish/sqlite_file.h"

#include "package/error.h"
#include "sqldelta/error.h"
#include "sqldelta/sqlite_compare.h"
#include "sqldelta/sqlite_file.h"
#include "sqldelta/sqlite_reader.h"

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

}  // namespace tolm::publish

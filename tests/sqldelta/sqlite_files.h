#ifndef TOLM_TESTS_SQLDELTA_SQLITE_FILES_H_
#define TOLM_TESTS_SQLDELTA_SQLITE_FILES_H_

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace tolm::testing {

/// Executes @p sql, which may be many statements, on the file; makes it when it is missing. Without
/// rollback journals and syncing: for files that a test can do without.
inline void ExecuteOn(const std::string& path, const std::string& sql) {
  SQLite::Database database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  database.exec("PRAGMA synchronous=OFF");
  database.exec(sql);
}

/// Executes a script as a device does it: line by line, in one transaction, without ATTACH.
/// @p before is executed before the transaction begins. Throws SQLite::Exception when a line fails;
/// the file is as it was then.
inline void ApplyScript(const std::string& path, const std::string& script_path,
                        const std::string& before = "") {
  SQLite::Database database(path, SQLite::OPEN_READWRITE);
  sqlite3_limit(database.getHandle(), SQLITE_LIMIT_ATTACHED, 0);
  database.exec("PRAGMA synchronous=OFF;" + before);
  SQLite::Transaction transaction(database);
  std::ifstream script(script_path, std::ios::binary);
  for (std::string line; std::getline(script, line);) {
    database.exec(line);
  }
  transaction.commit();
}

/// What the first line that fails says; nothing when none does.
inline std::string ErrorOfScript(const std::string& path, const std::string& script_path,
                                 const std::string& before = "") {
  try {
    ApplyScript(path, script_path, before);
  } catch (const SQLite::Exception& error) {
    return error.what();
  }
  return "";
}

/// "ok", or the first thing that is wrong in the file.
inline std::string IntegrityOf(const std::string& path) {
  SQLite::Database database(path, SQLite::OPEN_READONLY);
  return database.execAndGet("PRAGMA integrity_check(1)").getString();
}

inline void CopyOver(const std::string& from, const std::string& to) {
  std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_SQLDELTA_SQLITE_FILES_H_

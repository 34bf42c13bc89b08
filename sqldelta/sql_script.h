#ifndef TOLM_SQLDELTA_SQL_SCRIPT_H_
#define TOLM_SQLDELTA_SQL_SCRIPT_H_

#include <cstddef>
#include <fstream>
#include <string>

#include "sqldelta/sqlite_reader.h"

namespace tolm::sqldelta {

/// A script being written that is executed on a scratch database at once, as a device will do it.
class SqlScript {
 public:
  /// Lines stay below this as far as a single row allows.
  static constexpr std::size_t kLineBytes = 16 * 1024;
  /// What every SQLite takes as one text (SQLITE_MAX_SQL_LENGTH), with some room.
  static constexpr std::size_t kMaxLineBytes = 900 * 1000;

  /// Opens @p path for writing; @p scratch must outlive this. Throws FileError.
  SqlScript(const std::string& path, SqliteConnection& scratch);

  /// Adds a line. Throws std::runtime_error for a line that cannot be one, SqliteError when it
  /// fails, FileError when it cannot be written.
  void Line(const std::string& sql);
  /// Whether CHECK constraints are enforced from here on, as they are at first, by devices and by
  /// the scratch database. Where it is known that none is broken, or the rows lie there already,
  /// they only cost devices time. Adds a line when something changes for them.
  void EnforceChecks(bool by_devices, bool here);
  /// Adds a line that is executed by ExecuteDeferred only.
  void Defer(const std::string& sql);
  void ExecuteDeferred();

  /// Adds a line that fails unless @p select gives the one value that it gives now.
  void Guard(const std::string& select);

  /// Throws FileError when not everything has been written.
  void Close();

 private:
  void Write(const std::string& sql);

  std::string path_;
  std::ofstream out_;
  SqliteConnection& scratch_;
  std::streamoff deferred_from_ = -1;
  bool devices_check_ = true;
  bool scratch_checks_ = true;
};

/// Collects rows into statements "<beginning>VALUES(<row>),(<row>)<end>;" of about a line's length.
class SqlRows {
 public:
  SqlRows(SqlScript& script, const std::string& beginning, const std::string& end, bool deferred)
      : SqlRows(script, {beginning + "VALUES(", "),(", ")" + end}, deferred) {}

  struct Form {
    std::string beginning;
    std::string separator;
    std::string end;
  };
  SqlRows(SqlScript& script, Form form, bool deferred)
      : script_(script), form_(std::move(form)), deferred_(deferred) {}

  void Add(const std::string& row);
  void Finish();

 private:
  SqlScript& script_;
  const Form form_;
  const bool deferred_;
  std::string line_;
};

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_SCRIPT_H_

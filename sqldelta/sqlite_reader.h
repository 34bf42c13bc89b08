#ifndef TOLM_SQLDELTA_SQLITE_READER_H_
#define TOLM_SQLDELTA_SQLITE_READER_H_

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tolm::sqldelta {

/// What SQLite itself reports; what() is its text.
class SqliteError : public std::runtime_error {
 public:
  SqliteError(const std::string& text, int code) : std::runtime_error(text), code_(code) {}
  /// Primary result code (https://www.sqlite.org/rescode.html).
  int code() const noexcept { return code_; }

 private:
  int code_;
};

/// One value as it is stored: its storage class and its bytes, without any conversion.
struct SqliteValue {
  int type = SQLITE_NULL;  ///< SQLITE_INTEGER, SQLITE_FLOAT, SQLITE_TEXT, SQLITE_BLOB, SQLITE_NULL
  std::int64_t integer = 0;
  double real = 0;
  std::string bytes;  ///< of a text (in UTF-8) or a blob
  /// Of a text in a database of UTF-16: as it is stored, and whether UTF-8 says the same. Otherwise
  /// `bytes` is empty.
  std::string utf16;
  bool has_utf8 = true;

  /// The same storage class and the same bits.
  bool operator==(const SqliteValue& other) const;
  bool operator!=(const SqliteValue& other) const { return !(*this == other); }
};

/// One connection. Throws SqliteError. For one thread.
class SqliteConnection {
 public:
  /// Opens a file that nobody else writes to, and never writes to it.
  static SqliteConnection OpenImmutable(const std::string& path);
  /// Opens a scratch file for writing, without any care for its survival of a crash.
  static SqliteConnection OpenScratch(const std::string& path);

  void Execute(const std::string& sql);
  /// Makes another file readable under @p schema; it is never written to.
  void AttachImmutable(const std::string& path, const std::string& schema);
  /// First column of the first row; NULL without one.
  SqliteValue Single(const std::string& sql);
  sqlite3* handle() const noexcept { return handle_.get(); }
  /// "UTF-8", "UTF-16le" or "UTF-16be".
  const std::string& encoding() const noexcept { return encoding_; }
  bool IsUtf16() const noexcept { return encoding_ != "UTF-8"; }

 private:
  SqliteConnection(sqlite3* handle, int result);

  struct Closer {
    void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
  };
  std::unique_ptr<sqlite3, Closer> handle_;
  std::string encoding_;
};

/// The rows of one SELECT. The connection must outlive this.
class SqliteRows {
 public:
  SqliteRows(const SqliteConnection& connection, const std::string& sql);

  bool Next();
  int Width() const { return sqlite3_column_count(statement_.get()); }
  SqliteValue Value(int column) const;
  /// SQLITE_INTEGER and so on.
  int Type(int column) const { return sqlite3_column_type(statement_.get(), column); }
  std::string Text(int column) const { return Value(column).bytes; }
  std::int64_t Integer(int column) const { return sqlite3_column_int64(statement_.get(), column); }
  bool IsNull(int column) const { return Type(column) == SQLITE_NULL; }
  /// Of a text or a blob; 0 for all else.
  std::int64_t Bytes(int column) const;
  /// Whether two columns of this row hold the same value.
  bool Same(int column, int other) const;

 private:
  struct Finalizer {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  const SqliteConnection& connection_;
  std::unique_ptr<sqlite3_stmt, Finalizer> statement_;
};

/// @p name as an identifier.
std::string QuoteName(const std::string& name);

/// @p text as a string literal without line breaks, also when it has some, or bytes that no text
/// should have.
std::string TextLiteral(const std::string& text);

/// An SQL expression on one line that gives exactly this value again.
std::string Literal(const SqliteValue& value);

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQLITE_READER_H_

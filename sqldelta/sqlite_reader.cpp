#include "sqldelta/sqlite_reader.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>

#include "base/utf8.h"

namespace tolm::sqldelta {
namespace {

constexpr int kUriFlags = SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX;

std::string ImmutableUri(const std::string& path) {
  std::string uri = "file:";
  for (const char c : path) {
    if (std::strchr("%?#", c) != nullptr) {
      std::array<char, 4> escaped;
      std::snprintf(escaped.data(), escaped.size(), "%%%02X", static_cast<unsigned char>(c));
      uri += escaped.data();
    } else {
      uri += c;
    }
  }
  return uri + "?mode=ro&immutable=1";
}

[[noreturn]] void Fail(sqlite3* connection) {
  throw SqliteError(sqlite3_errmsg(connection), sqlite3_errcode(connection) & 0xff);
}

std::string Hexadecimal(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(2 * bytes.size() + 3);
  for (const char byte : bytes) {
    text += kDigits[static_cast<unsigned char>(byte) >> 4];
    text += kDigits[static_cast<unsigned char>(byte) & 15];
  }
  return "x'" + text + "'";
}

constexpr char kCast[] = "CAST(";

// A number as decimal digits: "digits" times ten to the power of "exponent".
struct Decimal {
  std::string text;
  std::int64_t digits = 0;
  int exponent = 0;
};

// With at most 15 digits, which an integer of 53 bits holds; none when they do not tell the value.
std::optional<Decimal> ShortDecimal(double value) {
  constexpr int kDigits = 15;
  std::array<char, 40> text;
  std::snprintf(text.data(), text.size(), "%.*e", kDigits - 1, value);
  if (std::strtod(text.data(), nullptr) != value) {
    return std::nullopt;
  }
  Decimal decimal;
  std::string digits = text.data();
  decimal.exponent = std::atoi(digits.c_str() + digits.find('e') + 1) - (kDigits - 1);
  digits.resize(digits.find('e'));
  digits.erase(digits.find('.'), 1);
  decimal.digits = std::strtoll(digits.c_str(), nullptr, 10);
  for (; decimal.digits % 10 == 0; ++decimal.exponent) {
    decimal.digits /= 10;
  }
  std::snprintf(text.data(), text.size(), "%.*g", kDigits, value);
  decimal.text = text.data();
  return decimal;
}

// Versions of SQLite differ in how they round a decimal, and so do machines. Each gets it right as
// long as its own rounding, done in 64 bits and up to a dozen times, cannot reach the next number.
bool IsReadExactly(const Decimal& decimal, double value) {
  constexpr int kMaxExponent = 22;
  if (std::numeric_limits<long double>::digits < 64 || std::abs(decimal.exponent) > kMaxExponent) {
    return false;
  }
  long double power = 1;  // exact up to 10^27
  for (int i = 0; i < std::abs(decimal.exponent); ++i) {
    power *= 10;
  }
  const auto digits = static_cast<long double>(decimal.digits);
  const long double read = decimal.exponent < 0 ? digits / power : digits * power;
  const long double error = std::ldexp(read, -58);
  return static_cast<double>(read - error) == value && static_cast<double>(read + error) == value;
}

// Digits and the power of ten are exact, and what the division gives is defined for all machines.
std::string Quotient(const Decimal& decimal) {
  return "(" + std::to_string(decimal.digits) + "/1e" + std::to_string(-decimal.exponent) + ")";
}

// An odd integer of at most 53 bits, multiplied or divided by powers of two: nothing is rounded.
std::string BinaryReal(double value) {
  constexpr int kMantissaBits = 53;
  constexpr int kStep = 52;
  int exponent = 0;
  const double fraction = std::frexp(value, &exponent);
  std::string text =
      std::to_string(static_cast<std::int64_t>(std::ldexp(fraction, kMantissaBits))) + ".0";
  for (exponent -= kMantissaBits; exponent != 0;) {
    const int step = std::min(std::abs(exponent), kStep);
    text += (exponent < 0 ? "/" : "*") + std::to_string(std::int64_t{1} << step) + ".0";
    exponent += exponent < 0 ? step : -step;
  }
  return "(" + text + ")";
}

std::string RealLiteral(double value) {
  if (std::isinf(value)) {
    return value > 0 ? "9e999" : "-9e999";
  }
  if (value == 0) {
    return std::signbit(value) ? "(-1.0/9e999)" : "0.0";
  }
  const std::optional<Decimal> decimal = ShortDecimal(value);
  if (decimal && IsReadExactly(*decimal, value)) {
    const bool is_integer = decimal->text.find_first_of(".e") == std::string::npos;
    return decimal->text + (is_integer ? ".0" : "");
  }
  constexpr int kExactPowerOfTen = 22;
  if (decimal && decimal->exponent < 0 && decimal->exponent >= -kExactPowerOfTen) {
    return Quotient(*decimal);
  }
  return BinaryReal(value);
}

bool IsUtf8(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
  return base::IsPrintableUtf8(text);
}

std::string CastToText(const std::string& stored) {
  return kCast + Hexadecimal(stored) + " AS TEXT)";
}

// A character that the text does not have.
std::string Stranger(const std::string& text) {
  for (char candidate = 1; candidate < 32; ++candidate) {
    if (candidate != '\n' && candidate != '\r' && text.find(candidate) == std::string::npos) {
      return std::string(1, candidate);
    }
  }
  return "";
}

std::string BytesAt(const void* data, int count) {
  return data == nullptr
             ? std::string()
             : std::string(static_cast<const char*>(data), static_cast<std::size_t>(count));
}

bool IsHighSurrogate(char32_t unit) {
  return unit >= 0xd800 && unit < 0xdc00;
}

bool IsLowSurrogate(char32_t unit) {
  return unit >= 0xdc00 && unit < 0xe000;
}

void AppendUtf8(char32_t c, std::string& text) {
  const auto append = [&](char32_t byte) { text += static_cast<char>(byte); };
  if (c < 0x80) {
    append(c);
    return;
  }
  const int more = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
  append((0xff00U >> (more + 1) & 0xffU) | c >> (6 * more));
  for (int left = more - 1; left >= 0; --left) {
    append(0x80U | (c >> (6 * left) & 0x3fU));
  }
}

// None for a text with surrogates alone, or with what SQLite takes for something else on the way to
// UTF-8 and back.
std::optional<std::string> ToUtf8(const std::u16string& text) {
  std::string utf8;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (IsHighSurrogate(c) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      c = 0x10000 + ((c - 0xd800) << 10) + (text[++i] - 0xdc00U);
    } else if (IsHighSurrogate(c) || IsLowSurrogate(c) || c == 0 || c == 0xfeff || c >= 0xfffd) {
      return std::nullopt;
    }
    AppendUtf8(c, utf8);
  }
  return utf8;
}

// SQLite's own UTF-8 would be less than what is stored, and take its place for who reads it again.
void ReadUtf16(sqlite3_stmt* statement, int column, const std::string& encoding,
               SqliteValue& value) {
  // In the machine's own byte order.
  const void* const units = sqlite3_column_text16(statement, column);
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes16(statement, column));
  std::u16string text(size / 2, u'\0');
  if (!text.empty()) {
    std::memcpy(text.data(), units, text.size() * 2);
  }
  const bool big_endian = encoding == "UTF-16be";
  for (const char16_t unit : text) {
    const char high = static_cast<char>(unit >> 8);
    const char low = static_cast<char>(unit & 0xff);
    value.utf16 += big_endian ? high : low;
    value.utf16 += big_endian ? low : high;
  }
  const std::optional<std::string> utf8 = ToUtf8(text);
  value.has_utf8 = utf8.has_value();
  value.bytes = utf8.value_or("");
}

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string Quoted(const std::string& text, char quote) {
  return quote + ReplaceAll(text, std::string(1, quote), std::string(2, quote)) + quote;
}

}  // namespace

bool SqliteValue::operator==(const SqliteValue& other) const {
  if (type != other.type) {
    return false;
  }
  switch (type) {
    case SQLITE_INTEGER:
      return integer == other.integer;
    case SQLITE_FLOAT:
      return std::memcmp(&real, &other.real, sizeof real) == 0;
    default:
      return bytes == other.bytes && utf16 == other.utf16;
  }
}

SqliteConnection::SqliteConnection(sqlite3* handle, int result) : handle_(handle) {
  if (result != SQLITE_OK) {
    Fail(handle);
  }
  encoding_ = "UTF-8";  // of what Single reads
  encoding_ = Single("PRAGMA encoding").bytes;
}

SqliteConnection SqliteConnection::OpenImmutable(const std::string& path) {
  sqlite3* handle = nullptr;
  const int result = sqlite3_open_v2(ImmutableUri(path).c_str(), &handle,
                                     SQLITE_OPEN_READONLY | kUriFlags, nullptr);
  return SqliteConnection(handle, result);
}

SqliteConnection SqliteConnection::OpenScratch(const std::string& path) {
  sqlite3* handle = nullptr;
  const int result =
      sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE | kUriFlags, nullptr);
  SqliteConnection connection(handle, result);
  connection.Execute("PRAGMA synchronous=OFF; PRAGMA journal_mode=OFF;");
  return connection;
}

void SqliteConnection::Execute(const std::string& sql) {
  if (sqlite3_exec(handle(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    Fail(handle());
  }
}

void SqliteConnection::AttachImmutable(const std::string& path, const std::string& schema) {
  Execute("ATTACH " + Quoted(ImmutableUri(path), '\'') + " AS " + QuoteName(schema));
}

SqliteValue SqliteConnection::Single(const std::string& sql) {
  SqliteRows rows(*this, sql);
  return rows.Next() ? rows.Value(0) : SqliteValue();
}

SqliteRows::SqliteRows(const SqliteConnection& connection, const std::string& sql)
    : connection_(connection) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(connection.handle(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    Fail(connection.handle());
  }
  statement_.reset(statement);
}

bool SqliteRows::Next() {
  const int result = sqlite3_step(statement_.get());
  if (result != SQLITE_ROW && result != SQLITE_DONE) {
    Fail(connection_.handle());
  }
  return result == SQLITE_ROW;
}

SqliteValue SqliteRows::Value(int column) const {
  SqliteValue value;
  sqlite3_stmt* const statement = statement_.get();
  value.type = sqlite3_column_type(statement, column);
  switch (value.type) {
    case SQLITE_INTEGER:
      value.integer = sqlite3_column_int64(statement, column);
      break;
    case SQLITE_FLOAT:
      value.real = sqlite3_column_double(statement, column);
      break;
    case SQLITE_TEXT:
      if (connection_.IsUtf16()) {
        ReadUtf16(statement, column, connection_.encoding(), value);
      } else {
        value.bytes = BytesAt(sqlite3_column_text(statement, column),
                              sqlite3_column_bytes(statement, column));
      }
      break;
    case SQLITE_BLOB:
      value.bytes =
          BytesAt(sqlite3_column_blob(statement, column), sqlite3_column_bytes(statement, column));
      break;
    default:
      break;
  }
  return value;
}

std::int64_t SqliteRows::Bytes(int column) const {
  switch (sqlite3_column_type(statement_.get(), column)) {
    case SQLITE_TEXT:
      return connection_.IsUtf16() ? sqlite3_column_bytes16(statement_.get(), column)
                                   : sqlite3_column_bytes(statement_.get(), column);
    case SQLITE_BLOB:
      return sqlite3_column_bytes(statement_.get(), column);
    default:
      return 0;
  }
}

bool SqliteRows::Same(int column, int other) const {
  sqlite3_stmt* const statement = statement_.get();
  const int type = sqlite3_column_type(statement, column);
  if (type != sqlite3_column_type(statement, other)) {
    return false;
  }
  if (type == SQLITE_NULL) {
    return true;
  }
  if (type == SQLITE_INTEGER) {
    return sqlite3_column_int64(statement, column) == sqlite3_column_int64(statement, other);
  }
  return Value(column) == Value(other);
}

std::string QuoteName(const std::string& name) {
  return Quoted(name, '"');
}

std::string TextLiteral(const std::string& text) {
  if (text.find('\0') != std::string::npos || !IsUtf8(text)) {
    return CastToText(text);
  }
  if (text.find_first_of("\n\r") == std::string::npos) {
    return Quoted(text, '\'');
  }
  std::string literal = text;
  std::string opening;
  std::string closing;
  for (const char* code : {"10", "13"}) {
    const std::string line_end(1, static_cast<char>(std::atoi(code)));
    if (text.find(line_end) == std::string::npos) {
      continue;
    }
    const std::string stranger = Stranger(literal);
    if (stranger.empty()) {
      return CastToText(text);
    }
    literal = ReplaceAll(literal, line_end, stranger);
    opening = "replace(" + opening;
    closing += "," + Quoted(stranger, '\'') + ",char(" + code + "))";
  }
  return opening + Quoted(literal, '\'') + closing;
}

namespace {

std::string StoredTextLiteral(const SqliteValue& value) {
  const std::string literal = TextLiteral(value.bytes);
  // A cast takes bytes for text as the database stores it.
  const bool is_cast = literal.rfind(kCast, 0) == 0;
  return !value.utf16.empty() && (is_cast || !value.has_utf8) ? CastToText(value.utf16) : literal;
}

}  // namespace

std::string Literal(const SqliteValue& value) {
  switch (value.type) {
    case SQLITE_INTEGER:
      // The digits alone would be read as a real number.
      return value.integer == std::numeric_limits<std::int64_t>::min()
                 ? "(-9223372036854775807-1)"
                 : std::to_string(value.integer);
    case SQLITE_FLOAT:
      return RealLiteral(value.real);
    case SQLITE_TEXT:
      return StoredTextLiteral(value);
    case SQLITE_BLOB:
      return Hexadecimal(value.bytes);
    default:
      return "NULL";
  }
}

}  // namespace tolm::sqldelta

#include "sqldelta/sql_one_line.h"

#include <stdexcept>

namespace tolm::sqldelta {
namespace {

// The place behind what begins at `at`, or the text's end.
std::size_t BehindNext(const std::string& sql, const std::string& end, std::size_t at) {
  const std::size_t found = sql.find(end, at);
  return found == std::string::npos ? sql.size() : found + end.size();
}

bool Begins(const std::string& sql, const char* token, std::size_t at) {
  return sql.compare(at, 2, token) == 0;
}

}  // namespace

std::string OneLine(const std::string& sql) {
  if (sql.find('\n') == std::string::npos) {
    return sql;
  }
  std::string line;
  for (std::size_t at = 0; at < sql.size();) {
    const char c = sql[at];
    if (Begins(sql, "--", at)) {
      at = BehindNext(sql, "\n", at);
      line += ' ';
    } else if (Begins(sql, "/*", at)) {
      at = BehindNext(sql, "*/", at + 2);
      line += ' ';
    } else if (c == '\'' || c == '"' || c == '`' || c == '[') {
      // A doubled quote is two quoted parts side by side, which gives the same text.
      const std::size_t end = BehindNext(sql, std::string(1, c == '[' ? ']' : c), at + 1);
      const std::string quoted = sql.substr(at, end - at);
      if (quoted.find('\n') != std::string::npos) {
        throw std::runtime_error("a name or text in the schema has a line break");
      }
      line += quoted;
      at = end;
    } else {
      line += c == '\n' ? ' ' : c;
      ++at;
    }
  }
  return line;
}

}  // namespace tolm::sqldelta

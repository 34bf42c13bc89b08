#include "sqldelta/sql_one_line.h"

#include <stdexcept>

#include "sqldelta/sql_tokens.h"

namespace tolm::sqldelta {

std::string OneLine(const std::string& sql) {
  if (sql.find('\n') == std::string::npos) {
    return sql;
  }
  std::string line;
  for (std::size_t at = 0; at < sql.size();) {
    const SqlToken token = TokenAt(sql, at);
    std::string text = sql.substr(at, token.end - at);
    if (token.kind == SqlToken::Kind::kComment || text == "\n") {
      text = " ";
    } else if (text.find('\n') != std::string::npos) {
      throw std::runtime_error("a name or text in the schema has a line break");
    }
    line += text;
    at = token.end;
  }
  return line;
}

}  // namespace tolm::sqldelta

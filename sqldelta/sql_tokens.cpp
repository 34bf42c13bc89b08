#include "sqldelta/sql_tokens.h"

#include <strings.h>

#include "sqldelta/sql_one_line.h"

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

bool IsOfWord(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '$' || static_cast<unsigned char>(c) >= 0x80;
}

bool IsBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// The first place from `at` on that is neither a blank nor in a comment.
std::size_t BehindBlanks(const std::string& sql, std::size_t at) {
  while (at < sql.size()) {
    const SqlToken token = TokenAt(sql, at);
    if (token.kind != SqlToken::Kind::kComment && !IsBlank(sql[at])) {
      return at;
    }
    at = token.end;
  }
  return at;
}

// The place behind the bracket that closes the one at `at`.
std::size_t BehindBrackets(const std::string& sql, std::size_t at) {
  int depth = 0;
  while (at < sql.size()) {
    const SqlToken token = TokenAt(sql, at);
    if (token.kind == SqlToken::Kind::kOther) {
      depth += sql[at] == '(' ? 1 : sql[at] == ')' ? -1 : 0;
    }
    at = token.end;
    if (depth == 0) {
      break;
    }
  }
  return at;
}

}  // namespace

SqlToken TokenAt(const std::string& sql, std::size_t at) {
  const char c = sql[at];
  if (Begins(sql, "--", at)) {
    return {SqlToken::Kind::kComment, BehindNext(sql, "\n", at)};
  }
  if (Begins(sql, "/*", at)) {
    return {SqlToken::Kind::kComment, BehindNext(sql, "*/", at + 2)};
  }
  if (c == '\'' || c == '"' || c == '`' || c == '[') {
    // A doubled quote is two quoted parts side by side, which gives the same text.
    return {SqlToken::Kind::kQuoted, BehindNext(sql, std::string(1, c == '[' ? ']' : c), at + 1)};
  }
  std::size_t end = at + 1;
  if (!IsOfWord(c)) {
    return {SqlToken::Kind::kOther, end};
  }
  while (end < sql.size() && IsOfWord(sql[end])) {
    ++end;
  }
  return {SqlToken::Kind::kWord, end};
}

std::vector<std::string> ChecksOf(const std::string& create_table) {
  std::vector<std::string> checks;
  for (std::size_t at = 0; at < create_table.size();) {
    const SqlToken token = TokenAt(create_table, at);
    // Without quotes it is no name.
    if (token.kind != SqlToken::Kind::kWord ||
        strcasecmp(create_table.substr(at, token.end - at).c_str(), "check") != 0) {
      at = token.end;
      continue;
    }
    const std::size_t from = BehindBlanks(create_table, token.end);
    at = BehindBrackets(create_table, from);
    // With a line break there is no comment left.
    checks.push_back(OneLine(create_table.substr(from, at - from) + "\n"));
  }
  return checks;
}

}  // namespace tolm::sqldelta

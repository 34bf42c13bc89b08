#include "sqldelta/sql_tokens.h"

#include <strings.h>

#include <algorithm>
#include <iterator>

#include "sqldelta/sql_one_line.h"

namespace tolm::sqldelta {
namespace {

// What may stand before a bracket: the functions of SQLite 3.24 that need no option when it is
// built, and keywords.
constexpr const char* kBeforeBrackets[] = {
    "abs", "char", "coalesce", "date", "datetime", "glob", "hex", "ifnull", "instr", "julianday",
    "length", "like", "likelihood", "likely", "lower", "ltrim", "max", "min", "nullif", "printf",
    "quote", "replace", "round", "rtrim", "strftime", "substr", "time", "trim", "typeof", "unicode",
    "unlikely", "upper", "zeroblob",
    //
    "and", "between", "case", "cast", "check", "else", "escape", "from", "in", "is", "not", "or",
    "then", "when"};
// Operators that are names of functions, which a connection may lack.
constexpr const char* kOperators[] = {"match", "regexp"};

template <std::size_t kCount>
bool IsOneOf(const char* const (&names)[kCount], const std::string& name) {
  return std::any_of(std::begin(names), std::end(names),
                     [&](const char* known) { return strcasecmp(known, name.c_str()) == 0; });
}

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

bool EverySqliteKnowsFunctionsOf(const std::string& expression) {
  for (std::size_t at = 0; at < expression.size();) {
    const SqlToken token = TokenAt(expression, at);
    const std::string text = expression.substr(at, token.end - at);
    const bool is_word = token.kind == SqlToken::Kind::kWord;
    const bool is_quoted = token.kind == SqlToken::Kind::kQuoted;
    const std::size_t next = BehindBlanks(expression, token.end);
    const bool has_bracket = next < expression.size() && expression[next] == '(';
    if ((is_word && IsOneOf(kOperators, text)) || Begins(expression, "->", at) ||
        (has_bracket && (is_quoted || (is_word && !IsOneOf(kBeforeBrackets, text))))) {
      return false;
    }
    at = token.end;
  }
  return true;
}

}  // namespace tolm::sqldelta

#ifndef TOLM_SQLDELTA_SQL_TOKENS_H_
#define TOLM_SQLDELTA_SQL_TOKENS_H_

#include <cstddef>
#include <string>
#include <vector>

namespace tolm::sqldelta {

/// A part of an SQL text, as far as it has to be known where comments, names and literals begin and
/// end.
struct SqlToken {
  enum class Kind {
    kComment,
    kQuoted,  ///< a name or a literal, with its quotes; two side by side where one is doubled
    kWord,    ///< a name, keyword or number
    kOther    ///< one character
  };
  Kind kind;
  std::size_t end;  ///< the place behind it
};

/// What begins at @p at, which lies within @p sql.
SqlToken TokenAt(const std::string& sql, std::size_t at);

/// The conditions of the CHECK constraints in the text of a table, each on one line. Throws
/// std::runtime_error when a name or a literal in one holds a line break.
std::vector<std::string> ChecksOf(const std::string& create_table);

/// Whether all functions that an expression calls, by name or by an operator, are among those that
/// every SQLite has.
bool EverySqliteKnowsFunctionsOf(const std::string& expression);

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_TOKENS_H_

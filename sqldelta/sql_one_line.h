#ifndef TOLM_SQLDELTA_SQL_ONE_LINE_H_
#define TOLM_SQLDELTA_SQL_ONE_LINE_H_

#include <string>

namespace tolm::sqldelta {

/// A statement with the same meaning and no line break: comments go, line breaks become blanks. A
/// statement without one is returned as it is. Throws std::runtime_error when a name or a literal
/// holds a line break.
std::string OneLine(const std::string& sql);

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_ONE_LINE_H_

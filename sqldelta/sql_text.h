#ifndef TOLM_SQLDELTA_SQL_TEXT_H_
#define TOLM_SQLDELTA_SQL_TEXT_H_

#include <string>
#include <vector>

#include "sqldelta/sqlite_schema.h"

namespace tolm::sqldelta {

using Names = std::vector<std::string>;

/// What the new file is attached as while a script is made; the old one is "main".
constexpr char kNew[] = "tolm_new";

std::string Join(const Names& parts, const std::string& separator);

/// Each as an identifier, with @p prefix before it, such as "o.".
Names Quoted(const Names& names, const std::string& prefix = "");

/// "k1", "k2"...
Names Numbered(const std::string& letter, std::size_t count);

Names Concatenated(Names first, const Names& second);

/// In groups as large as one statement should speak of.
std::vector<Names> Grouped(const Names& names);

std::string InMain(const std::string& table);

/// The keys and the other columns.
Names AllOf(const TableLayout& table);

/// The literals of some columns of a row, with commas between them.
std::string Literals(const SqliteRows& rows, int first, int count);

/// A measure of what some columns of a row hold.
std::int64_t BytesOf(const SqliteRows& rows, int first, int count);

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_TEXT_H_

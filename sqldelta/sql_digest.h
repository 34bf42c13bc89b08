#ifndef TOLM_SQLDELTA_SQL_DIGEST_H_
#define TOLM_SQLDELTA_SQL_DIGEST_H_

#include <string>
#include <vector>

#include "sqldelta/sqlite_reader.h"

namespace tolm::sqldelta {

/// SELECT statements that give one text by which states of a database are told apart. SQL has no
/// digest of its own; these are built of what every version of SQLite on every machine computes
/// alike, so the decimal text of a real number has no part in them. docs/formats/sql-delta.md says
/// what each of them notices.

/// Of a set of texts, which @p select_digits gives as its one column, `b`: of each digit and its
/// place. @p reads is used to see how long they are. Takes some 0.1 microseconds a byte of
/// values on a PC.
std::string ExactDigest(const SqliteConnection& reads, const std::string& select_digits);

/// The rows of @p from ("t JOIN u ON ..."), each as one text for ExactDigest, with the types of its
/// values: hexadecimal digits and, between values, "G". @p columns are expressions; @p reads is
/// used to see what is in them.
std::string SelectDigits(const SqliteConnection& reads, const std::vector<std::string>& columns,
                         const std::string& from);

/// Of everything that SQLite keeps of the schema of "main".
std::string SchemaDigest(const SqliteConnection& reads);

struct SummedColumn {
  std::string expression;
  unsigned types = 0;     ///< the bits 1 << SQLITE_INTEGER and so on of what is in it
  bool small = false;     ///< its integers lie between -2^30 and 2^30
  bool has_gaps = false;  ///< some texts or blobs may be empty, or hold a NUL
  bool is_ascii = false;  ///< all texts have one byte a character; there are no blobs
  /// Literals of texts that stand in many rows, the most frequent first. They are told from all
  /// others by themselves, which takes less time than a function.
  std::vector<std::string> frequent;
  bool sampled = false;  ///< with the middle and the last character of each text
};

/// Of the rows of @p from: their number and a sum over their values, each together with its row's
/// key: numbers (real ones to 1/4096), and of all else frequent texts and lengths. Takes some 0.02
/// microseconds a value on a PC, and 0.5 of a text that is sampled.
std::string SumDigest(const std::vector<SummedColumn>& keys,
                      const std::vector<SummedColumn>& columns, const std::string& from);

/// "(a op b) op (c op d)": SQLite refuses expressions that are nested deeply.
std::string Balanced(const std::vector<std::string>& terms, const std::string& operation);

}  // namespace tolm::sqldelta

#endif  // TOLM_SQLDELTA_SQL_DIGEST_H_

#include "sqldelta/sql_digest.h"

#include <sqlite3.h>

#include <cstdint>

#include "sqldelta/sql_script.h"

namespace tolm::sqldelta {
namespace {

using Terms = std::vector<std::string>;

// 2 to the power of 60 scales a real number without rounding. Without a decimal point it is read
// exactly.
constexpr char kScale[] = "1152921504606846976";

std::string Whole(const std::string& real) {
  return "CAST(" + real + " AS INTEGER)";
}

// Integers that hold a real number's bits: those before the point, 60 and 60 more behind it, and
// those that are too large for the first.
Terms PartsOfReal(const std::string& value) {
  const std::string scaled = "(" + value + "-" + Whole(value) + ")*" + kScale;
  return {Whole(value), Whole(scaled), Whole("(" + scaled + "-" + Whole(scaled) + ")*" + kScale),
          Whole(value + "/" + kScale)};
}

constexpr unsigned kInteger = 1U << SQLITE_INTEGER;
constexpr unsigned kReal = 1U << SQLITE_FLOAT;
constexpr unsigned kText = 1U << SQLITE_TEXT;
constexpr unsigned kBlob = 1U << SQLITE_BLOB;
constexpr unsigned kNull = 1U << SQLITE_NULL;
// Stands for NULL, and is no length.
constexpr char kForNull[] = "-500009";

// Of texts and blobs; NULL where unicode() has nothing to give.
std::string SumOfSample(const SummedColumn& column) {
  const std::string& value = column.expression;
  const std::string length = "length(" + value + ")";
  // What is concatenated has the end that unicode() would have to make.
  const std::string end = (column.types & kBlob) != 0 ? "" : "||''";
  const std::string in = column.is_ascii ? "CAST(" + value + " AS BLOB)" : value;
  const std::string sum = length + "*5+unicode(substr(" + in + ",-1,1)" + end +
                          ")*3+unicode(substr(" + in + "," + length + "/2+1,1)" + end + ")";
  // A place among bytes is one among characters as long as there are as many.
  return column.is_ascii ? sum + "+length(" + in + ")*7" : sum;
}

std::string SumOfText(const SummedColumn& column) {
  const std::string& value = column.expression;
  const std::string length = "length(" + value + ")";
  std::string sum = column.sampled ? SumOfSample(column) : length;
  if (column.sampled && column.has_gaps) {
    sum = "ifnull(" + sum + "," + length + ")";
  }
  if (!column.frequent.empty()) {
    std::string choice = "CASE " + value + " COLLATE BINARY";
    for (std::size_t i = 0; i < column.frequent.size(); ++i) {
      choice += " WHEN " + column.frequent[i] + " THEN -" + std::to_string(i + 1);
    }
    sum = choice + " ELSE " + sum + " END";
  }
  return (column.types & kNull) != 0
             ? "CASE WHEN " + value + " IS NULL THEN " + kForNull + " ELSE " + sum + " END"
             : sum;
}

// An integer. As few operations as the column's content allows: it is of all rows. What is of a
// type that the column has not had makes it NULL, a real number, or another integer.
std::string Summed(const SummedColumn& column) {
  const std::string& value = column.expression;
  const std::string integer = column.small ? value : value + "%1000003";
  const std::string real = "CAST(" + value + "*4096 AS INTEGER)%1000003";
  const auto or_null = [&](const std::string& sum) {
    return (column.types & kNull) != 0 ? "ifnull(" + sum + "," + kForNull + ")" : sum;
  };
  switch (column.types & ~kNull) {
    case 0:
      return column.types == 0 ? integer : value + " IS NULL";
    case kInteger:
      return or_null(integer);
    case kReal:
      return or_null(real);
    case kText:
    case kBlob:
      return SumOfText(column);
    default:
      break;
  }
  if ((column.types & kReal) == 0) {
    return "CASE WHEN " + value + " COLLATE BINARY<'' THEN " + integer + " ELSE " +
           SumOfText(column) + " END";
  }
  return "CASE typeof(" + value + ") WHEN 'integer' THEN " + integer + " WHEN 'real' THEN " + real +
         "+1 ELSE " + SumOfText(column) + " END";
}

std::string SummedRow(const std::vector<SummedColumn>& columns) {
  Terms terms = {"1"};
  for (const SummedColumn& column : columns) {
    terms.push_back("(" + Summed(column) + ")*" + std::to_string(terms.size() * 69069 % 99991));
  }
  return Balanced(terms, "+") + "%1000003";
}

// Of the decimal digits of a text: as many a step are read at once as fit an integer, and as many
// steps taken at once as make a statement of a moderate length for as much as there is to be read.
constexpr int kGroup = 18;
constexpr int kFewGroups = 8;
constexpr int kManyGroups = 32;
constexpr std::int64_t kManyDigits = 200'000;
constexpr std::int64_t kPiece = 1600;

std::string Hex(const SqliteConnection& reads, const std::string& value) {
  return reads.IsUtf16() ? "hex(CAST(" + value + " AS BLOB))" : "hex(" + value + ")";
}

std::string Bytes(const std::string& value) {
  return "length(CAST(" + value + " AS BLOB))";
}

// A script does not write so long a value. To compare all of it would take minutes, and memory of
// many times its size.
std::string IsLong(const std::string& value) {
  return Bytes(value) + ">" + std::to_string(SqlScript::kMaxLineBytes);
}

// Of a long value its length and its ends, of another one all digits.
std::string Shortened(const SqliteConnection& reads, const std::string& value,
                      const std::string& digits) {
  return "CASE WHEN " + IsLong(value) + " THEN " + Bytes(value) + "||'G'||" +
         Hex(reads, "substr(" + value + ",1,1000)") + "||'G'||" +
         Hex(reads, "substr(" + value + ",-1000)") + " ELSE " + digits + " END";
}

// Of a text of SelectDigits, so that no two texts become the same one, and so that substr() reaches
// each place at once: it has to count the characters of a text. Which number a blob of UTF-16 is
// depends on the version, so each of the 17 digits becomes one or two decimal ones there.
std::string Decimal(const SqliteConnection& reads, std::string digits) {
  if (!reads.IsUtf16()) {
    return "CAST(hex(" + digits + ") AS BLOB)";
  }
  digits = "replace(" + digits + ",9,99)";
  const std::string letters = "ABCDEFG";
  for (std::size_t i = 0; i < letters.size(); ++i) {
    digits = "replace(" + digits + ",'" + letters[i] + "'," + std::to_string(90 + i) + ")";
  }
  return digits;
}

// No part of it exceeds 64 bits.
std::string Step(int groups) {
  std::string step = "x";
  for (int group = 0; group < groups; ++group) {
    step = "(" + step + "*900001+CAST(substr(b," + std::to_string(group * kGroup + 1) + "," +
           std::to_string(kGroup) + ")AS INT))%9000000000011";
  }
  return step;
}

struct Lengths {
  std::int64_t longest = 0;
  std::int64_t all = 0;
};

Lengths LengthsOf(const SqliteConnection& reads, const std::string& select_digits) {
  SqliteRows lengths(reads, "SELECT max(length(b)),sum(length(b)) FROM (" + select_digits + ")");
  lengths.Next();
  return {lengths.Integer(0), lengths.Integer(1)};
}

}  // namespace

std::string Balanced(const Terms& terms, const std::string& operation) {
  const auto join = [&](const auto& self, std::size_t first, std::size_t count) -> std::string {
    if (count == 1) {
      return terms[first];
    }
    const std::size_t half = count / 2;
    return "(" + self(self, first, half) + operation + self(self, first + half, count - half) + ")";
  };
  return terms.empty() ? "0" : join(join, 0, terms.size());
}

std::string ExactDigest(const SqliteConnection& reads, const std::string& select_digits) {
  const Lengths lengths = LengthsOf(reads, select_digits);
  const std::int64_t pieces = (lengths.longest + kPiece - 1) / kPiece;
  const int groups = lengths.all < kManyDigits ? kFewGroups : kManyGroups;
  const std::string empty = reads.IsUtf16() ? "''" : "x''";
  // Without the limit SQLite works out a text anew wherever it is spoken of.
  std::string beginning = "h(b,x) AS (SELECT " + Decimal(reads, "b") + ",length(b) FROM (" +
                          select_digits + " LIMIT -1)";
  if (pieces > 1) {
    // Every step copies what is left. A text of more pieces is found by its length.
    const std::string piece = std::to_string(kPiece);
    const std::string text = reads.IsUtf16() ? "b" : "CAST(b AS BLOB)";
    beginning = "n(i) AS (SELECT 1 UNION ALL SELECT i+" + piece + " FROM n LIMIT " +
                std::to_string(pieces) + "),h(b,x) AS (SELECT " +
                Decimal(reads, "substr(b,i," + piece + ")") + ",length(b)*8191+i FROM (SELECT " +
                text + " b FROM (" + select_digits + ") LIMIT -1) CROSS JOIN n WHERE i<=length(b)";
  }
  return "WITH RECURSIVE " + beginning + " UNION ALL SELECT substr(b," +
         std::to_string(groups * kGroup + 1) + ")," + Step(groups) + " FROM h WHERE b<>" + empty +
         ") SELECT count(*)||' '||ifnull(sum(x%3037000493*(x%2999999929)%9000000000011),0) FROM h "
         "WHERE b=" +
         empty;
}

std::string SelectDigits(const SqliteConnection& reads, const Terms& columns,
                         const std::string& from) {
  constexpr int kProbes = 3;
  std::string probes;
  for (const std::string& column : columns) {
    probes += (probes.empty() ? "" : ",") + ("max(typeof(" + column + ")='real'),max(" + column +
                                             " IS NULL),max(" + IsLong(column) + ")");
  }
  SqliteRows probe(reads, "SELECT " + probes + " FROM " + from);
  probe.Next();
  Terms texts;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    const std::string& column = columns[i];
    const int at = static_cast<int>(i) * kProbes;
    // Where there are none now, one makes a difference however it is written.
    const bool has_reals = probe.Integer(at) != 0;
    const std::string value = has_reals ? "CASE typeof(" + column + ") WHEN 'real' THEN " +
                                              Balanced(PartsOfReal(column), "||'.'||") + " ELSE " +
                                              column + " END"
                                        : column;
    // A blob, a text or a number. A NULL where there is none now takes the row away.
    const std::string plain = column + " COLLATE BINARY";
    const std::string type = "(" + plain + "<'')+(" + plain + "<x'')";
    const bool has_nulls = probe.Integer(at + 1) != 0;
    const bool has_long = probe.Integer(at + 2) != 0;
    const std::string digits = Hex(reads, value);
    texts.push_back((has_nulls ? "ifnull(" + type + ",3)" : "(" + type + ")") + "||" +
                    (has_long ? Shortened(reads, column, digits) : digits));
  }
  return "SELECT " + Balanced(texts, "||'G'||") + " b FROM " + from;
}

std::string SchemaDigest(const SqliteConnection& reads) {
  return ExactDigest(reads, "SELECT " +
                                Hex(reads, "type||' '||name||' '||tbl_name||' '||ifnull(sql,'')") +
                                " b FROM main.sqlite_master");
}

std::string SumDigest(const std::vector<SummedColumn>& keys,
                      const std::vector<SummedColumn>& columns, const std::string& from) {
  return "SELECT count(*)||' '||ifnull(sum(" + SummedRow(keys) + "*(" + SummedRow(columns) +
         ")%1000000007),0) FROM " + from;
}

}  // namespace tolm::sqldelta

#include "sqldelta/sql_digest.h"

#include <sqlite3.h>

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

std::string SumOfText(const SummedColumn& column) {
  const std::string& value = column.expression;
  const std::string length = "length(" + value + ")";
  const auto character = [&](const std::string& place) {
    return "ifnull(unicode(substr(" + value + "," + place + ",1)),0)";
  };
  return column.sampled ? length + "*5+" + character("-1") + "*3+" + character(length + "/2+1")
                        : length;
}

// An integer. As few operations as the column's content allows: it is of all rows.
std::string Summed(const SummedColumn& column) {
  constexpr unsigned kInteger = 1U << SQLITE_INTEGER;
  constexpr unsigned kReal = 1U << SQLITE_FLOAT;
  constexpr unsigned kText = 1U << SQLITE_TEXT;
  constexpr unsigned kBlob = 1U << SQLITE_BLOB;
  constexpr unsigned kNull = 1U << SQLITE_NULL;
  const std::string& value = column.expression;
  const std::string real = "CAST(" + value + "*4096 AS INTEGER)%1000003";
  std::string sum;
  switch (column.types & ~kNull) {
    case 0:
    case kInteger:
      sum = value + "%1000003";
      break;
    case kReal:
      sum = real;
      break;
    case kText:
    case kBlob:
      sum = SumOfText(column);
      break;
    default:
      return "CASE typeof(" + value + ") WHEN 'integer' THEN " + value +
             "%1000003 WHEN 'real' THEN " + real + "+1 WHEN 'null' THEN 7 ELSE " +
             SumOfText(column) + " END";
  }
  return (column.types & kNull) != 0 ? "ifnull(" + sum + ",7)" : sum;
}

std::string SummedRow(const std::vector<SummedColumn>& columns) {
  Terms terms = {"1"};
  for (const SummedColumn& column : columns) {
    terms.push_back("(" + Summed(column) + ")*" + std::to_string(terms.size() * 69069 % 99991));
  }
  return Balanced(terms, "+") + "%1000003";
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

std::string ExactDigest(const std::string& select_blobs) {
  // Long blobs fall into pieces, as every step copies what is left of its piece.
  std::string step = "x*1000003";
  for (int place = 1; place <= 8; ++place) {
    // A character of up to four bytes begins at each byte, or the byte counts as one.
    step += "+ifnull(unicode(substr(b," + std::to_string(place) + ",4)),0)*" +
            std::to_string(place * 15485863 + 7);
  }
  return "WITH RECURSIVE s(b) AS (" + select_blobs +
         "),p(b,n) AS (SELECT b,1 FROM s UNION ALL SELECT substr(b,401),n+1 FROM p WHERE "
         "length(b)>400),h(b,x) AS (SELECT substr(b,1,400),n*8191+length(b) FROM p UNION ALL "
         "SELECT substr(b,9),(" +
         step +
         ")%9000000000011 FROM h WHERE b<>x'') SELECT count(*)||' '||ifnull(sum(x%3037000493*(x%"
         "2999999929)%9000000000011),0) FROM h WHERE b=x''";
}

std::string SelectBlobs(const SqliteConnection& reads, const Terms& columns,
                        const std::string& from) {
  std::string probes;
  for (const std::string& column : columns) {
    probes += (probes.empty() ? "" : ",") + ("max(typeof(" + column + ")='real')");
  }
  SqliteRows probe(reads, "SELECT " + probes + " FROM " + from);
  probe.Next();
  Terms texts;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    const std::string& column = columns[i];
    // Where there are none now, one makes a difference however it is written.
    const bool has_reals = probe.Integer(static_cast<int>(i)) != 0;
    const std::string real =
        has_reals ? " WHEN 'real' THEN " + Balanced(PartsOfReal(column), "||'.'||") : "";
    texts.push_back("CASE typeof(" + column + ") WHEN 'text' THEN 't'||" + column + real +
                    " ELSE quote(" + column + ") END");
  }
  return "SELECT CAST(" + Balanced(texts, "||','||") + " AS BLOB) FROM " + from;
}

std::string SchemaDigest() {
  return ExactDigest(
      "SELECT CAST(type||' '||name||' '||tbl_name||' '||ifnull(sql,'') AS BLOB) FROM "
      "main.sqlite_master");
}

std::string SumDigest(const std::vector<SummedColumn>& keys,
                      const std::vector<SummedColumn>& columns, const std::string& from) {
  return "SELECT count(*)||' '||ifnull(sum(" + SummedRow(keys) + "*(" + SummedRow(columns) +
         ")%1000000007),0) FROM " + from;
}

}  // namespace tolm::sqldelta

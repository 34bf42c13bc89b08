#include "sqldelta/sqlite_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "tests/sqldelta/sqlite_files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using sqldelta::Literal;
using sqldelta::QuoteName;
using sqldelta::SqliteConnection;
using sqldelta::SqliteError;
using sqldelta::SqliteRows;
using sqldelta::SqliteValue;
using sqldelta::TextLiteral;
using ::testing::HasSubstr;
using ::testing::Not;

SqliteValue Real(double real) {
  SqliteValue value;
  value.type = SQLITE_FLOAT;
  value.real = real;
  return value;
}

SqliteValue Integer(std::int64_t integer) {
  SqliteValue value;
  value.type = SQLITE_INTEGER;
  value.integer = integer;
  return value;
}

SqliteValue Bytes(int type, const std::string& bytes) {
  SqliteValue value;
  value.type = type;
  value.bytes = bytes;
  return value;
}

std::uint64_t Bits(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

double FromBits(std::uint64_t bits) {
  double value = 0;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

class SqliteReaderTest : public ::testing::Test {
 protected:
  std::string At(const std::string& name) const { return directory_.Path() / name; }

  SqliteConnection Open(const std::string& sql = "PRAGMA user_version=1") {
    ExecuteOn(At("x.db"), sql);
    return SqliteConnection::OpenScratch(At("x.db"));
  }

  // That SQLite reads each literal as the value, and stores it so.
  void ExpectRoundTrips(const std::vector<SqliteValue>& values) {
    SqliteConnection connection = Open();
    constexpr std::size_t kInAStatement = 500;
    for (std::size_t first = 0; first < values.size(); first += kInAStatement) {
      const std::size_t end = std::min(values.size(), first + kInAStatement);
      connection.Execute("DROP TABLE IF EXISTS t; CREATE TABLE t(a)");
      std::string rows;
      for (std::size_t i = first; i < end; ++i) {
        rows += (rows.empty() ? "(" : ",(") + Literal(values[i]) + ")";
      }
      ASSERT_THAT(rows, Not(HasSubstr("\n")));
      connection.Execute("INSERT INTO t VALUES" + rows);
      SqliteRows read(connection, "SELECT a FROM t ORDER BY rowid");
      for (std::size_t i = first; i < end; ++i) {
        ASSERT_TRUE(read.Next());
        EXPECT_TRUE(read.Value(0) == values[i]) << Literal(values[i]);
      }
    }
  }

  TemporaryDirectory directory_;
};

TEST_F(SqliteReaderTest, IntegersComeBack) {
  std::vector<SqliteValue> values = {Integer(std::numeric_limits<std::int64_t>::min()),
                                     Integer(std::numeric_limits<std::int64_t>::max()), Integer(0)};
  for (int bit = 0; bit < 63; ++bit) {
    for (const std::int64_t delta : {-1, 0, 1}) {
      values.push_back(Integer((std::int64_t{1} << bit) + delta));
      values.push_back(Integer(-(std::int64_t{1} << bit) + delta));
    }
  }
  ExpectRoundTrips(values);
}

TEST_F(SqliteReaderTest, EveryExponentOfRealsComesBackBitForBit) {
  std::mt19937_64 random(1);
  std::vector<SqliteValue> values;
  for (std::uint64_t exponent = 0; exponent < 0x7ff; ++exponent) {
    const std::uint64_t mantissa = random() >> 12;
    for (const std::uint64_t bits :
         {std::uint64_t{0}, std::uint64_t{1}, mantissa, (std::uint64_t{1} << 52) - 1}) {
      values.push_back(Real(FromBits(exponent << 52 | bits)));
      values.push_back(Real(-FromBits(exponent << 52 | bits)));
    }
  }
  values.push_back(Real(std::numeric_limits<double>::infinity()));
  values.push_back(Real(-std::numeric_limits<double>::infinity()));
  ExpectRoundTrips(values);
}

// What people write down: SQLite itself reads some of these as the next number.
TEST_F(SqliteReaderTest, DecimalsOfUpTo15DigitsComeBackBitForBit) {
  std::mt19937_64 random(2);
  std::vector<SqliteValue> values = {Real(8.93094831090249e-05)};
  for (int i = 0; i < 200'000; ++i) {
    const int digits = 1 + static_cast<int>(random() % 15);
    const auto number = static_cast<double>(random() % static_cast<unsigned>(1e9)) * 1e6 +
                        static_cast<double>(random() % 1'000'000U);
    const double cut = std::floor(number / std::pow(10, 15 - digits));
    values.push_back(Real(cut / std::pow(10, random() % 20)));
  }
  ExpectRoundTrips(values);
}

// A machine whose long double is no longer than a double cannot tell how others read a decimal.
TEST_F(SqliteReaderTest, ShortDecimalsAreWrittenAsSuchWhereEveryMachineReadsThem) {
  const bool can_tell = std::numeric_limits<long double>::digits >= 64;
  const struct {
    double value;
    const char* literal;
    const char* exact;
  } kRows[] = {
      {0.1, "0.1", "(1/1e1)"},
      {1, "1.0", "(4503599627370496.0/4503599627370496.0)"},
      {-2.5, "-2.5", "(-25/1e1)"},
      {48.85341, "48.85341", "(4885341/1e5)"},
      {0.0, "0.0", "0.0"},
      {1e20, "1e+20", "(6103515625000000.0*16384.0)"},
      {100, "100.0", "(7036874417766400.0/70368744177664.0)"},
      {-0.0, "(-1.0/9e999)", "(-1.0/9e999)"},
      {0.0001, "0.0001", "(1/1e4)"},
      {123456, "123456.0", "(8483831719919616.0/68719476736.0)"},
      {8.93094831090249e-05, "(893094831090249/1e19)", "(893094831090249/1e19)"},
      {1.0 / 3, "(6004799503160661.0/4503599627370496.0/4.0)",
       "(6004799503160661.0/4503599627370496.0/4.0)"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(Literal(Real(row.value)), can_tell ? row.literal : row.exact);
  }
}

TEST_F(SqliteReaderTest, TextsAndBlobsComeBack) {
  std::vector<SqliteValue> values = {SqliteValue()};
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
  }
  std::string controls = all.substr(1, 31);
  for (const std::string& text :
       {std::string(), std::string("it's"), std::string("a\nb"), std::string("a\r\nb\x01\x02"),
        std::string("a\0b", 3), std::string("\0", 1), std::string("\xc3\xa4\xe2\x82\xac"), all,
        controls, controls + "'" + controls, std::string("\xff"), std::string("\xc0\xaf"),
        std::string("\xed\xa0\x80"), std::string("\xef\xbf\xbe"), std::string("\xef\xbb\xbfx"),
        std::string("\xf4\x90\x80\x80"), std::string("a--b/*c*/;"), std::string("100%s")}) {
    values.push_back(Bytes(SQLITE_TEXT, text));
    values.push_back(Bytes(SQLITE_BLOB, text));
  }
  std::mt19937 random(3);
  for (int i = 0; i < 3000; ++i) {
    std::string text(random() % 20, 'x');
    for (char& c : text) {
      c = static_cast<char>(random() % 3 == 0 ? random() % 256 : random() % 40);
    }
    values.push_back(Bytes(SQLITE_TEXT, text));
  }
  ExpectRoundTrips(values);
}

TEST_F(SqliteReaderTest, LiteralsOfTextsWithoutLineBreaksAreReadable) {
  EXPECT_EQ(TextLiteral("it's"), "'it''s'");
  EXPECT_EQ(TextLiteral("a\nb"),
            "replace('a\x01"
            "b','\x01',char(10))");
  EXPECT_EQ(TextLiteral(std::string("\0", 1)), "CAST(x'00' AS TEXT)");
}

TEST_F(SqliteReaderTest, EveryUtf16TextComesBack) {
  for (const char* encoding : {"UTF-16le", "UTF-16be"}) {
    SCOPED_TRACE(encoding);
    const std::string path = At(encoding);
    ExecuteOn(path, std::string("PRAGMA encoding='") + encoding + "'; CREATE TABLE t(a,b)");
    SqliteConnection connection = SqliteConnection::OpenScratch(path);
    EXPECT_EQ(connection.encoding(), encoding);
    // Each unit alone, in the middle, and behind a high surrogate.
    connection.Execute(
        "INSERT INTO t(a) WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+7 FROM n WHERE "
        "i<65528),h(x) AS (SELECT substr('0123456789ABCDEF',1+(i>>12),1)||substr('0123456789ABCDEF'"
        ",1+(i>>8&15),1)||substr('0123456789ABCDEF',1+(i>>4&15),1)||substr('0123456789ABCDEF',1+("
        "i&15),1) FROM n) SELECT p||x||s FROM h,(SELECT '' AS p,'' AS s UNION ALL SELECT '0041',"
        "'0041' UNION ALL SELECT 'D83D','')");
    // Without a function that reads hexadecimal digits: through literals.
    std::vector<std::string> digits;
    {
      SqliteRows rows(connection, "SELECT a FROM t");
      while (rows.Next()) {
        digits.push_back(rows.Text(0));
      }
    }
    connection.Execute("BEGIN; DELETE FROM t");
    for (const std::string& text : digits) {
      connection.Execute("INSERT INTO t(a) VALUES(CAST(x'" + text + "' AS TEXT))");
    }
    std::vector<std::string> updates;
    {
      SqliteRows rows(connection, "SELECT rowid,a FROM t");
      while (rows.Next()) {
        updates.push_back("UPDATE t SET b=" + Literal(rows.Value(1)) +
                          " WHERE rowid=" + std::to_string(rows.Integer(0)));
      }
    }
    for (const std::string& update : updates) {
      connection.Execute(update);
    }
    EXPECT_GT(updates.size(), 20'000U);
    EXPECT_EQ(connection.Single("SELECT count(*) FROM t WHERE hex(a)<>hex(b)").integer, 0);
  }
}

TEST_F(SqliteReaderTest, ValuesAreEqualBitForBit) {
  EXPECT_TRUE(Integer(1) == Integer(1));
  EXPECT_TRUE(Real(0.0) != Real(-0.0));
  EXPECT_TRUE(Integer(1) != Real(1));
  EXPECT_TRUE(Bytes(SQLITE_TEXT, "1") != Bytes(SQLITE_BLOB, "1"));
  EXPECT_TRUE(Bytes(SQLITE_TEXT, "1") != Bytes(SQLITE_TEXT, "2"));
  EXPECT_TRUE(SqliteValue() == SqliteValue());
  EXPECT_TRUE(SqliteValue() != Bytes(SQLITE_TEXT, ""));
  EXPECT_EQ(Bits(FromBits(7)), 7U);
}

TEST_F(SqliteReaderTest, ColumnsOfARowAreComparedAsTheyAreStored) {
  SqliteConnection connection = Open();
  const struct {
    const char* select;
    bool same;
  } kRows[] = {
      {"SELECT 1,1", true},         {"SELECT 1,1.0", false},    {"SELECT 1,'1'", false},
      {"SELECT '1',x'31'", false},  {"SELECT NULL,NULL", true}, {"SELECT NULL,''", false},
      {"SELECT 'a','A'", false},    {"SELECT 0.5,0.5", true},   {"SELECT x'00',x'00'", true},
      {"SELECT char(0),''", false}, {"SELECT 'ab','ab'", true}, {"SELECT 2,3", false},
  };
  for (const auto& row : kRows) {
    SqliteRows rows(connection, row.select);
    ASSERT_TRUE(rows.Next());
    EXPECT_EQ(rows.Same(0, 1), row.same) << row.select;
    EXPECT_EQ(rows.Value(0) == rows.Value(1), row.same) << row.select;
  }
}

TEST_F(SqliteReaderTest, RowsTellTypesAndSizes) {
  SqliteConnection connection = Open();
  SqliteRows rows(connection, "SELECT 5,'\u00e4',x'010203',NULL,1.5");
  ASSERT_TRUE(rows.Next());
  EXPECT_EQ(rows.Width(), 5);
  EXPECT_EQ(rows.Integer(0), 5);
  EXPECT_EQ(rows.Text(1), "\u00e4");
  EXPECT_TRUE(rows.IsNull(3));
  EXPECT_FALSE(rows.IsNull(4));
  const std::int64_t sizes[] = {0, 2, 3, 0, 0};
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(rows.Bytes(i), sizes[i]) << i;
  }
  EXPECT_FALSE(rows.Next());
}

TEST_F(SqliteReaderTest, NamesAreQuoted) {
  EXPECT_EQ(QuoteName("a \"b\""), "\"a \"\"b\"\"\"");
}

TEST_F(SqliteReaderTest, ImmutableFilesAreNotWritten) {
  Open("CREATE TABLE t(a)");
  SqliteConnection connection = SqliteConnection::OpenImmutable(At("x.db"));
  EXPECT_THROW(connection.Execute("INSERT INTO t VALUES(1)"), SqliteError);
  ExecuteOn(At("y ?#%.db"), "CREATE TABLE u(a); INSERT INTO u VALUES(7)");
  connection.AttachImmutable(At("y ?#%.db"), "an \"odd\" name");
  EXPECT_EQ(connection.Single("SELECT a FROM u").integer, 7);
  EXPECT_THROW(connection.Execute("DELETE FROM u"), SqliteError);
}

TEST_F(SqliteReaderTest, ErrorsHaveSqlitesTextAndCode) {
  SqliteConnection connection = Open();
  try {
    connection.Execute("SELECT * FROM gone");
    FAIL();
  } catch (const SqliteError& error) {
    EXPECT_STREQ(error.what(), "no such table: gone");
    EXPECT_EQ(error.code(), SQLITE_ERROR);
  }
  EXPECT_THROW(SqliteConnection::OpenImmutable(At("gone.db")), SqliteError);
  EXPECT_THROW(SqliteConnection::OpenScratch(At("gone.db")), SqliteError);
  EXPECT_THROW(SqliteRows(connection, "nonsense"), SqliteError);
  EXPECT_TRUE(connection.Single("SELECT 1 WHERE 0") == SqliteValue());
}

}  // namespace
}  // namespace tolm::testing

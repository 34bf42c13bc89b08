#include "publish/sqlite_file.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <functional>
#include <stdexcept>

#include "package/error.h"
#include "tests/publish/release_fixture.h"
#include "tests/support/mounts.h"

namespace tolm::testing {
namespace {

using package::Code;
using publish::IsSqliteFile;
using publish::MakeSqlDelta;
using ::testing::HasSubstr;

package::Error ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const package::Error& error) {
    return error;
  }
  throw std::runtime_error("no error");
}

class PublishedSqliteTest : public ReleaseFixture {
 protected:
  PublishedSqliteTest() {
    WriteFile(Path("old.db"), Table(0));
    WriteFile(Path("new.db"), Table(3));
  }

  package::Error Failure(const std::string& old_file, const std::string& script) {
    return ErrorOf([&] { MakeSqlDelta(Path(old_file), Path("new.db"), Path(script), {}); });
  }
};

TEST_F(PublishedSqliteTest, UnreadableFileIsAnErrorOfReading) {
  const package::Error unread = ErrorOf([this] { IsSqliteFile(Path("gone")); });
  EXPECT_EQ(unread.code(), Code::kRead);
  EXPECT_EQ(unread.errno_value(), ENOENT);
  EXPECT_EQ(unread.what(), Path("gone") + ": No such file or directory");
  const package::Error gone = Failure("gone.db", "script");
  EXPECT_EQ(gone.code(), Code::kRead);
  EXPECT_EQ(gone.what(),
            Path("gone.db") + ", " + Path("new.db") + ": unable to open database file");
}

TEST_F(PublishedSqliteTest, UnwritableScriptIsAnErrorOfWriting) {
  const package::Error nowhere = Failure("old.db", "gone/script");
  EXPECT_EQ(nowhere.code(), Code::kWrite);
  EXPECT_EQ(nowhere.errno_value(), ENOENT);
  EXPECT_EQ(nowhere.what(), Path("gone/script.scratch") + ": No such file or directory");
}

TEST_F(PublishedSqliteTest, FullFileSystemIsToldApart) {
  const auto mount = ScopedMount::Tmpfs(Path("small"), 16 << 10);
  const package::Error full = Failure("old.db", "small/script");
  EXPECT_EQ(full.code(), Code::kNoSpace);
  EXPECT_EQ(full.errno_value(), ENOSPC);
  EXPECT_EQ(full.what(), Path("small/script.scratch") + ": No space left on device");
}

TEST_F(PublishedSqliteTest, OnlySqliteFilesHoldTheSameInOtherBytes) {
  WriteFile(Path("also_new.db"), Table(0, "UPDATE t SET v = v || ' changed' WHERE k <= 3; VACUUM"));
  ASSERT_TRUE(ReadFile(Path("also_new.db")) != ReadFile(Path("new.db")));
  EXPECT_TRUE(publish::HoldTheSame(Path("also_new.db"), Path("new.db")));
  EXPECT_FALSE(publish::HoldTheSame(Path("old.db"), Path("new.db")));
  WriteFile(Path("text"), "text");
  EXPECT_FALSE(publish::HoldTheSame(Path("text"), Path("text")));
}

TEST_F(PublishedSqliteTest, FilesThatCannotBeComparedDoNotHoldTheSame) {
  EXPECT_TRUE(publish::HoldTheSame(Path("new.db"), Path("new.db")));
  WriteFile(Path("text"), "text");
  EXPECT_FALSE(publish::HoldTheSame(Path("new.db"), Path("text")));
  EXPECT_FALSE(publish::HoldTheSame(Path("text"), Path("new.db")));
  // SQLite takes an empty file for a database without tables.
  WriteFile(Path("bare.db"), Database("CREATE TABLE t(k); DROP TABLE t;"));
  WriteFile(Path("empty"), "");
  EXPECT_TRUE(publish::HoldTheSame(Path("bare.db"), Path("bare.db")));
  EXPECT_FALSE(publish::HoldTheSame(Path("bare.db"), Path("empty")));
  EXPECT_FALSE(publish::HoldTheSame(Path("empty"), Path("bare.db")));
  WriteFile(Path("torn.db"), ReadFile(Path("new.db")).substr(0, 5000));
  EXPECT_FALSE(publish::HoldTheSame(Path("torn.db"), Path("torn.db")));
}

TEST_F(PublishedSqliteTest, ChangesAreFoundOrTheReasonWhyNot) {
  std::string problem;
  EXPECT_TRUE(publish::FindSqliteChanges(Path("old.db"), Path("new.db"), problem));
  EXPECT_EQ(problem, "");
  WriteFile(Path("torn.db"), ReadFile(Path("new.db")).substr(0, 5000));
  EXPECT_FALSE(publish::FindSqliteChanges(Path("old.db"), Path("torn.db"), problem));
  EXPECT_THAT(problem, HasSubstr("malformed"));
}

// Every table with the number of its rows, or why it has none.
std::string Counted(const std::string& path) {
  std::string text;
  const publish::TableRows tables = publish::CountRows(path);
  for (const auto& [table, rows] : tables.rows) {
    text += table + ' ' + std::to_string(rows) + '\n';
  }
  for (const auto& [table, why] : tables.uncounted) {
    text += table + ": " + why + '\n';
  }
  return text;
}

TEST_F(PublishedSqliteTest, RowsAreCountedByTableAndOfVirtualOnesOnce) {
  WriteFile(
      Path("counted.db"),
      Database("CREATE TABLE plain(k INTEGER PRIMARY KEY AUTOINCREMENT);"
               "INSERT INTO plain VALUES(1), (2);"
               "CREATE TABLE f_plain(k); CREATE TABLE empty_content(k);"
               "CREATE VIRTUAL TABLE f USING fts5(x); INSERT INTO f VALUES('a'), ('b'), ('c');"
               "CREATE VIRTUAL TABLE r USING rtree(id, a, b); INSERT INTO r VALUES(1, 1, 2);"
               "CREATE TABLE own(k TEXT COLLATE RTRIM PRIMARY KEY) WITHOUT ROWID;"
               "INSERT INTO own VALUES('k'); PRAGMA writable_schema = ON;"
               "UPDATE sqlite_master SET sql = replace(sql, 'RTRIM', 'nowhere')"));
  EXPECT_EQ(Counted(Path("counted.db")),
            "empty_content 0\nf_content 3\nf_plain 0\nplain 2\nr_rowid 1\n"
            "own: no such collation sequence: nowhere\n");
}

TEST_F(PublishedSqliteTest, RowsOfAVirtualTableWithoutANameAreCounted) {
  WriteFile(Path("counted.db"), Database("CREATE VIRTUAL TABLE \"\" USING fts5(x);"
                                         "INSERT INTO \"\" VALUES('a'), ('b')"));
  EXPECT_EQ(Counted(Path("counted.db")), "_content 2\n");
}

TEST_F(PublishedSqliteTest, DamagedFileIsNotCounted) {
  const auto problem = [this](const std::string& file) {
    const package::Error error = ErrorOf([&] { publish::CountRows(Path(file)); });
    EXPECT_EQ(error.code(), Code::kRead) << file;
    return std::string(error.what());
  };
  WriteFile(Path("text"), std::string(5000, 'x'));
  EXPECT_EQ(problem("text"), "SQLite cannot read it: file is not a database");
  EXPECT_EQ(problem("gone"), "SQLite cannot read it: unable to open database file");
  std::string content = ReadFile(Path("new.db"));
  content.replace(4096, content.size() - 4096, content.size() - 4096, 'x');
  WriteFile(Path("damaged.db"), content);
  EXPECT_EQ(problem("damaged.db"), "SQLite cannot read it: database disk image is malformed");
}

TEST(TableNameTest, CaseOfLettersIsNoMatter) {
  const publish::TableNameLess less;
  EXPECT_TRUE(less("A", "b"));
  EXPECT_TRUE(less("a", "B"));
  EXPECT_FALSE(less("b", "A"));
  EXPECT_FALSE(less("a", "A"));
  EXPECT_FALSE(less("A", "a"));
}

}  // namespace
}  // namespace tolm::testing

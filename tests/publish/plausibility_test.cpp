#include "publish/plausibility.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "package/error.h"
#include "publish/tree_changes.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using publish::FindShrinkage;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

// Makes SQLite files of what the rows say before they are compared.
class PlausibilityTest : public ReleaseFixture {
 protected:
  std::string Table(const std::string& name, int rows, const std::string& more = "") {
    return Database("CREATE TABLE \"" + name + "\"(k INTEGER PRIMARY KEY, v TEXT);" + more +
                    (rows == 0 ? "" : Insert(name, rows)));
  }

  static std::string Insert(const std::string& name, int rows) {
    return "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
           std::to_string(rows) + ") INSERT INTO \"" + name + "\" SELECT i, 'v' FROM n;";
  }

  // With a file that keeps the sum of bytes above its limit.
  publish::Shrinkage Compare(Tree before, Tree after, int limit_percent = 20) {
    before["keep"] = after["keep"] = std::string(1000000, 'k');
    const std::string name = std::to_string(++count_);
    return FindShrinkage(Release("before" + name, before), Release("after" + name, after),
                         limit_percent);
  }

  int count_ = 0;
};

TEST_F(PlausibilityTest, RowsOfEachTableAreCounted) {
  struct Row {
    const char* name;
    Tree before;
    Tree after;
    std::vector<std::string> findings;
  };
  const std::string thousand = Table("places", 1000);
  const std::string none = Table("places", 0);
  const std::string full_text =
      "CREATE VIRTUAL TABLE f USING fts5(x); INSERT INTO f VALUES('one'), ('two');";
  const std::vector<Row> rows = {
      {"emptied",
       {{"geo.db", thousand}},
       {{"geo.db", none}},
       {"geo.db: table places has 0 rows, 1,000 before (-100 %); the limit is 20 %"}},
      {"a third is gone",
       {{"geo.db", thousand}},
       {{"geo.db", Table("places", 667)}},
       {"geo.db: table places has 667 rows, 1,000 before (-33.3 %); the limit is 20 %"}},
      {"nearly all",
       {{"geo.db", thousand}},
       {{"geo.db", Table("places", 1)}},
       {"geo.db: table places has 1 row, 1,000 before (-99.9 %); the limit is 20 %"}},
      {"just beyond the limit",
       {{"geo.db", Table("places", 20000)}},
       {{"geo.db", Table("places", 15999)}},
       {"geo.db: table places has 15,999 rows, 20,000 before (-20.1 %); the limit is 20 %"}},
      {"at the limit", {{"geo.db", thousand}}, {{"geo.db", Table("places", 800)}}, {}},
      {"grown", {{"geo.db", none}}, {{"geo.db", thousand}}, {}},
      {"few of few", {{"geo.db", Table("places", 3)}}, {{"geo.db", Table("places", 2)}}, {}},
      {"nine of ten", {{"geo.db", Table("places", 10)}}, {{"geo.db", Table("places", 1)}}, {}},
      {"ten of eleven",
       {{"geo.db", Table("places", 11)}},
       {{"geo.db", Table("places", 1)}},
       {"geo.db: table places has 1 row, 11 before (-91 %); the limit is 20 %"}},
      {"all of few",
       {{"geo.db", Table("places", 3)}},
       {{"geo.db", none}},
       {"geo.db: table places has 0 rows, 3 before (-100 %); the limit is 20 %"}},
      {"its only row",
       {{"geo.db", Table("places", 1)}},
       {{"geo.db", none}},
       {"geo.db: table places has 0 rows, 1 before (-100 %); the limit is 20 %"}},
      {"a table is gone",
       {{"geo.db", thousand}},
       {{"geo.db", Table("other", 1000)}},
       {"geo.db: table places is gone, and had 1,000 rows (-100 %); the limit is 20 %"}},
      {"an empty table is gone", {{"geo.db", none}}, {{"geo.db", Table("other", 0)}}, {}},
      {"the file is gone",
       {{"geo.db", thousand}},
       {},
       {"geo.db is gone, and with it table places of 1,000 rows (-100 %); the limit is 20 %"}},
      {"the file with its only row is gone",
       {{"geo.db", Table("places", 1)}},
       {},
       {"geo.db is gone, and with it table places of 1 row (-100 %); the limit is 20 %"}},
      {"the file is another one",
       {{"geo.db", thousand}},
       {{"geo.db", "text"}},
       {"geo.db is no SQLite file any more, and had table places of 1,000 rows (-100 %); the limit "
        "is 20 %"}},
      {"renamed", {{"geo.db", thousand}}, {{"d/", ""}, {"d/new.db", thousand}}, {}},
      {"a table with a strange name",
       {{"geo.db", Table("a \"\" b", 100)}},
       {{"geo.db", Table("a \"\" b", 1)}},
       {"geo.db: table a \" b has 1 row, 100 before (-99 %); the limit is 20 %"}},
      {"a view is gone, and a full-text index there",
       {{"geo.db", Table("places", 100, "CREATE VIEW w AS SELECT 1;" + full_text)}},
       {{"geo.db", Table("places", 100, full_text)}},
       {}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const publish::Shrinkage shrinkage = Compare(row.before, row.after);
    EXPECT_EQ(shrinkage.findings, row.findings);
    EXPECT_THAT(shrinkage.notes, IsEmpty());
  }
}

TEST_F(PlausibilityTest, FileWithADateInItsNameIsFollowedByItsTables) {
  const auto two = [this](const std::string& table, const std::string& other, int rows) {
    return Table(table, rows, "CREATE TABLE " + other + "(k);INSERT INTO " + other + " VALUES(1);");
  };
  struct Row {
    const char* name;
    Tree before;
    Tree after;
    std::vector<std::string> findings;
  };
  const std::vector<Row> rows = {
      {"grown", {{"geo-15.db", Table("p", 1000)}}, {{"geo-22.db", Table("p", 1099)}}, {}},
      {"emptied",
       {{"geo-15.db", Table("p", 1000)}},
       {{"geo-22.db", Table("p", 0)}},
       {"geo-22.db, before geo-15.db: table p has 0 rows, 1,000 before (-100 %); the limit is "
        "20 %"}},
      {"of several by the name",
       {{"geo-15.db", Table("p", 1000)}, {"oui-15.db", Table("p", 50)}},
       {{"geo-22.db", Table("p", 1001)}, {"oui-22.db", Table("p", 49)}},
       {}},
      {"by most tables",
       {{"15.db", two("p", "q", 1000)}},
       {{"15-a.db", Table("p", 10)}, {"22.db", two("P", "Q", 1000)}},
       {}},
      {"of several alike by the first",
       {{"15.db", Table("p", 1000)}},
       {{"22.db", Table("p", 1001)}, {"23.db", Table("p", 10)}},
       {}},
      {"one that lost a table",
       {{"15.db", two("p", "q", 1000)}},
       {{"22.db", Table("p", 1000)}},
       {"22.db, before 15.db: table q is gone, and had 1 row (-100 %); the limit is 20 %"}},
      {"no table in common",
       {{"15.db", Table("p", 1000)}},
       {{"22.db", Table("q", 1000)}},
       {"15.db is gone, and with it table p of 1,000 rows (-100 %); the limit is 20 %"}},
      {"one for one only",
       {{"a-15.db", Table("p", 1000)}, {"b-15.db", Table("p", 2000)}},
       {{"a-22.db", Table("p", 1001)}},
       {"b-15.db is gone, and with it table p of 2,000 rows (-100 %); the limit is 20 %"}},
      {"not what another one was renamed to",
       {{"a-15.db", Table("p", 2000)}, {"b-15.db", Table("p", 1000)}},
       {{"a-22.db", Table("p", 1000)}},
       {"a-15.db is gone, and with it table p of 2,000 rows (-100 %); the limit is 20 %"}},
      {"names of tables in any case",
       {{"geo.db", Table("Places", 1000)}},
       {{"geo.db", Table("places", 1001)}},
       {}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Compare(row.before, row.after).findings, row.findings);
  }
}

TEST_F(PlausibilityTest, LimitMayBeNothingOrAll) {
  const Tree before = {{"geo.db", Table("places", 1000)}};
  const Tree fewer = {{"geo.db", Table("places", 990)}};
  EXPECT_THAT(Compare(before, fewer, 0).findings,
              ElementsAre(HasSubstr("(-1 %); the limit is 0 %")));
  EXPECT_THAT(Compare(before, {{"geo.db", Table("places", 991)}}, 0).findings, IsEmpty());
  EXPECT_THAT(Compare(before, {}, 100).findings, IsEmpty());
}

TEST_F(PlausibilityTest, BytesAndFilesAreCounted) {
  const auto files = [](int count, std::size_t bytes) {
    Tree tree;
    for (int i = 0; i < count; ++i) {
      tree["f" + std::to_string(i)] = std::string(bytes, static_cast<char>('a' + i % 26));
    }
    return tree;
  };
  int number = 0;
  const auto compare = [&](const Tree& before, const Tree& after) {
    const std::string name = std::to_string(++number);
    return FindShrinkage(Release("b" + name, before), Release("a" + name, after), 20).findings;
  };
  EXPECT_THAT(
      compare(files(1, 20000), files(1, 15903)),
      ElementsAre("all files together have 15,903 bytes, 20,000 before (-20.5 %); the limit "
                  "is 20 %"));
  EXPECT_THAT(compare(files(1, 10000), files(1, 5905)), IsEmpty()) << "less than 4,096 bytes";
  EXPECT_THAT(compare(files(1, 10000), files(1, 5904)), ElementsAre(HasSubstr("(-41 %)")));
  const std::string page(4096, 'p');
  EXPECT_THAT(Compare({{"a.txt", page}}, {{"a.txt", ""}}).findings,
              ElementsAre("a.txt is empty, and had 4,096 bytes (-100 %); the limit is 20 %"));
  EXPECT_THAT(Compare({{"a.txt", page}}, {{"a.txt", "p"}}).findings, IsEmpty());
  EXPECT_THAT(Compare({{"a.txt", page.substr(1)}}, {{"a.txt", ""}}).findings, IsEmpty());
  EXPECT_THAT(Compare({{"a.txt", page}}, {{"a.txt", ""}}, 100).findings, IsEmpty());
  EXPECT_THAT(compare(files(40, 10), files(30, 10)),
              ElementsAre("30 files, 40 before (-25 %); the limit is 20 %"));
  EXPECT_THAT(compare(files(40, 10), files(31, 10)), IsEmpty()) << "less than ten";
}

TEST_F(PlausibilityTest, BytesOfCountedSqliteFilesAreNoMatter) {
  // Each statement by itself leaves a segment of the index.
  const auto docs = [this](bool is_merged) {
    std::string sql =
        "PRAGMA synchronous = OFF; PRAGMA journal_mode = MEMORY;"
        "CREATE VIRTUAL TABLE docs USING fts5(x); INSERT INTO docs(docs, rank) VALUES"
        "('automerge', 0); INSERT INTO docs(docs, rank) VALUES('crisismerge', 1000);";
    for (int i = 0; i < 100; ++i) {
      sql += "INSERT INTO docs VALUES('word" + std::to_string(i) + "');";
    }
    return Database(sql + (!is_merged ? "" : "INSERT INTO docs(docs) VALUES('optimize');"));
  };
  const auto no_docs = Database("CREATE VIRTUAL TABLE docs USING fts5(x);");
  const auto full = [this](const std::string& more) {
    return Table(
        "p", 1000,
        "CREATE TABLE b(x); INSERT INTO b VALUES(zeroblob(3000000)); DELETE FROM b;" + more);
  };
  const std::string few = std::string(9000, 'f');
  struct Row {
    const char* name;
    Tree before;
    Tree after;
    std::vector<std::string> findings;
  };
  const std::vector<Row> rows = {
      {"tables behind a full-text index",
       {{"docs.db", docs(false)}},
       {{"docs.db", docs(true)}},
       {}},
      {"an emptied full-text index",
       {{"docs.db", docs(false)}},
       {{"docs.db", no_docs}},
       {"docs.db: table docs_content has 0 rows, 100 before (-100 %); the limit is 20 %"}},
      {"vacuum", {{"p.db", full("")}}, {{"p.db", full("VACUUM;")}}, {}},
      {"vacuum of one with a date", {{"p-15.db", full("")}}, {{"p-22.db", full("VACUUM;")}}, {}},
      {"the others still count",
       {{"p.db", full("")}, {"few", few}, {"more", std::string(2000000, 'm')}},
       {{"p.db", full("VACUUM;")}, {"few", few}, {"more", few}},
       {"all files but SQLite files whose rows are counted have 1,018,000 bytes, 3,009,000 before "
        "(-66.2 %); the limit is 20 %"}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Compare(row.before, row.after).findings, row.findings);
  }
}

TEST_F(PlausibilityTest, WriteAheadLogBesideAFileIsNoted) {
  const Tree after = {{"geo.db", Table("other", 1)},
                      {"geo.db-wal", "log"},
                      {"p.db-wal", ""},
                      {"p.db", Table("p", 1)},
                      {"new.db", Table("p", 1)},
                      {"new.db-wal", "log"},
                      {"text", "text"},
                      {"text-wal", "log"}};
  const publish::Shrinkage shrinkage =
      Compare({{"geo.db", Table("p", 20000)}, {"p.db", Table("p", 2)}}, after);
  EXPECT_THAT(shrinkage.findings, ElementsAre(StartsWith("geo.db: table p is gone")));
  EXPECT_THAT(
      shrinkage.notes,
      UnorderedElementsAre("geo.db has a write-ahead log beside it that was not checkpointed: rows "
                           "that are only in geo.db-wal are not counted",
                           StartsWith("new.db has a write-ahead log beside it")));
}

TEST_F(PlausibilityTest, DamagedFileIsNamedAndOneBeforeNoted) {
  std::string damaged = Table("places", 1000);
  damaged.replace(100, 3900, std::string(3900, '\xff'));
  const Tree good = {{"geo.db", Table("places", 900)}};
  for (const Tree& before : {good, Tree{}}) {
    try {
      Compare(before, {{"geo.db", damaged}});
      ADD_FAILURE() << "was read";
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), package::Code::kRead);
      EXPECT_THAT(error.what(), StartsWith("geo.db: SQLite cannot read it: "));
    }
  }
  const publish::Shrinkage shrinkage = Compare({{"geo.db", damaged}}, good);
  EXPECT_THAT(shrinkage.findings, IsEmpty());
  EXPECT_THAT(shrinkage.notes, ElementsAre(StartsWith("geo.db of the release before: SQLite")));
}

TEST_F(PlausibilityTest, TableThatCannotBeCountedIsNoted) {
  // As one that an application with a collation of its own has made.
  const auto with_collation = [this](int rows) {
    return Database(
        "CREATE TABLE c(k TEXT COLLATE RTRIM PRIMARY KEY) WITHOUT ROWID; INSERT INTO c VALUES('k');"
        "CREATE TABLE places(k INTEGER PRIMARY KEY, v TEXT);" +
        Insert("places", rows) +
        "PRAGMA writable_schema = ON; UPDATE sqlite_master SET sql = replace(sql, 'RTRIM', "
        "'own');");
  };
  const publish::Shrinkage shrinkage =
      Compare({{"geo.db", with_collation(100)}}, {{"geo.db", with_collation(1)}});
  EXPECT_THAT(shrinkage.findings, ElementsAre(HasSubstr("table places has 1 row, 100 before")));
  EXPECT_THAT(shrinkage.notes,
              ElementsAre("geo.db: table c cannot be counted: no such collation sequence: own"));
}

// Its rows may be anywhere, and its bytes say something.
TEST_F(PlausibilityTest, FileOfWhichATableCannotBeCountedCountsByItsBytes) {
  const auto with = [this](const std::string& collation, const std::string& more) {
    return Database(
        "CREATE TABLE c(k TEXT COLLATE RTRIM PRIMARY KEY) WITHOUT ROWID;"
        "INSERT INTO c VALUES('k');" +
        more +
        "PRAGMA writable_schema = ON; UPDATE sqlite_master SET sql = "
        "replace(sql, 'RTRIM', '" +
        collation + "');");
  };
  const std::string large =
      "CREATE TABLE b(x); INSERT INTO b VALUES(zeroblob(3000000)); DELETE FROM b;";
  const std::string empty = "CREATE TABLE b(x);";
  const char bytes[] = "all files together have 1,0";
  // Before, now, and both.
  for (const auto& [before, after] :
       {std::pair<std::string, std::string>{"own", "NOCASE"}, {"NOCASE", "own"}, {"own", "own"}}) {
    SCOPED_TRACE(before);
    const publish::Shrinkage shrinkage =
        Compare({{"geo.db", with(before, large)}}, {{"geo.db", with(after, empty)}});
    EXPECT_THAT(shrinkage.findings, ElementsAre(StartsWith(bytes)));
    EXPECT_EQ(shrinkage.notes.size(), after == "own" ? 1u : 0u);
  }
  EXPECT_THAT(
      Compare({{"geo.db", with("NOCASE", large)}}, {{"geo.db", with("NOCASE", empty)}}).findings,
      IsEmpty());
}

TEST_F(PlausibilityTest, FindingsOfAllFilesComeFirst) {
  Tree before = {{"geo.db", Table("places", 1000)}, {"empty.txt", std::string(4096, 'e')}};
  for (int i = 0; i < 37; ++i) {
    before["f" + std::to_string(i)] = std::string(1000, 'f');
  }
  const Tree after = {{"empty.txt", ""}};
  EXPECT_EQ(FindShrinkage(Release("b", before), Release("a", after), 20).findings,
            (std::vector<std::string>{
                "all files together have 0 bytes, 61,576 before (-100 %); the limit is 20 %",
                "1 file, 39 before (-97.5 %); the limit is 20 %",
                "empty.txt is empty, and had 4,096 bytes (-100 %); the limit is 20 %",
                "geo.db is gone, and with it table places of 1,000 rows (-100 %); the limit is "
                "20 %"}));
}

using TreeChangesTest = ReleaseFixture;

TEST_F(TreeChangesTest, RenamedFileIsFollowedByItsContent) {
  const publish::Tree before = Release(
      "before",
      {{"a", "one"}, {"b", "one"}, {"c", "three"}, {"d", "four"}, {"empty", ""}, {"same", "s"}});
  const publish::Tree after = Release(
      "after",
      {{"c", "changed"}, {"m", "one"}, {"n", "four"}, {"none", ""}, {"o", "four"}, {"same", "s"}});
  std::string text;
  for (const publish::FileChange& change : ChangesOf(before, after)) {
    text += change.key + ' ' + FileChangeKindText(change.kind) + ' ' +
            std::to_string(change.bytes) + ' ' + change.renamed_from + '\n';
  }
  EXPECT_EQ(text,
            "/b gone 0 \n"
            "/c changed 7 \n"
            "/empty gone 0 \n"
            "/m renamed 3 /a\n"
            "/n renamed 4 /d\n"
            "/none new 0 \n"
            "/o new 4 \n");
}

}  // namespace
}  // namespace tolm::testing

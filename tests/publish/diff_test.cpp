#include "publish/diff.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sstream>
#include <vector>

#include "publish/json_object.h"
#include "publish/prune.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using publish::Difference;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string Printed(const Difference& difference, bool as_json) {
  std::ostringstream out;
  PrintDifference(difference, as_json, out);
  return out.str();
}

// "what done/total" of each step.
publish::Steps StepsInto(std::vector<std::string>& lines) {
  return [&lines](const publish::Step& step) {
    lines.push_back(std::string(step.what) + ' ' + std::to_string(step.done) + '/' +
                    std::to_string(step.total));
  };
}

TEST(DiffTest, HowMuchThereIsToReadIsNotKnown) {
  const TemporaryDirectory directory;
  std::vector<publish::Step> steps;
  publish::DiffDirectories(directory.Path(), directory.Path(),
                           [&](const publish::Step& step) { steps.push_back(step); });
  ASSERT_FALSE(steps.empty());
  EXPECT_STREQ(steps.front().what, "reading files");
  EXPECT_EQ(steps.front().total, 0u) << "a share of it would be drawn";
}

TEST(DiffTest, TableOfTwoDirectoriesHasItsColumnsBelowTheirNames) {
  const TemporaryDirectory directory;
  const std::string before = directory.Path() / "before";
  const std::string after = directory.Path() / "after";
  std::filesystem::create_directory(before);
  std::filesystem::create_directory(after);
  MakeTree(before, {{"a", "same"}, {"b", "old"}, {"gone", std::string(1234567, 'x')}});
  MakeTree(after, {{"a", "same"}, {"b", "newer"}, {"new", "n"}});
  Difference difference = publish::DiffDirectories(before, after, [](const publish::Step&) {});
  difference.name = "oui";
  difference.before = "1";
  difference.after = "2";
  std::ostringstream out;
  publish::PrintDifference(difference, false, out);
  EXPECT_EQ(out.str(),
            "oui 1 -> 2\n"
            "  change          before         after  file\n"
            "  changed              3             5  /b\n"
            "  gone         1,234,567             -  /gone\n"
            "  new                  -             1  /new\n"
            "  1 file is unchanged\n");
}

// Two directories with every kind of difference.
class DifferenceTest : public ReleaseFixture {
 protected:
  DifferenceTest() {
    const std::string table = "CREATE TABLE t(k INTEGER PRIMARY KEY, v);";
    const std::string filled = Database(table + "INSERT INTO t VALUES(1, 1), (2, 2), (3, 3);");
    before_ =
        Release("before", {{"a/is.db", "text"},
                           {"a/was.db", filled},
                           {"damaged.db", filled},
                           {"gone", std::string(1234, 'g')},
                           {"same", "1"},
                           {"shrunk.db", Table(0, "DELETE FROM t WHERE k > 9;")},
                           {"twin", "2"},
                           {"x.db", Database(table + "CREATE TABLE \"o\nd\"(k);"
                                                     "CREATE VIEW w AS SELECT 1;"
                                                     "INSERT INTO t VALUES(1, 1), (2, 2);")}});
    std::string damaged = filled;
    damaged.replace(100, 3900, std::string(3900, '\xff'));
    after_ = Release(
        "after",
        {{"a/is.db", filled},
         {"a/was.db", "text"},
         {"damaged.db", damaged},
         {"new", "123"},
         {"same", "1"},
         {"shrunk.db", Table(0, "DELETE FROM t WHERE k > 9; VACUUM;")},
         {"twin", "2"},
         {"x.db", Database(table + "CREATE TABLE \"o\nd\"(k); CREATE INDEX i ON t(v);"
                                   "PRAGMA user_version = 7; INSERT INTO \"o\nd\" VALUES(1);"
                                   "INSERT INTO t VALUES(1, 'c'), (4, 4), (5, 5);")}});
    difference_ = publish::DiffDirectories(Path("before"), Path("after"), StepsInto(steps_));
  }

  // Under names that are the same each time.
  Difference Named() const {
    Difference named = difference_;
    named.before = "be\nfore";
    named.after = "after";
    return named;
  }

  publish::Tree before_;
  publish::Tree after_;
  std::vector<std::string> steps_;
  Difference difference_;
};

TEST_F(DifferenceTest, TableSaysWhatBecameOfEachFileAndOfWhatIsInIt) {
  EXPECT_EQ(Printed(Named(), false),
            "be\\x0afore -> after\n"
            "  change          before         after  file\n"
            "  changed              4         8,192  /a/is.db  (was no SQLite file before)\n"
            "  changed          8,192             4  /a/was.db  (is no SQLite file any more)\n"
            "  changed          8,192         8,192  /damaged.db  (its tables cannot be compared: "
            "database disk image is malformed)\n"
            "  gone             1,234             -  /gone\n"
            "  new                  -             3  /new\n"
            "  changed         45,056         8,192  /shrunk.db  (other bytes with the same "
            "content)\n"
            "  changed         12,288        16,384  /x.db\n"
            "             user_version 0 -> 7\n"
            "             new index i\n"
            "             gone view w\n"
            "             rows of o\\x0ad: 1 added, 0 removed, 0 changed\n"
            "             rows of t: 2 added, 1 removed, 1 changed\n"
            "  2 files are unchanged\n");
}

TEST_F(DifferenceTest, JsonSaysTheSameToPrograms) {
  const Json::Value expected = publish::ParseJson(R"({
    "format": 1, "database": null, "before": "be\nfore", "after": "after", "unchanged": 2,
    "files": [
      {"file": "/a/is.db", "change": "changed", "old_size": 4, "new_size": 8192,
       "sqlite": null, "note": "was no SQLite file before"},
      {"file": "/a/was.db", "change": "changed", "old_size": 8192, "new_size": 4,
       "sqlite": null, "note": "is no SQLite file any more"},
      {"file": "/damaged.db", "change": "changed", "old_size": 8192, "new_size": 8192,
       "sqlite": null,
       "note": "its tables cannot be compared: database disk image is malformed"},
      {"file": "/gone", "change": "gone", "old_size": 1234, "new_size": null,
       "sqlite": null, "note": ""},
      {"file": "/new", "change": "new", "old_size": null, "new_size": 3,
       "sqlite": null, "note": ""},
      {"file": "/shrunk.db", "change": "changed", "old_size": 45056, "new_size": 8192,
       "sqlite": {"settings": [], "schema": [], "rows": []},
       "note": "other bytes with the same content"},
      {"file": "/x.db", "change": "changed", "old_size": 12288, "new_size": 16384,
       "sqlite": {
         "settings": ["user_version 0 -> 7"],
         "schema": [{"change": "new", "type": "index", "object": "i"},
                    {"change": "gone", "type": "view", "object": "w"}],
         "rows": [{"table": "o\nd", "added": 1, "removed": 0, "changed": 0},
                  {"table": "t", "added": 2, "removed": 1, "changed": 1}]},
       "note": ""}]})",
                                                  "");
  EXPECT_EQ(publish::ParseJson(Printed(Named(), true), ""), expected);
}

TEST_F(DifferenceTest, FileThatIsNewOrGoneHadOrHasNoBytes) {
  std::string text;
  for (const publish::FileDifference& file : difference_.files) {
    if (file.kind != publish::FileDifference::Kind::kChanged) {
      text += file.key + ' ' + std::to_string(file.old_bytes) + ' ' +
              std::to_string(file.new_bytes) + '\n';
    }
  }
  EXPECT_EQ(text, "/gone 1234 0\n/new 0 3\n");
}

TEST_F(DifferenceTest, EachFileIsAStepAmongAll) {
  EXPECT_EQ(difference_.before, Path("before"));
  EXPECT_EQ(difference_.after, Path("after"));
  EXPECT_THAT(steps_,
              ElementsAre("reading files 0/0", "comparing 0/9", "comparing 1/9", "comparing 2/9",
                          "comparing 3/9", "comparing 4/9", "comparing 5/9", "comparing 6/9",
                          "comparing 7/9", "comparing 8/9"));
}

// Two releases without deltas.
class DiffReleasesTest : public ReleaseFixture {
 protected:
  DiffReleasesTest() {
    publish::InitRequest request = NewRepository();
    request.settings.chain_share_percent = 0;
    InitRepository(request, kNow);
    Release("1");
    Release("22");
  }

  void Release(const std::string& text) {
    publish::ReleaseRequest request = NewRelease();
    WriteFile(Path("tree/t"), text);
    MakeRelease(
        request, kNow, [](const std::string&) {}, [](const publish::Step&) {});
  }

  Difference Diff(int before, int after) {
    steps_.clear();
    return DiffReleases({Path("repo"), "oui", before, after}, StepsInto(steps_));
  }

  std::vector<std::string> steps_;
};

TEST_F(DiffReleasesTest, PackagesAreUnpackedComparedAndRemovedAgain) {
  const char expected[] =
      "oui 1000001 -> 1000002\n"
      "  change          before         after  file\n"
      "  changed              1             2  /t\n"
      "  1 file is unchanged\n";
  EXPECT_EQ(Printed(Diff(1000001, 1000002), false), expected);
  EXPECT_THAT(steps_,
              ElementsAre("unpacking 0/0", "unpacking 0/0", "comparing 0/2", "comparing 1/2"));
  EXPECT_THAT(ListTree(Path("repo/state/work")), IsEmpty());
  // What a command has left that was cut short takes no room meanwhile.
  WriteFile(Path("repo/state/work/left"), "");
  const auto look = [this](const publish::Step&) {
    EXPECT_FALSE(std::filesystem::exists(Path("repo/state/work/left")));
  };
  EXPECT_EQ(Printed(publish::DiffReleases({Path("repo"), "oui", 1000001, 1000002}, look), false),
            expected);
  EXPECT_EQ(Printed(Diff(1000002, 1000002), false),
            "oui 1000002 -> 1000002\n"
            "  2 files are unchanged\n");
  EXPECT_EQ(publish::ParseJson(Printed(Diff(1000002, 1000001), true), ""),
            publish::ParseJson(R"({"format": 1, "database": "oui", "before": "1000002",
                                   "after": "1000001", "unchanged": 1, "files": [
                                     {"file": "/t", "change": "changed", "old_size": 2,
                                      "new_size": 1, "sqlite": null, "note": ""}]})",
                               ""));
}

TEST_F(DiffReleasesTest, VersionThatIsNotThereIsToldFromOneThatWasRetired) {
  publish::Prune({Path("repo"), "oui", 1, 9}, kNow + 90, [](const std::string&) {});
  Release("333");
  ExpectError([&] { Diff(1000001, 1000002); },
              "oui 1000001 was retired on 2027-01-15 08:00 UTC; released are 1000002, 1000003");
  for (const int version : std::initializer_list<int>{1, 1000004, 11000001}) {
    ExpectError(
        [&, version = version] { Diff(1000003, version); },
        "oui " + std::to_string(version) + " is not released; released are 1000002, 1000003");
  }
  EXPECT_THAT(steps_, IsEmpty());
}

}  // namespace
}  // namespace tolm::testing

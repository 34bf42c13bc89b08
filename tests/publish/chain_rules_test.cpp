#include "publish/chain_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tolm::testing {
namespace {

using publish::DeltaRequest;
using publish::NotInChain;
using publish::RequireFitForChain;
using ::testing::UnorderedElementsAreArray;

using Content = std::map<std::string, std::string>;  // key to a text that stands for the digest

publish::Tree TreeOf(const Content& content) {
  publish::Tree tree;
  for (const auto& [key, digest] : content) {
    tree.files[key] = {key, "", digest.size(), digest};
  }
  return tree;
}

struct Row {
  const char* name;
  Content before;
  Content after;
  std::set<std::string> touched_earlier = {};
  std::set<std::string> left_behind = {};
  std::vector<std::string> refused = {};  // the keys that are named, none when it fits
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

class ChainRulesTest : public ::testing::TestWithParam<Row> {};

TEST_P(ChainRulesTest, IsJudgedByWhatDevicesDo) {
  const Row& row = GetParam();
  DeltaRequest request;
  request.old_tree = TreeOf(row.before);
  request.new_tree = TreeOf(row.after);
  request.keys_touched_earlier = row.touched_earlier;
  request.directories_left_behind = row.left_behind;
  try {
    RequireFitForChain(request);
    EXPECT_TRUE(row.refused.empty());
  } catch (const NotInChain& error) {
    EXPECT_THAT(error.keys(), UnorderedElementsAreArray(row.refused)) << error.what();
    for (const std::string& key : error.keys()) {
      EXPECT_NE(std::string(error.what()).find(key), std::string::npos) << error.what();
    }
  }
}

const std::string kLongest = "/" + std::string(254, 'k');
const std::string kTooLong = "/" + std::string(100, 'k') + "/" + std::string(154, 'k');

INSTANTIATE_TEST_SUITE_P(
    Rows, ChainRulesTest,
    ::testing::Values(
        Row{"NothingTouched", {{"/a.b", "1"}, {"/a_b", "1"}}, {{"/a.b", "1"}, {"/a_b", "1"}}},
        Row{"OneOfTwoAlike", {{"/a.b", "1"}, {"/a_b", "1"}}, {{"/a.b", "2"}, {"/a_b", "1"}}},
        Row{"BothChanged",
            {{"/a.b", "1"}, {"/a_b", "1"}},
            {{"/a.b", "2"}, {"/a_b", "2"}},
            {},
            {},
            {"/a.b", "/a_b"}},
        Row{"BothCreated", {}, {{"/a.b", "1"}, {"/a_b", "1"}}, {}, {}, {"/a.b", "/a_b"}},
        Row{"BothDeleted", {{"/a.b", "1"}, {"/a_b", "1"}, {"/c", "1"}}, {{"/c", "1"}}},
        Row{"Renamed", {{"/a.b", "1"}}, {{"/a_b", "1"}}},
        Row{"RenamedOutOfADirectory", {{"/a/b", "1"}}, {{"/a.b", "1"}}},
        Row{"RenamedBack", {{"/a_b", "1"}}, {{"/a.b", "1"}}, {"/a.b", "/a_b"}},
        Row{"ChangedAfterItWasRenamed", {{"/a_b", "1"}}, {{"/a_b", "2"}}, {"/a.b", "/a_b"}},
        Row{"CreatedAfterTheOtherWasDeleted",
            {{"/c", "1"}},
            {{"/a_b", "1"}, {"/c", "1"}},
            {"/a.b"}},
        Row{"ChangedWhileTheOtherIsDeleted", {{"/a.b", "1"}, {"/a_b", "1"}}, {{"/a_b", "2"}}},
        Row{"ChangedAfterTheOtherWasDeleted",
            {{"/a_b", "1"}},
            {{"/a_b", "2"}},
            {"/a.b"},
            {},
            {"/a.b", "/a_b"}},
        Row{"ChangedWhileTheOtherIsDeletedThatWasTouchedEarlier",
            {{"/a.b", "1"}, {"/a_b", "1"}},
            {{"/a_b", "2"}},
            {"/a.b"},
            {},
            {"/a.b", "/a_b"}},
        Row{"OneTouchedEarlier",
            {{"/a.b", "1"}, {"/a_b", "1"}},
            {{"/a.b", "2"}, {"/a_b", "1"}},
            {"/a_b"},
            {},
            {"/a.b", "/a_b"}},
        Row{"DeletedAfterTheOtherWasTouched",
            {{"/a.b", "1"}, {"/a_b", "1"}},
            {{"/a_b", "1"}},
            {"/a_b"}},
        Row{"SameKeyAgain", {{"/a.b", "1"}}, {{"/a.b", "2"}}, {"/a.b"}},
        Row{"JournalBesideItsDatabase",
            {{"/d/x.db", "1"}},
            {{"/d/x.db", "2"}, {"/d/x.db-journal", "1"}},
            {},
            {},
            {"/d/x.db", "/d/x.db-journal"}},
        Row{"WriteAheadLogTouchedEarlier",
            {{"/x.db", "1"}, {"/x_db-wal", "1"}},
            {{"/x.db", "2"}, {"/x_db-wal", "1"}},
            {"/x_db-wal"},
            {},
            {"/x.db", "/x_db-wal"}},
        Row{"LongestName", {}, {{kLongest, "1"}}},
        Row{"NameTooLongInAll", {}, {{kTooLong, "1"}}, {}, {}, {kTooLong}},
        Row{"NameTooLongDeleted", {{kTooLong, "1"}}, {{"/a", "1"}}, {}, {}, {kTooLong}},
        Row{"NameTooLongUntouched", {{kTooLong, "1"}}, {{kTooLong, "1"}, {"/a", "1"}}},
        Row{"FileMakesRoomForDirectory", {{"/a", "1"}}, {{"/a/b", "1"}, {"/a/c/d", "1"}}},
        Row{"DirectoryBecomesFile", {{"/a/b", "1"}}, {{"/a", "1"}}, {}, {}, {"/a", "/a/b"}},
        Row{"DirectoryEmptiedInTheSameChain",
            {{"/c", "1"}},
            {{"/a", "1"}, {"/c", "1"}},
            {"/a/b"},
            {"/a"},
            {"/a", "/a/b"}},
        Row{"DirectoryEmptiedLongAgo", {{"/c", "1"}}, {{"/a", "1"}, {"/c", "1"}}, {}, {"/a"}},
        Row{"DirectoriesEmptiedLongAgo",
            {{"/c", "1"}},
            {{"/a", "1"}, {"/c", "1"}},
            {},
            {"/a", "/a/b"},
            {"/a", "/a/b"}},
        Row{"NeighboursInTheOrderOfKeys",
            {{"/a-/b", "1"}, {"/a.x", "1"}},
            {{"/a", "1"}, {"/a-/b", "1"}, {"/a.x", "1"}},
            {"/a-/b"},
            {"/a-"}}),
    [](const auto& row) { return row.param.name; });

TEST(LastStartWithConflictTest, IsBeforeTheOlderOfTwoFilesThatHaveToDoWithEachOther) {
  struct ConflictRow {
    const char* name;
    std::map<int, std::set<std::string>> touched;
    std::optional<int> last_start;
  };
  for (const ConflictRow& row : {
           ConflictRow{"none", {}, {}},
           ConflictRow{"one file", {{2, {"/a"}}, {3, {"/a"}}}, {}},
           ConflictRow{"others", {{2, {"/a", "/b/c"}}, {3, {"/b/d", "/bb", "/x.db"}}}, {}},
           ConflictRow{"one work copy", {{2, {"/a.b"}}, {3, {}}, {4, {"/a_b"}}}, 1},
           ConflictRow{"three with one", {{3, {"/a.b"}}, {4, {"/a/b"}}, {2, {"/a_b"}}}, 2},
           ConflictRow{"one that comes again", {{2, {"/a.b"}}, {3, {"/a_b"}}, {5, {"/a.b"}}}, 2},
           ConflictRow{"a side file", {{2, {"/x.db"}}, {3, {"/x.db-wal", "/y"}}}, 1},
           ConflictRow{"a side file before", {{2, {"/x.db-journal"}}, {3, {"/x/db"}}}, 1},
           ConflictRow{"a directory", {{2, {"/a"}}, {3, {"/a/b/c"}}, {4, {"/a"}}}, 2},
           ConflictRow{"one step", {{2, {}}, {3, {"/a", "/a/b"}}}, 2},
           ConflictRow{"a spelling", {{2, {"/a"}}, {3, {"/b//c"}}}, 2},
           ConflictRow{"a spelling from its beginning", {{2, {"/a"}}, {3, {"//c"}}}, 2},
           ConflictRow{"another", {{2, {"/a/./b"}}, {3, {"/c"}}}, 1},
           ConflictRow{"a third", {{2, {"/a"}}, {3, {"/a/../b"}}}, 2},
           ConflictRow{"at its end", {{2, {"/a"}}, {3, {"/c/.."}}}, 2},
           ConflictRow{"an end that is a name", {{2, {"/a"}}, {3, {"/c..", "/d.", "/.e"}}}, {}},
           ConflictRow{"no path", {{2, {"a"}}, {3, {"/c"}}}, 1},
           ConflictRow{"no name", {{2, {""}}, {3, {"/c"}}}, 1},
           ConflictRow{"a shared memory", {{2, {"/x.db"}}, {3, {"/x.db-shm"}}}, 1},
           ConflictRow{"a directory above another",
                       {{2, {"/a/b"}}, {3, {"/a/b/c/d"}}, {4, {"/a/b/c/d/e"}}},
                       2},
           ConflictRow{"neighbours", {{2, {"/a"}}, {3, {"/ab/c", "/a-b"}}}, {}},
       }) {
    EXPECT_EQ(publish::LastStartWithConflict(row.touched), row.last_start) << row.name;
  }
}

TEST(TouchedKeysTest, AreThoseThatOneTreeHasAloneOrOtherwise) {
  const publish::Tree before = TreeOf({{"/changed", "1"}, {"/gone", "2"}, {"/same", "3"}});
  const publish::Tree after = TreeOf({{"/changed", "4"}, {"/new", "2"}, {"/same", "3"}});
  EXPECT_EQ(publish::TouchedKeys(before, after),
            (std::set<std::string>{"/changed", "/gone", "/new"}));
  EXPECT_EQ(publish::TouchedKeys(after, before), publish::TouchedKeys(before, after));
  EXPECT_TRUE(publish::TouchedKeys(before, before).empty());
}

TEST(CanBePatchedTest, NeedsRoomForTheDecodersOutput) {
  EXPECT_TRUE(publish::CanBePatched("/" + std::string(245, 'k')));
  EXPECT_FALSE(publish::CanBePatched("/" + std::string(246, 'k')));
}

}  // namespace
}  // namespace tolm::testing

#include "publish/delta.h"

#include <gmock/gmock.h>
#include <json/reader.h>

#include <sstream>

#include "package/error.h"
#include "publish/json_object.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using publish::DeltaRequest;
using publish::FileDelta;
using publish::FileDeltaKind;
using publish::MakeDelta;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class DeltaTest : public ReleaseFixture {
 protected:
  const std::vector<FileDelta>& Make(const Tree& before, const Tree& after) {
    request_.old_tree = Release("before", before);
    request_.new_tree = Release("after", after);
    return Make();
  }

  const std::vector<FileDelta>& Make() {
    fs::remove_all(Path("delta"));
    request_.target_directory = Path("delta");
    deltas_ = MakeDelta(request_, options_);
    return deltas_;
  }

  // What the only delta is.
  const FileDelta& Only() const {
    EXPECT_EQ(deltas_.size(), 1U);
    return deltas_.at(0);
  }

  Json::Value Description() const {
    Json::Value value;
    std::istringstream text(ReadFile(Path("delta/patch_infos.json")));
    text >> value;
    return value;
  }

  std::string Input(const std::string& key) const {
    return Description()[key]["input_file"].asString();
  }

  DeltaRequest request_;
  publish::DeltaOptions options_;
  std::vector<FileDelta> deltas_;
};

TEST_F(DeltaTest, CreatedFilesAreSentWhole) {
  Make({{"a", "1"}}, {{"a", "1"}, {"d/new.x", "content"}});
  EXPECT_EQ(Only().key, "/d/new.x");
  EXPECT_EQ(Only().kind, FileDeltaKind::kCreated);
  EXPECT_EQ(Only().bytes, 7U);
  EXPECT_EQ(Only().file_bytes, 7U);
  EXPECT_EQ(Description()["/d/new.x"]["operation"], "create");
  EXPECT_EQ(ReadFile(Path("delta/") + Input("/d/new.x")), "content");
}

TEST_F(DeltaTest, RemovedFilesAreDeleted) {
  Make({{"a", "1"}, {"gone", "2"}}, {{"a", "1"}});
  EXPECT_EQ(Only().key, "/gone");
  EXPECT_EQ(Only().kind, FileDeltaKind::kDeleted);
  EXPECT_EQ(Description().toStyledString(),
            "{\n\t\"/gone\" : \n\t{\n\t\t\"operation\" : \"delete\"\n\t}\n}\n");
  EXPECT_THAT(ListTree(Path("delta")), ElementsAre("patch_infos.json"));
}

TEST_F(DeltaTest, WithoutAnyDifferenceOnlyTheDescriptionIsThere) {
  EXPECT_THAT(Make({{"a", "1"}, {"d/", ""}}, {{"a", "1"}}), IsEmpty());
  EXPECT_TRUE(Description().isObject());
  EXPECT_TRUE(Description().empty());
}

TEST_F(DeltaTest, ChangedFilesArePatchedWhereThatIsSmaller) {
  const std::string before = Noise(100000, 1);
  Make({{"b.bin", before}}, {{"b.bin", before.substr(7) + "end"}});
  EXPECT_EQ(Only().kind, FileDeltaKind::kVcdiff);
  EXPECT_EQ(Description()["/b.bin"]["operation"], "update");
  EXPECT_THAT(Input("/b.bin"), EndsWith(".vcdiff"));
  EXPECT_EQ(Only().bytes, fs::file_size(Path("delta/") + Input("/b.bin")));
  EXPECT_EQ(Only().file_bytes, 99996U);
  EXPECT_LT(Only().bytes, 200U);
  EXPECT_LT(Only().packed_bytes.value_or(1000000), 200U);
  EXPECT_EQ(Only().note, "");
}

TEST_F(DeltaTest, ChangedFilesAreSentWholeWhereThatIsSmaller) {
  const struct {
    const char* name;
    std::string before;
    std::string after;
    const char* note;
  } kRows[] = {
      {"nothing in common", Noise(5000, 1), Noise(5000, 2), "not larger than its vcdiff patch"},
      {"compresses better", Noise(100000, 1), std::string(100000, 'a'), "not larger than its"},
      {"was empty", "", Noise(5000, 1), "too small for a patch"},
      {"is empty", Noise(5000, 1), "", "too small for a patch"},
      {"a few bytes", Noise(5000, 1), "abc", "too small for a patch"},
  };
  for (const auto& row : kRows) {
    fs::remove_all(Path("before"));
    fs::remove_all(Path("after"));
    Make({{"f", row.before}}, {{"f", row.after}});
    EXPECT_EQ(Only().kind, FileDeltaKind::kWhole) << row.name;
    EXPECT_THAT(Only().note, HasSubstr(row.note)) << row.name;
    EXPECT_EQ(Description()["/f"]["operation"], "create") << row.name;
    EXPECT_THAT(ReadTree(Path("delta")), ::testing::SizeIs(2)) << row.name;
    EXPECT_TRUE(ReadFile(Path("delta/") + Input("/f")) == row.after) << row.name;
  }
}

TEST_F(DeltaTest, ChangedRowsOfSqliteFilesAreSentAsScript) {
  Make({{"x.db", Table(0)}}, {{"x.db", Table(3)}});
  EXPECT_EQ(Only().kind, FileDeltaKind::kSql) << Only().note;
  EXPECT_EQ(Description()["/x.db"]["operation"], "update");
  EXPECT_THAT(Input("/x.db"), EndsWith(".sqlitediff"));
  EXPECT_THAT(ReadFile(Path("delta/") + Input("/x.db")), HasSubstr("changed"));
  EXPECT_THAT(ReadTree(Path("delta")), ::testing::SizeIs(2));
}

TEST_F(DeltaTest, SqliteFilesThatNoScriptReachesAreSentWholeWithTheReason) {
  Make({{"x.db", Table(0)}}, {{"x.db", Table(0, "PRAGMA page_size = 8192; VACUUM;")}});
  EXPECT_EQ(Only().kind, FileDeltaKind::kWhole);
  EXPECT_THAT(Only().note, HasSubstr("page_size"));
}

// One row differs, which would make a small VCDIFF delta.
TEST_F(DeltaTest, SqliteFilesAreNeverPatchedByVcdiff) {
  const std::string database = Table(0);
  const struct {
    const char* name;
    std::string before;
    std::string after;
  } kRows[] = {
      {"was one", database, "x" + database.substr(1)},
      {"is one", "x" + database.substr(1), database},
      {"unreadable", database, database.substr(0, 100) + Noise(8000, 1)},
  };
  for (const auto& row : kRows) {
    fs::remove_all(Path("before"));
    fs::remove_all(Path("after"));
    Make({{"x.db", row.before}}, {{"x.db", row.after}});
    EXPECT_EQ(Only().kind, FileDeltaKind::kWhole) << row.name;
    EXPECT_NE(Only().note, "") << row.name;
  }
}

TEST_F(DeltaTest, KeysThatAreToGoWholeDo) {
  const std::string before = Noise(100000, 1);
  request_.keys_to_send_whole = {"/b"};
  Make({{"a", before}, {"b", before}}, {{"a", before + "x"}, {"b", before + "x"}});
  ASSERT_EQ(deltas_.size(), 2U);
  EXPECT_EQ(deltas_[0].kind, FileDeltaKind::kVcdiff);
  EXPECT_EQ(deltas_[1].kind, FileDeltaKind::kWhole);
  EXPECT_THAT(deltas_[1].note, HasSubstr("replayed"));
}

TEST_F(DeltaTest, LargeSourcesAreNoted) {
  options_.memory_limit_bytes = 512 * 1024;
  const std::string before = Noise(2000000, 1);
  Make({{"b", before}}, {{"b", before + "x"}});
  EXPECT_EQ(Only().kind, FileDeltaKind::kVcdiff);
  EXPECT_THAT(Only().note, HasSubstr("source window of 524288 bytes"));
}

TEST_F(DeltaTest, NamesTooLongForAPatchGoWhole) {
  const std::string name(250, 'n');
  const std::string before = Noise(100000, 1);
  Make({{name, before}}, {{name, before + "x"}});
  EXPECT_EQ(Only().kind, FileDeltaKind::kWhole);
  EXPECT_THAT(Only().note, HasSubstr("too long"));
}

TEST_F(DeltaTest, WhatNoDeviceCouldApplyIsRefusedBeforeAnythingIsMade) {
  request_.keys_touched_earlier = {"/a_b"};
  try {
    Make({{"a.b", "1"}}, {{"a.b", "2"}});
    ADD_FAILURE() << "made";
  } catch (const publish::NotInChain& error) {
    EXPECT_THAT(error.keys(), ElementsAre("/a.b", "/a_b"));
  }
  EXPECT_FALSE(fs::exists(Path("delta")));
}

TEST_F(DeltaTest, SameTreesGiveTheSameBytes) {
  const std::string before = Noise(100000, 1);
  Make({{"b", before}, {"x.db", Table(0)}, {"z", ""}},
       {{"a", "new"}, {"b", before + "x"}, {"x.db", Table(5)}});
  EXPECT_EQ(deltas_.size(), 4U);
  const Tree first = ReadTree(Path("delta"));
  Make();
  EXPECT_TRUE(ReadTree(Path("delta")) == first);
}

TEST_F(DeltaTest, JobsMakeNoDifference) {
  const std::string large = Noise(300000, 1);
  Tree before = {{"gone", "1"},
                 {"large", large},
                 {"new.db", Table(0)},
                 {"x.db", Table(0)},
                 {"y.db", Table(1)},
                 {"other", Noise(90000, 2)},
                 {"hopeless", Noise(1200000, 3)}};
  Tree after = {{"created", "new"},
                {"large", large + "x"},
                {"new.db", Noise(9000, 1)},
                {"x.db", Table(5)},
                {"y.db", Table(7)},
                {"other", "x" + Noise(90000, 2)},
                {"hopeless", Noise(1200000, 4)}};
  for (unsigned i = 0; i < 30; ++i) {
    const std::string name = "d/" + std::to_string(i);
    before[name] = Noise(100 * i, i);
    after[name] = Noise(100 * i, i) + "changed";
  }
  options_.jobs = 1;
  Make(before, after);
  const auto facts = [this] {
    std::vector<std::string> lines;
    for (const FileDelta& file : deltas_) {
      lines.push_back(file.key + ' ' + FileDeltaKindText(file.kind) + ' ' +
                      std::to_string(file.file_bytes) + ' ' + std::to_string(file.bytes) + ' ' +
                      std::to_string(file.packed_bytes.value_or(0)) + ' ' + file.note);
    }
    return lines;
  };
  const std::vector<std::string> expected = facts();
  const Tree first = ReadTree(Path("delta"));
  options_.jobs = 4;
  Make();
  EXPECT_EQ(facts(), expected);
  EXPECT_TRUE(ReadTree(Path("delta")) == first);
  EXPECT_FALSE(fs::exists(Path("delta.patches")));
}

TEST_F(DeltaTest, InputsLieInTheOrderOfKeys) {
  Tree after;
  for (int i = 0; i < 12; ++i) {
    after["f" + std::to_string(100 + i)] = std::to_string(i);
  }
  Make({}, after);
  const std::vector<std::string> names = ListTree(Path("delta"));
  ASSERT_EQ(names.size(), 13U);
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(names[static_cast<std::size_t>(i)], Input("/f" + std::to_string(100 + i)));
  }
}

TEST_F(DeltaTest, DescriptionAndReportSayWhatIsDoneWithEachFile) {
  const std::string before = Noise(100000, 1);
  request_.keys_to_send_whole = {"/whole"};
  Make({{"gone", "1"}, {"patched", before}, {"same", "s"}, {"whole", before}},
       {{"created", "12"}, {"patched", before + "x"}, {"same", "s"}, {"whole", before + "x"}});
  EXPECT_EQ(Description(), publish::ParseJson(R"({
    "/created": {"operation": "create", "input_file": "1"},
    "/gone": {"operation": "delete"},
    "/patched": {"operation": "update", "input_file": "3.vcdiff"},
    "/whole": {"operation": "create", "input_file": "4"}})",
                                              ""));
  EXPECT_THAT(ListTree(Path("delta")), ElementsAre("1", "3.vcdiff", "4", "patch_infos.json"));
  std::vector<std::string> lines;
  for (const FileDelta& file : deltas_) {
    lines.push_back(file.key + ' ' + FileDeltaKindText(file.kind) + ' ' +
                    std::to_string(file.file_bytes) + ' ' +
                    (file.bytes < 1000 ? "small" : std::to_string(file.bytes)) + ' ' + file.note);
  }
  EXPECT_THAT(lines, ElementsAre("/created created 2 small ", "/gone deleted 0 small ",
                                 "/patched vcdiff 100001 small ",
                                 "/whole whole 100001 100001 its patch was found wrong when it was "
                                 "replayed"));
  EXPECT_EQ(deltas_[0].bytes, 2u);
  EXPECT_EQ(deltas_[1].bytes, 0u);
}

TEST_F(DeltaTest, ProgressNamesEachFileAndTheEnd) {
  request_.old_tree = Release("before", {{"a", "1"}, {"b", "1"}});
  request_.new_tree = Release("after", {{"a", "2"}, {"c", "1"}});
  request_.target_directory = Path("delta");
  std::vector<std::string> steps;
  MakeDelta(request_, options_, [&](const std::string& key, std::size_t done, std::size_t total) {
    steps.push_back(key + " " + std::to_string(done) + "/" + std::to_string(total));
  });
  EXPECT_THAT(steps, ElementsAre("/a 0/3", "/b 1/3", "/c 2/3", " 3/3"));
}

TEST_F(DeltaTest, DirectoriesAreThoseThatFilesLieIn) {
  EXPECT_THAT(publish::DirectoriesOf(Release(
                  "t", {{"a", ""}, {"d/e/f/x", ""}, {"d/e/y", ""}, {"d/z/x", ""}, {"empty/", ""}})),
              ElementsAre("/d", "/d/e", "/d/e/f", "/d/z"));
}

}  // namespace
}  // namespace tolm::testing

#include "publish/check_chain.h"

#include <gmock/gmock.h>

#include <initializer_list>
#include <set>
#include <string>
#include <utility>

#include "package/error.h"
#include "package/package_writer.h"
#include "publish/files.h"
#include "tests/publish/release_fixture.h"
#include "tests/support/mounts.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Kind;
using publish::ChainOrder;
using publish::ChainReport;
using publish::ProvedChain;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// Versions 1, 2, ... of "x", each in a full package, and the deltas between them.
class CheckChainTest : public ReleaseFixture {
 protected:
  CheckChainTest() {
    publish::GenerateKeys(Path("keys"), kNow);
    signer_ = publish::LoadSigner(Path("keys/signing.key"), Path("keys/signing.pem"));
    order_.name = "x";
    order_.work_directory = Path("work");
    order_.carried_directory = Path("carried/x");
    order_.trust = package::Trust::Load(Path("keys/root.pem"), "").Texts();
    order_.now = kNow;
    order_.progress = [this] { ++told_; };
  }

  publish::ChainPackage Pack(const std::string& directory, Kind kind, int version) {
    const std::string path = Path((kind == Kind::kFull ? "x_v" : "x_d") + std::to_string(version));
    package::WritePackage(directory, path, {"x", kind, version}, {}, signer_, kNow);
    return {path, publish::MeasureFile(path).sha384};
  }

  void AddRelease(const Tree& files) {
    const int version = static_cast<int>(order_.releases.size()) + 1;
    const std::string number = std::to_string(version);
    trees_.push_back(Release("v" + number, files));
    order_.releases[version] = {Pack(Path("v" + number), Kind::kFull, version),
                                publish::TreeDigest(trees_.back())};
    if (version > 1) {
      publish::DeltaRequest request;
      request.old_tree = trees_[trees_.size() - 2];
      request.new_tree = trees_.back();
      request.target_directory = Path("d" + number);
      publish::ChainDelta delta;
      for (const publish::FileDelta& file : publish::MakeDelta(request)) {
        delta.keys.insert(file.key);
      }
      delta.version = version;
      delta.package = Pack(request.target_directory, Kind::kDelta, version);
      order_.deltas.push_back(delta);
    }
  }

  // Another delta to this version, of these files.
  void Replace(int version, const Tree& files) {
    const std::string directory = Path("other" + std::to_string(version));
    fs::create_directories(directory);
    MakeTree(directory, files);
    order_.deltas[static_cast<std::size_t>(version) - 2].package =
        Pack(directory, Kind::kDelta, version);
  }

  ChainReport Prove() {
    fs::remove_all(order_.work_directory);
    return ProveChain(order_, proved_);
  }

  void ExpectThrown(package::Code code) {
    try {
      ProveChain(order_, proved_);
      ADD_FAILURE() << "was proved";
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), code) << error.what();
    }
  }

  package::Signer signer_;
  std::vector<publish::Tree> trees_;
  ChainOrder order_;
  ProvedChain proved_;
  int told_ = 0;
};

// Many rows, so that a file has free pages when it has lost some by a script.
std::string Many(const std::string& more) {
  return "PRAGMA page_size = 512; CREATE TABLE t(k INTEGER PRIMARY KEY, v TEXT);"
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200)"
         "INSERT INTO t SELECT i, (i * 7919 % 10007) || 'x' || (i * 104729 % 1000003) FROM n;" +
         more;
}

constexpr char kFewer[] = "DELETE FROM t WHERE k > 100; VACUUM;";

// Releases of an SQLite file, and of another that goes by its bytes.
class SqlChainTest : public CheckChainTest {
 protected:
  SqlChainTest() {
    AddRelease({{"bin", Noise(20000, 1)}, {"x.db", Database(Many(""))}});
    AddRelease({{"bin", Noise(20000, 1) + "2"}, {"x.db", Database(Many(kFewer))}});
    AddRelease(
        {{"bin", Noise(20000, 1) + "3"},
         {"x.db", Database(Many(kFewer + std::string("UPDATE t SET v = 'c' WHERE k = 1;")))}});
  }

  // A script to version 3 that hangs on something that is not content.
  void RequireFreePages(const std::string& condition) {
    Replace(3, {{"patch_infos.json",
                 R"({"/bin": {"operation": "create", "input_file": "bin"},)"
                 R"( "/x.db": {"operation": "update", "input_file": "1.sqlitediff"}})"},
                {"bin", ReadFile(trees_[2].files["/bin"].path)},
                {"1.sqlitediff",
                 "SELECT abs(CASE WHEN (SELECT freelist_count FROM pragma_freelist_count) " +
                     condition +
                     " THEN 0 ELSE -9223372036854775807-1 END);\n"
                     "UPDATE t SET v = 'c' WHERE k = 1;\n"}});
  }
};

TEST_F(SqlChainTest, EveryDeltaIsAppliedOnceInTheChain) {
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_THAT(report.remarks, IsEmpty());
  EXPECT_EQ(report.replayed, 2u);
  EXPECT_EQ(report.remembered, 0u);
  EXPECT_EQ(report.together, 0u);
  EXPECT_EQ(told_, 2);
  EXPECT_EQ(proved_.steps.at(3).start, proved_.steps.at(2).result);
}

TEST_F(SqlChainTest, DeltaThatWorksOnTheReleaseButNotAfterTheChainIsFound) {
  RequireFreePages("= 0");
  EXPECT_THAT(Prove().wrong,
              ElementsAre(StartsWith("by deltas from 1 to 3: Fail apply sql cmd: ")));
}

TEST_F(SqlChainTest, DeltaThatWorksAfterTheChainButNotOnTheReleaseIsFound) {
  RequireFreePages("> 0");
  EXPECT_THAT(Prove().wrong,
              ElementsAre(StartsWith("by the delta from 2 to 3: Fail apply sql cmd: ")));
}

TEST_F(SqlChainTest, DeltaThatNamesFilesThatWereNotRecordedIsProvedOnBothAndNotRemembered) {
  RequireFreePages("> 0");
  order_.deltas[1].keys = {"/bin"};
  EXPECT_THAT(Prove().wrong, ElementsAre(StartsWith("by the delta from 2 to 3: ")));
  RequireFreePages(">= 0");
  EXPECT_THAT(Prove().wrong, IsEmpty());
  EXPECT_EQ(proved_.steps.count(2), 1u);
  EXPECT_EQ(proved_.steps.count(3), 0u);
}

TEST_F(SqlChainTest, UnchangedChainIsRemembered) {
  Prove();
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.replayed, 0u);
  EXPECT_EQ(report.remembered, 2u);
  EXPECT_EQ(proved_.steps.size(), 2u);
}

TEST_F(SqlChainTest, WhatHangsOnAChangedPackageIsProvedAnew) {
  Prove();
  const ProvedChain proved = proved_;
  struct Row {
    const char* name;
    std::string* digest;
    std::uint64_t replayed;
  };
  for (const Row& row : {Row{"the delta", &order_.deltas[1].package.sha384, 1},
                         Row{"the first release", &order_.releases[1].full.sha384, 1},
                         Row{"the release between", &order_.releases[2].full.sha384, 2},
                         Row{"the newest release", &order_.releases[3].full.sha384, 1}}) {
    SCOPED_TRACE(row.name);
    const std::string before = std::exchange(*row.digest, "another");
    proved_ = proved;
    const ChainReport report = Prove();
    EXPECT_THAT(report.wrong, IsEmpty());
    EXPECT_EQ(report.replayed, row.replayed);
    EXPECT_EQ(report.remembered, 2 - row.replayed);
    *row.digest = before;
  }
  // What it was applied to is another tree.
  for (const int version : {2, 3}) {
    proved_ = proved;
    proved_.steps[version].start = "another";
    EXPECT_EQ(Prove().replayed, 1u);
    EXPECT_EQ(proved_.steps.at(version).start, proved.steps.at(version).start);
  }
}

TEST_F(SqlChainTest, ChainThatBeginsLaterIsRememberedAllTheSame) {
  AddRelease({{"bin", "4"}, {"x.db", Database(Many(kFewer))}});
  Prove();
  ASSERT_FALSE(proved_.steps.at(3).exact);
  // Not offered any more is the first delta, then the second, too.
  for (const std::uint64_t left : {2u, 1u}) {
    order_.deltas.erase(order_.deltas.begin());
    for (int time = 0; time < 2; ++time) {
      const ChainReport report = Prove();
      EXPECT_EQ(report.remembered, left);
      EXPECT_EQ(report.replayed, 0u);
    }
  }
  // And the first version is there no more.
  order_.releases.erase(3);
  EXPECT_EQ(Prove().replayed, 0u);
  EXPECT_TRUE(Prove().wrong.empty());
}

TEST_F(SqlChainTest, NewDeltaIsAppliedToWhatTheRememberedOnesGave) {
  Prove();
  EXPECT_THAT(ListTree(order_.carried_directory), ElementsAre("x.db"));
  AddRelease({{"bin", Noise(20000, 1) + "4"}, {"x.db", Database(Many(kFewer))}});
  const ProvedChain before = proved_;
  proved_ = {};
  Prove();
  const ProvedChain afresh = proved_;
  const auto expect_the_same = [&] {
    proved_ = before;
    const ChainReport report = Prove();
    EXPECT_THAT(report.wrong, IsEmpty());
    EXPECT_EQ(report.replayed, 1u);
    EXPECT_EQ(report.remembered, 2u);
    EXPECT_EQ(proved_.steps.at(4).start, afresh.steps.at(4).start);
    EXPECT_EQ(proved_.steps.at(4).result, afresh.steps.at(4).result);
  };
  // Kept is by now what the chain to 4 gave, which is not what 4 is applied to.
  expect_the_same();
  fs::remove_all(order_.carried_directory);
  expect_the_same();
  // And from what is kept of the chain to 3.
  const publish::ChainDelta last = order_.deltas.back();
  order_.deltas.pop_back();
  proved_ = {};
  Prove();
  order_.deltas.push_back(last);
  fs::copy(order_.carried_directory, Path("kept"));
  expect_the_same();
  // Damaged or of others, it is of no use.
  for (const char* content : {"damaged", ""}) {
    fs::remove_all(order_.carried_directory);
    MakeTree(order_.carried_directory, {{"x.db", content}, {"y", content}});
    expect_the_same();
  }
  fs::remove_all(order_.carried_directory);
  fs::create_directory_symlink(Path("kept"), order_.carried_directory);
  expect_the_same();
}

// What is made anew begins with the bytes of a release, where the deltas offered before had begun
// with others: it is another tree, and what follows hangs on that.
TEST_F(SqlChainTest, ChainThatIsMadeAnewOtherwiseIsProvedAndRemembered) {
  Prove();
  const std::string before = proved_.steps.at(3).result;
  AddRelease({{"bin", Noise(20000, 1) + "4"}, {"x.db", Database(Many(kFewer))}});
  order_.deltas.erase(order_.deltas.begin());
  order_.releases.erase(1);
  fs::remove_all(order_.carried_directory);
  ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.remembered, 0u);
  EXPECT_EQ(report.replayed, 2u);
  EXPECT_NE(proved_.steps.at(3).result, before);
  EXPECT_EQ(proved_.steps.at(3).start, order_.releases[2].content);
  EXPECT_EQ(proved_.steps.at(4).start, proved_.steps.at(3).result);
  report = Prove();
  EXPECT_EQ(report.remembered, 2u);
  EXPECT_EQ(report.replayed, 0u);
}

// Which a check of what is recent reads only when it must make the chain anew.
TEST_F(SqlChainTest, OlderPackageThatIsDamagedIsToldAndTheRestProved) {
  AddRelease({{"bin", Noise(20000, 1) + "4"}, {"x.db", Database(Many(kFewer))}});
  const publish::ChainDelta last = order_.deltas.back();
  order_.deltas.pop_back();
  Prove();
  order_.deltas.push_back(last);
  fs::remove_all(order_.carried_directory);
  order_.since = 4;
  const ProvedChain proved = proved_;
  const std::string full = order_.releases[1].full.path;
  const std::string delta = order_.deltas[0].package.path;
  const std::string other_full = order_.releases[2].full.path;
  for (const auto& [path, message] :
       {std::pair{full, "the full package of version 1: not the package that was released"},
        std::pair{delta, "by the delta from 1 to 2: not the package that was released"}}) {
    SCOPED_TRACE(path);
    proved_ = proved;
    const std::string before = ReadFile(path);
    ChangeByte(path, 100);
    for (int time = 0; time < 2; ++time) {
      const ChainReport report = Prove();
      EXPECT_THAT(report.wrong, ElementsAre(message));
      EXPECT_EQ(report.replayed, 1u) << "from the release before";
    }
    EXPECT_EQ(proved_.steps.at(4).start, order_.releases[3].content);
    WriteFile(path, before);
  }
  // Signed and sound, but another one.
  proved_ = proved;
  WriteFile(full, ReadFile(other_full));
  EXPECT_THAT(Prove().wrong,
              ElementsAre("the full package of version 1: not the package that was released"));
}

TEST_F(SqlChainTest, OlderDeltaThatCannotBeAppliedAnyMoreIsToldAndTheRestProved) {
  AddRelease({{"bin", Noise(20000, 1) + "4"}, {"x.db", Database(Many(kFewer))}});
  const publish::ChainDelta last = order_.deltas.back();
  order_.deltas.pop_back();
  Prove();
  order_.deltas.push_back(last);
  fs::remove_all(order_.carried_directory);
  ChangeByte(order_.deltas[0].package.path, 100);
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, ElementsAre(StartsWith("by the delta from 1 to 2: ")));
  EXPECT_EQ(report.replayed, 1u) << "from the release before";
  EXPECT_EQ(proved_.steps.count(2), 0u);
  EXPECT_EQ(proved_.steps.at(4).start, order_.releases[3].content);
}

TEST_F(SqlChainTest, ReportIsTheSameHoweverManyJobsThereAre) {
  RequireFreePages("= 0");
  AddRelease({{"bin", "4"}, {"x.db", Database(Many(""))}});
  Replace(4, {{"patch_infos.json", R"({"/bin": {"operation": "delete"}})"}});
  const ChainReport one = Prove();
  const ProvedChain proved = std::exchange(proved_, {});
  order_.jobs = 4;
  const ChainReport four = Prove();
  EXPECT_EQ(one.wrong.size(), 2u);
  EXPECT_EQ(four.wrong, one.wrong);
  EXPECT_EQ(four.replayed, one.replayed);
  EXPECT_EQ(proved_.steps.size(), proved.steps.size());
  EXPECT_EQ(proved_.steps.at(2).result, proved.steps.at(2).result);
}

// An SQLite file of a few rows, which every script leaves with other bytes than the release has.
// The first one leaves free pages, too.
class ScriptChainTest : public CheckChainTest {
 protected:
  ScriptChainTest() {
    AddRelease({{"t", "1"}, {"x.db", Of("a", "INSERT INTO b VALUES(zeroblob(20000));")}});
    AddRelease({{"t", "1"}, {"x.db", Of("b")}});
    SetScript(2, "UPDATE t SET v = 'b' WHERE k = 1;\nDELETE FROM b;\n");
  }

  std::string Of(const std::string& value, const std::string& more = "") {
    return Database(
        "CREATE TABLE t(k INTEGER PRIMARY KEY, v TEXT); CREATE TABLE b(x);"
        "INSERT INTO t VALUES(1, '" +
        value + "');" + more);
  }

  void SetScript(int version, const std::string& script) {
    Replace(version, {{"patch_infos.json",
                       R"({"/x.db": {"operation": "update", "input_file": "1.sqlitediff"}})"},
                      {"1.sqlitediff", script}});
  }

  void AddScript(const std::string& value) {
    AddRelease({{"t", "1"}, {"x.db", Of(value)}});
    SetScript(static_cast<int>(order_.releases.size()),
              "UPDATE t SET v = '" + value + "' WHERE k = 1;\n");
  }

  // As it was, and as it is when nothing is remembered.
  std::pair<ProvedChain, ProvedChain> ProvedAfresh() {
    const ProvedChain before = std::exchange(proved_, {});
    Prove();
    return {before, std::exchange(proved_, before)};
  }

  // Of the delta to version 4, to which a chain of remembered ones leads.
  void ExpectAppliedAs(const ProvedChain& afresh, std::uint64_t replayed) {
    const ChainReport report = Prove();
    EXPECT_THAT(report.wrong, IsEmpty());
    EXPECT_EQ(report.replayed, replayed);
    EXPECT_EQ(proved_.steps.at(4).start, afresh.steps.at(4).start);
    EXPECT_EQ(proved_.steps.at(4).result, afresh.steps.at(4).result);
  }

  void PutBack(const std::string& kept) const {
    fs::remove_all(order_.carried_directory);
    fs::copy(kept, order_.carried_directory);
  }
};

TEST_F(ScriptChainTest, NewDeltaIsAppliedToWhatTheChainGaveHoweverThatIsMade) {
  AddScript("c");
  Prove();
  EXPECT_THAT(ListTree(order_.carried_directory), ElementsAre("x.db"));
  EXPECT_THAT(Prove().remarks, IsEmpty());
  EXPECT_THAT(ListTree(order_.carried_directory), ElementsAre("x.db")) << "all was remembered";
  fs::copy(order_.carried_directory, Path("kept"));
  AddScript("d");
  const auto [before, afresh] = ProvedAfresh();
  EXPECT_EQ(afresh.steps.at(4).start, before.steps.at(3).result);
  EXPECT_NE(afresh.steps.at(4).start, order_.releases[3].content);
  fs::remove_all(order_.carried_directory);
  ExpectAppliedAs(afresh, 1);
  // Proved once more is the first one, and the second one remembered.
  proved_ = before;
  proved_.steps.erase(2);
  fs::remove_all(order_.carried_directory);
  ExpectAppliedAs(afresh, 2);
  // What is kept has become something else.
  proved_ = before;
  PutBack(Path("kept"));
  fs::create_symlink("x.db", order_.carried_directory + "/link");
  ExpectAppliedAs(afresh, 1);
  // It is there, and what the first one is applied to no more.
  proved_ = before;
  PutBack(Path("kept"));
  order_.deltas.erase(order_.deltas.begin());
  order_.releases.erase(1);
  ExpectAppliedAs(afresh, 1);
}

TEST_F(ScriptChainTest, ChainIsMadeAnewFromTheLastReleaseThatItGaveByteByByte) {
  const std::string whole = Of("c");
  AddRelease({{"t", "1"}, {"x.db", whole}});
  Replace(3, {{"patch_infos.json", R"({"/x.db": {"operation": "create", "input_file": "i"}})"},
              {"i", whole}});
  AddScript("d");
  Prove();
  EXPECT_FALSE(proved_.steps.at(2).exact);
  EXPECT_TRUE(proved_.steps.at(3).exact);
  EXPECT_FALSE(proved_.steps.at(4).exact);
  AddScript("e");
  const auto [before, afresh] = ProvedAfresh();
  fs::remove_all(order_.carried_directory);
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.replayed, 1u);
  EXPECT_EQ(proved_.steps.at(5).start, afresh.steps.at(5).start);
  // It gives another tree than it had: what led there from that release is proved once more.
  proved_ = before;
  proved_.steps.at(4).result = "another";
  fs::remove_all(order_.carried_directory);
  EXPECT_EQ(Prove().replayed, 2u);
  EXPECT_EQ(proved_.steps.at(4).result, afresh.steps.at(4).result);
  // And found to be wrong.
  const std::string digest = order_.deltas[2].package.sha384;
  SetScript(4, "UPDATE t SET v = 'wrong' WHERE k = 1;\n");
  order_.deltas[2].package.sha384 = digest;
  proved_ = before;
  fs::remove_all(order_.carried_directory);
  EXPECT_THAT(Prove().wrong, ElementsAre("by the delta from 3 to 4: differs at /x.db"));
  EXPECT_EQ(proved_.steps.count(4), 0u);
  EXPECT_EQ(proved_.steps.at(5).start, order_.releases[4].content);
}

TEST_F(ScriptChainTest, FullPackageOfNoUseLeavesWhatTheChainGave) {
  AddScript("c");
  Prove();
  fs::copy(order_.carried_directory, Path("kept"));
  AddScript("d");
  const auto [before, afresh] = ProvedAfresh();
  PutBack(Path("kept"));
  ChangeByte(order_.releases[3].full.path, 100);
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, ElementsAre(StartsWith("the full package of version 3: ")));
  EXPECT_EQ(report.replayed, 1u);
  EXPECT_EQ(proved_.steps.at(4).start, afresh.steps.at(4).start);
}

TEST_F(ScriptChainTest, DeltaIsAppliedToTheReleaseOnlyWhereAFileItNamesHasOtherBytes) {
  AddRelease({{"new", "3"}, {"t", "3"}, {"x.db", ReadFile(trees_[1].files["/x.db"].path)}});
  EXPECT_THAT(order_.deltas[1].keys, ElementsAre("/new", "/t"));
  const std::string other = order_.work_directory + "/other";
  ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.replayed, 2u);
  EXPECT_EQ(told_, 2);
  EXPECT_FALSE(proved_.steps.at(3).exact);
  EXPECT_FALSE(fs::exists(other));
  AddRelease({{"new", "3"}, {"t", "3"}, {"x.db", Of("d")}});
  SetScript(4, "UPDATE t SET v = 'd' WHERE k = 1;\n");
  report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.replayed, 1u);
  EXPECT_TRUE(fs::exists(other));
}

TEST_F(ScriptChainTest, WhatOnlyTheChainOrOnlyTheReleaseIsGoodForIsFoundWhateverWasRecorded) {
  AddScript("c");
  const char free_pages[] = "(SELECT freelist_count FROM pragma_freelist_count)";
  const auto failing = [&](const std::string& condition) {
    return "SELECT abs(CASE WHEN " + (free_pages + condition) +
           " THEN 0 ELSE -9223372036854775807-1 END);\nUPDATE t SET v = 'c' WHERE k = 1;\n";
  };
  struct Row {
    const char* name;
    std::string script;
    std::string wrong;
  };
  for (const std::set<std::string>& keys :
       std::initializer_list<std::set<std::string>>{{"/x.db"}, {"/t"}}) {
    for (const Row& row : {Row{"fails after the chain", failing(" = 0"),
                               "by deltas from 1 to 3: Fail apply sql cmd: "},
                           Row{"fails on the release", failing(" > 0"),
                               "by the delta from 2 to 3: Fail apply sql cmd: "},
                           Row{"is wrong on the release",
                               std::string("UPDATE t SET v = CASE WHEN ") + free_pages +
                                   " > 0 THEN 'c' ELSE 'wrong' END WHERE k = 1;\n",
                               "by the delta from 2 to 3: differs at /x.db"}}) {
      SCOPED_TRACE(*keys.begin() + ' ' + row.name);
      SetScript(3, row.script);
      order_.deltas[1].keys = keys;
      const ChainReport report = Prove();
      EXPECT_THAT(report.wrong, ElementsAre(StartsWith(row.wrong)));
      EXPECT_THAT(report.remarks, IsEmpty());
      EXPECT_EQ(proved_.steps.count(3), 0u);
    }
  }
}

TEST_F(ScriptChainTest, ThatWhatTheChainGaveCannotBePutInItsPlaceIsRemarked) {
  fs::create_directory(Path("read-only"));
  const auto mount = ScopedMount::ReadOnly(Path("read-only"));
  const auto other = ScopedMount::Tmpfs(Path("other"), 8 << 20);
  const std::string carried = order_.carried_directory;
  for (const auto& [work, place] :
       {std::pair<std::string, std::string>{order_.work_directory, Path("read-only/checked/x")},
        {Path("other/work"), carried}}) {
    SCOPED_TRACE(place);
    proved_ = {};
    order_.work_directory = work;
    order_.carried_directory = place;
    const ChainReport report = Prove();
    EXPECT_THAT(report.wrong, IsEmpty());
    EXPECT_THAT(report.remarks, ElementsAre(StartsWith("what its deltas gave is not kept: ")));
    EXPECT_EQ(proved_.steps.size(), 1u);
  }
}

// Small files that go whole.
class PlainChainTest : public CheckChainTest {
 protected:
  void AddReleases(const std::vector<Tree>& releases) {
    for (const Tree& files : releases) {
      AddRelease(files);
    }
  }
};

TEST_F(PlainChainTest, DamageInTheMiddleIsToldAtItsStep) {
  AddReleases({{{"t", "1"}, {"u", "1"}},
               {{"t", "2"}, {"u", "1"}},
               {{"t", "3"}, {"u", "1"}},
               {{"t", "4"}, {"u", "4"}},
               {{"t", "5"}, {"u", "5"}}});
  Replace(3, {{"patch_infos.json", R"({"/t": {"operation": "create", "input_file": "t"}})"},
              {"t", "wrong"}});
  Replace(5, {{"patch_infos.json", R"({"/t": {"operation": "create", "input_file": "none"}})"}});
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, ElementsAre("by the delta from 2 to 3: differs at /t",
                                        StartsWith("by the delta from 4 to 5: ")));
  EXPECT_EQ(report.replayed, 4u);
  EXPECT_EQ(told_, 4);
  EXPECT_THAT(proved_.steps, ::testing::SizeIs(2));
  // What is right is remembered all the same, what is wrong is found again.
  const ChainReport again = Prove();
  EXPECT_EQ(again.wrong, report.wrong);
  EXPECT_EQ(again.remembered, 2u);
}

TEST_F(PlainChainTest, DeltaThatCannotBeUsedIsToldAndTheRestProved) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}}, {{"t", "3"}}, {{"t", "4"}}});
  order_.deltas[1].package.path.clear();
  EXPECT_THAT(Prove().wrong,
              ElementsAre("by the delta from 2 to 3: the delta to 3 cannot be used"));
  EXPECT_THAT(proved_.steps, ::testing::SizeIs(2));
}

TEST_F(PlainChainTest, ReleaseThatIsNotThereIsSteppedOver) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}}, {{"t", "3"}}, {{"t", "4"}}});
  order_.releases.erase(3);
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.replayed, 3u);
  // And what is wrong there is found where it can be compared again.
  Replace(3, {{"patch_infos.json", R"({"/t": {"operation": "delete"}})"}});
  Replace(4, {{"patch_infos.json", R"({})"}});
  EXPECT_THAT(Prove().wrong, ElementsAre("by deltas from 2 to 4: differs at /t"));
  // Nothing leads from a version that is not there.
  order_.releases.erase(1);
  order_.releases.erase(2);
  const ChainReport none = Prove();
  EXPECT_THAT(none.wrong, IsEmpty());
  EXPECT_EQ(none.replayed, 0u);
}

TEST_F(PlainChainTest, OlderDeltasAreLeftOut) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}}, {{"t", "3"}}, {{"t", "4"}}});
  Replace(2, {{"patch_infos.json", R"({"/t": {"operation": "delete"}})"}});
  order_.since = 3;
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.replayed, 2u);
  order_.since = 2;
  EXPECT_THAT(Prove().wrong, ElementsAre("by the delta from 1 to 2: differs at /t"));
}

TEST_F(PlainChainTest, WhatOnlyOneUpdateCannotDoIsFound) {
  // A device that has 1 still has the file in the directory when its turn comes.
  AddReleases({{{"a/b", "1"}, {"t", "1"}}, {{"t", "2"}}, {{"a", "3"}, {"t", "3"}}});
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong,
              ElementsAre(StartsWith("by deltas from 1 to 3: in one update: Cannot install /a: ")));
  EXPECT_EQ(report.replayed, 2u);
  EXPECT_EQ(report.together, 1u);
  EXPECT_EQ(Prove().wrong, report.wrong);
}

TEST_F(PlainChainTest, OneUpdateThatIsFoundRightIsRemembered) {
  AddReleases({{{"a", "1"}}, {{"a/b", "2"}}, {{"a/b", "3"}}, {{"a/b", "4"}}});
  ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.together, 1u) << "from 1 alone both are touched";
  report = Prove();
  EXPECT_EQ(report.together, 0u);
  order_.deltas[2].package.sha384 = "another";
  EXPECT_EQ(Prove().together, 1u);
}

// Devices are led to a version before the last one, too.
TEST_F(PlainChainTest, OneUpdateToTheStableVersionIsProvedToo) {
  AddReleases({{{"a/b", "1"}, {"t", "1"}},
               {{"t", "2"}},
               {{"a", "3"}, {"t", "3"}},
               {{"a", "4"}, {"t", "4"}}});
  order_.stable = 3;
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong,
              ElementsAre(StartsWith("by deltas from 1 to 3: in one update: Cannot install /a: ")));
  EXPECT_EQ(report.replayed, 3u);
}

TEST_F(PlainChainTest, OneUpdateToEitherVersionIsRemembered) {
  AddReleases({{{"a", "1"}}, {{"a/b", "2"}}, {{"a/b", "3"}}, {{"a/b", "4"}}});
  order_.stable = 3;
  ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.together, 2u) << "from 1, to 3 and to 4";
  report = Prove();
  EXPECT_EQ(report.together, 0u);
  order_.stable.reset();
  EXPECT_EQ(Prove().together, 1u) << "the rollout is over";
}

// No delta leads from the stable version to the staged one before the last.
TEST_F(PlainChainTest, NothingLeadsOverTheGapAfterTheStableVersion) {
  AddReleases({{{"a/b", "1"}, {"t", "1"}},
               {{"t", "2"}},
               {{"a", "3"}, {"t", "3"}},
               {{"a", "4"}, {"t", "4"}},
               {{"a", "5"}, {"t", "5"}}});
  order_.deltas.erase(order_.deltas.begin() + 1);
  order_.stable = 2;
  ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.replayed, 3u);
  EXPECT_EQ(report.together, 0u);
  EXPECT_EQ(proved_.steps.at(4).start, order_.releases[3].content);
  report = Prove();
  EXPECT_EQ(report.remembered, 3u);
  EXPECT_EQ(report.replayed, 0u);
}

TEST_F(PlainChainTest, FilesThatDifferAreNamedAndCounted) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}, {"u", "2"}}, {{"t", "3"}, {"u", "3"}, {"v", "3"}}});
  Replace(2, {{"patch_infos.json", "{}"}});
  Replace(3, {{"patch_infos.json", "{}"}});
  EXPECT_THAT(Prove().wrong, ElementsAre("by the delta from 1 to 2: differs at /t and 1 others",
                                         "by the delta from 2 to 3: differs at /t and 2 others"));
}

TEST_F(PlainChainTest, DeltasWithoutAStartAndThoseThatAreRememberedAreCountedSinceTheFirst) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}}, {{"t", "3"}}, {{"t", "4"}}});
  Prove();
  order_.since = 3;
  EXPECT_EQ(Prove().remembered, 2u);
  order_.since = 4;
  EXPECT_EQ(Prove().remembered, 1u);
  proved_ = {};
  order_.releases.erase(1);
  order_.releases.erase(2);
  for (const auto& [since, without_start] :
       {std::pair<int, std::uint64_t>{1, 2}, {2, 2}, {3, 1}, {4, 0}}) {
    SCOPED_TRACE(since);
    proved_ = {};
    order_.since = since;
    const ChainReport report = Prove();
    EXPECT_EQ(report.without_start, without_start);
    EXPECT_EQ(report.replayed, 1u);
    EXPECT_EQ(report.remembered, 0u);
    EXPECT_THAT(report.wrong, IsEmpty());
  }
}

TEST_F(PlainChainTest, WhatDoesNotHoldAnyMoreIsForgotten) {
  AddReleases({{{"a", "1"}}, {{"a/b", "2"}}, {{"a/b", "3"}}, {{"a/b", "4"}}, {{"a/b", "5"}}});
  Prove();
  EXPECT_EQ(proved_.steps.size(), 4u);
  EXPECT_EQ(proved_.together.size(), 1u);
  const ProvedChain proved = proved_;
  // What led to the oldest version says what the first delta was applied to.
  order_.deltas.erase(order_.deltas.begin(), order_.deltas.begin() + 2);
  EXPECT_EQ(Prove().remembered, 2u);
  std::vector<int> versions;
  for (const auto& [version, step] : proved_.steps) {
    versions.push_back(version);
  }
  EXPECT_THAT(versions, ElementsAre(3, 4, 5));
  EXPECT_THAT(proved_.together, IsEmpty());
  // A delta that cannot be used, and one that is another by now.
  proved_ = proved;
  const publish::ChainPackage good = std::exchange(order_.deltas[0].package, {});
  EXPECT_THAT(Prove().wrong, ::testing::SizeIs(1));
  EXPECT_EQ(proved_.steps.count(4), 0u);
  EXPECT_EQ(proved_.steps.count(5), 1u);
  proved_ = proved;
  MakeTree(Path("other"), {{"patch_infos.json", "{}"}});
  order_.deltas[0].package = Pack(Path("other"), Kind::kDelta, 4);
  EXPECT_THAT(Prove().wrong, ElementsAre("by the delta from 3 to 4: differs at /a/b"));
  EXPECT_EQ(proved_.steps.count(4), 0u);
  EXPECT_EQ(proved_.steps.count(5), 1u);
}

TEST_F(PlainChainTest, FullPackageThatIsOfNoUseIsToldOnceAndSteppedOver) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}}, {{"t", "3"}}, {{"t", "4"}}});
  const std::string path = order_.releases[2].full.path;
  WriteFile(path, "no package");
  const std::string told = "the full package of version 2: " + path + ": ";
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, ElementsAre(StartsWith(told)));
  EXPECT_EQ(report.replayed, 3u);
  EXPECT_EQ(proved_.steps.count(2), 0u) << "it was compared with nothing";
  EXPECT_EQ(proved_.steps.count(4), 1u);
  // What only this machine cannot do says nothing of a package.
  proved_ = {};
  WriteFile(Path("file"), "");
  order_.work_directory = Path("file");
  ExpectThrown(package::Code::kWrite);
  order_.work_directory = Path("work");
  order_.trust.certificates.clear();
  ExpectThrown(package::Code::kKeyring);
}

TEST_F(PlainChainTest, FullFileSystemSaysNothingOfAPackage) {
  AddReleases({{{"t", Noise(100000, 1)}}, {{"t", "2"}}});
  const auto small = ScopedMount::Tmpfs(Path("small"), 32768);
  order_.work_directory = Path("small/work");
  ExpectThrown(package::Code::kNoSpace);
}

TEST_F(PlainChainTest, WithoutTheProgramThatAppliesDeltasNothingIsSaidOfThem) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}}});
  fs::remove("/usr/libexec/libtolmdbud/tolmdbud-replay");
  ExpectThrown(package::Code::kInternal);
}

TEST_F(PlainChainTest, OneUpdateIsNotProvedWithoutTheFullPackageItBeginsWith) {
  AddReleases({{{"t", "1"}}, {{"a", "2"}}, {{"a/b", "3"}}});
  ChangeByte(order_.releases[1].full.path, 100);
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, ElementsAre(StartsWith("the full package of version 1: ")));
  EXPECT_EQ(report.without_start, 1u);
  EXPECT_EQ(report.together, 0u);
  EXPECT_THAT(proved_.together, IsEmpty());
}

// A release from before the first delta has no part in it.
TEST_F(PlainChainTest, OneUpdateBeginsWhereTheDeltasDo) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}}, {{"t", "3"}}, {{"a", "4"}}, {{"a/b", "5"}}});
  order_.deltas.erase(order_.deltas.begin());
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.together, 2u) << "from 2 and from 3";
}

TEST_F(PlainChainTest, DeltaThatMakesANameThatNoReleaseMayHaveIsToldAndTheRestProved) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}}, {{"t", "3"}}});
  Replace(2, {{"patch_infos.json", R"({"/t": {"operation": "create", "input_file": "t"},)"
                                   R"( "/a\u0001": {"operation": "create", "input_file": "t"}})"},
              {"t", "2"}});
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, ElementsAre(::testing::AllOf(StartsWith("by the delta from 1 to 2: "),
                                                         HasSubstr("control characters"))));
  EXPECT_EQ(report.replayed, 2u);
  EXPECT_EQ(proved_.steps.count(3), 1u);
}

// Of the release between there is no full package: what a delta is applied to, only the one before
// it says.
TEST_F(PlainChainTest, DeltaIsRememberedOnlyWhereItIsKnownWhatItIsAppliedTo) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}}, {{"t", "3"}}});
  const publish::ChainRelease between = order_.releases[2];
  order_.releases.erase(2);
  Prove();
  EXPECT_EQ(Prove().remembered, 1u);
  const publish::ChainDelta first = order_.deltas[0];
  order_.deltas.erase(order_.deltas.begin());
  ChainReport report = Prove();
  EXPECT_EQ(report.remembered, 0u);
  EXPECT_EQ(report.without_start, 1u);
  // It is there, and recorded with another content than the deltas gave.
  order_.releases[2] = between;
  order_.deltas.insert(order_.deltas.begin(), first);
  proved_ = {};
  Prove();
  order_.releases[2].content = "another";
  order_.deltas.erase(order_.deltas.begin());
  const ProvedChain proved = proved_;
  EXPECT_EQ(Prove().remembered, 1u);
  for (std::string publish::ProvedStep::*member :
       {&publish::ProvedStep::result, &publish::ProvedStep::after}) {
    proved_ = proved;
    proved_.steps.at(2).*member = "another";
    report = Prove();
    EXPECT_EQ(report.remembered, 0u);
    EXPECT_EQ(report.replayed, 1u);
  }
  // Before or after it comes another package.
  for (const int version : {2, 3}) {
    proved_ = proved;
    const std::string digest = std::exchange(order_.releases[version].full.sha384, "another");
    EXPECT_EQ(Prove().remembered, 0u);
    order_.releases[version].full.sha384 = digest;
  }
}

TEST_F(PlainChainTest, OneUpdateIsProvedFromVersionsOfWhichNothingWrongIsTold) {
  AddReleases({{{"t", "1"}}, {{"a", "2"}}, {{"a/b", "3"}}, {{"a/b", "4"}}});
  ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_EQ(report.together, 2u) << "from 1 and from 2";
  // A device with 1 comes nowhere.
  Replace(2, {{"patch_infos.json", "{}"}});
  proved_ = {};
  report = Prove();
  EXPECT_THAT(report.wrong, ElementsAre("by the delta from 1 to 2: differs at /a and 1 others"));
  EXPECT_EQ(report.together, 1u) << "from 2";
}

TEST_F(PlainChainTest, LastStepAloneIsNoUpdateOfSeveral) {
  AddReleases({{{"t", "1"}}, {{"a", "2"}}, {{"a/b", "3"}}});
  EXPECT_EQ(Prove().together, 1u) << "from 1, and not from 2";
  proved_ = {};
  order_.since = 3;
  EXPECT_EQ(Prove().together, 0u) << "1 is older";
  order_.since = 2;
  EXPECT_EQ(Prove().together, 1u);
}

TEST_F(PlainChainTest, NothingIsKeptOfAChainThatGaveTheReleaseItself) {
  AddReleases({{{"t", "1"}}, {{"t", "2"}}, {{"t", "3"}}, {{"t", "4"}}});
  MakeTree(order_.carried_directory, {{"t", "of an earlier chain"}});
  EXPECT_THAT(Prove().remarks, IsEmpty());
  EXPECT_FALSE(fs::exists(order_.carried_directory));
  // And of the releases the last two while it is proved.
  std::vector<std::string> unpacked;
  for (const std::string& path : ListTree(order_.work_directory)) {
    if (path.size() == 3 && path[0] == 'v') {
      unpacked.push_back(path);
    }
  }
  EXPECT_THAT(unpacked, ElementsAre("v3/", "v4/"));
}

TEST_F(SqlChainTest, ThatWhatTheChainGaveCannotBeKeptIsRemarked) {
  WriteFile(Path("file"), "");
  order_.carried_directory = Path("file/x");
  const ChainReport report = Prove();
  EXPECT_THAT(report.wrong, IsEmpty());
  EXPECT_THAT(report.remarks, ElementsAre(StartsWith("what its deltas gave is not kept: ")));
  EXPECT_EQ(proved_.steps.size(), 2u);
}

}  // namespace
}  // namespace tolm::testing

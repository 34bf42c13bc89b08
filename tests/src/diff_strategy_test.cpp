#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>
#include <syslog.h>

#include <limits>
#include <memory>

#include "dataupdate/strategy.h"
#include "tests/src/during_copy.h"
#include "tests/src/engine_support.h"
#include "tests/src/fake_time.h"
#include "tests/src/strategy_support.h"
#include "tests/support/fake_platform.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/vcdiff_delta.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::DatabaseStatus;
using dataupdate::DiffInfo;
using dataupdate::DiffStrategy;
using dataupdate::FakeTime;
using dataupdate::RemoteInfo;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kSum[] = "/volume1/@tmp/data_update/abc_sum";
constexpr char kInstall[] = "/volume1/db/abc";
constexpr char kUsingLock[] = "/run/data_update/using_abc.lock";
constexpr char kDecoder[] = "/usr/tolm/sbin/tolmdbudvcdiff";

std::string Url(int version) {
  return "http://host/d" + std::to_string(version);
}

std::map<int, DiffInfo> Offer(const std::vector<int>& versions) {
  std::map<int, DiffInfo> diffs;
  for (const int version : versions) {
    diffs.emplace(version, DiffInfo(Url(version), 1));
  }
  return diffs;
}

DiffStrategy MakeStrategy(int installed, int offered, const std::vector<int>& diffs,
                          const std::string& install = kInstall,
                          const std::string& root_directory = "/volume1",
                          const std::string& volume = "/volume1") {
  return DiffStrategy("abc", DatabaseStatus(installed, 0, {}),
                      RemoteInfo(offered, 50, false, "http://host/full"), Offer(diffs), volume,
                      install, root_directory);
}

// Makes an SQLite file with a table t of one text column.
void MakeDatabase(const std::string& path, const std::string& journal_mode = "delete") {
  fs::create_directories(fs::path(path).parent_path());
  SQLite::Database database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  database.execAndGet("PRAGMA journal_mode=" + journal_mode);
  database.exec("CREATE TABLE t(v TEXT UNIQUE); INSERT INTO t VALUES('first')");
}

std::vector<std::string> Rows(const std::string& path) {
  SQLite::Database database(path, SQLite::OPEN_READONLY);
  SQLite::Statement query(database, "SELECT v FROM t ORDER BY rowid");
  std::vector<std::string> rows;
  while (query.executeStep()) {
    rows.push_back(query.getColumn(0).getString());
  }
  return rows;
}

class DiffStrategyTest : public ::testing::Test {
 protected:
  // Offers the delta that makes the version: patch_infos.json and the input files.
  void OfferDelta(int version, const std::string& patch_infos, Tree inputs = {}) {
    inputs["patch_infos.json"] = patch_infos;
    platform_.OfferPackage(Url(version), inputs);
  }

  FakePlatform platform_;
};

TEST_F(DiffStrategyTest, VirtualOperationsKeepTheirSlots) {
  ExpectSlotsOfAStrategy<DiffStrategy>();
}

TEST_F(DiffStrategyTest, ConstructionDoesNothing) {
  const DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
  EXPECT_THAT(strategy.GetModifiedFiles(), IsEmpty());
  EXPECT_EQ(strategy.GetDeltaSize(), 0);
  EXPECT_THAT(platform_.Story(), IsEmpty());
}

TEST_F(DiffStrategyTest, OnlyAnUnbrokenChainIsStarted) {
  constexpr int kMax = std::numeric_limits<int>::max();
  struct Row {
    const char* name;
    int installed;
    int offered;
    std::vector<int> diffs;
    bool available;
  };
  const Row rows[] = {
      {"whole chain", 3, 5, {4, 5}, true},
      {"one step", 4, 5, {5}, true},
      {"others are ignored", 3, 5, {-1, 2, 3, 4, 5, 6, 9}, true},
      {"from never installed", -1, 1, {0, 1}, true},
      {"up to the largest version", kMax - 1, kMax, {kMax}, true},
      {"gap at the end", 3, 5, {4, 6}, false},
      {"gap at the start", 3, 5, {5}, false},
      {"gap in the middle", 3, 6, {4, 6}, false},
      {"only others", 3, 5, {2, 3, 6}, false},
      {"no deltas", 3, 5, {}, false},
      {"equal versions", 5, 5, {4, 5, 6}, false},
      {"older offer", 6, 5, {4, 5, 6}, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FakePlatform& platform = platform_;
    const std::size_t calls_before = platform.Calls().size();
    for (const int version : row.diffs) {
      OfferDelta(version, "{}");
    }
    DiffStrategy strategy = MakeStrategy(row.installed, row.offered, row.diffs);
    if (row.available) {
      strategy.PrepareUpdate();
      EXPECT_GT(platform.Calls().size(), calls_before);
    } else {
      EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "No sufficient diff patched");
      EXPECT_EQ(platform.Calls().size(), calls_before) << "something was done";
    }
  }
}

TEST_F(DiffStrategyTest, ChainIsAppliedInOrderUnderTheFixedNames) {
  OfferDelta(6, "{}");
  OfferDelta(7, "{}");
  DiffStrategy strategy = MakeStrategy(5, 7, {6, 7});
  strategy.PrepareUpdate();
  EXPECT_THAT(
      platform_.Calls(),
      ElementsAre("mkdir /volume1/@tmp/data_update/abc_sum",
                  "mkdir /volume1/@tmp/data_update/abc_delta_6",
                  "download http://host/d6 to /volume1/@tmp/data_update/abc_d6",
                  "open /volume1/@tmp/data_update/abc_d6",
                  "extract to /volume1/@tmp/data_update/abc_delta_6",
                  "mkdir /volume1/@tmp/data_update/abc_delta_7",
                  "download http://host/d7 to /volume1/@tmp/data_update/abc_d7",
                  "open /volume1/@tmp/data_update/abc_d7",
                  "extract to /volume1/@tmp/data_update/abc_delta_7", "mkdir /volume1/db/abc"));
}

TEST_F(DiffStrategyTest, UnpackedDeltaGoesAtOnceAndPackageStaysToTheEnd) {
  OfferDelta(4, "{}");
  OfferDelta(5, "{}");
  platform_.before_download = [](const std::string& url, const std::string&) {
    if (url == Url(5)) {
      EXPECT_FALSE(fs::exists(std::string(kRoot) + "/abc_delta_4"));
      EXPECT_TRUE(fs::exists(std::string(kRoot) + "/abc_d4"));
    }
  };
  {
    DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
    strategy.PrepareUpdate();
    EXPECT_THAT(ListTree(kRoot), ElementsAre("abc_d4", "abc_d5", "abc_sum/"));
  }
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(DiffStrategyTest, PreparationLeavesInstalledFilesAndTakesNoLock) {
  MakeTree(kInstall, {{"gone", "old"}, {"replaced", "old"}});
  OfferDelta(4,
             R"({"/gone": {"operation": "delete"},
                 "/replaced": {"operation": "create", "input_file": "in"}})",
             {{"in", "new"}});
  const HeldLock other(kUsingLock, LOCK_EX);
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"gone", "old"}, {"replaced", "old"}}));
}

TEST_F(DiffStrategyTest, WorkCopiesLieFlat) {
  OfferDelta(4, R"({"/d/e/f.txt": {"operation": "create", "input_file": "inputs/1"}})",
             {{"inputs/1", "new"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  EXPECT_EQ(ReadTree(kSum), (Tree{{"_d_e_f_txt", "new"}}));
}

TEST_F(DiffStrategyTest, TouchedFilesAreThoseOfEitherKind) {
  MakeTree(kInstall, {{"gone", "old"}, {"kept", "old"}});
  OfferDelta(4, R"({"/gone": {"operation": "delete", "other": [1]},
                    "d/new": {"operation": "create", "input_file": "in"}})",
             {{"in", "new"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  EXPECT_THAT(strategy.GetModifiedFiles(), ElementsAre("/gone", "d/new"));
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"d/", ""}, {"d/new", "new"}, {"kept", "old"}}));
}

TEST_F(DiffStrategyTest, CommentsInThePatchDescriptionAreAllowed) {
  OfferDelta(4,
             "// made by hand\n{ /* one */ \"/a\": {\"operation\": \"create\", "
             "\"input_file\": \"in\"} }",
             {{"in", "1"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  EXPECT_THAT(strategy.GetModifiedFiles(), ElementsAre("/a"));
}

TEST_F(DiffStrategyTest, FileOfTwoDeltasIsCopiedOnceAndPatchedTwice) {
  const std::string installed = std::string(kInstall) + "/x.db";
  MakeDatabase(installed);
  for (const int version : {4, 5}) {
    OfferDelta(version, R"({"/x.db": {"operation": "update", "input_file": "p.sqlitediff"}})",
               {{"p.sqlitediff", "INSERT INTO t VALUES('v" + std::to_string(version) + "')"}});
  }
  platform_.before_download = [&](const std::string& url, const std::string&) {
    if (url == Url(5)) {
      SQLite::Database(installed, SQLite::OPEN_READWRITE).exec("DELETE FROM t");
    }
  };
  DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_THAT(Rows(installed), ElementsAre("first", "v4", "v5"));
}

TEST_F(DiffStrategyTest, LastOperationOfTheChainWins) {
  MakeTree(kInstall, {{"back", "old"}});
  OfferDelta(4, R"({"/brief": {"operation": "create", "input_file": "in"},
                    "/back": {"operation": "delete"}})",
             {{"in", "4"}});
  OfferDelta(5, R"({"/brief": {"operation": "delete"},
                    "/back": {"operation": "create", "input_file": "in"}})",
             {{"in", "5"}});
  DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
  strategy.PrepareUpdate();
  EXPECT_THAT(strategy.GetModifiedFiles(), ElementsAre("/back", "/brief"));
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"back", "5"}}));
}

TEST_F(DiffStrategyTest, CreatedFileIsPatchedByTheNextDelta) {
  MakeDatabase("/tmp/new.db");
  OfferDelta(4, R"({"/x.db": {"operation": "create", "input_file": "new.db"}})",
             {{"new.db", ReadFile("/tmp/new.db")}});
  OfferDelta(5, R"({"/x.db": {"operation": "update", "input_file": "p.sqlitediff"}})",
             {{"p.sqlitediff", "INSERT INTO t VALUES('later')\n"}});
  DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_THAT(Rows(std::string(kInstall) + "/x.db"), ElementsAre("first", "later"));
}

TEST_F(DiffStrategyTest, InstalledFileIsFoundByPlainConcatenation) {
  MakeDatabase("/volume1/db/abcx.db");
  OfferDelta(4, R"({"x.db": {"operation": "update", "input_file": "p.sqlitediff"}})",
             {{"p.sqlitediff", "INSERT INTO t VALUES('v4')"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_THAT(Rows(std::string(kInstall) + "/x.db"), ElementsAre("first", "v4"));
  EXPECT_THAT(Rows("/volume1/db/abcx.db"), ElementsAre("first"));
}

TEST_F(DiffStrategyTest, UpdateOfAMissingFileIsACopyingFailure) {
  OfferDelta(4, R"({"/x.db": {"operation": "update", "input_file": "p.sqlitediff"}})",
             {{"p.sqlitediff", ""}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  EXPECT_THAT(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
              StartsWith("Fail to copy from /volume1/db/abc/x.db to "
                         "/volume1/@tmp/data_update/abc_sum/_x_db: "));
}

TEST_F(DiffStrategyTest, InstalledLinkIsNotPatchedThrough) {
  MakeDatabase("/volume1/other.db");
  MakeTree(kInstall, {{"x.db -> /volume1/other.db", ""}});
  OfferDelta(4, R"({"/x.db": {"operation": "update", "input_file": "p.sqlitediff"}})",
             {{"p.sqlitediff", "DELETE FROM t"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
            "Not a regular file: /volume1/@tmp/data_update/abc_sum/_x_db");
  EXPECT_THAT(Rows("/volume1/other.db"), ElementsAre("first"));
}

TEST_F(DiffStrategyTest, UnknownOperationIsNamedByItsPaths) {
  OfferDelta(4, R"({"/a.txt": {"operation": "rename", "input_file": "in"}})", {{"in", ""}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
            "Unknown operation /volume1/@tmp/data_update/abc_sum/_a_txt for file "
            "/volume1/db/abc/a.txt");
}

TEST_F(DiffStrategyTest, KindOfAPatchIsItsExactExtension) {
  struct Row {
    const char* input;
    const char* extension;
  };
  const Row rows[] = {
      {"x.db.SQLITEDIFF", ".SQLITEDIFF"},
      {"x.VCDIFF", ".VCDIFF"},
      {"x.vcdiff.gz", ".gz"},
      {"x.sqlitediff ", ".sqlitediff "},
      {"x", ""},
      {"x.", "."},
      {"dir.vcdiff/x", ""},
  };
  MakeTree(kInstall, {{"a", "old"}});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.input);
    OfferDelta(
        4, R"({"/a": {"operation": "update", "input_file": ")" + std::string(row.input) + "\"}}",
        {{row.input, ""}});
    DiffStrategy strategy = MakeStrategy(3, 4, {4});
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
              std::string("Unsupported diff type: ") + row.extension);
  }
}

TEST_F(DiffStrategyTest, ExtensionMayBeTheWholeName) {
  MakeDatabase(std::string(kInstall) + "/x.db");
  OfferDelta(4, R"({"/x.db": {"operation": "update", "input_file": ".sqlitediff"}})",
             {{".sqlitediff", "INSERT INTO t VALUES('v4')"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  EXPECT_THAT(Rows(std::string(kSum) + "/_x_db"), ElementsAre("first", "v4"));
}

TEST_F(DiffStrategyTest, WorkCopyThatCannotBeTestedIsNamed) {
  const std::string key = "/" + std::string(300, 'k');  // Longer than a file name may be.
  OfferDelta(4, "{\"" + key + R"(": {"operation": "update", "input_file": "p.vcdiff"}})",
             {{"p.vcdiff", ""}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  EXPECT_EQ(
      UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
      "Fail to get exists info from /volume1/@tmp/data_update/abc_sum/_" + std::string(300, 'k'));
}

TEST_F(DiffStrategyTest, ErrorsOfReadingTheDescriptionPassUnchanged) {
  const std::string path = std::string(kRoot) + "/abc_delta_4/patch_infos.json";
  {
    platform_.OfferPackage(Url(4), {{"other", ""}});
    DiffStrategy strategy = MakeStrategy(3, 4, {4});
    const dataupdate::Thrown thrown = dataupdate::ErrorOf([&] { strategy.PrepareUpdate(); });
    EXPECT_EQ(thrown.message, "File not exist: " + path);
    EXPECT_EQ(thrown.code, dataupdate::UpdateError::kFileNotExist);
  }
  for (const char* broken : {"", "{", "{\"/a\" 1}", "nonsense"}) {
    OfferDelta(4, broken);
    DiffStrategy strategy = MakeStrategy(3, 4, {4});
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Fail to decode: " + path);
  }
}

TEST_F(DiffStrategyTest, MissingInputOfACreationIsACopyingFailure) {
  OfferDelta(4, R"({"/a": {"operation": "create", "input_file": "none"}})");
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  EXPECT_THAT(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
              StartsWith("Fail to copy from /volume1/@tmp/data_update/abc_delta_4/none to "));
}

// --- VCDIFF

class DiffStrategyVcdiffTest : public DiffStrategyTest {
 protected:
  DiffStrategyVcdiffTest() {
    MakeTree(kInstall, {{"a.bin", "old content"}});
    OfferDelta(4, R"({"/a.bin": {"operation": "update", "input_file": "a.vcdiff"}})",
               {{"a.vcdiff", "delta"}});
  }

  DiffStrategy strategy_ = MakeStrategy(3, 4, {4});
  const std::string target_ = std::string(kSum) + "/_a_bin";
  const std::string out_ = target_ + ".patchout";
};

TEST_F(DiffStrategyVcdiffTest, DecoderIsRunWithItsFourArguments) {
  std::vector<std::string> arguments;
  platform_.SetProgram(kDecoder, [&](const std::vector<std::string>& given) {
    arguments = given;
    EXPECT_EQ(ReadFile(given.at(1)), "old content");
    EXPECT_EQ(ReadFile(given.at(3)), "delta");
    WriteFile(given.at(2), "new content");
    return 0;
  });
  strategy_.PrepareUpdate();
  EXPECT_THAT(arguments, ElementsAre("decode", target_, out_,
                                     "/volume1/@tmp/data_update/abc_delta_4/a.vcdiff"));
  EXPECT_EQ(ReadTree(kSum), (Tree{{"_a_bin", "new content"}}));
  strategy_.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a.bin", "new content"}}));
}

TEST_F(DiffStrategyVcdiffTest, EveryResultOfTheDecoderButZeroIsAFailure) {
  for (const int result : {1, 2, 255, 137, -1}) {
    SCOPED_TRACE(result);
    platform_.SetProgram(kDecoder, [&](const std::vector<std::string>& given) {
      WriteFile(given.at(2), "half");
      return result;
    });
    DiffStrategy strategy = MakeStrategy(3, 4, {4});
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
              "Fail to apply vcdiff on " + target_);
    EXPECT_EQ(ReadTree(kSum), (Tree{{"_a_bin", "old content"}, {"_a_bin.patchout", "half"}}));
  }
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a.bin", "old content"}}));
}

TEST_F(DiffStrategyVcdiffTest, DecoderWithoutOutputIsACopyingFailure) {
  platform_.SetProgram(kDecoder, [](const auto&) { return 0; });
  EXPECT_THAT(UpdateErrorOf([&] { strategy_.PrepareUpdate(); }),
              StartsWith("Fail to copy from " + out_ + " to " + target_ + ": "));
}

TEST_F(DiffStrategyVcdiffTest, OutputThatCannotBeUnlinkedIsAFailure) {
  platform_.SetProgram(kDecoder, [](const std::vector<std::string>& given) {
    fs::create_directory(given.at(2));
    return 0;
  });
  EXPECT_EQ(UpdateErrorOf([&] { strategy_.PrepareUpdate(); }), "Failt to delete " + out_);
}

TEST_F(DiffStrategyVcdiffTest, RealDecoderAppliesARealDelta) {
  std::string before(300000, '\0');
  for (std::size_t i = 0; i < before.size(); ++i) {
    before[i] = static_cast<char>((i * i * 2654435761U) >> 17);
  }
  std::string after = before;
  after.replace(1000, 5, "other");
  after.insert(200000, "inserted");
  WriteFile(std::string(kInstall) + "/a.bin", before);
  OfferDelta(4, R"({"/a.bin": {"operation": "update", "input_file": "a.vcdiff"}})",
             {{"a.vcdiff", VcdiffDelta(before, after)}});
  strategy_.PrepareUpdate();
  strategy_.ApplyUpdate();
  EXPECT_TRUE(ReadFile(std::string(kInstall) + "/a.bin") == after);
}

TEST_F(DiffStrategyVcdiffTest, RealDecoderRefusesADamagedDelta) {
  EXPECT_EQ(UpdateErrorOf([&] { strategy_.PrepareUpdate(); }),
            "Fail to apply vcdiff on " + target_);
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a.bin", "old content"}}));
}

// --- SQLite scripts

class DiffStrategySqliteTest : public DiffStrategyTest {
 protected:
  DiffStrategySqliteTest() { MakeDatabase(installed_); }

  void Prepare(const std::string& script) {
    OfferDelta(4, R"({"/x.db": {"operation": "update", "input_file": "p.sqlitediff"}})",
               {{"p.sqlitediff", script}});
    strategy_.PrepareUpdate();
  }

  DiffStrategy strategy_ = MakeStrategy(3, 4, {4});
  const std::string installed_ = std::string(kInstall) + "/x.db";
  const std::string work_ = std::string(kSum) + "/_x_db";
};

TEST_F(DiffStrategySqliteTest, EveryLineIsExecuted) {
  Prepare(
      "INSERT INTO t VALUES('a')\n"
      "\n"
      "-- a comment\n"
      "INSERT INTO t VALUES('b'); INSERT INTO t VALUES('c');\n"
      "INSERT INTO t VALUES('semi;colon')\n");
  EXPECT_THAT(Rows(work_), ElementsAre("first", "a", "b", "c", "semi;colon"));
  EXPECT_THAT(Rows(installed_), ElementsAre("first"));
}

TEST_F(DiffStrategySqliteTest, LastLineWithoutNewlineIsExecuted) {
  Prepare("INSERT INTO t VALUES('a')\nINSERT INTO t VALUES('last')");
  EXPECT_THAT(Rows(work_), ElementsAre("first", "a", "last"));
}

TEST_F(DiffStrategySqliteTest, OnlyNewlinesSeparateLines) {
  Prepare("INSERT INTO t VALUES('carriage\rreturn')\r\nINSERT INTO t VALUES('b')\r\n");
  EXPECT_THAT(Rows(work_), ElementsAre("first", "carriage\rreturn", "b"));
}

TEST_F(DiffStrategySqliteTest, LongLinesAreWhole) {
  const std::string text(1 << 20, 'x');
  Prepare("INSERT INTO t VALUES('" + text + "')\n");
  EXPECT_EQ(Rows(work_).at(1), text);
}

TEST_F(DiffStrategySqliteTest, ScriptReachesNoOtherDatabase) {
  const std::string other = "/volume1/other.db";
  EXPECT_EQ(UpdateErrorOf([&] { Prepare("ATTACH '" + other + "' AS o\nCREATE TABLE o.t(v)\n"); }),
            "Fail apply sql cmd: too many attached databases - max 0");
  EXPECT_FALSE(fs::exists(other));
}

TEST_F(DiffStrategySqliteTest, EmptyScriptChangesNothing) {
  const std::string before = ReadFile(installed_);
  Prepare("");
  EXPECT_TRUE(ReadFile(work_) == before);
  EXPECT_THAT(strategy_.GetModifiedFiles(), ElementsAre("/x.db"));
}

TEST_F(DiffStrategySqliteTest, ScriptThatCannotBeOpenedIsEmpty) {
  OfferDelta(4, R"({"/x.db": {"operation": "update", "input_file": "none.sqlitediff"}})");
  strategy_.PrepareUpdate();
  EXPECT_THAT(Rows(work_), ElementsAre("first"));
  EXPECT_THAT(strategy_.GetModifiedFiles(), ElementsAre("/x.db"));
}

TEST_F(DiffStrategySqliteTest, FailingLineKeepsTheWorkCopyAsItWas) {
  const std::string before = ReadFile(installed_);
  EXPECT_EQ(UpdateErrorOf([&] { Prepare("INSERT INTO t VALUES('a')\nBAD LINE\n"); }),
            "Fail apply sql cmd: near \"BAD\": syntax error");
  EXPECT_TRUE(ReadFile(work_) == before);
  EXPECT_THAT(strategy_.GetModifiedFiles(), IsEmpty());
}

TEST_F(DiffStrategySqliteTest, FailingLineKeepsThePatchesOfEarlierDeltas) {
  for (const int version : {4, 5}) {
    OfferDelta(version, R"({"/x.db": {"operation": "update", "input_file": "p.sqlitediff"}})",
               {{"p.sqlitediff", version == 4 ? "INSERT INTO t VALUES('v4')"
                                              : "DELETE FROM t\nINSERT INTO none VALUES(1)"}});
  }
  DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
            "Fail apply sql cmd: no such table: none");
  EXPECT_THAT(Rows(work_), ElementsAre("first", "v4"));
}

TEST_F(DiffStrategySqliteTest, ViolatedConstraintFails) {
  EXPECT_EQ(UpdateErrorOf([&] { Prepare("INSERT INTO t VALUES('first')"); }),
            "Fail apply sql cmd: UNIQUE constraint failed: t.v");
}

TEST_F(DiffStrategySqliteTest, HalfAStatementOnALineFails) {
  EXPECT_EQ(UpdateErrorOf([&] { Prepare("INSERT INTO t\nVALUES('a')\n"); }),
            "Fail apply sql cmd: incomplete input");
  EXPECT_THAT(Rows(work_), ElementsAre("first"));
}

TEST_F(DiffStrategySqliteTest, FileThatIsNoDatabaseFails) {
  WriteFile(installed_, std::string(8192, 'n'));
  EXPECT_EQ(UpdateErrorOf([&] { Prepare("DELETE FROM t"); }),
            "Fail apply sql cmd: file is not a database");
}

TEST_F(DiffStrategySqliteTest, DatabaseInWriteAheadModeIsInstalledComplete) {
  fs::remove(installed_);
  MakeDatabase(installed_, "wal");
  ASSERT_FALSE(fs::exists(installed_ + "-wal"));
  Prepare("INSERT INTO t VALUES('a')\n");
  EXPECT_THAT(ListTree(kSum), ElementsAre("_x_db")) << "the change is in a file beside the copy";
  strategy_.ApplyUpdate();
  EXPECT_THAT(Rows(installed_), ElementsAre("first", "a"));
}

// --- Hostile descriptions

struct DescriptionRow {
  const char* name;
  std::string description;
  const char* message;
};

class DiffStrategyDescriptionTest : public DiffStrategyTest,
                                    public ::testing::WithParamInterface<DescriptionRow> {};

constexpr char kUndecodable[] =
    "Fail to decode: /volume1/@tmp/data_update/abc_delta_4/patch_infos.json";
constexpr char kUnknownOperation[] =
    "Unknown operation /volume1/@tmp/data_update/abc_sum/_a for file /volume1/db/abc/a";
constexpr char kOutside[] = "path not in base";
constexpr char kUnsupported[] = "Unsupported diff type: ";

std::string Nested(int depth) {
  return R"({"/a": )" + std::string(static_cast<std::size_t>(depth), '[') +
         std::string(static_cast<std::size_t>(depth), ']') + "}";
}

std::string Create(const std::string& key, const std::string& input) {
  return "{\"" + key + R"(": {"operation": "create", "input_file": ")" + input + "\"}}";
}

std::string Delete(const std::string& key) {
  return "{\"" + key + R"(": {"operation": "delete"}})";
}

const DescriptionRow kDescriptions[] = {
    {"TopIsNull", "null", kUndecodable},
    {"TopIsArray", R"([{"operation": "delete"}])", kUndecodable},
    {"TopIsString", "\"x\"", kUndecodable},
    {"TopIsNumber", "5", kUndecodable},
    {"TopIsBoolean", "true", kUndecodable},
    {"NestedTooDeep", Nested(100000), kUndecodable},
    {"EntryIsNull", R"({"/a": null})", kUnknownOperation},
    {"EntryIsArray", R"({"/a": ["delete"]})", kUnknownOperation},
    {"EntryIsString", R"({"/a": "delete"})", kUnknownOperation},
    {"EntryIsNumber", R"({"/a": 1})", kUnknownOperation},
    {"EntryIsReal", R"({"/a": 1.5})", kUnknownOperation},
    {"EntryIsBoolean", R"({"/a": true})", kUnknownOperation},
    {"EntryIsEmpty", R"({"/a": {}})", kUnknownOperation},
    {"OperationMissing", R"({"/a": {"input_file": "in"}})", kUnknownOperation},
    {"OperationIsNull", R"({"/a": {"operation": null}})", kUnknownOperation},
    {"OperationIsNumber", R"({"/a": {"operation": 2}})", kUnknownOperation},
    {"OperationIsObject", R"({"/a": {"operation": {"delete": 1}}})", kUnknownOperation},
    {"OperationIsArray", R"({"/a": {"operation": ["delete"]}})", kUnknownOperation},
    {"OperationInCapitals", R"({"/a": {"operation": "Delete"}})", kUnknownOperation},
    {"OperationWithSpace", R"({"/a": {"operation": "delete "}})", kUnknownOperation},
    {"InputMissing", R"({"/a": {"operation": "create"}})", kOutside},
    {"InputIsNumber", R"({"/a": {"operation": "create", "input_file": 5}})", kOutside},
    {"UpdateWithoutInput", R"({"/old": {"operation": "update"}})", kUnsupported},
    {"UpdateByNumber", R"({"/old": {"operation": "update", "input_file": 5}})", kUnsupported},
    {"UpdateByObject", R"({"/old": {"operation": "update", "input_file": {}}})", kUnsupported},
    {"UpdateByEmptyName", R"({"/old": {"operation": "update", "input_file": ""}})", kUnsupported},
    {"InputIsEmpty", Create("/a", ""), kOutside},
    {"InputIsDot", Create("/a", "."), kOutside},
    {"InputAbove", Create("/a", "../abc_d4"), kOutside},
    {"InputAboveInTheMiddle", Create("/a", "sub/../../abc_d4"), kOutside},
    {"InputIsADirectory", Create("/a", "sub"),
     "Not a regular file: /volume1/@tmp/data_update/abc_delta_4/sub"},
    {"InputIsALinkOut", Create("/a", "out"), kOutside},
    {"InputIsALinkInside", Create("/a", "inside"),
     "Not a regular file: /volume1/@tmp/data_update/abc_delta_4/inside"},
    {"InputIsADanglingLink", Create("/a", "dangling"),
     "Not a regular file: /volume1/@tmp/data_update/abc_delta_4/dangling"},
    {"InputThroughALinkOut", Create("/a", "outdir/secret"), kOutside},
    {"InputInALongerDirectory", Create("/a", "longer/secret"), kOutside},
    {"PatchIsALinkOut", R"({"/old": {"operation": "update", "input_file": "out.sqlitediff"}})",
     kOutside},
    {"KeyIsEmpty", Create("", "in"), kOutside},
    {"KeyIsTheRoot", Create("/", "in"), kOutside},
    {"KeyIsDot", Create("/.", "in"), kOutside},
    {"KeyAbove", Create("/../evil", "in"), kOutside},
    {"KeyAboveWithoutSlash", Create("../evil", "in"), kOutside},
    {"KeyAboveAtTheEnd", Create("/d/..", "in"), kOutside},
    {"KeyWithNul", Create("/..\\u0000", "in"), kOutside},
    {"DeletedKeyIsEmpty", Delete(""), kOutside},
    {"DeletedKeyAbove", Delete("/../../precious"), kOutside},
    {"DeletedKeyWithNul", Delete("/old\\u0000x"), kOutside},
    {"SameFlatName",
     R"({"/a.b": {"operation": "create", "input_file": "in"},
         "/a_b": {"operation": "create", "input_file": "in"}})",
     "Same work copy for /a.b and /a_b"},
    {"SameFlatNameInADirectory",
     R"({"/a/b": {"operation": "create", "input_file": "in"},
         "/a_b": {"operation": "create", "input_file": "in"}})",
     "Same work copy for /a/b and /a_b"},
    {"SameFileWithoutSlash",
     R"({"/a": {"operation": "create", "input_file": "in"}, "a": {"operation": "delete"}})",
     "Same file for /a and a"},
    {"SameFileWithMoreSlashes",
     R"({"/d/a": {"operation": "create", "input_file": "in"},
         "//d///a": {"operation": "create", "input_file": "in"}})",
     "Same file for //d///a and /d/a"},
    {"SameFileWithDots",
     R"({"/d/a": {"operation": "delete"}, "/./d/././a": {"operation": "delete"}})",
     "Same file for /./d/././a and /d/a"},
    {"SameFileWithSlashBehind",
     R"({"/old": {"operation": "delete"}, "/old/": {"operation": "delete"}})",
     "Same file for /old and /old/"},
    {"KeyEndsInASlash", Create("/new/", "in"), "Cannot install /new/: not the name of a file"},
    {"KeyEndsInADot", Create("/new/.", "in"), "Cannot install /new/.: not the name of a file"},
    {"DeletedKeyEndsInASlash", Delete("/old/"), "Cannot install /old/: not the name of a file"},
    {"KeyBelowAnInstalledFile", Create("/old/x", "in"),
     "Cannot install /old/x: /volume1/db/abc/old is not a directory"},
    {"KeyFarBelowAnInstalledFile", Create("/old/x/y/z", "in"),
     "Cannot install /old/x/y/z: /volume1/db/abc/old is not a directory"},
    {"KeyBelowAnotherKey",
     R"({"/old": {"operation": "create", "input_file": "in"},
         "/old/x": {"operation": "create", "input_file": "in"}})",
     "Cannot install /old/x: /volume1/db/abc/old is not a directory"},
    {"KeyBelowALaterKey",
     R"({"/new/x": {"operation": "create", "input_file": "in"},
         "new": {"operation": "create", "input_file": "in"}})",
     "Cannot install new: /volume1/db/abc/new is a directory"},
};

TEST_P(DiffStrategyDescriptionTest, IsRefusedAndHarmsNothing) {
  WriteFile("/volume1/secret", "secret");
  MakeTree("/volume1/directory", {{"secret", "secret"}});
  MakeTree(kRoot, {{"abc_delta_40/secret", "secret"}});
  MakeTree("/volume1/db", {{"precious", "kept"}, {"abc/old", "old"}});
  OfferDelta(4, GetParam().description,
             {{"in", "1"},
              {"sub/", ""},
              {"out -> /volume1/secret", ""},
              {"out.sqlitediff -> /volume1/secret", ""},
              {"outdir -> /volume1/directory", ""},
              {"longer -> ../abc_delta_40", ""},
              {"dangling -> none", ""},
              {"inside -> in", ""}});
  {
    DiffStrategy strategy = MakeStrategy(3, 4, {4});
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), GetParam().message);
  }
  EXPECT_EQ(ReadTree("/volume1/db"),
            (Tree{{"precious", "kept"}, {"abc/", ""}, {"abc/old", "old"}}));
  EXPECT_FALSE(fs::exists(kRoot));
}

INSTANTIATE_TEST_SUITE_P(Hostile, DiffStrategyDescriptionTest, ::testing::ValuesIn(kDescriptions),
                         [](const auto& row) { return row.param.name; });

TEST_F(DiffStrategyTest, SameFlatNameInTwoDeltasIsRefused) {
  OfferDelta(4, Create("/a.b", "in"), {{"in", "4"}});
  OfferDelta(5, Create("/a_b", "in"), {{"in", "5"}});
  DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Same work copy for /a.b and /a_b");
}

TEST_F(DiffStrategyTest, SameFileInTwoDeltasIsRefused) {
  OfferDelta(4, Create("/a", "in"), {{"in", "4"}});
  OfferDelta(5, Create("a", "in"), {{"in", "5"}});
  DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Same file for /a and a");
}

TEST_F(DiffStrategyTest, PackageThatVanishesWhileItIsAppliedIsNoBase) {
  MakeTree(kInstall, {{"a", "old"}});
  OfferDelta(4,
             R"({"/a": {"operation": "update", "input_file": "a.vcdiff"},
                 "/b": {"operation": "create", "input_file": "in"}})",
             {{"a.vcdiff", ""}, {"in", "new"}});
  platform_.SetProgram(kDecoder, [](const std::vector<std::string>& given) {
    WriteFile(given.at(2), "patched");
    fs::remove_all(std::string(kRoot) + "/abc_delta_4");
    return 0;
  });
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), kOutside);
}

// --- Files that share a work copy one after the other

TEST_F(DiffStrategyTest, RenamedFileMayHaveTheFlatNameOfTheOldOne) {
  for (const bool up : {true, false}) {
    const std::string from = up ? "/a.b" : "/a_b";
    const std::string to = up ? "/a_b" : "/a.b";
    MakeTree(kInstall, {{from.substr(1), "old"}});
    OfferDelta(4,
               "{\"" + from + R"(": {"operation": "delete"}, ")" + to +
                   R"(": {"operation": "create", "input_file": "in"}})",
               {{"in", "new"}});
    {
      DiffStrategy strategy = MakeStrategy(3, 4, {4});
      strategy.PrepareUpdate();
      strategy.ApplyUpdate();
    }
    EXPECT_EQ(ReadTree(kInstall), (Tree{{to.substr(1), "new"}}));
    fs::remove_all(kInstall);
  }
}

// Takes "decode" for "put the delta's text behind the source".
int Append(const std::vector<std::string>& given) {
  WriteFile(given.at(2), ReadFile(given.at(1)) + ReadFile(given.at(3)));
  return 0;
}

std::string Patch(const std::string& key) {
  return "{\"" + key + R"(": {"operation": "update", "input_file": "p.vcdiff"}})";
}

TEST_F(DiffStrategyTest, RenamedFileIsPatchedByTheNextDelta) {
  MakeTree(kInstall, {{"a.b", "old"}});
  platform_.SetProgram(kDecoder, Append);
  OfferDelta(4, Patch("/a.b"), {{"p.vcdiff", "+4"}});
  OfferDelta(5,
             R"({"/a.b": {"operation": "delete"},
                 "/a_b": {"operation": "create", "input_file": "in"}})",
             {{"in", "new"}});
  OfferDelta(6, Patch("/a_b"), {{"p.vcdiff", "+6"}});
  DiffStrategy strategy = MakeStrategy(3, 6, {4, 5, 6});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a_b", "new+6"}}));
}

TEST_F(DiffStrategyTest, WorkCopyOfAnotherFileIsNeverPatched) {
  platform_.SetProgram(kDecoder, Append);
  OfferDelta(4, Patch("/a.b"), {{"p.vcdiff", "+4"}});
  OfferDelta(5, Delete("/a.b"));
  OfferDelta(6, Patch("/a_b"), {{"p.vcdiff", "+6"}});
  MakeTree(kInstall, {{"a.b", "one"}, {"a_b", "two"}});
  DiffStrategy strategy = MakeStrategy(3, 6, {4, 5, 6});
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Same work copy for /a.b and /a_b");
}

TEST_F(DiffStrategyTest, WorkCopyOfAnotherFileIsNotPatchedForADeletedOneEither) {
  platform_.SetProgram(kDecoder, Append);
  OfferDelta(4,
             R"({"/a.b": {"operation": "update", "input_file": "p.vcdiff"},
                 "/a_b": {"operation": "delete"}})",
             {{"p.vcdiff", "+4"}});
  OfferDelta(5, Delete("/a.b"));
  OfferDelta(6, Patch("/a_b"), {{"p.vcdiff", "+6"}});
  MakeTree(kInstall, {{"a.b", "one"}, {"a_b", "two"}});
  DiffStrategy strategy = MakeStrategy(3, 6, {4, 5, 6});
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Same work copy for /a.b and /a_b");
}

TEST_F(DiffStrategyTest, OwnWorkCopyIsPatchedOnWhateverElseThePlanHas) {
  platform_.SetProgram(kDecoder, Append);
  OfferDelta(4,
             R"({"/a.b": {"operation": "update", "input_file": "p.vcdiff"},
                 "/other": {"operation": "delete"}})",
             {{"p.vcdiff", "+4"}});
  OfferDelta(5, Delete("/a.b"));
  OfferDelta(6, Patch("/a.b"), {{"p.vcdiff", "+6"}});
  MakeTree(kInstall, {{"a.b", "one"}, {"other", "two"}});
  DiffStrategy strategy = MakeStrategy(3, 6, {4, 5, 6});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a.b", "one+4+6"}}));
}

// Whichever of the two comes first in the order of keys.
TEST_F(DiffStrategyTest, WorkCopyThatGoesInTheSameDeltaIsNotPatchedEither) {
  platform_.SetProgram(kDecoder, Append);
  for (const bool up : {true, false}) {
    const std::string gone = up ? "/a.b" : "/a_b";
    const std::string kept = up ? "/a_b" : "/a.b";
    MakeTree(kInstall, {{"a.b", "one"}, {"a_b", "two"}});
    OfferDelta(4, Patch(gone), {{"p.vcdiff", "+4"}});
    OfferDelta(5,
               "{\"" + gone + R"(": {"operation": "delete"}, ")" + kept +
                   R"(": {"operation": "update", "input_file": "p.vcdiff"}})",
               {{"p.vcdiff", "+5"}});
    DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Same work copy for /a.b and /a_b");
  }
}

TEST_F(DiffStrategyTest, DeletedFileLeavesTheWorkCopyToAnother) {
  platform_.SetProgram(kDecoder, Append);
  MakeTree(kInstall, {{"a.b", "one"}, {"a_b", "two"}});
  OfferDelta(4, Delete("/a.b"));
  OfferDelta(5, Patch("/a_b"), {{"p.vcdiff", "+5"}});
  DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a_b", "two+5"}}));
}

TEST_F(DiffStrategyTest, DeletionNeedsNoInput) {
  for (const char* entry :
       {R"({"operation": "delete"})", R"({"operation": "delete", "input_file": 5})",
        R"({"operation": "delete", "input_file": "../.."})"}) {
    SCOPED_TRACE(entry);
    MakeTree(kInstall, {{"a", "old"}});
    OfferDelta(4, std::string(R"({"/a": )") + entry + "}");
    DiffStrategy strategy = MakeStrategy(3, 4, {4});
    strategy.PrepareUpdate();
    strategy.ApplyUpdate();
    EXPECT_THAT(ListTree(kInstall), IsEmpty());
  }
}

// --- Sizes and space

TEST_F(DiffStrategyTest, SizesAreThoseAtTheKeysThemselves) {
  WriteFile("/volume1/at-the-key", std::string(1000, 'k'));
  WriteFile(std::string(kInstall) + "/volume1/at-the-key", std::string(77, 'i'));
  OfferDelta(4, R"({"/volume1/at-the-key": {"operation": "create", "input_file": "in"},
                    "/nothing-at-this-key": {"operation": "create", "input_file": "in"}})",
             {{"in", std::string(10, 'n')}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  EXPECT_EQ(strategy.GetDeltaSize(), 1000 - 10 - 10);
}

TEST_F(DiffStrategyTest, DeletedFilesCountWithTheirWorkCopies) {
  OfferDelta(4, R"({"/brief": {"operation": "create", "input_file": "in"},
                    "/gone": {"operation": "delete"}})",
             {{"in", std::string(10, 'n')}});
  OfferDelta(5, Delete("/brief"));
  DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
  strategy.PrepareUpdate();
  EXPECT_EQ(strategy.GetDeltaSize(), -10);
}

TEST_F(DiffStrategyTest, SpaceIsMeasuredThroughTheVirtualOperation) {
  struct Greedy : DiffStrategy {
    using DiffStrategy::DiffStrategy;
    long long GetDeltaSize() const override { return -(1LL << 60); }
  };
  OfferDelta(4, "{}");
  Greedy strategy("abc", DatabaseStatus(3, 0, {}), RemoteInfo(4, 50, false, "x"), Offer({4}),
                  "/volume1", kInstall, "/volume1");
  EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Disk space is too low");
  EXPECT_TRUE(fs::is_directory(kInstall)) << "it is made before the check";
}

TEST_F(DiffStrategyTest, FullVolumeWhileCopyingIsAFailure) {
  const ScopedMount volume = ScopedMount::Tmpfs("/volume9", 1024 * 1024);
  MakeTree(kInstall, {{"a", std::string(2 * 1024 * 1024, 'o')}});
  OfferDelta(4, R"({"/a": {"operation": "update", "input_file": "p.vcdiff"}})", {{"p.vcdiff", ""}});
  {
    DiffStrategy strategy = MakeStrategy(3, 4, {4}, kInstall, "/volume1", "/volume9");
    const std::string message = UpdateErrorOf([&] { strategy.PrepareUpdate(); });
    EXPECT_THAT(message, StartsWith("Fail to copy from /volume1/db/abc/a to /volume9/"));
    EXPECT_THAT(message, HasSubstr("No space left on device"));
  }
  EXPECT_FALSE(fs::exists("/volume9/@tmp/data_update"));
}

// --- Installation

TEST_F(DiffStrategyTest, EmptyPlanInstallsNothingUnderTheLock) {
  MakeTree(kInstall, {{"a", "old"}});
  OfferDelta(4, "{}");
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              ElementsAre(std::string("Acquire lock on file: ") + kUsingLock,
                          std::string("Release lock on file: ") + kUsingLock));
}

TEST_F(DiffStrategyTest, OldFilesGoBeforeNewOnesCome) {
  MakeTree(kInstall, {{"a", "old"}, {"z", "old"}});
  OfferDelta(4, R"({"/a": {"operation": "create", "input_file": "in"},
                    "/z": {"operation": "delete"}})",
             {{"in", "new"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  bool old_were_gone = false;
  bool locked = false;
  const DuringCopy look([&] {
    old_were_gone = !fs::exists(std::string(kInstall) + "/z");
    locked = IsLocked(kUsingLock);
  });
  strategy.ApplyUpdate();
  EXPECT_TRUE(old_were_gone);
  EXPECT_TRUE(locked);
  EXPECT_FALSE(IsLocked(kUsingLock));
}

TEST_F(DiffStrategyTest, InstallsParentsAndKeepsModes) {
  MakeTree(kInstall, {{"x.bin", "old"}});
  SetMode(std::string(kInstall) + "/x.bin", 0640);
  OfferDelta(4, R"({"/d/e/new": {"operation": "create", "input_file": "in"},
                    "/x.bin": {"operation": "update", "input_file": "p.vcdiff"}})",
             {{"in", "1"}, {"p.vcdiff", ""}});
  platform_.after_extract = [](const std::string& destination) {
    SetMode(destination + "/in", 0755);
  };
  platform_.SetProgram(kDecoder, [](const std::vector<std::string>& given) {
    WriteFile(given.at(2), "patched");
    SetMode(given.at(2), 0604);
    return 0;
  });
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall),
            (Tree{{"d/", ""}, {"d/e/", ""}, {"d/e/new", "1"}, {"x.bin", "patched"}}));
  EXPECT_EQ(ModeOf(std::string(kInstall) + "/d/e/new"), fs::perms(0755));
  EXPECT_EQ(ModeOf(std::string(kInstall) + "/x.bin"), fs::perms(0604)) << "the decoder's";
}

TEST_F(DiffStrategyTest, PatchedDatabaseKeepsTheInstalledMode) {
  const std::string installed = std::string(kInstall) + "/x.db";
  MakeDatabase(installed);
  SetMode(installed, 0640);
  OfferDelta(4, R"({"/x.db": {"operation": "update", "input_file": "p.sqlitediff"}})",
             {{"p.sqlitediff", "DELETE FROM t"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ModeOf(installed), fs::perms(0640));
}

TEST_F(DiffStrategyTest, InstalledLinkIsReplacedNotFollowed) {
  WriteFile("/volume1/elsewhere", "kept");
  MakeTree(kInstall, {{"a -> /volume1/elsewhere", ""}, {"b -> none", ""}});
  OfferDelta(4, R"({"/a": {"operation": "create", "input_file": "in"},
                    "/b": {"operation": "create", "input_file": "in"}})",
             {{"in", "new"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "new"}, {"b", "new"}}));
  EXPECT_EQ(ReadFile("/volume1/elsewhere"), "kept");
}

TEST_F(DiffStrategyTest, InstallsOnAnotherFileSystem) {
  const ScopedMount other = ScopedMount::Tmpfs("/var/db", 16 * 1024 * 1024);
  MakeDatabase("/var/db/abc/x.db");
  const std::string large(3 * 1024 * 1024 + 1, 'n');
  OfferDelta(4, R"({"/x.db": {"operation": "update", "input_file": "p.sqlitediff"},
                    "/large": {"operation": "create", "input_file": "in"}})",
             {{"p.sqlitediff", "INSERT INTO t VALUES('v4')"}, {"in", large}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4}, "/var/db/abc", "/var/db");
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_THAT(Rows("/var/db/abc/x.db"), ElementsAre("first", "v4"));
  EXPECT_TRUE(ReadFile("/var/db/abc/large") == large);
}

TEST_F(DiffStrategyTest, FullDiskWhileInstallingIsAFailure) {
  const ScopedMount small = ScopedMount::Tmpfs("/var/db", 1024 * 1024);
  OfferDelta(4, Create("/a", "in"), {{"in", std::string(2 * 1024 * 1024, 'n')}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4}, "/var/db/abc");
  strategy.PrepareUpdate();
  const std::string message = UpdateErrorOf([&] { strategy.ApplyUpdate(); });
  EXPECT_THAT(message, StartsWith("Fail to diff update: "));
  EXPECT_THAT(message, HasSubstr("No space left on device"));
  EXPECT_THAT(ListTree("/var/db/abc"), IsEmpty()) << "a half-written copy was left";
}

// A plan that is found impossible before anything is touched.
struct PlanRow {
  const char* name;
  Tree installed;
  std::string description;
  const char* message;  // Empty: it can be installed, and this is the result.
  Tree result = {};
};

void PrintTo(const PlanRow& row, std::ostream* out) {
  *out << row.name;
}

class DiffStrategyPlanTest : public DiffStrategyTest,
                             public ::testing::WithParamInterface<PlanRow> {};

std::string Two(const std::string& first, const std::string& second) {
  return first.substr(0, first.size() - 1) + ", " + second.substr(1);
}

const PlanRow kPlans[] = {
    {"DirectoryInPlaceOfAFile",
     {{"a/b", "1"}},
     Create("/a", "in"),
     "Cannot install /a: a directory stands there, with b in it"},
    {"DirectoryToBeDeleted",
     {{"a/b", "1"}},
     Delete("/a"),
     "Cannot install /a: a directory stands there, with b in it"},
    {"DirectoryThatIsEmptiedTooLate",
     {{"a/b", "1"}},
     Two(Delete("/a/b"), Create("/a", "in")),
     "Cannot install /a: a directory stands there, with b in it"},
    {"DirectoryThatIsEmptiedInPart",
     {{"a/b", "1"}, {"a/c", "1"}},
     Two(Delete("/a/b"), Create("a", "in")),
     "Cannot install a: a directory stands there, with c in it"},
    {"DirectoryWithAnEmptyOne",
     {{"a/b/", ""}},
     Create("/a", "in"),
     "Cannot install /a: a directory stands there, with b in it"},
    {"FileAbove",
     {{"a", "1"}},
     Create("/a/b", "in"),
     "Cannot install /a/b: /volume1/db/abc/a is not a directory"},
    {"LinkToNothingAbove",
     {{"a -> none", ""}},
     Create("/a/b", "in"),
     "Cannot install /a/b: /volume1/db/abc/a is not a directory"},
    {"LinkToAFileAbove",
     {{"a -> f", ""}, {"f", "1"}},
     Create("/a/b", "in"),
     "Cannot install /a/b: /volume1/db/abc/a is not a directory"},
    {"LinkToADirectoryThatGoes",
     {{"a -> d", ""}, {"d/", ""}},
     Two(Create("/a/b", "in"), Delete("/d")),
     "Cannot install /a/b: /volume1/db/abc/a is not a directory"},
    {"SameFileThroughALink",
     {{"a -> d", ""}, {"d/", ""}},
     Two(Create("/a/b", "in"), Create("/d/b", "in")),
     "Cannot install /d/b: /volume1/db/abc/d/b is installed by another key"},
    {"EmptyDirectoryMakesRoom", {{"a/", ""}}, Create("/a", "in"), "", {{"a", "new"}}},
    {"EmptyDirectoryIsDeleted", {{"a/", ""}}, Delete("/a"), "", {}},
    {"DirectoryThatIsEmptiedInTime",
     {{"a/b", "1"}},
     Two(Delete("/a/b"), Create("a", "in")),
     "",
     {{"a", "new"}}},
    {"DirectoryWithOneEmptiedTooLate",
     {{"a/b/c", "1"}},
     Two(Delete("/a/b/c"), Two(Delete("a/b"), Create("a", "in"))),
     "Cannot install a: a directory stands there, with b in it"},
    {"FileMakesRoomForADirectory",
     {{"a", "1"}},
     Two(Delete("/a"), Create("/a/b/c", "in")),
     "",
     {{"a/", ""}, {"a/b/", ""}, {"a/b/c", "new"}}},
    {"LinkMakesRoomForADirectory",
     {{"a -> d", ""}, {"d/b", "1"}},
     Two(Delete("/a"), Create("/a/b", "in")),
     "",
     {{"a/", ""}, {"a/b", "new"}, {"d/", ""}, {"d/b", "1"}}},
    {"LinkToADirectoryIsFollowed",
     {{"a -> d", ""}, {"d/", ""}},
     Create("/a/b", "in"),
     "",
     {{"a -> d", ""}, {"d/", ""}, {"d/b", "new"}}},
    {"DirectoryIsMadeAnew",
     {{"a/", ""}},
     Two(Delete("/a"), Create("/a/b", "in")),
     "",
     {{"a/", ""}, {"a/b", "new"}}},
    {"NothingBelowAFileIsDeleted", {{"a", "1"}}, Delete("/a/b"), "", {{"a", "1"}}},
    {"NeighboursInTheOrderOfKeys",
     {{"a-b", "1"}, {"a.b", "1"}},
     Two(Create("/a-b", "in"), Create("/a/b", "in")),
     "",
     {{"a-b", "new"}, {"a.b", "1"}, {"a/", ""}, {"a/b", "new"}}},
};

// So that the full package is taken while nothing is lost.
TEST_P(DiffStrategyPlanTest, IsInstalledOrRefusedInTime) {
  const PlanRow& row = GetParam();
  MakeTree(kInstall, row.installed);
  const Tree before = ReadTree(kInstall);
  OfferDelta(4, row.description, {{"in", "new"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  if (*row.message != '\0') {
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), row.message);
    EXPECT_EQ(ReadTree(kInstall), before);
    return;
  }
  strategy.PrepareUpdate();
  EXPECT_EQ(ReadTree(kInstall), before);
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), row.result);
}

INSTANTIATE_TEST_SUITE_P(Rows, DiffStrategyPlanTest, ::testing::ValuesIn(kPlans),
                         [](const auto& row) { return row.param.name; });

TEST_F(DiffStrategyTest, PlanIsJudgedAtTheEndOfTheChain) {
  OfferDelta(4, Create("/a", "in"), {{"in", "4"}});
  OfferDelta(5, Two(Delete("/a"), Create("/a/b", "in")), {{"in", "5"}});
  DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a/", ""}, {"a/b", "5"}}));
}

TEST_F(DiffStrategyTest, WhatCannotBeRemovedEndsTheInstallationWithoutRollback) {
  MakeTree(kInstall, {{"a", "old"}});
  OfferDelta(4, R"({"/a": {"operation": "delete"}, "/d": {"operation": "delete"},
                    "/new": {"operation": "create", "input_file": "in"}})",
             {{"in", "new"}});
  {
    DiffStrategy strategy = MakeStrategy(3, 4, {4});
    strategy.PrepareUpdate();
    MakeTree(kInstall, {{"d/full", "late"}});
    const std::string message = UpdateErrorOf([&] { strategy.ApplyUpdate(); });
    EXPECT_THAT(message, StartsWith("Fail to diff update: "));
    EXPECT_THAT(message, HasSubstr("Directory not empty"));
  }
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"d/", ""}, {"d/full", "late"}}));
  EXPECT_FALSE(fs::exists(kRoot));
  EXPECT_FALSE(IsLocked(kUsingLock));
}

TEST_F(DiffStrategyTest, FailureWithoutATextCountsAsEmpty) {
  OfferDelta(4, Create("/a", "in"), {{"in", "new"}});
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  const HeldLock reader(kUsingLock, LOCK_SH);
  FakeTime waiting;
  waiting.on_sleep = [] { throw dataupdate::Wordless(); };
  EXPECT_EQ(UpdateErrorOf([&] { strategy.ApplyUpdate(); }), "Fail to diff update: ");
}

TEST_F(DiffStrategyTest, ReaderThatStaysEndsTheInstallationAfterTenMinutes) {
  MakeTree(kInstall, {{"a", "old"}});
  OfferDelta(4, Delete("/a"));
  const HeldLock reader(kUsingLock, LOCK_SH);
  DiffStrategy strategy = MakeStrategy(3, 4, {4});
  strategy.PrepareUpdate();
  const FakeTime time;
  EXPECT_EQ(UpdateErrorOf([&] { strategy.ApplyUpdate(); }),
            "Fail to diff update: Fail to lock /run/data_update/using_abc.lock");
  EXPECT_EQ(time.Passed(), std::chrono::seconds(600));
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
}

// --- Failures and destruction

class DiffStrategyFailureTest : public DiffStrategyTest,
                                public ::testing::WithParamInterface<FailureRow> {};

// What happens in the second of two deltas.
template <typename Spoil>
void InSecondDelta(FakePlatform& platform, Spoil spoil) {
  platform.before_download = [&platform, spoil](const std::string& url, const std::string&) {
    if (url == Url(5)) {
      spoil(platform);
    }
  };
}

const FailureRow kFailures[] = {
    {"WorkCopies", [](FakePlatform& p) { p.refused_directories = {kSum}; },
     "Fail to create dir /volume1/@tmp/data_update/abc_sum"},
    {"FirstDeltaDirectory",
     [](FakePlatform& p) { p.refused_directories = {"/volume1/@tmp/data_update/abc_delta_4"}; },
     "Fail to create dir /volume1/@tmp/data_update/abc_delta_4"},
    {"SecondDeltaDirectory",
     [](FakePlatform& p) { p.refused_directories = {"/volume1/@tmp/data_update/abc_delta_5"}; },
     "Fail to create dir /volume1/@tmp/data_update/abc_delta_5"},
    {"FirstDownload",
     [](FakePlatform& p) { p.SetProgram("/usr/bin/wget", [](auto&) { return 8; }); },
     "Fail to wget url: http://host/d4"},
    {"SecondDownload",
     [](FakePlatform& p) {
       InSecondDelta(p, [](FakePlatform&) { throw dataupdate::UpdateError("cut"); });
     },
     "cut"},
    {"ArchiveInit",
     [](FakePlatform& p) { InSecondDelta(p, [](auto& in) { in.archive_init_fails = true; }); },
     "Failed to extract package at tolmarchive_init"},
    {"ArchiveOpen",
     [](FakePlatform& p) { InSecondDelta(p, [](auto& in) { in.archive_open_error = 18; }); },
     "tolmarchive_open /volume1/@tmp/data_update/abc_d5 failed, ret: 18"},
    {"ArchiveExtract",
     [](FakePlatform& p) { InSecondDelta(p, [](auto& in) { in.archive_extract_error = 31; }); },
     "tolmarchive_extract /volume1/@tmp/data_update/abc_d5 failed, ret: 31"},
    {"Patch", [](FakePlatform& p) { p.SetProgram(kDecoder, [](auto&) { return 1; }); },
     "Fail to apply vcdiff on /volume1/@tmp/data_update/abc_sum/_a"},
    {"InstallPrefix", [](FakePlatform& p) { p.refused_directories = {kInstall}; },
     "Fail to create dir /volume1/db/abc"},
};

TEST_P(DiffStrategyFailureTest, LeavesInstalledFilesAndNoTemporaryData) {
  MakeTree(kInstall, {{"a", "old"}});
  for (const int version : {4, 5}) {
    OfferDelta(version, R"({"/a": {"operation": "update", "input_file": "a.vcdiff"}})",
               {{"a.vcdiff", ""}});
  }
  platform_.SetProgram(kDecoder, [](const std::vector<std::string>& given) {
    WriteFile(given.at(2), "patched");
    return 0;
  });
  GetParam().spoil(platform_);
  {
    DiffStrategy strategy = MakeStrategy(3, 5, {4, 5});
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), GetParam().message);
  }
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
  ExpectCleanedUp();
}

INSTANTIATE_TEST_SUITE_P(Steps, DiffStrategyFailureTest, ::testing::ValuesIn(kFailures), NameOf);

TEST_F(DiffStrategyTest, LackOfSpaceLeavesInstalledFilesAndNoTemporaryData) {
  const ScopedMount small = ScopedMount::Tmpfs("/small", 64 * 1024);
  MakeTree(kInstall, {{"a", "old"}});
  OfferDelta(4, Create("/a", "in"), {{"in", std::string(128 * 1024, 'n')}});
  {
    DiffStrategy strategy = MakeStrategy(3, 4, {4}, kInstall, "/small");
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }), "Disk space is too low");
  }
  EXPECT_EQ(ReadTree(kInstall), (Tree{{"a", "old"}}));
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(DiffStrategyTest, DestructorRemovesTheDataOfEveryDatabase) {
  MakeTree(kRoot, {{"other_sum/left", "over"}});
  { const DiffStrategy strategy = MakeStrategy(3, 4, {4}); }
  EXPECT_FALSE(fs::exists(kRoot));
}

TEST_F(DiffStrategyTest, EveryRemovalThatFailsIsLoggedAndTheNextIsTried) {
  OfferDelta(4, "{}");
  std::vector<ScopedMount> busy;
  platform_.after_extract = [&](const std::string& destination) {
    busy.push_back(ScopedMount::Tmpfs(destination + "/busy", 4096));
    busy.push_back(ScopedMount::Tmpfs(std::string(kSum) + "/busy", 4096));
    fs::remove(std::string(kRoot) + "/abc_d4");
    busy.push_back(ScopedMount::Tmpfs(std::string(kRoot) + "/abc_d4/busy", 4096));
  };
  {
    DiffStrategy strategy = MakeStrategy(3, 4, {4});
    EXPECT_EQ(UpdateErrorOf([&] { strategy.PrepareUpdate(); }),
              "Fail to remove all: /volume1/@tmp/data_update/abc_delta_4");
  }
  const std::string prefix = "Failed to clear tmp data: Fail to remove all: ";
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_ERR),
              ElementsAre(prefix + kSum, prefix + kRoot + "/abc_d4",
                          prefix + kRoot + "/abc_delta_4", prefix + kRoot));
  EXPECT_THAT(SyslogCapture::Texts(LOG_ERR).front(), StartsWith("strategy:"));
}

}  // namespace
}  // namespace tolm::testing

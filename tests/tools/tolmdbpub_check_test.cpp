// What the installed publisher's check looks at, and what it remembers.

#include <csignal>
#include <functional>

#include "tests/support/noise.h"
#include "tests/tools/device.h"
#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr char kReplayProgram[] = "/usr/libexec/libtolmdbud/tolmdbud-replay";

// Four releases of "oui", the last two of them today's.
class CheckTest : public RepositoryTest {
 protected:
  void SetUp() override {
    RepositoryTest::SetUp();
    for (const char* text : {"1", "2", "3", "4"}) {
      MustRelease(Files(text));
    }
    ASSERT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003", "1000004"));
  }

  static Tree Files(const std::string& text) { return {{"noise", Noise(50000)}, {"t", text}}; }

  static CommandResult Check(std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"check", repo_});
    return Pub(options);
  }

  static void ChangeReleases(const std::function<void(Json::Value&)>& change) {
    Json::Value catalog = Catalog();
    change(catalog["databases"]["oui"]["releases"]);
    WriteJson(repo_ / "state/catalog.json", catalog);
  }

  // Another well signed delta to the version, that the repository knows.
  void ReplaceDelta(int version, const std::string& patch_infos) const {
    const fs::path delta = InPublic("packages/oui/oui_d" + std::to_string(version));
    fs::remove_all("/tmp/delta");
    MakeTree("/tmp/delta", {{"patch_infos.json", patch_infos}, {"t", "wrong"}});
    ASSERT_EQ(Pub({"pack", "/tmp/delta", delta, "--name", "oui", "--kind", "delta", "--version",
                   std::to_string(version), "--key", keys_ / "signing.key", "--cert",
                   keys_ / "signing.pem"})
                  .exit_status,
              0);
    ChangeReleases([&](Json::Value& releases) {
      Json::Value& record = releases[version - 1000001]["delta"];
      record["size"] = Json::UInt64(fs::file_size(delta));
      record["sha384"] = Sha384Hex(delta);
    });
    // Any command brings the description to what the catalog says.
    ASSERT_EQ(Pub({"deprecate", repo_, "oui"}).exit_status, 0);
  }

  static constexpr char kWrong[] = R"({"/t": {"operation": "create", "input_file": "t"}})";
  static constexpr char kAllAnew[] = "in order: 7 packages (7 zstd), 3 deltas replayed\n";
  static constexpr char kAllAsBefore[] =
      "in order: 7 packages (7 zstd), 0 deltas replayed, 3 as before\n";
};

TEST_F(CheckTest, DamageInTheMiddleIsToldAtItsStep) {
  ReplaceDelta(1000003, kWrong);
  const CommandResult check = Check();
  EXPECT_EQ(check.exit_status, 1);
  EXPECT_EQ(check.err, "tolmdbpub: oui: by the delta from 1000002 to 1000003: differs at /t\n");
  EXPECT_EQ(check.out, "");
}

TEST_F(CheckTest, WhatWasReplayedIsRemembered) {
  EXPECT_EQ(Check().out, kAllAnew);
  EXPECT_EQ(Check().out, kAllAsBefore);
  EXPECT_EQ(Check({"--again"}).out, kAllAnew);
  MustRelease(Files("5"));
  EXPECT_EQ(Check().out, "in order: 9 packages (9 zstd), 1 delta replayed, 3 as before\n");
  EXPECT_EQ(Pub({"prune", repo_, "oui", "--keep", "2", "--grace", "0"}).exit_status, 0);
  EXPECT_THAT(Check().out, HasSubstr("0 deltas replayed, "));
  EXPECT_THAT(ListTree(repo_ / "state/work"), IsEmpty());
  EXPECT_TRUE(fs::exists(repo_ / "state/checked/oui"));
  ASSERT_EQ(Pub({"remove", repo_, "oui", "--yes"}).exit_status, 0);
  EXPECT_THAT(Check().out, HasSubstr("0 deltas replayed"));
  EXPECT_FALSE(fs::exists(repo_ / "state/checked/oui"));
}

TEST_F(CheckTest, DeltasThatNothingIsThereToApplyToAreNotSaidToBeInOrder) {
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "2", "--grace", "0"}).exit_status, 0);
  ASSERT_THAT(OfferedDeltas(), ElementsAre("1000003", "1000004"));
  const char expected[] =
      "in order: 4 packages (4 zstd), 1 delta replayed; not where 1 delta leads, as the full "
      "package "
      "of the version before was pruned\n";
  EXPECT_EQ(Check().out, expected);
  EXPECT_EQ(Check({"--again"}).out, expected);
}

TEST_F(CheckTest, WhatIsRememberedReplacesNoLookAtAPackage) {
  EXPECT_EQ(Check().exit_status, 0);
  const fs::path delta = InPublic("packages/oui/oui_d1000003");
  ChangeByte(delta, 100);
  EXPECT_THAT(Check().err, HasSubstr("oui_d1000003: not the package that was released"));
}

TEST_F(CheckTest, RememberedResultsAreDroppedWhenTheyMayNotHold) {
  struct Row {
    const char* name;
    std::function<void()> change;
    const char* then;
    const char* wrong = "";
  };
  const fs::path memory = repo_ / "state/checked/oui/results.json";
  const auto keep = [](const char* from, const char* to) {
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
  };
  const std::vector<Row> rows = {
      {"nothing", [] {}, kAllAsBefore},
      {"a delta", [&] { ReplaceDelta(1000003, kWrong); }, "",
       "tolmdbpub: oui: by the delta from 1000002 to 1000003: differs at /t\n"},
      {"the programs", [] { WriteFile(kReplayProgram, ReadFile(kReplayProgram) + '\n'); },
       kAllAnew},
      {"whom devices trust",
       [&] {
         ASSERT_EQ(Pub({"keygen", "/tmp/others", "--no-passphrase"}).exit_status, 0);
         WriteFile(keys_ / "root.pem",
                   ReadFile(keys_ / "root.pem") + ReadFile("/tmp/others/root.pem"));
       },
       kAllAnew},
      {"every package",
       [&] {
         ASSERT_EQ(Pub({"resign", repo_, "--force"}).exit_status, 0);
       },
       "in order: 14 packages (14 zstd), 3 deltas replayed\n"},
      {"no memory", [&] { fs::remove(memory); }, kAllAnew},
      {"half a memory", [&] { fs::resize_file(memory, fs::file_size(memory) / 2); }, kAllAnew},
      {"another start", [&] { ReplaceInFile(memory, "\"start\" : \"", "\"start\" : \"0"); },
       "in order: 7 packages (7 zstd), 1 delta replayed, 2 as before\n"},
      {"something else", [&] { WriteFile(memory, "[]"); }, kAllAnew}};
  const std::string program = ReadFile(kReplayProgram);
  ASSERT_EQ(Check().out, kAllAnew);
  keep("/tmp/repo", "/tmp/kept");
  keep("/tmp/keys", "/tmp/kept-keys");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    row.change();
    const CommandResult check = Check();
    EXPECT_EQ(check.out, row.then);
    EXPECT_EQ(check.err, row.wrong);
    EXPECT_EQ(check.exit_status, *row.wrong == '\0' ? 0 : 1);
    fs::remove_all(repo_);
    keep("/tmp/kept", "/tmp/repo");
    keep("/tmp/kept-keys", "/tmp/keys");
    WriteFile(kReplayProgram, program);
  }
}

TEST_F(CheckTest, ThatNothingCanBeRememberedIsNotedAndNoFailure) {
  fs::create_directories(repo_ / "state/checked/oui/results.json");
  const CommandResult check = Check();
  EXPECT_EQ(check.exit_status, 0);
  EXPECT_EQ(check.out, kAllAnew);
  EXPECT_THAT(check.err,
              AllOf(StartsWith("tolmdbpub: note: oui: what was proved is not remembered: "),
                    HasSubstr("results.json")));
  EXPECT_EQ(CountLines(check.err), 1);
}

TEST_F(CheckTest, QuickOneReplaysNothingAndSaysSo) {
  ReplaceDelta(1000003, kWrong);
  const CommandResult quick = Check({"--quick"});
  EXPECT_EQ(quick.exit_status, 0) << quick.err;
  EXPECT_EQ(
      quick.out,
      "in order, as far as was looked: 7 packages (7 zstd); not whether packages can be read to "
      "their end, nor where deltas lead\n");
  EXPECT_FALSE(fs::exists(repo_ / "state/checked"));
  // All else is found.
  const fs::path full = InPublic("packages/oui/oui_v1000001");
  const std::string before = ReadFile(full);
  ChangeByte(full, 100);
  EXPECT_THAT(Check({"--quick"}).err, HasSubstr("oui_v1000001: not the package that was released"));
  WriteFile(full, before);
  ReplaceInFile(InPublic("database_info/1"), "oui_v1000004", "oui_v1000007");
  const CommandResult link = Check({"--quick"});
  EXPECT_EQ(link.exit_status, 1);
  EXPECT_THAT(link.err, HasSubstr("oui_v1000007: no package of version 1000004"));
}

TEST_F(CheckTest, WhatWasReleasedSinceIsProvedAndOfTheRestLookedWhetherItIsThere) {
  ReplaceDelta(1000002, kWrong);
  ChangeReleases([](Json::Value& releases) {
    for (const int old : {0, 1}) {
      releases[old]["released"] = releases[old]["released"].asInt64() - 10 * 86400;
    }
  });
  const CommandResult since = Check({"--since", "8"});
  EXPECT_EQ(since.exit_status, 0) << since.err;
  EXPECT_EQ(
      since.out,
      "in order, as far as was looked: 5 packages (5 zstd), 2 deltas replayed; of 2 older packages "
      "the size alone, and of no delta to an older release where it leads\n");
  EXPECT_THAT(Check({"--since", "12"}).err, HasSubstr("by the delta from 1000001 to 1000002"));
  // The release before is read: a delta leads on from it.
  for (const auto& [package, is_found] : {std::pair<std::string, bool>{"oui_v1000001", false},
                                          {"oui_v1000002", true},
                                          {"oui_d1000004", true}}) {
    const fs::path path = InPublic("packages/oui/" + package);
    const std::string before = ReadFile(path);
    ChangeByte(path, 100);
    EXPECT_EQ(Check({"--since", "8"}).exit_status, is_found ? 1 : 0) << package;
    fs::resize_file(path, before.size() - 1);
    EXPECT_THAT(Check({"--since", "8"}).err, HasSubstr(package + ": not the package")) << package;
    fs::remove(path);
    EXPECT_THAT(Check({"--since", "8"}).err, HasSubstr(package)) << package;
    WriteFile(path, before);
  }
}

TEST_F(CheckTest, ReportIsTheSameHoweverManyJobsThereAre) {
  for (const std::string name : {"a", "b", "z"}) {
    for (const char* text : {"1", "2"}) {
      MakeTree(source_, Files(text));
      ASSERT_EQ(Pub({"release", repo_, name, source_}).exit_status, 0);
      fs::remove_all(source_);
    }
  }
  const CommandResult right = Check({"--jobs", "1", "--again"});
  EXPECT_EQ(right.out, "in order: 16 packages (16 zstd), 6 deltas replayed\n");
  EXPECT_EQ(Check({"--jobs", "4", "--again"}).out, right.out);
  ReplaceDelta(1000003, kWrong);
  for (const char* package : {"a/a_d1000002", "b/b_v1000001", "z/z_v1000002"}) {
    ChangeByte(InPublic(std::string("packages/") + package), 100);
  }
  const CommandResult one = Check({"--jobs", "1", "--again"});
  const CommandResult four = Check({"--jobs", "4", "--again"});
  EXPECT_EQ(one.exit_status, 1);
  EXPECT_EQ(CountLines(one.err), 5) << one.err;
  EXPECT_EQ(four.err, one.err);
}

TEST_F(CheckTest, OneThatIsInterruptedLeavesNothingThatIsInTheWay) {
  const std::string program = ReadFile(kReplayProgram);
  WriteFile("/tmp/replay", program);
  fs::permissions("/tmp/replay", fs::perms::owner_all);
  // Held up at the third delta.
  WriteFile(kReplayProgram,
            "#!/bin/sh\necho >>/tmp/count\n"
            "[ $(wc -l </tmp/count) -lt 3 ] || { touch /tmp/held; exec sleep 600; }\n"
            "exec /tmp/replay\n");
  const Tree served = ReadTree(repo_ / "public");
  RunningCommand check({kPub, "check", repo_});
  ASSERT_TRUE(WaitUntil([] { return fs::exists("/tmp/held"); }));
  check.Process().Signal(SIGINT);
  EXPECT_EQ(check.Wait().exit_status, 128 + SIGINT);
  EXPECT_FALSE(fs::exists(repo_ / "state/checked"));
  EXPECT_EQ(ReadTree(repo_ / "public"), served);
  WriteFile(kReplayProgram, program);
  EXPECT_EQ(Check().out, kAllAnew);
  EXPECT_EQ(Check().out, kAllAsBefore);
  EXPECT_THAT(ListTree(repo_ / "state/work"), IsEmpty());
}

}  // namespace
}  // namespace tolm::testing

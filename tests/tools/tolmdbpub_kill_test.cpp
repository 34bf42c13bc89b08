// The installed publisher, ended by SIGKILL at steps all over a release.

#include <signal.h>

#include <iostream>
#include <set>

#include "tests/support/killed_run.h"
#include "tests/support/moments.h"
#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::HasSubstr;

constexpr int kKilled = 128 + SIGKILL;
constexpr std::size_t kMoments = 24;

class PublisherKillTest : public RepositoryTest {
 protected:
  void SetUp() override {
    AdoptOrphans();
    RepositoryTest::SetUp();
    MustRelease(Version(1));
    MustRelease(Version(2));
    fs::remove_all(source_);
    MakeTree(source_, Version(3));
    old_ = ReadFile(InPublic("database_info/1"));
    fs::copy(repo_, kKept, fs::copy_options::recursive);
  }

  static Tree Version(unsigned number) {
    Tree tree = {{"d/" + std::to_string(number), "only here"}};
    for (unsigned file = 0; file < 6; ++file) {
      std::string& content = tree["f" + std::to_string(file)];
      std::uint32_t state = file;
      while (content.size() < (file == 0 ? 70000 : 20000)) {  // one for the encoder
        state = state * 1664525u + 1013904223u;
        content += static_cast<char>(state >> 24);
      }
      content[100 * number] = 'x';
    }
    return tree;
  }

  static void Restore() {
    fs::remove_all(repo_);
    fs::copy(kKept, repo_, fs::copy_options::recursive);
  }

  // Half of them all over the command; the other half, every second call, at its end, where what
  // is served changes.
  static std::set<std::size_t> ChooseMoments(std::size_t calls) {
    std::set<std::size_t> moments;
    for (std::size_t i = 0; AllMoments() && i < calls; ++i) {
      moments.insert(i + 1);
    }
    for (std::size_t i = 0; i < kMoments / 2; ++i) {
      moments.insert(calls - 2 * i);
      moments.insert(1 + i * (calls - kMoments - 1) / (kMoments / 2 - 1));
    }
    return moments;
  }

  // The stable version, the staged one, and whether that is held.
  static std::string Staged() {
    std::istringstream in(Description()["signed"].asString());
    Json::Value value;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr));
    const Json::Value oui = value["databases"]["oui"];
    const Json::Value& next = oui["next"];
    return oui["version"].asString() + ' ' + next["version"].asString() + ' ' +
           (next["plan"].isMember("held") ? "held" : "");
  }

  // The last call that names the file that decides whether a change is made.
  static std::size_t DecisiveCall(const std::vector<std::string>& calls,
                                  const std::string& file = "catalog.json") {
    std::size_t decisive = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
      decisive = calls[i].find(file) == std::string::npos ? decisive : i + 1;
    }
    return decisive;
  }

  static constexpr char kKept[] = "/tmp/kept";
  const std::vector<std::string> command_ = {kPub, "release", repo_, "oui", source_, "--jobs", "3"};
  std::string old_;
};

TEST_F(PublisherKillTest, WhatIsServedIsInOrderAndTheSameCommandCompletes) {
  const std::vector<std::string> calls = TraceFileChanges(command_);
  const Json::Value released = Description()["db_list"]["oui"];
  ASSERT_EQ(released["data_version"], "1000003");
  const std::set<std::size_t> moments = ChooseMoments(calls.size());
  ASSERT_GE(moments.size(), kMoments);
  std::set<std::string> served_after_kills;
  for (const std::size_t moment : moments) {
    SCOPED_TRACE("killed before call " + std::to_string(moment) + ": " + calls[moment - 1]);
    Restore();
    EXPECT_EQ(RunUntilFileChange(command_, moment).exit_status, kKilled);
    WaitForOrphans();
    const std::string version = Description()["db_list"]["oui"]["data_version"].asString();
    EXPECT_THAT(version, AnyOf("1000002", "1000003"));
    served_after_kills.insert(version);
    const CommandResult check = Pub({"check", repo_});
    EXPECT_EQ(check.exit_status, 0) << check.err;
    if (version == "1000002") {
      EXPECT_EQ(ReadFile(InPublic("database_info/1")), old_);
    }
    const CommandResult again = RunCommand(command_);
    EXPECT_EQ(again.exit_status, 0) << again.err;
    EXPECT_EQ(OfferedDeltas(), released["diff_files"].getMemberNames());
    EXPECT_EQ(Description()["db_list"]["oui"]["data_version"], "1000003");
    ExpectInOrder();
    EXPECT_TRUE(ListTree(repo_ / "state/work").empty());
    EXPECT_FALSE(fs::exists(repo_ / "state/unfinished"));
  }
  EXPECT_EQ(served_after_kills.size(), 2u) << "both sides of the moment that counts were seen";
  std::cout << calls.size() << " calls, killed at " << moments.size() << " of them\n";
}

TEST_F(PublisherKillTest, PruneAndResignAreCompletedByTheNextCommand) {
  const std::vector<std::vector<std::string>> commands = {
      {kPub, "prune", repo_, "oui", "--keep", "1", "--grace", "0"},
      {kPub, "resign", repo_, "--force"}};
  for (const std::vector<std::string>& command : commands) {
    Restore();
    const std::size_t calls = TraceFileChanges(command).size();
    for (std::size_t moment = 1; moment <= calls; moment += 1 + calls / 20) {
      SCOPED_TRACE(command[1] + " killed before call " + std::to_string(moment));
      Restore();
      EXPECT_EQ(RunUntilFileChange(command, moment).exit_status, kKilled);
      const CommandResult check = Pub({"check", repo_});
      EXPECT_EQ(check.exit_status, 0) << check.err;
      EXPECT_EQ(RunCommand(command).exit_status, 0);
      ExpectInOrder();
    }
  }
}

TEST_F(PublisherKillTest, DescriptionIsTheOldOrTheNewOneWhenRefreshIsKilled) {
  const std::vector<std::string> command = {kPub, "refresh", repo_};
  const std::size_t calls = TraceFileChanges(command).size();
  std::set<bool> seen;
  for (std::size_t moment = 1; moment <= calls; ++moment) {
    SCOPED_TRACE("killed before call " + std::to_string(moment));
    Restore();
    EXPECT_EQ(RunUntilFileChange(command, moment).exit_status, kKilled);
    const std::string served = ReadFile(InPublic("database_info/1"));
    seen.insert(served == old_);
    ExpectInOrder();
    EXPECT_EQ(RunCommand(command).exit_status, 0);
    ExpectInOrder();
  }
  EXPECT_EQ(seen.size(), 2u) << "both sides of the moment that counts were seen";
}

TEST_F(PublisherKillTest, RepositoryIsUpgradedOrNotWhenKilled) {
  MakeFormer();
  for (const char* name : {"info.key", "info.pem"}) {
    fs::remove(keys_ / name);
  }
  fs::remove_all(kKept);
  fs::copy(repo_, kKept, fs::copy_options::recursive);
  const std::string former_keys = "/tmp/former_keys";
  fs::copy(keys_, former_keys);
  const std::string former = ReadFile(InPublic("database_info/1"));
  const std::vector<std::string> command = {kPub, "upgrade", repo_, "--root-key",
                                            keys_ / "root.key"};
  const std::size_t calls = TraceFileChanges(command).size();
  std::set<bool> seen;
  for (std::size_t moment = 1; moment <= calls; moment += 2) {
    SCOPED_TRACE("killed before call " + std::to_string(moment));
    Restore();
    fs::remove_all(keys_);
    fs::copy(former_keys, keys_);
    EXPECT_EQ(RunUntilFileChange(command, moment).exit_status, kKilled);
    const bool is_signed = Description().isMember("signed");
    seen.insert(is_signed);
    if (!is_signed) {
      EXPECT_EQ(ReadFile(InPublic("database_info/1")), former);
    }
    const CommandResult check = Pub({"check", repo_});
    EXPECT_EQ(check.exit_status, 0) << check.err;
    const CommandResult again = RunCommand(command);
    EXPECT_EQ(again.exit_status, 0) << again.err;
    EXPECT_TRUE(Description().isMember("signed"));
    ExpectInOrder();
    EXPECT_FALSE(fs::exists(repo_ / "state/unfinished"));
  }
  EXPECT_EQ(seen.size(), 2u) << "both sides of the moment that counts were seen";
}

TEST_F(PublisherKillTest, WithdrawalAndRemovalAreDoneOrNotWhenKilled) {
  struct Row {
    std::vector<std::string> command;
    std::string done;  // the version that is offered then; none when the database is not
  };
  for (const Row& row : {Row{{kPub, "withdraw", repo_, "oui", "1000002"}, "1000003"},
                         Row{{kPub, "remove", repo_, "oui", "--yes"}, ""}}) {
    Restore();
    const std::vector<std::string> calls = TraceFileChanges(row.command);
    const std::size_t decisive = DecisiveCall(calls);
    ASSERT_GT(decisive, 12u);
    std::set<std::string> seen;
    for (std::size_t moment = decisive - 12; moment <= decisive + 6; moment += 3) {
      SCOPED_TRACE(row.command[1] + " killed before call " + std::to_string(moment));
      Restore();
      EXPECT_EQ(RunUntilFileChange(row.command, moment).exit_status, kKilled);
      EXPECT_EQ(Pub({"check", repo_}).exit_status, 0);
      EXPECT_EQ(Pub({"set", repo_, "--max-shrink", "20%"}).exit_status, 0);
      const std::string offered = Description()["db_list"]["oui"]["data_version"].asString();
      EXPECT_THAT(offered, AnyOf("1000002", row.done));
      seen.insert(offered);
      EXPECT_EQ(Pub({"check", repo_}).exit_status, 0);
      EXPECT_FALSE(fs::exists(repo_ / "state/unfinished"));
    }
    EXPECT_EQ(seen.size(), 2u) << "both sides of the moment that counts were seen";
  }
}

TEST_F(PublisherKillTest, RolloutIsAsBeforeOrAsAfterWhenItsCommandsAreKilled) {
  std::vector<std::string> release = command_;
  release.insert(release.end(), {"--stages", "1%/6h,100%"});
  struct Row {
    std::vector<std::string> command;
    std::string before;
    std::string after;
  };
  for (const Row& row :
       {Row{release, "1000002  ", "1000002 1000003 "},
        Row{{kPub, "rollout", "hold", repo_, "oui"}, "1000002 1000003 ", "1000002 1000003 held"},
        Row{{kPub, "rollout", "finish", repo_, "oui"}, "1000002 1000003 held", "1000003  "}}) {
    fs::remove_all(kKept);
    fs::copy(repo_, kKept, fs::copy_options::recursive);
    const std::vector<std::string> calls = TraceFileChanges(row.command);
    EXPECT_EQ(Staged(), row.after);
    const std::size_t decisive = DecisiveCall(calls);
    ASSERT_GT(decisive, 6u);
    std::set<std::string> seen;
    for (std::size_t moment = decisive - 6; moment <= decisive + 6; moment += 4) {
      SCOPED_TRACE(row.command[1] + ' ' + row.command[2] + " killed before call " +
                   std::to_string(moment));
      Restore();
      EXPECT_EQ(RunUntilFileChange(row.command, moment).exit_status, kKilled);
      EXPECT_THAT(Staged(), AnyOf(row.before, row.after));
      EXPECT_EQ(Pub({"check", repo_}).exit_status, 0);
      EXPECT_EQ(Pub({"set", repo_, "--max-shrink", "20%"}).exit_status, 0);
      EXPECT_THAT(Staged(), AnyOf(row.before, row.after));
      seen.insert(Staged());
      EXPECT_EQ(Pub({"check", repo_, "--quick"}).exit_status, 0);
      EXPECT_FALSE(fs::exists(repo_ / "state/unfinished"));
    }
    EXPECT_EQ(seen.size(), 2u) << "both sides of the moment that counts were seen";
    Restore();
    ASSERT_EQ(RunCommand(row.command).exit_status, 0);
  }
}

// A small repository with an open rollout.
class StagedKillTest : public PublisherKillTest {
 protected:
  void SetUp() override {
    AdoptOrphans();
    RepositoryTest::SetUp();
    MustRelease({{"f", "1"}});
    MustRelease({{"f", "2"}});
    MustRelease({{"f", "3"}}, {"--stages", "1%/2d,100%"});
    fs::copy(repo_, kKept, fs::copy_options::recursive);
  }

  // What is served, and what is remembered of it.
  static std::string State() {
    return ReadFile(InPublic("database_info/1")) + ReadFile(repo_ / "state/catalog.json");
  }

  // In the middle of the command, and before and after the call that decides: what is served is in
  // order and the rollout as before or as after, and the next command takes care of the rest.
  static void Kill(const std::vector<std::string>& command, const std::string& after,
                   const std::string& decided_by = "catalog.json") {
    const std::string before = Staged();
    const std::string old = State();
    const std::vector<std::string> calls = TraceFileChanges(command);
    ASSERT_EQ(Staged(), after);
    const std::size_t decisive = DecisiveCall(calls, decided_by);
    ASSERT_GT(decisive, 2u);
    std::set<bool> seen;
    for (const std::size_t moment : {decisive / 2, decisive, decisive + 1}) {
      SCOPED_TRACE(command[1] + " killed before call " + std::to_string(moment));
      Restore();
      EXPECT_EQ(RunUntilFileChange(command, moment).exit_status, kKilled);
      seen.insert(State() == old);
      EXPECT_THAT(Staged(), AnyOf(before, after));
      EXPECT_EQ(Pub({"check", repo_, "--quick"}).exit_status, 0);
      EXPECT_EQ(Pub({"set", repo_, "--max-shrink", "20%"}).exit_status, 0);
      EXPECT_THAT(Staged(), AnyOf(before, after));
      EXPECT_FALSE(fs::exists(repo_ / "state/unfinished"));
    }
    EXPECT_EQ(seen.size(), 2u) << "both sides of the moment that counts were seen";
    EXPECT_EQ(Pub({"check", repo_}).exit_status, 0);
  }
};

TEST_F(StagedKillTest, KilledWithdrawalTakesTheStagedVersionBackFromAllOrNotAtAll) {
  Kill({kPub, "withdraw", repo_, "oui", "1000003"}, "1000004  ");
}

TEST_F(StagedKillTest, KilledResignKeepsTheRollout) {
  Kill({kPub, "resign", repo_, "--force"}, "1000002 1000003 ");
}

TEST_F(StagedKillTest, KilledPruneKeepsTheRollout) {
  Kill({kPub, "prune", repo_, "oui", "--keep", "1", "--grace", "0"}, "1000002 1000003 ");
}

TEST_F(StagedKillTest, KilledRefreshKeepsTheRollout) {
  Kill({kPub, "refresh", repo_}, "1000002 1000003 ", "database_info/1");
}

}  // namespace
}  // namespace tolm::testing

// The installed publisher brings a repository to stores, by a real rclone.

#include <signal.h>

#include <ctime>
#include <iostream>
#include <set>

#include "tests/support/http_server.h"
#include "tests/support/killed_run.h"
#include "tests/support/mounts.h"
#include "tests/tools/device.h"
#include "tests/tools/repository.h"
#include "tests/tools/store.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kStore[] = "/tmp/store";
constexpr int kKilled = 128 + SIGKILL;

class PushTest : public RepositoryTest {
 protected:
  void SetUp() override {
    RepositoryTest::SetUp();
    MustRelease(Small("one"));
    MustRelease(Small("two"));
  }

  /// So large that a delta pays.
  static Tree Small(const std::string& text) {
    return {{"a.txt", text}, {"filler", Noise(10000, 7)}};
  }
  static Tree Large(std::uint32_t seed) { return {{"large", Noise(200000, seed)}}; }
  static std::string Noise(std::size_t size, std::uint32_t state) {
    std::string noise;
    while (noise.size() < size) {
      state = state * 1664525u + 1013904223u;
      noise += static_cast<char>(state >> 24);
    }
    return noise;
  }

  CommandResult Push(std::vector<std::string> options = {}) const {
    options.insert(options.begin(), {"push", repo_, kStore});
    return Pub(options);
  }
  void MustPush(const std::vector<std::string>& options = {}) const {
    const CommandResult result = Push(options);
    ASSERT_EQ(result.exit_status, 0) << result.err;
    EXPECT_EQ(result.err, "");
  }

  static void ExpectPushed() { EXPECT_EQ(ReadTree(kStore), ReadTree(repo_ / "public")); }

  static fs::path StateFile() {
    for (const auto& entry : fs::directory_iterator(repo_ / "state/pushed")) {
      if (entry.path().extension() == ".json") {
        return entry.path();
      }
    }
    return {};
  }

  static void WriteMark(std::int64_t expires) {
    WriteFile(fs::path(kStore) / ".tolmdbpub-push",
              R"({"format": 1, "id": "0123", "owner": "elsewhere", "since": 1700000000,
                  "expires": )" +
                  std::to_string(expires) + "}");
  }

  /// A push that takes seconds for a large package.
  static RunningCommand PushSlowly() {
    return RunningCommand({kPub, "push", repo_, kStore}, {{"RCLONE_BWLIMIT=64k"}, {}, ""});
  }
};

// ---- every kind of store ----

class StoresPushTest : public PushTest, public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(EveryStore, StoresPushTest, ::testing::Values("folder", "webdav", "sftp"),
                         [](const auto& kind) { return std::string(kind.param); });

TEST_P(StoresPushTest, WhatIsServedIsThereAndIsProved) {
  const Store store(GetParam(), kStore);
  const std::vector<std::string> push = {"push", repo_, store.Remote()};
  const CommandResult first = Pub(push);
  ASSERT_EQ(first.exit_status, 0) << first.err;
  EXPECT_EQ(first.err, "");
  EXPECT_THAT(first.out,
              AllOf(HasSubstr("uploaded packages/oui/oui_v1000002\n"),
                    HasSubstr("the description is new; 3 packages"), HasSubstr("3 proved\n")));
  ExpectPushed();
  const CommandResult check = Pub({"check", repo_, "--remote", store.Remote()});
  EXPECT_EQ(check.exit_status, 0) << check.err;
  EXPECT_THAT(check.out, HasSubstr("in order: 2 packages"));
  MustRelease(Small("three"));
  ChangeByte(fs::path(kStore) / "packages/oui/oui_v1000002", 20);
  const CommandResult second = Pub(push);
  ASSERT_EQ(second.exit_status, 0) << second.err;
  EXPECT_THAT(second.out, AllOf(HasSubstr("oui_v1000003"), HasSubstr("oui_d1000003"),
                                Not(HasSubstr("oui_v1000002"))));
  EXPECT_EQ(Pub({"push", repo_, store.Remote(), "--again"}).exit_status, 0);
  ExpectPushed();
}

TEST_P(StoresPushTest, KilledPushIsCompletedAndDevicesNeverMissAnything) {
  AdoptOrphans();
  const Store store(GetParam(), kStore);
  HttpServer server(kStore);
  ASSERT_EQ(Pub({"set", repo_, "--base-url", server.Url("")}).exit_status, 0);
  const std::vector<std::string> command = {kPub, "push", repo_, store.Remote()};
  const std::size_t calls = TraceFileChanges(command).size();
  ASSERT_EQ(Pub({"install-config", repo_, "/"}).exit_status, 0);
  ASSERT_EQ(Tool({"init"}).exit_status, 0);
  constexpr std::size_t kMoments = 3;
  std::set<bool> seen;
  for (std::size_t i = 0; i < kMoments; ++i) {
    const std::size_t moment = (2 * i + 1) * calls / (2 * kMoments);
    SCOPED_TRACE("killed before call " + std::to_string(moment));
    const std::string before = ReadFile(fs::path(kStore) / "database_info/1");
    MustRelease(Small(std::to_string(i)));
    const CommandResult killed = RunUntilFileChange(command, moment);
    EXPECT_EQ(killed.exit_status, kKilled) << killed.err;
    const std::string served = ReadFile(fs::path(kStore) / "database_info/1");
    EXPECT_TRUE(served == ReadFile(InPublic("database_info/1")) || served == before);
    seen.insert(served == before);
    const CommandResult update = Tool({"update", "--all", "--refresh"});
    EXPECT_EQ(update.exit_status, 0) << update.err;
  }
  EXPECT_EQ(seen.count(true), 1u) << "one was killed before the description was there";
  const CommandResult next = RunCommand(command);
  EXPECT_EQ(next.exit_status, 0) << next.err;
  ExpectPushed();
  EXPECT_EQ(Tool({"update", "--all", "--refresh"}).exit_status, 0);
  EXPECT_EQ(InstalledVersion("oui"), std::to_string(1000002 + kMoments));
  std::cout << calls << " calls, killed at " << kMoments << " of them\n";
}

// ---- a folder ----

TEST_F(PushTest, DryRunChangesNothing) {
  const Tree before = ReadTree(repo_);
  const CommandResult result = Push({"--dry-run"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.out, AllOf(HasSubstr("would upload packages/oui/oui_v1000001\n"),
                                HasSubstr("nothing was changed")));
  EXPECT_FALSE(fs::exists(kStore));
  EXPECT_EQ(ReadTree(repo_), before);
}

TEST_F(PushTest, ReleaseAndPruneGoOnMeanwhileAndWhatWasReadIsPushed) {
  MustRelease(Large(1));
  const std::string description = ReadFile(InPublic("database_info/1"));
  const std::string package = ReadFile(InPublic("packages/oui/oui_v1000003"));
  RunningCommand push = PushSlowly();
  ASSERT_TRUE(WaitUntil([] { return fs::exists(fs::path(kStore) / "packages/oui/oui_v1000003"); }));
  MustRelease(Small("four"), {"--allow-shrink"});
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "1", "--grace", "0"}).exit_status, 0);
  ASSERT_FALSE(fs::exists(InPublic("packages/oui/oui_v1000003")));
  const CommandResult result = push.Wait();
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(ReadFile(fs::path(kStore) / "database_info/1"), description);
  EXPECT_EQ(ReadFile(fs::path(kStore) / "packages/oui/oui_v1000003"), package);
  const CommandResult check = Pub({"check", repo_, "--remote", kStore});
  EXPECT_EQ(check.exit_status, 1);
  EXPECT_THAT(check.err, AllOf(HasSubstr("behind this repository's"),
                               HasSubstr("oui 1000003 there, 1000004 here")));
}

TEST_F(PushTest, SecondPushFromTheSameRepositoryIsRefusedMeanwhile) {
  MustRelease(Large(2));
  RunningCommand push = PushSlowly();
  ASSERT_TRUE(WaitUntil([] { return fs::exists(fs::path(kStore) / "packages/oui/oui_v1000003"); }));
  ExpectFailure(Push(), AllOf(HasSubstr("another push to it is at work, process "),
                              HasSubstr(std::to_string(push.Process().Pid()))));
  EXPECT_EQ(push.Wait().exit_status, 0);
  MustPush();
}

TEST_F(PushTest, PushFromAnotherMachineIsSeenByItsMark) {
  MustPush();
  WriteMark(std::time(nullptr) + 600);
  ExpectFailure(Push(), AllOf(HasSubstr("another push to it is at work, from elsewhere"),
                              HasSubstr("--yes")));
  const CommandResult insisted = Push({"--yes"});
  EXPECT_EQ(insisted.exit_status, 0) << insisted.err;
  EXPECT_THAT(insisted.err, HasSubstr("not waited for"));
  WriteMark(std::time(nullptr) - 1);
  MustPush();
  WriteFile(fs::path(kStore) / ".tolmdbpub-push", "{\"form");
  MustPush();
  EXPECT_FALSE(fs::exists(fs::path(kStore) / ".tolmdbpub-push"));
}

TEST_F(PushTest, NewerDescriptionIsNotReplacedByAnOlderCopyOfTheRepository) {
  fs::copy(repo_, "/tmp/older", fs::copy_options::recursive);
  MustRelease(Small("three"));
  MustPush();
  const Tree there = ReadTree(kStore);
  for (const char* option : {"--again", "--yes"}) {
    ExpectFailure(Pub({"push", "/tmp/older", kStore, option}),
                  AllOf(HasSubstr("the description there is newer"), HasSubstr("older copy?")));
  }
  EXPECT_EQ(ReadTree(kStore), there);
}

TEST_F(PushTest, AnotherRepositorysDescriptionIsReplacedOnlyWhenThatIsInsistedOn) {
  const fs::path other = "/tmp/other";
  ASSERT_EQ(Pub({"init", other, "--base-url", "http://127.0.0.1:2", "--key", keys_ / "signing.key",
                 "--cert", keys_ / "signing.pem"})
                .exit_status,
            0);
  ASSERT_EQ(Pub({"push", other, kStore}).exit_status, 0);
  const Tree there = ReadTree(kStore);
  ExpectFailure(Push(), AllOf(HasSubstr("another repository's"), HasSubstr("--yes")));
  EXPECT_EQ(ReadTree(kStore), there);
  EXPECT_EQ(Push({"--yes"}).exit_status, 0);
  ExpectPushed();
}

TEST_F(PushTest, DamagedDescriptionIsReplaced) {
  WriteFile(fs::path(kStore) / "database_info/1", "{\"db_list\": {");
  const CommandResult result = Push();
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("is damaged, and is replaced"));
  ExpectPushed();
}

TEST_F(PushTest, RepositoryWithoutSignaturesIsPushedByItsVersions) {
  MakeFormer();
  fs::copy(repo_, "/tmp/older", fs::copy_options::recursive);
  MustRelease(Small("three"));
  MustPush();
  EXPECT_EQ(Pub({"check", repo_, "--remote", kStore}).exit_status, 0);
  ExpectFailure(Pub({"push", "/tmp/older", kStore}),
                HasSubstr("it offers oui 1000003, and this repository 1000002"));
  ExpectPushed();
}

TEST_F(PushTest, WhatTheRepositoryHasNoMoreIsRemovedAfterTheGraceTime) {
  const Tree foreign = {{"index.html", "x"},
                        {"packages/readme", "x"},
                        {"packages/oui/notes.txt", "x"},
                        {"packages/oui/geo_v1", "x"},
                        {"database_info/2", "x"}};
  MakeTree(kStore, foreign);
  MustRelease(Small("three"));
  MustPush();
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "1", "--grace", "0"}).exit_status, 0);
  const CommandResult first = Push();
  EXPECT_THAT(first.out, HasSubstr("3 packages to be removed after the grace time"));
  EXPECT_TRUE(fs::exists(fs::path(kStore) / "packages/oui/oui_v1000001"));
  Json::Value state = ReadJson(StateFile());
  Json::Value& gone = state["packages"]["packages/oui/oui_v1000001"]["gone"];
  ASSERT_TRUE(gone.isInt64()) << state;
  gone = gone.asInt64() - 86401;
  WriteJson(StateFile(), state);
  EXPECT_THAT(Push({"--dry-run"}).out, HasSubstr("would remove packages/oui/oui_v1000001\n"));
  EXPECT_TRUE(fs::exists(fs::path(kStore) / "packages/oui/oui_v1000001"));
  const CommandResult second = Push();
  EXPECT_THAT(second.out, HasSubstr("removed packages/oui/oui_v1000001\n"));
  EXPECT_FALSE(fs::exists(fs::path(kStore) / "packages/oui/oui_v1000001"));
  EXPECT_TRUE(fs::exists(fs::path(kStore) / "packages/oui/oui_d1000002"));
  EXPECT_EQ(Push({"--grace", "0"}).exit_status, 0);
  Tree expected = ReadTree(repo_ / "public");
  expected.insert(foreign.begin(), foreign.end());
  EXPECT_EQ(ReadTree(kStore), expected);
}

TEST_F(PushTest, WhatAnotherDescriptionThereNamesIsNotRemoved) {
  MustPush();
  const fs::path other = fs::path(kStore) / "database_info/2";
  fs::copy(InPublic("database_info/1"), other);
  MustRelease(Small("three"));
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "1", "--grace", "0"}).exit_status, 0);
  EXPECT_THAT(Push({"--grace", "0", "--dry-run"}).out,
              AllOf(HasSubstr("would remove packages/oui/oui_v1000001\n"),
                    Not(HasSubstr("would remove packages/oui/oui_v1000002\n"))));
  EXPECT_THAT(Push({"--grace", "0"}).out, HasSubstr("removed packages/oui/oui_v1000001\n"));
  EXPECT_TRUE(fs::exists(fs::path(kStore) / "packages/oui/oui_v1000002"));
  fs::remove(other);
  EXPECT_THAT(Push({"--grace", "0"}).out, HasSubstr("removed packages/oui/oui_v1000002\n"));
  ExpectPushed();
}

TEST_F(PushTest, FullDiskForWhatIsReadIsToldAndFilledNoFurther) {
  MustRelease(Large(4));
  fs::create_directories(repo_ / "state/pushed");
  const ScopedMount mount = ScopedMount::Tmpfs(repo_ / "state/pushed", 64 * 1024);
  ExpectFailure(Push(), HasSubstr("No space left on device"));
  for (const auto& [path, content] : ReadTree(repo_ / "state/pushed")) {
    EXPECT_THAT(path, Not(HasSubstr("oui_v"))) << "is left";
  }
  EXPECT_FALSE(fs::exists(kStore));
}

TEST_F(PushTest, EnvironmentThatChangesWhatRcloneTellsChangesNothing) {
  const Store store("webdav", kStore);
  const CommandOptions options{{"RCLONE_SIZE_ONLY=true", "RCLONE_PROGRESS=true",
                                "RCLONE_LOG_FILE=/tmp/rclone.log", "RCLONE_IGNORE_EXISTING=true"},
                               {},
                               ""};
  const std::vector<std::string> push = {kPub, "push", repo_, store.Remote(), "--again"};
  const CommandResult first = RunCommand(push, options);
  ASSERT_EQ(first.exit_status, 0) << first.err;
  ChangeByte(fs::path(kStore) / "packages/oui/oui_v1000002", 20);
  const CommandResult second = RunCommand(push, options);
  EXPECT_EQ(second.exit_status, 0) << second.err;
  EXPECT_EQ(second.err, "");
  EXPECT_THAT(second.out, HasSubstr("uploaded packages/oui/oui_v1000002\n"));
  ExpectPushed();
}

TEST_F(PushTest, LeftOversOfAKilledPushAreRemoved) {
  MakeTree(kStore, {{"database_info/.tolmdbpub-new-0123", "half a desc"},
                    {"packages/oui/oui_v1000002", "half a package"}});
  MustPush();
  ExpectPushed();
}

TEST_F(PushTest, InterruptedCommandIsToBeCompletedBefore) {
  WriteFile(repo_ / "state/unfinished", "release of oui 1000003");
  ExpectFailure(Push(), HasSubstr("an earlier command was interrupted (release of oui 1000003)"));
  EXPECT_FALSE(fs::exists(kStore));
}

TEST_F(PushTest, PackageThatIsNotTheReleasedOneIsNotPushed) {
  ChangeByte(InPublic("packages/oui/oui_v1000002"), 20);
  ExpectFailure(Push(), HasSubstr("oui_v1000002: is not what was released"));
  EXPECT_FALSE(fs::exists(fs::path(kStore) / "database_info/1"));
}

TEST_F(PushTest, StagedReleaseIsNotPushedWithoutItsPackages) {
  MustRelease(Small("three"), {"--stages", "1%/6h,100%"});
  fs::rename(InPublic("packages/oui/oui_d1000003"), "/tmp/aside");
  ExpectFailure(Push(), HasSubstr("oui_d1000003: the description names it, and it is not there"));
  EXPECT_FALSE(fs::exists(fs::path(kStore) / "database_info/1"));
  fs::rename("/tmp/aside", InPublic("packages/oui/oui_d1000003"));
  MustPush();
  ExpectPushed();
}

TEST_F(PushTest, FullStoreIsTold) {
  fs::create_directories(kStore);
  const ScopedMount mount = ScopedMount::Tmpfs(kStore, 64 * 1024);
  MustRelease(Large(3));
  ExpectFailure(Push(), AllOf(HasSubstr("packages cannot be uploaded: rclone: "),
                              AnyOf(HasSubstr("no space left"), HasSubstr("disk space"))));
  EXPECT_FALSE(fs::exists(fs::path(kStore) / "database_info/1"));
}

TEST_F(PushTest, WhatIsWrongWithTheRemoteIsToldWithoutSecrets) {
  ExpectFailure(Pub({"push", repo_, "no-such-remote:x"}),
                HasSubstr("didn't find section in config file"));
  const Store store("sftp", kStore);
  const std::string hidden = Store::Hidden("a wrong one");
  const CommandResult refused =
      Pub({"push", repo_,
           ":sftp,host=127.0.0.1,port=" + store.Port() + ",user=someone,pass=" + hidden + ":"});
  ExpectFailure(refused, AllOf(HasSubstr(":sftp:: cannot be used"),
                               HasSubstr("unable to authenticate"), Not(HasSubstr(hidden))));
  ExpectFailure(Pub({"push", repo_, "--", "-x"}), HasSubstr("is no remote of rclone"));
}

TEST_F(PushTest, PasswordsAreNotKept) {
  const Store store("sftp", kStore);
  ASSERT_EQ(Pub({"push", repo_, store.Remote()}).exit_status, 0);
  const std::string hidden = store.Remote().substr(store.Remote().find("pass=") + 5);
  for (const auto& [path, content] : ReadTree(repo_ / "state")) {
    EXPECT_THAT(content, Not(HasSubstr(hidden.substr(0, hidden.size() - 1)))) << path;
  }
}

}  // namespace
}  // namespace tolm::testing

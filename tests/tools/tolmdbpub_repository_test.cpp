// The installed publisher's commands that make, show, prove and change a repository.

#include <fcntl.h>
#include <sys/file.h>

#include <ctime>
#include <functional>

#include "tests/support/noise.h"
#include "tests/support/unique_descriptor.h"
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

const fs::path kCatalog = "/tmp/repo/state/catalog.json";

// Three releases of "oui", each in one small step from the one before.
class ThreeReleasesTest : public RepositoryTest {
 protected:
  void SetUp() override {
    RepositoryTest::SetUp();
    for (const char* text : {"1", "2", "3"}) {
      MustRelease({{"keep", std::string(3000, 'k') + "!"}, {"noise", Noise(50000)}, {"t", text}});
    }
    ASSERT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003"));
  }

  static void ChangeCatalog(const std::function<void(Json::Value&)>& change) {
    Json::Value catalog = Catalog();
    change(catalog);
    WriteJson(kCatalog, catalog);
  }
};

using InitTest = RepositoryTest;

TEST_F(InitTest, NewRepositoryIsInOrderAndOffersNothing) {
  EXPECT_THAT(Description()["db_list"].getMemberNames(), IsEmpty());
  EXPECT_FALSE(Description()["deprecated"].asBool());
  ExpectInOrder();
  EXPECT_EQ(ReadJson(repo_ / "state/settings.json")["root"], "../keys/root.pem");
}

TEST_F(InitTest, ExistingOneIsRefused) {
  const Tree before = ReadTree(repo_);
  const auto init = [&](const std::string& directory, const std::string& cert) {
    return Pub({"init", directory, "--base-url", "https://example.org/", "--key",
                keys_ / "signing.key", "--cert", keys_ / cert});
  };
  ExpectFailure(init(repo_, "signing.pem"), HasSubstr("exists already"));
  EXPECT_EQ(ReadTree(repo_), before);
  WriteFile("/tmp/files/x", "x");
  ExpectFailure(init("/tmp/files", "signing.pem"), HasSubstr("exists already"));
  ExpectFailure(init("/tmp/files/x", "signing.pem"), HasSubstr("exists already"));
  ExpectFailure(init("/tmp/new", "root.pem"), HasSubstr("root.pem"));
  EXPECT_FALSE(fs::exists("/tmp/new"));
  EXPECT_THAT(ListTree("/tmp"), Not(::testing::Contains(HasSubstr("new."))));
}

TEST_F(InitTest, WrongUsageIsExitCodeTwo) {
  const std::string key = keys_ / "signing.key";
  const std::string cert = keys_ / "signing.pem";
  const std::vector<std::vector<std::string>> rows = {
      {"init", "/tmp/new", "--key", key, "--cert", cert},
      {"init", "/tmp/new", "--base-url", "ftp://example.org", "--key", key, "--cert", cert},
      {"init", "/tmp/new", "--base-url", "http://a/?q", "--key", key, "--cert", cert},
      {"init", "/tmp/new", "--base-url", "http://a", "--key", key, "--cert", cert, "--info-version",
       "1/2"},
      {"release", repo_, "oui"},
      {"release", repo_, "..", source_},
      {"release", repo_, "a/b", source_},
      {"release", repo_, "oui", source_, "--version", "-1"},
      {"release", repo_, "oui", source_, "--version", "2147483648"},
      {"list"},
      {"check", repo_, "more"},
      {"prune", repo_, "oui"},
      {"prune", repo_, "oui", "--keep", "0"},
      {"prune", repo_, "oui", "--keep", "1", "--grace", "-1"},
      {"deprecate", repo_},
      {"resign", repo_, "--cert", cert},
      {"set", repo_},
      {"set", repo_, "--base-url", "example.org"},
      {"set", repo_, "--chain-share", "-1"},
      {"set", repo_, "--oldest-sqlite", "4"},
      {"set", repo_, "--min-certificate-days", "-1"},
      {"set", repo_, "--compression", "gzip"},
      {"set", repo_, "--compression", ""},
      {"set", repo_, "--compression-window", "0"},
      {"set", repo_, "--compression-window", "3"},
      {"set", repo_, "--compression-window", "64"},
      {"set", repo_, "oui", "--compression", "xz"},
      {"set", repo_, "oui", "--compression-window", "8"},
      {"check", repo_, "--min-days", "x"},
      {"check", repo_, "--since", "-1"},
      {"check", repo_, "--since", "yesterday"},
      {"check", repo_, "--quick", "--again"},
      {"check", repo_, "--jobs", "0"},
      {"diff", repo_},
      {"diff", repo_, "oui", "1000001"},
      {"diff", repo_, "oui", "1000001", "new"},
      {"unpack", "/tmp/package", "/tmp/new"},
      {"keygen", "/tmp/new", "--root-key", key},
      {"keygen", "/tmp/new", "--days", "5"},
      {"set", repo_, "--max-shrink", "101"},
      {"set", repo_, "--max-shrink", "-1%"},
      {"set", repo_, "--test", "true"},
      {"set", repo_, "oui"},
      {"set", repo_, "oui", "--chain-share", "1"},
      {"set", repo_, "a/b", "--test", "true"},
      {"withdraw", repo_, "oui"},
      {"withdraw", repo_, "oui", "-1"},
      {"withdraw", repo_, "oui", "newest"},
      {"remove", repo_},
      {"serve", repo_, "--port", "65536"},
      {"install-config", repo_},
      {"install-config", repo_, "/tmp/root", "--install-dest", "/tmp"}};
  for (const std::vector<std::string>& row : rows) {
    const CommandResult result = Pub(row);
    EXPECT_EQ(result.exit_status, 2) << ::testing::PrintToString(row) << result.err;
    EXPECT_EQ(CountLines(result.err), 1) << result.err;
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(InitTest, DirectoryThatIsNoRepositoryIsNamed) {
  fs::create_directory("/tmp/none");
  MakeTree(source_, {{"a", "1"}});
  for (const std::vector<std::string>& row :
       std::vector<std::vector<std::string>>{{"release", "/tmp/none", "oui", source_},
                                             {"list", "/tmp/none"},
                                             {"check", "/tmp/none"},
                                             {"prune", "/tmp/none", "oui", "--keep", "1"},
                                             {"deprecate", "/tmp/none", "oui"},
                                             {"withdraw", "/tmp/none", "oui", "1"},
                                             {"remove", "/tmp/none", "oui"},
                                             {"resign", "/tmp/none"},
                                             {"set", "/tmp/none", "--chain-share", "1"},
                                             {"serve", "/tmp/none"},
                                             {"install-config", "/tmp/none", "/tmp/root"}}) {
    ExpectFailure(Pub(row), HasSubstr("/tmp/none: no repository"));
  }
  EXPECT_THAT(ListTree("/tmp/none"), IsEmpty());
}

TEST_F(InitTest, DatabaseThatWasNeverReleasedIsNamed) {
  ExpectFailure(Pub({"prune", repo_, "oui", "--keep", "1"}), HasSubstr("\"oui\""));
  ExpectFailure(Pub({"deprecate", repo_, "oui"}), HasSubstr("\"oui\""));
  ExpectFailure(Pub({"remove", repo_, "oui"}), HasSubstr("\"oui\""));
}

TEST_F(InitTest, CommandsOnOneRepositoryDoNotMix) {
  MakeTree(source_, {{"a", "1"}});
  const UniqueDescriptor lock(
      open((repo_ / "state/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_EQ(flock(lock.Get(), LOCK_EX | LOCK_NB), 0);
  ASSERT_EQ(write(lock.Get(), "4711", 4), 4);
  for (const std::vector<std::string>& row :
       std::vector<std::vector<std::string>>{{"release", repo_, "oui", source_},
                                             {"check", repo_},
                                             {"prune", repo_, "oui", "--keep", "1"},
                                             {"deprecate", repo_, "oui"},
                                             {"withdraw", repo_, "oui", "1"},
                                             {"remove", repo_, "oui"},
                                             {"resign", repo_},
                                             {"set", repo_, "--chain-share", "1"}}) {
    ExpectFailure(Pub(row), AllOf(HasSubstr("another tolmdbpub is at work"), HasSubstr("4711")));
  }
  EXPECT_EQ(Pub({"list", repo_}).exit_status, 0) << "looking is always possible";
  ASSERT_EQ(flock(lock.Get(), LOCK_UN), 0);
  EXPECT_EQ(Pub({"release", repo_, "oui", source_}).exit_status, 0);
}

TEST_F(InitTest, OfTwoPublishersAtOnceOneReleasesAndTheOtherSaysWhy) {
  const std::string long_to_pack(5000000, 'a');
  MakeTree(source_,
           {{"a", long_to_pack}, {"b", long_to_pack}, {"c", long_to_pack}, {"d", long_to_pack}});
  RunningCommand first({kPub, "release", repo_, "oui", source_});
  // What it packs lies there once it has the lock.
  ASSERT_TRUE(WaitUntil([] {
    const auto names = ListTree("/tmp/repo/state/work");
    return !names.empty();
  }));
  first.Process().Signal(SIGSTOP);
  ExpectFailure(Pub({"release", repo_, "oui", source_}),
                HasSubstr("process " + std::to_string(first.Process().Pid())));
  first.Process().Signal(SIGCONT);
  EXPECT_EQ(first.Wait().exit_status, 0);
  ExpectInOrder();
}

TEST_F(ThreeReleasesTest, ListShowsEveryRelease) {
  const CommandResult text = Pub({"list", repo_});
  EXPECT_EQ(text.exit_status, 0);
  EXPECT_THAT(text.out, AllOf(HasSubstr("http://127.0.0.1:1/db/database_info/1\n"),
                              HasSubstr("\noui\n  1000001  "), HasSubstr("\n  1000003  ")));
  const CommandResult json = Pub({"list", repo_, "--json"});
  WriteFile("/tmp/list.json", json.out);
  const Json::Value list = ReadJson("/tmp/list.json");
  EXPECT_EQ(list["format"], 1);
  EXPECT_EQ(list["databases"][0]["name"], "oui");
  EXPECT_EQ(list["databases"][0]["newest"], 1000003);
  EXPECT_EQ(list["databases"][0]["releases"].size(), 3u);
  EXPECT_TRUE(list["databases"][0]["releases"][0]["delta"].isNull());
  EXPECT_TRUE(list["databases"][0]["releases"][2]["delta"]["offered"].asBool());
}

std::string SqliteFile(const std::string& sql) {
  fs::remove("/tmp/made.db");
  const CommandResult made = RunCommand({"sqlite3", "/tmp/made.db", sql});
  EXPECT_EQ(made.exit_status, 0) << made.err;
  return ReadFile("/tmp/made.db");
}

TEST_F(ThreeReleasesTest, DiffSaysWhatChangedByFileAndByTable) {
  const std::string table = "CREATE TABLE t(k INTEGER PRIMARY KEY, v);";
  const Tree before = {{"gone", "12345"},
                       {"same", "1"},
                       {"text", "1"},
                       {"x.db", SqliteFile(table + "INSERT INTO t VALUES(1,1),(2,2),(3,3)")}};
  Tree after = before;
  after.erase("gone");
  after["new"] = "123";
  after["text"] = std::string(2000, 't');
  after["x.db"] = SqliteFile(table +
                             "CREATE INDEX i ON t(v); PRAGMA user_version=7;"
                             "INSERT INTO t VALUES(1,1),(2,'2'),(4,4),(5,5)");
  MustRelease(before, {"--allow-shrink"});
  MustRelease(after);
  const CommandResult diff = Pub({"diff", repo_, "oui", "1000004", "1000005"});
  EXPECT_EQ(diff.exit_status, 0) << diff.err;
  EXPECT_EQ(diff.out,
            "oui 1000004 -> 1000005\n"
            "  change          before         after  file\n"
            "  gone                 5             -  /gone\n"
            "  new                  -             3  /new\n"
            "  changed              1         2,000  /text\n"
            "  changed          8,192        12,288  /x.db\n"
            "             user_version 0 -> 7\n"
            "             new index i\n"
            "             rows of t: 2 added, 1 removed, 1 changed\n"
            "  1 file is unchanged\n");
  EXPECT_EQ(diff.err, "");
  EXPECT_THAT(ListTree(repo_ / "state/work"), IsEmpty());
  std::istringstream text(Pub({"diff", repo_, "oui", "1000004", "1000005", "--json"}).out);
  Json::Value json;
  text >> json;
  EXPECT_EQ(json["format"], 1);
  EXPECT_EQ(json["database"], "oui");
  EXPECT_EQ(json["files"][0]["old_size"], 5);
  EXPECT_TRUE(json["files"][0]["new_size"].isNull());
  EXPECT_EQ(json["files"][3]["sqlite"]["rows"][0]["added"], 2);
  EXPECT_EQ(json["files"][3]["sqlite"]["schema"][0]["object"], "i");
  EXPECT_EQ(json["unchanged"], 1);
  // Two directories, without a repository.
  MakeTree("/tmp/before", before);
  MakeTree("/tmp/after", after);
  const std::string files = diff.out.substr(diff.out.find('\n'));
  EXPECT_EQ(Pub({"diff", "/tmp/before", "/tmp/after"}).out, "/tmp/before -> /tmp/after" + files);
  // No key is needed for it, but the very packages that were released.
  fs::rename(keys_, "/tmp/elsewhere");
  EXPECT_EQ(Pub({"diff", repo_, "oui", "1000004", "1000005"}).out, diff.out);
  ExpectFailure(Pub({"diff", repo_, "oui", "7", "1000005"}),
                HasSubstr("oui 7 is not released; released are 1000001, 1000002, 1000003, "));
  ExpectFailure(Pub({"diff", repo_, "none", "7", "8"}), HasSubstr("\"none\""));
  fs::rename("/tmp/elsewhere", keys_);
  fs::copy(repo_, "/tmp/removed", fs::copy_options::recursive);
  ASSERT_EQ(Pub({"remove", "/tmp/removed", "oui", "--yes"}).exit_status, 0);
  ExpectFailure(Pub({"diff", "/tmp/removed", "oui", "1000004", "1000005"}),
                HasSubstr("/tmp/removed: \"oui\" was removed"));
  ExpectFailure(Pub({"diff", "/tmp/before", "/tmp/none"}), HasSubstr("/tmp/none"));
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "2"}).exit_status, 0);
  ExpectFailure(Pub({"diff", repo_, "oui", "1000003", "1000005"}),
                AllOf(HasSubstr("oui 1000003 was retired on 20"),
                      HasSubstr("released are 1000004, 1000005")));
  WriteFile(InPublic("packages/oui/oui_v1000004"), "x");
  ExpectFailure(Pub({"diff", repo_, "oui", "1000004", "1000005"}),
                HasSubstr("is not the package that was released"));
}

TEST_F(ThreeReleasesTest, PackageIsUnpackedWhenItIsTrustedAndCompletelyOrNotAtAll) {
  const fs::path package = InPublic("packages/oui/oui_v1000003");
  const std::string root = keys_ / "root.pem";
  const auto unpack = [&](const fs::path& from, const std::string& to, const std::string& keyring) {
    return Pub({"unpack", from, to, "--root", keyring});
  };
  const CommandResult result = unpack(package, "/tmp/out/", root);
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "oui 1000003 (full): 3 files are unpacked into /tmp/out/\n");
  EXPECT_EQ(ReadTree("/tmp/out"), ReadTree(source_));
  const auto mode = [](const std::string& path) { return fs::status(path).permissions(); };
  EXPECT_EQ(mode("/tmp/out"), static_cast<fs::perms>(0755));
  fs::create_directory("/tmp/empty");
  fs::permissions("/tmp/empty", fs::perms::owner_all);
  EXPECT_EQ(unpack(package, "/tmp/empty", root).exit_status, 0);
  EXPECT_EQ(mode("/tmp/empty"), fs::perms::owner_all);
  fs::create_directory("/tmp/behind");
  fs::create_directory_symlink("/tmp/behind", "/tmp/link");
  fs::create_symlink("/tmp/nothing", "/tmp/dangling");
  for (const char* link : {"/tmp/link", "/tmp/dangling"}) {
    ExpectFailure(unpack(package, link, root),
                  HasSubstr(std::string(link) + ": is a symbolic link; name the directory itself"));
  }
  ExpectFailure(unpack(package, "/tmp/out", root), HasSubstr("exists already and is not empty"));
  WriteFile("/tmp/file", "x");
  ExpectFailure(unpack(package, "/tmp/file", root), HasSubstr("exists already"));
  ASSERT_EQ(Pub({"keygen", "/tmp/others", "--no-passphrase"}).exit_status, 0);
  ExpectFailure(unpack(package, "/tmp/new", "/tmp/others/root.pem"), HasSubstr("oui_v1000003: "));
  fs::copy_file(package, "/tmp/oui_v1000009");
  ExpectFailure(unpack("/tmp/oui_v1000009", "/tmp/new", root), HasSubstr("/tmp/oui_v1000009: "));
  WriteFile("/tmp/oui_v1000003", ReadFile(package));
  ChangeByte("/tmp/oui_v1000003", 100);
  ExpectFailure(unpack("/tmp/oui_v1000003", "/tmp/new", root),
                HasSubstr("does not belong to this payload"));
  ExpectFailure(Pub({"unpack", package, "/tmp/new", "--root", root, "--crl", "/tmp/none"}),
                HasSubstr("/tmp/none"));
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    EXPECT_THAT(entry.path().filename().string(), Not(HasSubstr("new")));
  }
}

TEST_F(ThreeReleasesTest, CheckReplaysEveryOfferedChain) {
  const CommandResult check = Pub({"check", repo_});
  EXPECT_EQ(check.exit_status, 0);
  EXPECT_EQ(check.out, "in order: 5 packages (5 zstd), 2 deltas replayed\n");
}

TEST_F(ThreeReleasesTest, CheckFindsWhatIsWrong) {
  struct Row {
    const char* name;
    std::function<void()> damage;
    const char* message;
  };
  const fs::path full = InPublic("packages/oui/oui_v1000003");
  const fs::path old_full = InPublic("packages/oui/oui_v1000001");
  const fs::path delta = InPublic("packages/oui/oui_d1000002");
  const fs::path description = InPublic("database_info/1");
  const std::vector<Row> rows = {
      {"a full package is gone", [&] { fs::remove(full); }, "oui_v1000003"},
      {"a full package that only a forced installation needs is gone",
       [&] { fs::remove(old_full); }, "oui_v1000001"},
      {"a delta is gone", [&] { fs::remove(delta); }, "oui_d1000002"},
      {"a byte of a package", [&] { ChangeByte(full, 100); }, "not the package that was released"},
      {"a package is longer", [&] { WriteFile(delta, ReadFile(delta) + "x"); },
       "not the package that was released"},
      {"a delta lies under another's name",
       [&] {
         fs::copy_file(InPublic("packages/oui/oui_d1000003"), delta,
                       fs::copy_options::overwrite_existing);
       },
       "oui_d1000002: not the package that was released"},
      {"a stray file", [&] { WriteFile(InPublic("packages/oui/notes.txt"), "x"); },
       "packages/oui/notes.txt: does not belong here"},
      {"a stray package", [&] { fs::copy_file(full, InPublic("packages/oui/oui_v1000004")); },
       "packages/oui/oui_v1000004: does not belong here"},
      {"a stray link", [&] { fs::create_symlink("/etc", InPublic("etc")); },
       "etc: does not belong here"},
      {"no description", [&] { fs::remove(description); }, "not what the catalog says"},
      {"half a description", [&] { fs::resize_file(description, fs::file_size(description) / 2); },
       "not what the catalog says"},
      {"another version is offered",
       [&] { ReplaceInFile(description, "\"1000003\",\"dep", "\"1000002\",\"dep"); },
       "no package of version 1000002"},
      {"a link leads nowhere", [&] { ReplaceInFile(description, "oui_v1000003", "oui_v1000007"); },
       "oui_v1000007: no package of version 1000003"},
      {"a wrong size is stated",
       [&] { ReplaceInFile(description, "file_size\":", "file_size\":1"); },
       "the stated size is not the file's"},
      {"a wrong digest is stated",
       [&] { ReplaceInFile(description, "sha384\":\"", "sha384\":\"0"); },
       "the stated digest is not the file's"},
      {"another root",
       [&] {
         ASSERT_EQ(Pub({"keygen", "/tmp/others", "--no-passphrase"}).exit_status, 0);
         fs::copy_file("/tmp/others/root.pem", keys_ / "root.pem",
                       fs::copy_options::overwrite_existing);
       },
       "the signer's certificate is refused"}};
  fs::copy("/tmp/repo", "/tmp/kept", fs::copy_options::recursive);
  fs::copy(keys_, "/tmp/kept-keys", fs::copy_options::recursive);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    row.damage();
    const CommandResult check = Pub({"check", repo_});
    EXPECT_EQ(check.exit_status, 1);
    EXPECT_THAT(check.err, HasSubstr(row.message));
    EXPECT_EQ(check.out, "");
    fs::remove_all(repo_);
    fs::copy("/tmp/kept", repo_, fs::copy_options::recursive);
    fs::remove_all(keys_);
    fs::copy("/tmp/kept-keys", keys_, fs::copy_options::recursive);
    fs::remove_all("/tmp/others");
  }
  ExpectInOrder();
}

TEST_F(ThreeReleasesTest, CheckFindsAChainThatEndsWithOtherFiles) {
  // Well signed, under the right name, and with the recorded digest: but it makes another file.
  const fs::path delta = InPublic("packages/oui/oui_d1000003");
  MakeTree("/tmp/delta",
           {{"patch_infos.json", R"({"/t": {"operation": "create", "input_file": "t"}})"},
            {"t", "wrong"}});
  ASSERT_EQ(Pub({"pack", "/tmp/delta", delta, "--name", "oui", "--kind", "delta", "--version",
                 "1000003", "--key", keys_ / "signing.key", "--cert", keys_ / "signing.pem"})
                .exit_status,
            0);
  ChangeCatalog([&](Json::Value& catalog) {
    Json::Value& record = catalog["databases"]["oui"]["releases"][2]["delta"];
    record["size"] = Json::UInt64(fs::file_size(delta));
    record["sha384"] = Sha384Hex(delta);
  });
  // Any command brings the description to what the catalog says.
  ASSERT_EQ(Pub({"deprecate", repo_, "oui"}).exit_status, 0);
  const CommandResult check = Pub({"check", repo_});
  EXPECT_EQ(check.exit_status, 1);
  EXPECT_EQ(check.err, "tolmdbpub: oui: by the delta from 1000002 to 1000003: differs at /t\n");
}

TEST_F(ThreeReleasesTest, DamagedDescriptionIsWrittenAnewByTheNextCommand) {
  const Json::Value good = Description()["db_list"];
  WriteFile(InPublic("database_info/1"), "{}");
  const CommandResult result = Pub({"deprecate", repo_, "oui", "--undo"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("is written anew"));
  EXPECT_EQ(Description()["db_list"], good);
  ExpectInOrder();
}

TEST_F(ThreeReleasesTest, DamagedCatalogIsNamedAndNothingIsChanged) {
  const std::string good = ReadFile(kCatalog);
  const std::string description = ReadFile(InPublic("database_info/1"));
  const std::vector<std::string> damaged = {
      "", "{", "[]", "{}", good.substr(0, good.size() / 2), good + "x"};
  for (const std::string& text : damaged) {
    WriteFile(kCatalog, text);
    ExpectFailure(Pub({"deprecate", repo_, "oui"}), HasSubstr(kCatalog.string()));
    ExpectFailure(Pub({"check", repo_}), HasSubstr(kCatalog.string()));
    EXPECT_EQ(ReadFile(kCatalog), text);
    EXPECT_EQ(ReadFile(InPublic("database_info/1")), description);
  }
}

TEST_F(ThreeReleasesTest, PrunedPackagesStayForTheGracePeriod) {
  const CommandResult prune = Pub({"prune", repo_, "oui", "--keep", "2"});
  EXPECT_EQ(prune.exit_status, 0) << prune.err;
  EXPECT_EQ(prune.out,
            "oui 1000001 is retired\n"
            "packages/oui/oui_v1000001 stays until its grace period is over\n");
  EXPECT_TRUE(fs::exists(InPublic("packages/oui/oui_v1000001")));
  ExpectInOrder();
  // A day later.
  const auto age = [](std::int64_t seconds) {
    ChangeCatalog([&](Json::Value& catalog) {
      for (Json::Value& retired : catalog["databases"]["oui"]["retired"]) {
        retired["since"] = Json::Int64(std::time(nullptr) - seconds);
      }
    });
  };
  age(24 * 60 * 60 - 100);
  EXPECT_THAT(Pub({"prune", repo_, "oui", "--keep", "2"}).out, HasSubstr("stays"));
  age(24 * 60 * 60);
  EXPECT_THAT(Pub({"prune", repo_, "oui", "--keep", "2", "--grace", "2"}).out, HasSubstr("stays"));
  EXPECT_EQ(Pub({"prune", repo_, "oui", "--keep", "2"}).out,
            "packages/oui/oui_v1000001 is removed\n");
  EXPECT_FALSE(fs::exists(InPublic("packages/oui/oui_v1000001")));
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003"))
      << "devices with 1000001 are out there still";
  ExpectInOrder();
}

TEST_F(ThreeReleasesTest, PruneLeavesTheNewestRelease) {
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "1", "--grace", "0"}).exit_status, 0);
  EXPECT_THAT(ListTree(InPublic("packages")),
              ElementsAre("oui/", "oui/oui_d1000003", "oui/oui_v1000003"));
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000003"));
  ExpectInOrder();
  const CommandResult again = Pub({"prune", repo_, "oui", "--keep", "1", "--grace", "0"});
  EXPECT_EQ(again.exit_status, 0);
  EXPECT_EQ(again.out + again.err, "");
  MustRelease({{"t", "4"}}, {"--allow-shrink"});
  ExpectInOrder();
}

TEST_F(ThreeReleasesTest, DeprecatedDatabaseIsOfferedAsSuch) {
  EXPECT_EQ(Pub({"deprecate", repo_, "oui"}).out, "oui is now deprecated\n");
  EXPECT_TRUE(Description()["db_list"]["oui"]["deprecated"].asBool());
  EXPECT_EQ(Pub({"deprecate", repo_, "oui"}).out, "oui is already deprecated\n");
  EXPECT_EQ(Pub({"deprecate", repo_, "oui", "--undo"}).out, "oui is now not deprecated\n");
  EXPECT_FALSE(Description()["db_list"]["oui"]["deprecated"].asBool());
  ExpectInOrder();
}

TEST_F(ThreeReleasesTest, ResignedPackagesLieUnderAPartOfTheirOwn) {
  ASSERT_EQ(Pub({"keygen", "/tmp/next", "--no-passphrase"}).exit_status, 0);
  const std::string old_package = ReadFile(InPublic("packages/oui/oui_v1000003"));
  const CommandResult resign =
      Pub({"resign", repo_, "--key", "/tmp/next/signing.key", "--cert", "/tmp/next/signing.pem",
           "--root", "/tmp/next/root.pem", "--info-key", "/tmp/next/info.key", "--info-cert",
           "/tmp/next/info.pem"});
  ASSERT_EQ(resign.exit_status, 0) << resign.err;
  EXPECT_EQ(resign.out,
            "5 packages are signed anew below packages-2, compressed as before: 5 zstd\n");
  EXPECT_TRUE(ReadFile(InPublic("packages/oui/oui_v1000003")) == old_package);
  EXPECT_EQ(Description()["db_list"]["oui"]["download_link"],
            std::string(kBaseUrl) + "/packages-2/oui/oui_v1000003");
  EXPECT_EQ(
      Pub({"inspect", InPublic("packages-2/oui/oui_v1000003"), "--keyring", "/tmp/next/root.pem"})
          .exit_status,
      0);
  ExpectInOrder();
  MustRelease({{"keep", "4"}, {"noise", Noise(50000)}, {"t", "4"}});
  EXPECT_TRUE(fs::exists(InPublic("packages-2/oui/oui_d1000004")));
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003", "1000004"));
  ExpectInOrder();
  // The old ones go like everything that is retired, and "packages-3" comes after "packages-2".
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "9", "--grace", "0"}).exit_status, 0);
  EXPECT_THAT(ListTree(InPublic("packages")), ElementsAre("oui/"));
  ASSERT_EQ(Pub({"resign", repo_, "--force"}).exit_status, 0);
  EXPECT_TRUE(fs::exists(InPublic("packages-3/oui/oui_v1000001")));
  ExpectInOrder();
}

TEST_F(ThreeReleasesTest, ResigningWithAnUntrustedKeyIsRefused) {
  ASSERT_EQ(Pub({"keygen", "/tmp/next", "--no-passphrase"}).exit_status, 0);
  const std::string settings = ReadFile(repo_ / "state/settings.json");
  ExpectFailure(
      Pub({"resign", repo_, "--key", "/tmp/next/signing.key", "--cert", "/tmp/next/signing.pem"}),
      HasSubstr("with the root /tmp/keys/root.pem"));
  EXPECT_EQ(ReadFile(repo_ / "state/settings.json"), settings);
  EXPECT_FALSE(fs::exists(InPublic("packages-2")));
  ExpectInOrder();
}

TEST_F(ThreeReleasesTest, PartThatWouldMakeALinkAmbiguousIsPassedOver) {
  // "packages-2" would hold the version's text a second time.
  fs::remove_all("/tmp/other");
  ASSERT_EQ(Pub({"init", "/tmp/other", "--base-url", "http://example.org", "--key",
                 keys_ / "signing.key", "--cert", keys_ / "signing.pem"})
                .exit_status,
            0);
  ASSERT_EQ(Pub({"release", "/tmp/other", "oui", source_, "--version", "2"}).exit_status, 0);
  EXPECT_EQ(Pub({"resign", "/tmp/other", "--force"}).out,
            "1 package is signed anew below packages-3, compressed as before: 1 zstd\n");
  EXPECT_EQ(Pub({"check", "/tmp/other"}).exit_status, 0);
}

TEST_F(ThreeReleasesTest, NewBaseUrlIsServedAtOnce) {
  const CommandResult result = Pub({"set", repo_, "--base-url", "https://cdn.example.org/x//"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(Description()["db_list"]["oui"]["download_link"],
            "https://cdn.example.org/x/packages/oui/oui_v1000003");
  ExpectInOrder();
  const std::string description = ReadFile(InPublic("database_info/1"));
  ExpectFailure(Pub({"set", repo_, "--base-url", "https://h1000003.example.org"}),
                HasSubstr("occurs 2 times"));
  EXPECT_EQ(ReadFile(InPublic("database_info/1")), description);
  ExpectInOrder();
}

TEST_F(ThreeReleasesTest, DeviceIsConfiguredForTheRepository) {
  ASSERT_EQ(Pub({"install-config", repo_, "/tmp/image", "--install-dest", kOnRootFs}).exit_status,
            0);
  EXPECT_THAT(ListTree("/tmp/image"),
              ElementsAre("usr/", "usr/share/", "usr/share/data_update/",
                          "usr/share/data_update/data_update.conf",
                          "usr/share/data_update/databases.conf", "usr/tolm/", "usr/tolm/etc/",
                          "usr/tolm/etc/keyring/", "usr/tolm/etc/keyring/6.pem"));
  const Json::Value config =
      ReadJson("/tmp/image/usr/share/data_update/data_update.conf")["config"];
  EXPECT_EQ(config["download_scheme"], "http");
  EXPECT_EQ(config["db_netloc"], "127.0.0.1:1/db");
  EXPECT_EQ(config["db_ver"], "1");
  EXPECT_EQ(config["cur_volume"], "");
  const Json::Value databases = ReadJson("/tmp/image/usr/share/data_update/databases.conf");
  EXPECT_THAT(databases.getMemberNames(), ElementsAre("oui"));
  EXPECT_EQ(databases["oui"]["install_dest"], "%ROOTFS%");
  EXPECT_EQ(databases["oui"]["format_version"], "1");
  EXPECT_EQ(ReadFile("/tmp/image/usr/tolm/etc/keyring/6.pem"), ReadFile(keys_ / "root.pem"));
}

TEST_F(ThreeReleasesTest, DatabaseIsListedInTheDevicesOverrides) {
  const std::string overrides = "/usr/tolm/etc/data_update/databases.conf";
  const auto install = [](const std::string& root) {
    return Pub({"install-config", repo_, root}).exit_status;
  };
  for (const std::string root : {"/", "/tmp/image"}) {
    const std::string file = (root == "/" ? "" : root) + overrides;
    WriteFile(file, "{\"geo\": {\"auto_update\": false}} // by hand\n");
    fs::permissions(file, fs::perms(0640));
    ASSERT_EQ(install(root), 0) << root;
    EXPECT_THAT(ReadJson(file).getMemberNames(), ElementsAre("geo", "oui")) << root;
    EXPECT_EQ(ReadJson(file)["geo"]["auto_update"], false) << root;
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0640)) << root;
    const std::string once = ReadFile(file);
    ASSERT_EQ(install(root), 0) << root;
    EXPECT_EQ(ReadFile(file), once) << root;
    WriteFile(file, "{damaged");
    ASSERT_EQ(install(root), 0) << root;
    EXPECT_EQ(ReadFile(file), "{damaged") << root;
  }
  EXPECT_FALSE(fs::exists("/tmp/image/run"));
}

TEST_F(InitTest, ConfiguringADeviceBeforeTheFirstReleaseIsNoted) {
  const CommandResult result = Pub({"install-config", repo_, "/tmp/image"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("note: no database was released yet"));
}

TEST_F(InitTest, HelpSaysTheExitCodes) {
  for (const char* command : {"init", "release", "list", "diff", "unpack", "check", "prune",
                              "deprecate", "resign", "set", "serve", "install-config"}) {
    const CommandResult result = Pub({command, "--help"});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_THAT(result.out, HasSubstr("Exit codes: 0 success, 1 failure, 2 wrong usage."));
  }
}

}  // namespace
}  // namespace tolm::testing

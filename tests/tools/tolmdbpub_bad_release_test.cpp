// The installed publisher before and after a bad release: what it refuses, tries, takes back and
// removes, and what devices make of it.

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/file.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <regex>

#include "tests/support/http_server.h"
#include "tests/support/mounts.h"
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
using ::testing::StartsWith;

constexpr int kRows = 2000;

std::string Rows(int count) {
  return "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
         std::to_string(count) + ") INSERT INTO places SELECT i, 'value ' || (i * 7919 % 10007) " +
         "FROM n;";
}

// An SQLite file with so many places, made by these further statements.
std::string Places(int count, const std::string& more = "") {
  const fs::path path = "/tmp/made.db";
  fs::remove(path);
  sqlite3* database = nullptr;
  EXPECT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
  const std::string sql =
      "CREATE TABLE places(k INTEGER PRIMARY KEY, v TEXT); CREATE INDEX by_v ON places(v);" +
      (count > 0 ? Rows(count) : std::string()) + more;
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(database);
  sqlite3_close(database);
  return ReadFile(path);
}

Tree Geo(int count, const std::string& more = "") {
  return {{"geo.sqlite", Places(count, more)}};
}

// With everything replaced that is another on each machine and at each time: numbers of four and
// more digits that are grouped, in their width; shares, times and dates.
std::string Normalised(const std::string& text) {
  std::string normalised;
  static const std::regex kGrouped("[0-9]{1,3}(,[0-9]{3})+");
  std::size_t done = 0;
  for (auto at = std::sregex_iterator(text.begin(), text.end(), kGrouped);
       at != std::sregex_iterator(); ++at) {
    const auto begin = static_cast<std::size_t>(at->position());
    normalised += text.substr(done, begin - done) +
                  std::string(static_cast<std::size_t>(at->length()) - 1, '.') + "N";
    done = begin + static_cast<std::size_t>(at->length());
  }
  normalised += text.substr(done);
  const std::vector<std::pair<std::string, std::string>> replacements = {
      {R"re([0-9]+\.[0-9] % of the)re", "P % of the"},
      {R"re([0-9]+\.[0-9][0-9] s\n)re", "T s\n"},
      {R"re(\d{4}-\d\d-\d\d \d\d:\d\d)re", "DATE"}};
  for (const auto& [pattern, replacement] : replacements) {
    normalised = std::regex_replace(normalised, std::regex(pattern), replacement);
  }
  return normalised;
}

class BadReleaseTest : public RepositoryTest {
 protected:
  static Json::Value ReleaseRecord(const std::string& version) {
    const Json::Value catalog = Catalog();
    for (const Json::Value& release : catalog["databases"]["oui"]["releases"]) {
      if (release["version"].asString() == version) {
        return release;
      }
    }
    return {};
  }

  // With one of several lines, and what is offered stays.
  void ExpectRefusal(const Tree& files, const std::string& finding) const {
    const std::string before = ReadFile(InPublic("database_info/1"));
    const CommandResult result = Release(files);
    EXPECT_EQ(result.exit_status, 1) << finding;
    EXPECT_THAT(result.err, HasSubstr(finding));
    EXPECT_EQ(ReadFile(InPublic("database_info/1")), before);
  }

  static std::string Offered() {
    return Description()["db_list"]["oui"]["data_version"].asString();
  }

  static void MustSet(const std::vector<std::string>& options) {
    std::vector<std::string> command = {"set", repo_};
    command.insert(command.end(), options.begin(), options.end());
    const CommandResult result = Pub(command);
    ASSERT_EQ(result.exit_status, 0) << result.err;
  }

  static CommandResult Withdraw(const std::string& version,
                                const std::vector<std::string>& options = {}) {
    std::vector<std::string> command = {"withdraw", repo_, "oui", version};
    command.insert(command.end(), options.begin(), options.end());
    return Pub(command);
  }

  // Well, but for the remark on what was withdrawn.
  static void ExpectSound() {
    const CommandResult check = Pub({"check", repo_});
    EXPECT_EQ(check.exit_status, 0) << check.err;
  }
};

TEST_F(BadReleaseTest, EmptiedTableIsRefused) {
  MustRelease(Geo(kRows));
  const CommandResult refused = Release(Geo(0));
  EXPECT_EQ(refused.exit_status, 1);
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(refused.err,
            "tolmdbpub: geo.sqlite: table places has 0 rows, 2,000 before (-100 %); the limit is "
            "20 %\n"
            "tolmdbpub: release oui: refused: it has lost too much (--allow-shrink releases it all "
            "the same)\n");
  EXPECT_EQ(Offered(), "1000001");
  EXPECT_THAT(ListTree(repo_ / "state/work"), IsEmpty());
  ExpectInOrder();
  const CommandResult insisted = Release(Geo(0), {"--allow-shrink"});
  EXPECT_EQ(insisted.exit_status, 0);
  EXPECT_THAT(insisted.err, HasSubstr("note: geo.sqlite: table places has 0 rows"));
  EXPECT_EQ(Offered(), "1000002");
}

TEST_F(BadReleaseTest, VersionAfterAGapIsComparedUnlessInsistedOn) {
  MustRelease(Geo(kRows));
  const CommandResult refused = Release(Geo(0), {"--version", "1000009"});
  EXPECT_EQ(refused.exit_status, 1);
  EXPECT_THAT(refused.err, HasSubstr("table places has 0 rows, 2,000 before"));
  EXPECT_EQ(Offered(), "1000001");
  const CommandResult insisted = Release(Geo(0), {"--version", "1000009", "--allow-shrink"});
  EXPECT_EQ(insisted.exit_status, 0) << insisted.err;
  EXPECT_THAT(insisted.err, Not(HasSubstr("table places")));
  EXPECT_EQ(Offered(), "1000009");
  ExpectInOrder();
}

TEST_F(BadReleaseTest, LimitIsThatOfTheRepositoryOrOfTheDatabase) {
  MustRelease(Geo(kRows));
  const Tree fewer = Geo(kRows * 7 / 10);
  ExpectRefusal(fewer, "table places has 1,400 rows, 2,000 before (-30 %); the limit is 20 %");
  MustSet({"--max-shrink", "25%"});
  ExpectRefusal(fewer, "the limit is 25 %");
  MustSet({"oui", "--max-shrink", "29"});
  ExpectRefusal(fewer, "the limit is 29 %");
  MustSet({"oui", "--max-shrink", "default"});
  ExpectRefusal(fewer, "the limit is 25 %");
  MustSet({"oui", "--max-shrink", "31%"});
  EXPECT_EQ(Release(fewer, {"--dry-run"}).exit_status, 0);
  MustSet({"oui", "--max-shrink", "100%"});
  EXPECT_EQ(Release(Geo(0), {"--dry-run"}).exit_status, 0);
  EXPECT_EQ(Offered(), "1000001");
}

TEST_F(BadReleaseTest, UnreadableSqliteFileIsRefusedByItsName) {
  Tree damaged = Geo(kRows);
  std::string& content = damaged["geo.sqlite"];
  content.replace(100, 3900, std::string(3900, '\xff'));
  MustRelease({{"other", "x"}});
  ExpectFailure(Release(damaged),
                HasSubstr("release oui: geo.sqlite: SQLite cannot read it: database disk image is "
                          "malformed"));
  EXPECT_EQ(Release(damaged, {"--allow-shrink"}).exit_status, 0);
}

TEST_F(BadReleaseTest, DryRunLeavesTheRepositoryAsItWas) {
  Tree first = Geo(kRows);
  first["moved.txt"] = std::string(100, 'm');
  Tree second = Geo(kRows, "UPDATE places SET v = 'changed' WHERE k <= 300;");
  second["sub/"] = "";
  second["sub/moved.txt"] = first["moved.txt"];
  second["new.txt"] = "n";
  struct Row {
    const char* name;
    Tree files;
    std::vector<std::string> options;
    const char* out;
  };
  const std::vector<Row> rows = {
      {"the first release",
       first,
       {},
       "oui 1000001 would be released; nothing was changed\n"
       "  full package  .....N bytes, 2 files\n"
       "  delta         none: it is the first release\n"
       "  devices load\n"
       "    all of them                       .....N bytes  the full package\n"
       "  time          T s\n"},
      {"a small step",
       second,
       {},
       "oui 1000002 would be released; nothing was changed\n"
       "  kind          new file         delta    compressed  file\n"
       "  sql             .....N        .....N         ....N  /geo.sqlite\n"
       "  deleted              0             0             -  /moved.txt\n"
       "  created              1             1             -  /new.txt\n"
       "  created            100           100             -  /sub/moved.txt  (renamed from "
       "/moved.txt)\n"
       "  files         1 new, 1 changed, 1 renamed, 0 as before\n"
       "  full package  .....N bytes, 3 files\n"
       "  delta         ....N bytes, P % of the full package, replayed and found right\n"
       "  offered       1 delta, together ....N bytes, P % of the full package\n"
       "  devices load\n"
       "    with 1000001                       ....N bytes  1 delta, P % of the full package\n"
       "    with anything else                .....N bytes  the full package\n"
       "  time          T s\n"},
      {"a gap",
       second,
       {"--version", "1000009"},
       "oui 1000009 would be released; nothing was changed\n"
       "  kind          new file  file\n"
       "  changed         .....N  /geo.sqlite\n"
       "  new                  1  /new.txt\n"
       "  renamed            100  /sub/moved.txt  (renamed from /moved.txt)\n"
       "  files         1 new, 1 changed, 1 renamed, 0 as before\n"
       "  full package  .....N bytes, 3 files\n"
       "  delta         none: there is a gap after version 1000001, and a device steps from one "
       "version to the next\n"
       "  devices load\n"
       "    all of them                       .....N bytes  the full package\n"
       "  time          T s\n"},
      {"nothing new", first, {}, "oui 1000001 is released already with this content\n"},
      {"too little", Geo(0), {}, "oui 1000002 would be refused; nothing was changed\n*"},
      {"no new version", second, {"--version", "7"}, ""},
      {"no files", {{"empty/", ""}}, {}, ""}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Tree before = ReadTree(repo_);
    std::vector<std::string> options = row.options;
    options.push_back("--dry-run");
    const CommandResult tried = Release(row.files, options);
    EXPECT_EQ(ReadTree(repo_), before);
    std::string expected = row.out;
    std::string seen = Normalised(tried.out);
    if (!expected.empty() && expected.back() == '*') {
      expected.pop_back();
      seen.resize(std::min(seen.size(), expected.size()));
    }
    EXPECT_EQ(seen, expected);
    // And the release itself ends as it was foretold.
    fs::copy(repo_, "/tmp/kept", fs::copy_options::recursive);
    EXPECT_EQ(tried.exit_status, Release(row.files, row.options).exit_status) << tried.err;
    if (row.name != std::string("the first release")) {
      fs::remove_all(repo_);
      fs::copy("/tmp/kept", repo_, fs::copy_options::recursive);
    }
    fs::remove_all("/tmp/kept");
  }
}

TEST_F(BadReleaseTest, DryRunFailsWhereTheReleaseWouldAndCompletesNothing) {
  MustRelease(Geo(kRows));
  const Tree more = Geo(kRows + 1);
  WriteFile(repo_ / "state/unfinished", "release of oui 1000002");
  fs::copy_file(InPublic("packages/oui/oui_v1000001"), InPublic("packages/oui/oui_v1000002"));
  const Tree before = ReadTree(repo_);
  const CommandResult tried = Release(more, {"--dry-run"});
  EXPECT_EQ(tried.exit_status, 0) << tried.err;
  EXPECT_THAT(tried.err, HasSubstr("was interrupted (release of oui 1000002); the next one"));
  EXPECT_EQ(ReadTree(repo_), before);
  fs::remove(repo_ / "state/unfinished");
  ExpectFailure(Release(more, {"--dry-run"}), HasSubstr("the catalog does not name it"));
  fs::remove(InPublic("packages/oui/oui_v1000002"));
  {
    const UniqueDescriptor lock(open((repo_ / "state/lock").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(lock.Get(), LOCK_EX | LOCK_NB), 0);
    ExpectFailure(Release(more, {"--dry-run"}), HasSubstr("another tolmdbpub is at work"));
    ExpectFailure(Withdraw("1000001", {"--dry-run"}), HasSubstr("another tolmdbpub is at work"));
  }
  const ScopedMount fixed = ScopedMount::ReadOnly(repo_ / "public");
  ExpectFailure(Release(more, {"--dry-run"}), HasSubstr("Read-only file system"));
  EXPECT_EQ(Release(more).exit_status, 1);
}

TEST_F(BadReleaseTest, TestCommandSeesWhatWouldBeReleasedAndMayRefuseIt) {
  MustSet({"oui", "--test",
           "test \"$PWD\" = \"$1\" && test \"$1\" = \"$TREE\" && echo \"$NAME $VERSION\" "
           ">/tmp/seen && cat t >>/tmp/seen && echo tampered >/tmp/source/t"});
  MustRelease({{"t", "good"}});
  EXPECT_EQ(ReadFile("/tmp/seen"), "oui 1000001\ngood");
  EXPECT_EQ(ReadFile(source_ / "t"), "tampered\n");
  EXPECT_THAT(Pub({"inspect", InPublic("packages/oui/oui_v1000001")}).out,
              ::testing::ContainsRegex(" 4 .*t\n"))
      << "released is what was tested";
  struct Row {
    const char* command;
    const char* err;
    const char* option = "--allow-shrink";
  };
  for (const Row& row : std::vector<Row>{
           {"seq 30 >&2; echo last; exit 4", "failed with status 4\ntolmdbpub:   12\n"},
           {"exit 4", "tolmdbpub: its test failed with status 4\ntolmdbpub: release oui: "},
           {"kill -9 $$", "its test was ended by signal 9\n", "--dry-run"},
           {"no-such-command", "its test failed with status 127\n"},
           {"echo bad >t", "its test has changed what it should only look at: /t\n"},
           {"touch more", "its test has changed what it should only look at: /more\n", "--dry-run"},
           {"rm t", "its test has changed what it should only look at: /t\n", "--dry-run"},
           {"ln -s t link", "its test has changed what it should only look at: /link: "}}) {
    SCOPED_TRACE(row.command);
    MustSet({"oui", "--test", row.command});
    const Tree before = ReadTree(InPublic(""));
    const CommandResult result = Release({{"t", "next"}}, {row.option});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_THAT(result.err, AllOf(HasSubstr(row.err), HasSubstr("its test was not passed\n")));
    EXPECT_EQ(ReadTree(InPublic("")), before);
  }
  MustSet({"oui", "--test", ""});
  MustRelease({{"t", "next"}});
  EXPECT_FALSE(ReadJson(repo_ / "state/settings.json").isMember("databases"));
  // What it leaves running is ended with it.
  MustSet({"oui", "--test", "sleep 1000 & echo $! >/tmp/left"});
  MustRelease({{"t", "again"}});
  const pid_t left = std::stoi(ReadFile("/tmp/left"));
  EXPECT_TRUE(WaitUntil([left] { return kill(left, 0) != 0; }));
}

TEST_F(BadReleaseTest, NothingThatATestLeavesGetsIntoADelta) {
  const std::string noise = Noise(2000000, 3);
  MustRelease({{"a", noise}, {"t", Noise(5000, 4)}});
  const std::string t = Noise(5000, 4) + "next";
  const std::string work = (repo_ / "state/work").string();
  const std::string wait_for_delta = "setsid sh -c 'for i in $(seq 300); do test -d " + work +
                                     "/delta && break; sleep 0.01; done; ";
  for (const std::string& command : std::vector<std::string>{
           "mkdir -p ../old; echo bad >../old/t; exit 0",
           "rm -rf ../old ../new; ln -s /tmp/keys ../old; ln -s /tmp/keys ../new; exit 0",
           wait_for_delta + "echo bad >$TREE/t' >/dev/null 2>&1 </dev/null & exit 0",
           wait_for_delta + "echo bad >" + work + "/new/t; echo bad >" + work +
               "/old/t; echo >/tmp/done' >/dev/null 2>&1 </dev/null & exit 0"}) {
    SCOPED_TRACE(command);
    fs::copy(repo_, "/tmp/kept", fs::copy_options::recursive);
    MustSet({"oui", "--test", command});
    const CommandResult result = Release({{"a", noise + "x"}, {"t", t}});
    if (result.exit_status == 0) {
      EXPECT_EQ(Pub({"unpack", InPublic("packages/oui/oui_v1000002"), "/tmp/out", "--root",
                     keys_ / "root.pem"})
                    .exit_status,
                0);
      EXPECT_EQ(ReadFile("/tmp/out/t"), t);
      EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002"));
    } else {
      EXPECT_THAT(result.err, HasSubstr("was changed while the delta was made"));
    }
    ExpectInOrder();
    EXPECT_TRUE(fs::exists(keys_ / "root.pem"));
    fs::remove_all("/tmp/out");
    fs::remove_all(repo_);
    fs::rename("/tmp/kept", repo_);
  }
}

TEST_F(BadReleaseTest, PackageThatATestWritesToIsNotPublished) {
  MustRelease({{"t", "1"}});
  for (const char* command :
       {"echo more >>../oui_v1000002", "echo bad >../oui_v1000002", "rm ../oui_v1000002"}) {
    SCOPED_TRACE(command);
    MustSet({"oui", "--test", command});
    const Tree before = ReadTree(InPublic(""));
    ExpectFailure(Release({{"t", "2"}}), HasSubstr("oui_v1000002: "));
    EXPECT_EQ(ReadTree(InPublic("")), before);
    EXPECT_FALSE(fs::exists(repo_ / "state/unfinished"));
  }
  ExpectInOrder();
}

TEST_F(BadReleaseTest, NothingIsChangedBelowAnOlderState) {
  MustRelease({{"t", "1"}});
  fs::copy(repo_ / "state", "/tmp/state", fs::copy_options::recursive);
  MustRelease({{"t", "2"}});
  fs::remove_all(repo_ / "state");
  fs::copy("/tmp/state", repo_ / "state", fs::copy_options::recursive);
  const Tree before = ReadTree(repo_);
  MakeTree("/tmp/third", {{"t", "3"}});
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
           {"release", repo_, "oui", "/tmp/third"},
           {"release", repo_, "oui", "/tmp/third"},
           {"release", repo_, "oui", "/tmp/third", "--dry-run"},
           {"release", repo_, "oui", "/tmp/third", "--version", "1000009"},
           {"release", repo_, "geo", "/tmp/third"},
           {"deprecate", repo_, "oui"},
           {"prune", repo_, "oui", "--keep", "1"},
           {"set", repo_, "--chain-share", "50"},
           {"resign", repo_, "--force"}}) {
    SCOPED_TRACE(command.front() + " " + command.back());
    ExpectFailure(Pub(command), AllOf(HasSubstr("oui_v1000002: exists, and the catalog does not "
                                                "name it"),
                                      HasSubstr("restored from an older copy?")));
    EXPECT_EQ(ReadTree(repo_), before);
  }
}

TEST_F(BadReleaseTest, InterruptedTestLeavesNothing) {
  MustSet({"oui", "--test", "echo $$ >/tmp/started; sleep 1000; true"});
  MakeTree(source_, Geo(10));
  const Tree before = ReadTree(repo_);
  for (const int signal : {SIGINT, SIGTERM}) {
    fs::remove("/tmp/started");
    RunningCommand release({kPub, "release", repo_, "oui", source_});
    ASSERT_TRUE(
        WaitUntil([] { return fs::exists("/tmp/started") && !ReadFile("/tmp/started").empty(); }));
    release.Process().Signal(signal);
    const CommandResult result = release.Wait();
    EXPECT_EQ(result.exit_status, 128 + signal);
    EXPECT_EQ(result.err + result.out, "");
    EXPECT_NE(kill(std::stoi(ReadFile("/tmp/started")), 0), 0);
    EXPECT_EQ(ReadTree(repo_), before);
  }
}

// A repository whose public directory is served, and a device that follows it.
class WithdrawTest : public BadReleaseTest {
 protected:
  void SetUp() override {
    BadReleaseTest::SetUp();
    server_ = std::make_unique<HttpServer>(
        repo_ / "public", [this](const HttpRequest& request, int, std::uint64_t bytes) {
          const std::lock_guard<std::mutex> guard(mutex_);
          loaded_bytes_ += request.path.rfind("/packages", 0) == 0 ? bytes : 0;
        });
    MustSet({"--base-url", server_->Url("")});
  }

  void MakeDevice() {
    ASSERT_EQ(Pub({"install-config", repo_, "/"}).exit_status, 0);
    ASSERT_EQ(Tool({"init"}).exit_status, 0);
    Update();
  }

  // Returns the bytes of packages that it has loaded.
  std::uint64_t Update() {
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      loaded_bytes_ = 0;
    }
    fs::remove("/var/cache/data_update/database_info.json");
    const CommandResult update = Tool({"update", "oui"});
    EXPECT_EQ(update.exit_status, 0) << update.err;
    EXPECT_EQ(InstalledVersion("oui"), Offered());
    const std::lock_guard<std::mutex> guard(mutex_);
    return loaded_bytes_;
  }

  // As SQLite sees it: the bytes of a file depend on how a device came by it.
  static int InstalledPlaces() {
    sqlite3* database = nullptr;
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_open((kVolumePrefix / "oui/geo.sqlite").c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_prepare_v2(database, "SELECT count(*) FROM places", -1, &statement, nullptr),
              SQLITE_OK);
    sqlite3_step(statement);
    const int count = sqlite3_column_int(statement, 0);
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return count;
  }

  static std::uint64_t SizeOf(const std::string& package) {
    return fs::file_size(InPublic("packages/oui/" + package));
  }

  std::unique_ptr<HttpServer> server_;
  std::mutex mutex_;
  std::uint64_t loaded_bytes_ = 0;
};

TEST_F(WithdrawTest, DevicesWithAndWithoutTheBadVersionComeBackByDeltas) {
  MustRelease(Geo(kRows));
  MakeDevice();
  MustRelease(Geo(0), {"--allow-shrink"});
  // Its full package is tiny, and no delta was worth it then.
  EXPECT_THAT(OfferedDeltas(), IsEmpty());
  const CommandResult withdrawn = Withdraw("1000002");
  EXPECT_EQ(withdrawn.exit_status, 0);
  EXPECT_EQ(withdrawn.err, "");
  EXPECT_EQ(Normalised(withdrawn.out),
            "oui 1000003 is released with the files of 1000001; 1000002 is withdrawn\n"
            "  kind          new file         delta    compressed  file\n"
            "  sql             .....N        .....N         ....N  /geo.sqlite\n"
            "  files         1 changed, 0 as before\n"
            "  full package  .....N bytes, 1 file\n"
            "  delta         ....N bytes, P % of the full package, replayed and found right\n"
            "  offered       2 deltas, together ....N bytes, P % of the full package\n"
            "  devices load\n"
            "    with 1000002 (withdrawn)           ....N bytes  1 delta, P % of the full "
            "package\n"
            "    with 1000001                       ....N bytes  2 deltas, P % of the full "
            "package\n"
            "    with anything else                .....N bytes  the full package\n"
            "  time          T s\n");
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003"));
  ExpectSound();
  EXPECT_EQ(Update(), SizeOf("oui_d1000002") + SizeOf("oui_d1000003")) << "without the bad one";
  EXPECT_EQ(InstalledPlaces(), kRows);
  EXPECT_LT(2 * (SizeOf("oui_d1000002") + SizeOf("oui_d1000003")), SizeOf("oui_v1000003"));
  // And once more, with a device that has taken the bad one.
  MustRelease(Geo(1), {"--allow-shrink"});
  Update();
  EXPECT_EQ(InstalledPlaces(), 1);
  ASSERT_EQ(Withdraw("1000004").exit_status, 0);
  EXPECT_EQ(Update(), SizeOf("oui_d1000005")) << "with the bad one";
  EXPECT_EQ(InstalledPlaces(), kRows);
  ExpectSound();
}

TEST_F(WithdrawTest, DeltasOfBothStepsAreOfferedWhenTogetherTheyAreSmallerThanTheFullPackage) {
  // Nothing but noise: what was lost has to be sent again, more than the share of ordinary deltas.
  const std::string noise = Noise(80000, 1);
  const Tree good = {{"kept", Noise(15000, 2)}, {"lost", noise}};
  MustRelease(good);
  MustRelease({{"kept", good.at("kept")}, {"lost", "0"}}, {"--allow-shrink"});
  ASSERT_THAT(OfferedDeltas(), ElementsAre("1000002"));
  ASSERT_EQ(Withdraw("1000002").exit_status, 0);
  const std::uint64_t full = SizeOf("oui_v1000003");
  EXPECT_GT(SizeOf("oui_d1000003"), full * 70 / 100);
  EXPECT_LT(SizeOf("oui_d1000002") + SizeOf("oui_d1000003"), full);
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003"));
  ExpectSound();
  // As long as it is so, after further releases too.
  Tree more = good;
  more["kept"] += "more";
  MustRelease(more);
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003", "1000004"));
  // What is not smaller is not offered.
  MustRelease({{"kept", "k"}, {"lost", "0"}}, {"--allow-shrink"});
  const CommandResult all = Withdraw("1000005");
  EXPECT_EQ(all.exit_status, 0);
  EXPECT_THAT(all.err, HasSubstr("no delta leads to version 1000006"));
  EXPECT_THAT(OfferedDeltas(), IsEmpty());
  EXPECT_THAT(all.out, HasSubstr("\n    all of them "));
  ExpectSound();
}

TEST_F(WithdrawTest, DeltasThatTheBadVersionDroveOutAreOfferedAgain) {
  for (const int changed : {1, 2, 3}) {
    MustRelease(Geo(kRows, "UPDATE places SET v = 'x' WHERE k = " + std::to_string(changed) + ";"));
  }
  ASSERT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003"));
  MustRelease(Geo(0), {"--allow-shrink"});
  ASSERT_THAT(OfferedDeltas(), IsEmpty());
  ASSERT_EQ(Withdraw("1000004").exit_status, 0);
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003", "1000004", "1000005"));
  const CommandResult check = Pub({"check", repo_});
  EXPECT_EQ(check.exit_status, 0);
  EXPECT_THAT(check.out, HasSubstr("4 deltas replayed"));
  EXPECT_EQ(ReleaseRecord("1000004")["delta"]["withdrawn"].asInt(), 0);
}

TEST_F(WithdrawTest, SeveralBadOnesAreTakenBackTogether) {
  MustRelease(Geo(kRows));
  MustRelease(Geo(50), {"--allow-shrink"});
  MustRelease(Geo(51));
  EXPECT_EQ(Withdraw("1000002").out,
            "oui 1000002 is marked as withdrawn; devices are offered 1000003 already\n");
  EXPECT_EQ(Offered(), "1000003");
  EXPECT_THAT(Withdraw("1000003").out,
              StartsWith("oui 1000004 is released with the files of 1000001; 1000003 is "
                         "withdrawn\n"));
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003", "1000004"));
  ExpectSound();
  // What has the files of a withdrawn one is none to go back to.
  MustRelease(Geo(kRows + 1));
  ASSERT_EQ(Withdraw("1000005").exit_status, 0);
  EXPECT_EQ(ReleaseRecord("1000006")["restores"].asInt(), 1000004);
  ExpectFailure(Withdraw("1000006"), HasSubstr("no good version before 1000006 is kept"));
  ExpectSound();
}

TEST_F(WithdrawTest, BadVersionWhoseFullPackageIsDamagedOrLostIsWithdrawnToo) {
  const std::string noise = Noise(20000, 5);
  for (const char* end : {"1", "2", "3"}) {
    MustRelease({{"t", noise + end}});
  }
  const fs::path bad = InPublic("packages/oui/oui_v1000003");
  const std::string content = ReadFile(bad);
  for (const bool lost : {false, true}) {
    SCOPED_TRACE(lost);
    fs::copy(repo_, "/tmp/kept", fs::copy_options::recursive);
    fs::remove(bad);
    if (!lost) {
      WriteFile(bad, content + "x");
    }
    const CommandResult release = Release({{"t", noise + "4"}});
    EXPECT_EQ(release.exit_status, 1);
    EXPECT_THAT(release.err, AllOf(HasSubstr("oui_v1000003: "), HasSubstr("--allow-shrink")));
    const CommandResult tried = Release({{"t", noise + "4"}}, {"--allow-shrink", "--dry-run"});
    EXPECT_EQ(tried.exit_status, 0) << tried.err;
    EXPECT_THAT(tried.err, HasSubstr("no delta leads to version 1000004"));
    const CommandResult withdrawn = Withdraw("1000003");
    EXPECT_EQ(withdrawn.exit_status, 0);
    EXPECT_THAT(withdrawn.err, HasSubstr("oui_v1000003: "));
    EXPECT_EQ(Offered(), "1000004");
    EXPECT_THAT(OfferedDeltas(), IsEmpty());
    ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "1", "--grace", "0"}).exit_status, 0);
    ExpectInOrder();
    fs::remove_all(repo_);
    fs::rename("/tmp/kept", repo_);
  }
  // The good one is indispensable.
  WriteFile(InPublic("packages/oui/oui_v1000002"), "bad");
  const Tree before = ReadTree(repo_);
  ExpectFailure(Withdraw("1000003"), HasSubstr("is not the package that was released"));
  EXPECT_EQ(ReadTree(repo_), before);
}

TEST_F(WithdrawTest, ChainAfterAGapIsProvedToo) {
  const std::string noise = Noise(20000, 6);
  MustRelease({{"t", noise}});
  MustRelease({{"t", noise + "bad"}}, {"--version", "1000010"});
  MustRelease({{"t", noise + "worse"}});
  ASSERT_EQ(Withdraw("1000010").exit_status, 0);
  const fs::path delta = InPublic("packages/oui/oui_d1000011");
  std::string content = ReadFile(delta);
  content.replace(400, 4, "XXXX");
  WriteFile(delta, content);
  const CommandResult withdrawn = Withdraw("1000011");
  EXPECT_EQ(withdrawn.exit_status, 0);
  EXPECT_THAT(withdrawn.err, HasSubstr("note: by deltas from 1000010: "));
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000012"));
}

TEST_F(WithdrawTest, WhatCannotBeWithdrawnIsRefusedAndNothingIsChanged) {
  MustRelease({{"t", "1"}});
  ExpectFailure(Withdraw("1000001"), HasSubstr("no good version before 1000001 is kept"));
  MustRelease({{"t", "2"}});
  MustRelease({{"t", "3"}});
  MustRelease({{"t", "2"}});
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "3"}).exit_status, 0);
  const Tree before = ReadTree(repo_);
  ExpectFailure(
      Withdraw("1000001"),
      HasSubstr("version 1000001 is not kept here: it was retired, or never released; the "
                "oldest one is 1000002"));
  ExpectFailure(Withdraw("1000005"), HasSubstr("version 1000005 was never released"));
  ExpectFailure(
      Withdraw("1000002"),
      HasSubstr("version 1000004, the newest one, has the same files as 1000002; withdraw "
                "that one"));
  ExpectFailure(Pub({"withdraw", repo_, "none", "1"}), HasSubstr("\"none\""));
  const CommandResult tried = Withdraw("1000004", {"--dry-run"});
  EXPECT_EQ(tried.exit_status, 0) << tried.err;
  EXPECT_THAT(
      tried.out,
      StartsWith("oui 1000005 would be released with the files of 1000003; 1000004 would be "
                 "withdrawn\n  nothing was changed\n"));
  EXPECT_EQ(Withdraw("1000003", {"--dry-run"}).out,
            "oui 1000003 would be marked as withdrawn; devices are offered 1000004 already\n"
            "  nothing was changed\n");
  EXPECT_EQ(ReadTree(repo_), before);
  ASSERT_EQ(Withdraw("1000004").exit_status, 0);
  ExpectFailure(Withdraw("1000004"), HasSubstr("version 1000004 was withdrawn already, on 2"));
  // Neither limit nor test have a say in it, and its files are not released again by chance.
  MustSet({"oui", "--test", "false", "--max-shrink", "0"});
  ASSERT_EQ(Withdraw("1000005").exit_status, 1) << "nothing good is left";
  MustSet({"oui", "--test", ""});
  ExpectRefusal({{"t", "2"}}, "the files are those of version 1000004, which was withdrawn on 2");
  EXPECT_EQ(Release({{"t", "2"}}, {"--allow-withdrawn"}).exit_status, 0);
}

TEST_F(WithdrawTest, WithdrawnFilesAreKnownAfterTheirPackagesAreGone) {
  MakeFormer();  // One that signs has a later format anyway.
  MustRelease({{"t", "1"}});
  MustRelease({{"t", "2"}});
  ASSERT_EQ(Withdraw("1000002").exit_status, 0);
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "1", "--grace", "0"}).exit_status, 0);
  const std::string finding = "the files are those of version 1000002, which was withdrawn on 2";
  ExpectRefusal({{"t", "2"}}, finding);
  EXPECT_EQ(Catalog()["format"].asInt(), 2);
  ASSERT_EQ(Pub({"remove", repo_, "oui", "--yes"}).exit_status, 0);
  EXPECT_EQ(Pub({"release", repo_, "oui", source_, "--dry-run"}).exit_status, 1);
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "1", "--grace", "0"}).exit_status, 0);
  MustRelease({{"t", "3"}});
  ExpectRefusal({{"t", "2"}}, finding);
  MustRelease({{"t", "2"}}, {"--allow-withdrawn"});
  MustRelease({{"t", "4"}});
  // Nor are they good ones to go back to.
  ASSERT_EQ(Withdraw("1000006").exit_status, 0);
  EXPECT_EQ(ReleaseRecord("1000007")["restores"].asInt(), 1000004);
}

TEST_F(WithdrawTest, ListAndCheckSayWhatWasWithdrawn) {
  MustRelease({{"t", "1"}});
  MustRelease({{"t", "2"}});
  ASSERT_EQ(Withdraw("1000002").exit_status, 0);
  const std::string list = Normalised(Pub({"list", repo_}).out);
  EXPECT_THAT(list, ::testing::ContainsRegex("\n  1000002  DATE .*; withdrawn DATE\n"));
  EXPECT_THAT(list, ::testing::ContainsRegex("\n  1000003  DATE .*; the files of 1000001 again\n"));
  EXPECT_EQ(Normalised(Pub({"check", repo_}).err),
            "tolmdbpub: note: oui 1000002 was withdrawn on DATE\n");
  WriteFile("/tmp/list.json", Pub({"list", repo_, "--json"}).out);
  const Json::Value releases = ReadJson("/tmp/list.json")["databases"][0]["releases"];
  EXPECT_TRUE(releases[0]["withdrawn"].isNull());
  EXPECT_GT(releases[1]["withdrawn"].asInt64(), 1700000000);
  EXPECT_TRUE(releases[1]["restores"].isNull());
  EXPECT_EQ(releases[2]["restores"].asInt(), 1000001);
}

TEST_F(WithdrawTest, RepositoryOfAnEarlierProgramIsTakenBackToo) {
  for (const int rows : {kRows, 0}) {
    MustRelease(Geo(rows), {"--allow-shrink"});
  }
  Json::Value settings = ReadJson(repo_ / "state/settings.json");
  settings.removeMember("max_shrink_percent");
  WriteJson(repo_ / "state/settings.json", settings);
  fs::remove(repo_ / "state/lock");
  ASSERT_EQ(Withdraw("1000002").exit_status, 0);
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002", "1000003"));
  ExpectRefusal(Geo(0), "table places has 0 rows");
  ExpectSound();
}

TEST_F(WithdrawTest, RemovedDatabaseIsOfferedNoLongerAndItsVersionsGoOn) {
  MustRelease({{"t", "1"}});
  MakeDevice();
  MustRelease({{"t", "2"}});
  ExpectFailure(Pub({"remove", repo_, "oui"}), HasSubstr("it is not deprecated"));
  ASSERT_EQ(Pub({"deprecate", repo_, "oui"}).exit_status, 0);
  EXPECT_EQ(
      Pub({"remove", repo_, "oui"}).out,
      "oui is not offered any more; the newest version was 1000002\n"
      "  devices keep what they have installed; where oui is configured, updates of it fail, and "
      "scheduled runs then\n"
      "  leave the server alone for a while: take it out of their databases.conf\n"
      "  its packages stay until \"prune\" finds their grace period over\n");
  EXPECT_FALSE(Description()["db_list"].isMember("oui"));
  ExpectInOrder();
  fs::remove("/var/cache/data_update/database_info.json");
  const CommandResult update = Tool({"update", "oui"});
  EXPECT_EQ(update.exit_status, 1);
  EXPECT_EQ(ReadFile(kVolumePrefix / "oui/t"), "1");
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"remove", repo_, "oui", "--yes"},
                                             {"deprecate", repo_, "oui"},
                                             {"withdraw", repo_, "oui", "1000002"}}) {
    ExpectFailure(Pub(command), HasSubstr("\"oui\" was removed"));
  }
  EXPECT_THAT(Normalised(Pub({"list", repo_}).out),
              HasSubstr("\noui  (removed DATE; the newest was 1000002)\n"
                        "  packages/oui/oui_v1000001  retired DATE\n"));
  EXPECT_THAT(Pub({"prune", repo_, "oui", "--keep", "9"}).out,
              HasSubstr("oui_v1000002 stays until its grace period is over"));
  ASSERT_EQ(Pub({"prune", repo_, "oui", "--keep", "9", "--grace", "0"}).exit_status, 0);
  EXPECT_THAT(ListTree(InPublic("packages")), ElementsAre("oui/"));
  ExpectInOrder();
  ExpectFailure(Release({{"t", "3"}}, {"--version", "1000002"}), HasSubstr("does not follow"));
  MustRelease({{"t", "3"}});
  Update();
  EXPECT_EQ(InstalledVersion("oui"), "1000003");
  EXPECT_EQ(ReadFile(kVolumePrefix / "oui/t"), "3");
  EXPECT_FALSE(Catalog().isMember("removed"));
  ExpectInOrder();
}

}  // namespace
}  // namespace tolm::testing

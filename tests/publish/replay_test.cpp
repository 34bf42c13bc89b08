#include "publish/replay.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <boost/format.hpp>
#include <cerrno>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <thread>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/package_writer.h"
#include "publish/replay/order.h"
#include "tests/publish/release_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/killed_run.h"
#include "tests/support/mounts.h"
#include "tests/support/wait.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Kind;
using publish::CompareTrees;
using publish::ReplayChain;
using publish::ReplayError;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class ReplayTest : public ReleaseFixture {
 protected:
  ReplayTest() {
    publish::GenerateKeys(Path("keys"), kNow);
    signer_ = publish::LoadSigner(Path("keys/signing.key"), Path("keys/signing.pem"));
    request_.name = "x";
    request_.work_directory = Path("work");
    trust_ = package::Trust::Load(Path("keys/root.pem"), "");
    request_.trust = &*trust_;
    request_.now = kNow;
  }

  // Packs what lies in the directory as the delta to this version.
  publish::ReplayPackage Pack(const std::string& directory, int version) {
    const std::string path = Path("x_d" + std::to_string(version));
    package::WritePackage(directory, path, {"x", Kind::kDelta, version}, {}, signer_, kNow);
    return {version, path};
  }

  // Makes one delta after the other between these releases, the first of which is installed.
  void MakeChain(const std::vector<Tree>& releases) {
    for (std::size_t i = 0; i < releases.size(); ++i) {
      trees_.push_back(Release("v" + std::to_string(i + 1), releases[i]));
      if (i > 0) {
        publish::DeltaRequest delta;
        delta.old_tree = trees_[i - 1];
        delta.new_tree = trees_[i];
        delta.target_directory = Path("delta" + std::to_string(i + 1));
        publish::MakeDelta(delta);
        request_.packages.push_back(Pack(delta.target_directory, static_cast<int>(i + 1)));
      }
    }
    request_.old_tree = trees_.front();
    request_.installed_version = 1;
  }

  std::string Failure() {
    try {
      ReplayChain(request_);
    } catch (const ReplayError& error) {
      failed_key_ = error.key();
      return error.what();
    }
    return "";
  }

  std::vector<publish::Tree> trees_;
  package::Signer signer_;
  std::optional<package::Trust> trust_;
  publish::ReplayRequest request_;
  std::string failed_key_;  // of the last Failure()
};

// Patches of both kinds on patches, and every other kind of change.
std::vector<Tree> ThreeReleases(const std::string& first, const std::string& second,
                                const std::string& third) {
  const std::string noise = Noise(100000, 1);
  return {
      {{"a.bin", noise}, {"d/x.db", first}, {"gone", "1"}, {"same", "2"}, {"f", "file"}},
      {{"a.bin", noise.substr(10)}, {"d/x.db", second}, {"new/n", "3"}, {"same", "2"}, {"f/g", ""}},
      {{"a.bin", "x" + noise.substr(20)}, {"d/x.db", third}, {"gone", "4"}, {"same", "2"}},
  };
}

TEST_F(ReplayTest, ChainGivesTheNewestRelease) {
  MakeChain(ThreeReleases(Table(0), Table(3), Table(3, "CREATE INDEX i ON t(v);")));
  const std::string result = ReplayChain(request_);
  EXPECT_EQ(result, Path("work/installed"));
  EXPECT_THAT(CompareTrees(result, trees_[2]), IsEmpty());
  EXPECT_EQ(ReadFile(result + "/gone"), "4");
  EXPECT_FALSE(fs::exists(result + "/f/g"));
}

TEST_F(ReplayTest, EveryStepOfTheChainGivesItsRelease) {
  MakeChain(ThreeReleases(Table(0), Table(3), Table(8)));
  const std::vector<publish::ReplayPackage> packages = request_.packages;
  for (std::size_t i = 0; i < packages.size(); ++i) {
    request_.packages = {packages[i]};
    request_.old_tree = trees_[i];
    request_.installed_version = static_cast<int>(i + 1);
    request_.work_directory = Path("work" + std::to_string(i));
    EXPECT_THAT(CompareTrees(ReplayChain(request_), trees_[i + 1]), IsEmpty());
  }
}

TEST_F(ReplayTest, DeviceGoesOnFromWhatAnUpdateHasGiven) {
  MakeChain(ThreeReleases(Table(0), Table(3), Table(3, "CREATE INDEX i ON t(v);")));
  publish::ReplayedDevice device("x", Path("device"), trust_->Texts(), kNow);
  device.Install(trees_[0], 1);
  EXPECT_THAT(device.Update({request_.packages[0]}),
              ElementsAre("/a.bin", "/d/x.db", "/f", "/f/g", "/gone", "/new/n"));
  EXPECT_THAT(CompareTrees(publish::ScanTree(device.Installed()), trees_[1]), IsEmpty());
  EXPECT_THAT(device.Update({request_.packages[1]}),
              ElementsAre("/a.bin", "/d/x.db", "/f/g", "/gone", "/new/n"));
  EXPECT_THAT(CompareTrees(publish::ScanTree(device.Installed()), trees_[2]), IsEmpty());
  EXPECT_NE(ReadFile(device.Installed() + "/d/x.db"), ReadFile(trees_[2].files["/d/x.db"].path));
  EXPECT_THROW(device.Update({request_.packages[0]}), ReplayError);
  // And again from a release.
  fs::remove_all(Path("device"));
  device.Install(trees_[0], 1);
  EXPECT_THAT(CompareTrees(publish::ScanTree(device.Installed()), trees_[0]), IsEmpty());
  EXPECT_THAT(CompareTrees(publish::ScanTree(device.Installed()), trees_[1]),
              ElementsAre("/a.bin", "/d/x.db", "/f", "/f/g", "/gone", "/new/n"));
}

TEST_F(ReplayTest, DeviceMayHaveNothingInstalledYet) {
  MakeTree(
      Path("delta"),
      {{"patch_infos.json", R"({"/a": {"operation": "create", "input_file": "i"}})"}, {"i", "1"}});
  publish::ReplayedDevice device("x", Path("device"), trust_->Texts(), kNow);
  device.Install({}, 1);
  EXPECT_THAT(CompareTrees(device.Installed(), {}), IsEmpty());
  EXPECT_THAT(device.Update({Pack(Path("delta"), 2)}), ElementsAre("/a"));
  EXPECT_THAT(CompareTrees(device.Installed(), Release("v", {{"a", "1"}})), IsEmpty());
}

TEST_F(ReplayTest, OldTreeAndPackagesStayAsTheyAre) {
  MakeChain(ThreeReleases(Table(0), Table(3), Table(8)));
  const Tree before = ReadTree(Path("v1"));
  const std::string package = ReadFile(Path("x_d2"));
  ReplayChain(request_);
  EXPECT_TRUE(ReadTree(Path("v1")) == before);
  EXPECT_TRUE(ReadFile(Path("x_d2")) == package);
  EXPECT_TRUE(fs::equivalent(Path("work/installed/same"), Path("v1/same")));
}

TEST_F(ReplayTest, WritesNowhereButInTheWorkDirectory) {
  MakeChain(ThreeReleases(Table(0), Table(3), Table(8)));
  {
    const auto run = ScopedMount::ReadOnly("/run");
    const auto var = ScopedMount::ReadOnly("/var");
    const auto usr = ScopedMount::ReadOnly("/usr");
    EXPECT_THAT(CompareTrees(ReplayChain(request_), trees_[2]), IsEmpty());
  }
  EXPECT_FALSE(fs::exists("/run/data_update"));
  EXPECT_TRUE(fs::exists(Path("work/run/data_update/using_x.lock")));
  EXPECT_FALSE(fs::exists(Path("work/@tmp/data_update")));
}

TEST_F(ReplayTest, CurrentDirectoryAndRelativePathsAreTheCallers) {
  MakeChain(ThreeReleases(Table(0), Table(3), Table(8)));
  fs::current_path(directory_.Path());
  request_.work_directory = "work";
  request_.packages = {{2, "x_d2"}, {3, "x_d3"}};
  EXPECT_THAT(CompareTrees(ReplayChain(request_), trees_[2]), IsEmpty());
  EXPECT_EQ(fs::current_path(), directory_.Path());
}

TEST_F(ReplayTest, CallersUmaskIsNoMatter) {
  const mode_t before = ::umask(022);
  MakeChain({{{"a", "1"}}, {{"a", "2"}, {"d/b", "2"}}});
  ::umask(077);
  const std::string result = ReplayChain(request_);
  ::umask(before);
  std::string modes;
  for (const char* key : {"/a", "/d", "/d/b"}) {
    modes += (boost::format("%o ") % static_cast<unsigned>(fs::status(result + key).permissions()))
                 .str();
  }
  EXPECT_EQ(modes, "644 755 644 ");
}

// It may be any of them.
TEST_F(ReplayTest, NoFileIsNamedWhenOneOfSeveralDeltasFails) {
  MakeChain({{{"a", "1"}}, {{"a", "2"}}, {{"a", "3"}}});
  MakeTree(Path("delta"), {{"patch_infos.json",
                            R"({"/a": {"operation": "update", "input_file": "i.sqlitediff"}})"},
                           {"i.sqlitediff", "DELETE FROM none\n"}});
  request_.packages[0] = Pack(Path("delta"), 2);
  EXPECT_NE(Failure(), "");
  EXPECT_EQ(failed_key_, "");
}

TEST_F(ReplayTest, PathsMayHoldAnyBytes) {
  MakeChain(ThreeReleases(Table(0), Table(3), Table(8)));
  const std::string directory = Path("w\xff \"\n\\\xc3\xa4");
  fs::create_directories(directory);
  for (publish::ReplayPackage& package : request_.packages) {
    const std::string moved = directory + "/x_d" + std::to_string(package.version);
    fs::rename(package.path, moved);
    package.path = moved;
  }
  request_.work_directory = directory + "/work";
  EXPECT_THAT(CompareTrees(ReplayChain(request_), trees_[2]), IsEmpty());
}

TEST_F(ReplayTest, ResultThatDiffersIsFound) {
  const publish::Tree before = Release("before", {{"a", "1"}, {"b", "1"}, {"c", "1"}});
  MakeTree(Path("delta"),
           {{"patch_infos.json", R"({"/b": {"operation": "create", "input_file": "wrong"},
                                     "/d/stray": {"operation": "create", "input_file": "wrong"},
                                     "/c": {"operation": "delete"}})"},
            {"wrong", "3"}});
  request_.old_tree = before;
  request_.installed_version = 1;
  request_.packages = {Pack(Path("delta"), 2)};
  EXPECT_THAT(
      CompareTrees(ReplayChain(request_), Release("after", {{"a", "1"}, {"b", "2"}, {"c", "1"}})),
      ElementsAre("/b", "/c", "/d/stray"));
}

// What devices would say is what the publisher is told.
TEST_F(ReplayTest, DeltasThatDoNotApplyAreRefused) {
  const struct {
    const char* name;
    const char* patch_infos;
    const char* reason;
    const char* key = "";
  } kRows[] = {
      {"another source", R"({"/a": {"operation": "update", "input_file": "i.vcdiff"}})",
       "Fail to apply vcdiff on ./@tmp/data_update/x_sum/_a "
       "(./@tmp/data_update/x_delta_2/i.vcdiff: ",
       "/a"},
      {"failing script", R"({"/x.db": {"operation": "update", "input_file": "i.sqlitediff"}})",
       "Fail apply sql cmd: no such table: none", "/x.db"},
      {"the second file",
       R"({"/a": {"operation": "delete"},
           "/x.db": {"operation": "update", "input_file": "i.sqlitediff"}})",
       "Fail apply sql cmd: no such table: none", "/x.db"},
      {"no file to patch", R"({"/no": {"operation": "update", "input_file": "i.vcdiff"}})",
       "Fail to copy "},
      {"unknown operation", R"({"/a": {"operation": "move", "input_file": "i"}})",
       "Unknown operation "},
      {"same work copy",
       R"({"/a.b": {"operation": "create", "input_file": "i"},
           "/a_b": {"operation": "create", "input_file": "i"}})",
       "Same work copy for /a.b and /a_b"},
      {"no description", "[]", "Fail to decode: "},
  };
  request_.old_tree = Release("before", {{"a", Noise(5000, 1)}, {"x.db", Table(0)}});
  request_.installed_version = 1;
  publish::DeltaRequest other;
  other.old_tree = Release("other", {{"a", Noise(5000, 2)}});
  other.new_tree = Release("after", {{"a", Noise(5000, 2) + "x"}});
  other.target_directory = Path("other_delta");
  publish::MakeDelta(other);
  for (const auto& row : kRows) {
    fs::remove_all(Path("work"));
    MakeTree(Path("delta"), {{"patch_infos.json", row.patch_infos},
                             {"i.vcdiff", ReadFile(Path("other_delta/1.vcdiff"))},
                             {"i.sqlitediff", "DELETE FROM none\n"},
                             {"i", ""}});
    request_.packages = {Pack(Path("delta"), 2)};
    EXPECT_THAT(Failure(), HasSubstr(row.reason)) << row.name;
    EXPECT_EQ(failed_key_, row.key) << row.name;
  }
}

TEST_F(ReplayTest, DamagedAndForeignPackagesAreRefused) {
  MakeChain({{{"a", "1"}}, {{"a", "2"}}});
  const std::string package = ReadFile(Path("x_d2"));
  std::string damaged = package;
  damaged[10] = static_cast<char>(damaged[10] ^ 1);
  WriteFile(Path("x_d2"), damaged);
  EXPECT_EQ(
      Failure(),
      "tolmarchive_open ./@tmp/data_update/x_d2 failed, ret: 1 (the signature does not belong "
      "to this payload)");

  fs::remove_all(Path("work"));
  WriteFile(Path("x_d2"), package);
  publish::GenerateKeys(Path("others"), kNow);
  const package::Trust others = package::Trust::Load(Path("others/root.pem"), "");
  request_.trust = &others;
  EXPECT_THAT(Failure(), HasSubstr("tolmarchive_open"));

  fs::remove_all(Path("work"));
  request_.trust = &*trust_;
  request_.now = kNow + 5L * 365 * 24 * 60 * 60;
  EXPECT_THAT(Failure(), HasSubstr("expired"));

  fs::remove_all(Path("work"));
  request_.now = kNow;
  request_.name = "y";
  EXPECT_THAT(Failure(), HasSubstr("tolmarchive_open"));

  fs::remove_all(Path("work"));
  request_.name = "x";
  request_.packages = {{2, Path("none")}};
  EXPECT_THAT(Failure(), HasSubstr("Fail to wget url: replay:" + Path("none")));
}

TEST_F(ReplayTest, ChainWithAGapIsRefused) {
  MakeChain({{{"a", "1"}}, {{"a", "2"}}, {{"a", "3"}}});
  request_.packages.erase(request_.packages.begin());
  EXPECT_EQ(Failure(), "No sufficient diff patched");
}

TEST_F(ReplayTest, FileMakesRoomForADirectory) {
  MakeChain({{{"a", "1"}, {"b", ""}}, {{"a/b", "2"}, {"a/c/d", "3"}, {"b", ""}}});
  EXPECT_THAT(CompareTrees(ReplayChain(request_), trees_[1]), IsEmpty());
}

// Its work copy has the same name before and after.
TEST_F(ReplayTest, RenamedFileIsPatchedBeforeAndAfter) {
  const std::string noise = Noise(20000, 1);
  MakeChain({{{"a.b", noise}, {"c", ""}},
             {{"a.b", noise + "2"}, {"c", ""}},
             {{"a_b", noise + "3"}, {"c", ""}},
             {{"a_b", noise + "4"}, {"c", ""}},
             {{"a/b", noise + "5"}, {"c", ""}}});
  for (std::size_t first = 0; first + 1 < trees_.size(); ++first) {
    publish::ReplayRequest request = request_;
    request.old_tree = trees_[first];
    request.installed_version = static_cast<int>(first + 1);
    request.packages.erase(request.packages.begin(),
                           request.packages.begin() + static_cast<std::ptrdiff_t>(first));
    request.work_directory = Path("work" + std::to_string(first));
    EXPECT_THAT(CompareTrees(ReplayChain(request), trees_.back()), IsEmpty()) << first;
  }
}

TEST_F(ReplayTest, EmptiedDirectoriesStayAndDoNotMatter) {
  MakeChain({{{"a/b/c", "1"}, {"d", "1"}}, {{"d", "1"}}});
  const std::string result = ReplayChain(request_);
  EXPECT_TRUE(fs::is_directory(result + "/a/b"));
  EXPECT_THAT(CompareTrees(result, trees_[1]), IsEmpty());
}

// What the rules for chains rest on.
TEST_F(ReplayTest, EmptyDirectoryMakesRoomForAFileAndNoOtherDoes) {
  MakeChain({{{"d", "1"}}, {{"a", "1"}, {"d", "1"}}});
  fs::create_directories(Path("work/installed/a"));
  EXPECT_THAT(CompareTrees(ReplayChain(request_), trees_[1]), IsEmpty());
  fs::remove_all(Path("work"));
  fs::create_directories(Path("work/installed/a/b"));
  EXPECT_EQ(Failure().substr(0, 19), "Cannot install /a: ");
}

TEST_F(ReplayTest, FullFileSystemIsToldAsTheReason) {
  MakeChain({{{"volume1/huge", "1"}}, {{"volume1/huge", "2"}}});
  // A file of this machine with the name of one of the release frees nothing.
  WriteFile("/volume1/huge", "");
  fs::resize_file("/volume1/huge", std::uintmax_t{1} << 36);
  const auto mount = ScopedMount::Tmpfs(Path("small"), 10 << 20);
  WriteFile(Path("small/filler"), std::string((10 << 20) - 300000, 'x'));
  request_.work_directory = Path("small/work");
  EXPECT_THAT(Failure(),
              HasSubstr("Disk space is too low: less than five per cent of the file system of " +
                        Path("small/work")));
  fs::remove(Path("small/filler"));
  fs::remove_all(Path("small/work"));
  EXPECT_THAT(CompareTrees(ReplayChain(request_), trees_[1]), IsEmpty());
}

class ReplayProgramTest : public ReplayTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::is_regular_file(kProgram));
    MakeChain(ThreeReleases(Table(0), Table(3), Table(8)));
  }

  static void PutInItsPlace(const std::string& script) {
    fs::remove(kProgram);
    WriteFile(kProgram, "#!/bin/sh\n" + script);
    fs::permissions(kProgram, fs::perms::owner_all);
  }

  // From now on the program waits for a reader who does not end.
  void HoldItUp() {
    const std::string path = Path("work/run/data_update/using_x.lock");
    fs::create_directories(fs::path(path).parent_path());
    reader_ = base::Descriptor(::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(::flock(reader_.Get(), LOCK_SH), 0);
  }

  // The process that works in the work directory, as soon as there is one.
  pid_t WaitForIt() const {
    pid_t found = 0;
    const bool is_there = WaitUntil([&] {
      for (const auto& entry : fs::directory_iterator("/proc")) {
        std::error_code gone;
        if (fs::equivalent(entry.path() / "cwd", Path("work"), gone)) {
          found = std::stoi(entry.path().filename());
        }
      }
      return found != 0;
    });
    return is_there ? found : throw std::runtime_error("no program replays");
  }

  package::Error Broken() {
    try {
      ReplayChain(request_);
    } catch (const package::Error& error) {
      return error;
    }
    throw std::runtime_error("no error");
  }

  static constexpr char kProgram[] = "/usr/libexec/libtolmdbud/tolmdbud-replay";
  base::Descriptor reader_;
};

TEST_F(ReplayProgramTest, CrashIsAReplayThatFailed) {
  HoldItUp();
  std::thread crash([this] { ::kill(WaitForIt(), SIGABRT); });
  EXPECT_EQ(Failure(), "the update was ended by signal " + std::to_string(SIGABRT));
  crash.join();
}

TEST_F(ReplayProgramTest, EndsWithAPublisherThatIsKilled) {
  AdoptOrphans();
  HoldItUp();
  ForkedChild publisher([this](EventChannel&) {
    ReplayChain(request_);
    return 0;
  });
  const pid_t program = WaitForIt();
  publisher.Process().Signal(SIGKILL);
  EXPECT_EQ(publisher.Process().Wait(), 128 + SIGKILL);
  int status = 0;
  ASSERT_EQ(::waitpid(program, &status, 0), program);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST_F(ReplayProgramTest, EndsWhenItsPublisherHasGoneBefore) {
  publish::ReplayOrder order;
  order.publisher = ::getppid();  // of the one that starts it
  order.directory = Path("v1");
  CommandOptions options;
  options.input = FormatReplayOrder(order);
  const CommandResult result = RunCommand({kProgram}, options);
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.err, "the publisher has gone\n");
}

TEST_F(ReplayProgramTest, WritesNothingToTheSystemLog) {
  const base::Descriptor log(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sockaddr_un address = {AF_UNIX, _PATH_LOG};
  fs::remove(_PATH_LOG);
  ASSERT_EQ(::bind(log.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ReplayChain(request_);
  char line = 0;
  EXPECT_EQ(::recv(log.Get(), &line, 1, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ReplayProgramTest, MissingOneIsNoReplayThatFailed) {
  fs::remove(kProgram);
  const package::Error error = Broken();
  EXPECT_EQ(error.code(), package::Code::kInternal);
  EXPECT_EQ(error.what(), std::string(kProgram) + " is not installed (Debian package tolmdbpub)");
}

TEST_F(ReplayProgramTest, OneThatCannotWorkIsNoReplayThatFailed) {
  PutInItsPlace("echo no such library >&2; exit 127");
  const package::Error error = Broken();
  EXPECT_EQ(error.code(), package::Code::kInternal);
  EXPECT_EQ(error.what(), std::string(kProgram) + " failed with status 127: no such library");
}

TEST_F(ReplayProgramTest, AnswerThatIsNotKnownIsNoReplayThatFailed) {
  for (const char* answer :
       {"Fail to apply vcdiff on ./x", "{\"format\":2,\"problem\":\"p\",\"key\":\"\"}",
        "{\"format\":3}", "[]", ""}) {
    PutInItsPlace(std::string("cat >/dev/null; echo '") + answer + "'");
    const package::Error error = Broken();
    EXPECT_EQ(error.code(), package::Code::kInternal);
    EXPECT_EQ(error.what(), std::string(kProgram) +
                                " answers what this tolmdbpub does not understand; are both of one "
                                "version?");
    fs::remove_all(Path("work"));
  }
}

TEST_F(ReplayProgramTest, OrderThatItDoesNotKnowIsRefused) {
  CommandOptions options;
  options.input = "{}";
  const CommandResult result = RunCommand({kProgram}, options);
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "not an order to replay that this version of the program knows\n");
}

TEST_F(ReplayTest, SqliteFilesAreComparedByTheirContent) {
  const publish::Tree expected = Release("v", {{"x.db", Table(3)}, {"y.db", Table(3)}});
  const std::string other_bytes =
      Table(0, "UPDATE t SET v = v || ' changed' WHERE k <= 3; VACUUM;");
  ASSERT_TRUE(other_bytes != Table(3));
  MakeTree(Path("result"), {{"x.db", other_bytes}, {"y.db", Table(4)}});
  EXPECT_THAT(CompareTrees(Path("result"), expected), ElementsAre("/y.db"));
  WriteFile(Path("result/x.db"), Table(3).substr(0, 20000));
  WriteFile(Path("result/y.db"), "no database");
  EXPECT_THAT(CompareTrees(Path("result"), expected), ElementsAre("/x.db", "/y.db"));
}

TEST_F(ReplayTest, LinksAndDirectoriesInTheResultDiffer) {
  const publish::Tree expected = Release("v", {{"a", "1"}, {"b", "1"}, {"c", "1"}});
  MakeTree(Path("result"), {{"a", "1"}, {"b -> a", ""}, {"c/", ""}, {"e -> .", ""}});
  EXPECT_THAT(CompareTrees(Path("result"), expected), ElementsAre("/b", "/c", "/e"));
}

}  // namespace
}  // namespace tolm::testing

// The installed publisher and the installed device, from a directory of files to an update.

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "tests/support/mounts.h"
#include "tests/support/noise.h"
#include "tests/tools/device.h"
#include "tests/tools/repository.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class ReleaseTest : public RepositoryTest {
 protected:
  // A big file, so that deltas are worth offering.
  const std::string blob_ = Noise(200000, 1);
  const Tree first_ = {{"blob.bin", blob_}, {"gone.txt", "x"}, {"sub/", ""}, {"sub/b.txt", "b"}};
  const Tree second_ = {
      {"blob.bin", blob_ + "2"}, {"new.txt", "n"}, {"sub/", ""}, {"sub/b.txt", "b"}};
  const Tree third_ = {{"blob.bin", "3" + blob_}, {"sub/", ""}, {"sub/b.txt", "c"}};
};

TEST_F(ReleaseTest, DeviceFollowsThreeVersionsByDeltas) {
  RunningServer server(repo_);
  ASSERT_EQ(Pub({"set", repo_, "--base-url", server.Url("")}).exit_status, 0);
  MustRelease(first_);
  ASSERT_EQ(Pub({"install-config", repo_, "/"}).exit_status, 0);
  ASSERT_EQ(Tool({"init"}).exit_status, 0);
  ASSERT_EQ(Tool({"update", "oui"}).exit_status, 0);
  EXPECT_EQ(ReadTree(kVolumePrefix / "oui"), first_);
  MustRelease(second_);
  MustRelease(third_);
  // Without full packages only deltas can lead on.
  fs::rename(InPublic("packages/oui/oui_v1000003"), "/tmp/aside");
  fs::remove("/var/cache/data_update/database_info.json");
  const CommandResult update = Tool({"update", "oui"});
  EXPECT_EQ(update.exit_status, 0) << update.err;
  EXPECT_EQ(ReadTree(kVolumePrefix / "oui"), third_);
  EXPECT_EQ(InstalledVersion("oui"), "1000003");
  // And a step back goes by the link alone.
  const CommandResult back = Tool({"force-install", "oui", "--version", "-1"});
  EXPECT_EQ(back.exit_status, 0) << back.err;
  EXPECT_EQ(InstalledVersion("oui"), "1000002");
}

TEST_F(ReleaseTest, VersionsCountFromOneMillionAndOne) {
  MustRelease(first_);
  MustRelease(second_);
  const Json::Value record = Description()["db_list"]["oui"];
  EXPECT_EQ(record["data_version"], "1000002");
  EXPECT_EQ(record["download_link"], std::string(kBaseUrl) + "/packages/oui/oui_v1000002");
  EXPECT_EQ(record["file_size"].asUInt64(), fs::file_size(InPublic("packages/oui/oui_v1000002")));
  EXPECT_EQ(record["sha384"], Sha384Hex(InPublic("packages/oui/oui_v1000002")));
  EXPECT_EQ(record["diff_files"]["1000002"]["download_link"],
            std::string(kBaseUrl) + "/packages/oui/oui_d1000002");
  EXPECT_EQ(record["diff_files"]["1000002"]["file_size"].asUInt64(),
            fs::file_size(InPublic("packages/oui/oui_d1000002")));
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002"));
  ExpectInOrder();
}

TEST_F(ReleaseTest, TableSaysWhatBecameOfEachFile) {
  MustRelease(first_);
  const CommandResult result = Release(second_);
  EXPECT_EQ(result.err, "") << "progress is for terminals only";
  EXPECT_THAT(result.out, ContainsRegex("^oui 1000002 is released\n"));
  EXPECT_THAT(result.out, ContainsRegex("\n  vcdiff +200,001 .* /blob.bin\n"));
  EXPECT_THAT(result.out, ContainsRegex("\n  deleted +0 .* /gone.txt\n"));
  EXPECT_THAT(result.out, ContainsRegex("\n  created +1 .* /new.txt\n"));
  EXPECT_THAT(result.out, Not(HasSubstr("b.txt")));
  EXPECT_THAT(result.out, ContainsRegex("\n  delta +[0-9,]+ bytes, [0-9.]+ % of the full package"));
  EXPECT_THAT(result.out, ContainsRegex("\n  time +[0-9.]+ s\n"));
}

TEST_F(ReleaseTest, SamePayloadForTheSameFiles) {
  MustRelease(first_);
  ASSERT_EQ(Pub({"init", "/tmp/other", "--base-url", kBaseUrl, "--key", keys_ / "signing.key",
                 "--cert", keys_ / "signing.pem"})
                .exit_status,
            0);
  ASSERT_EQ(Pub({"release", "/tmp/other", "oui", source_}).exit_status, 0);
  const auto payload = [](const fs::path& package) {
    const std::string content = ReadFile(package);
    const std::string trailer = content.substr(content.size() - 16, 8);
    std::size_t signature = 0;
    for (const char c : trailer) {
      signature = signature << 8 | static_cast<unsigned char>(c);
    }
    return content.substr(0, content.size() - 16 - signature);
  };
  EXPECT_TRUE(payload(InPublic("packages/oui/oui_v1000001")) ==
              payload("/tmp/other/public/packages/oui/oui_v1000001"));
}

TEST_F(ReleaseTest, UnchangedDirectoryIsNotReleasedAgain) {
  MustRelease(first_);
  const Tree before = ReadTree(repo_);
  for (const auto& options : std::vector<std::vector<std::string>>{{}, {"--version", "1000001"}}) {
    const CommandResult again = Release(first_, options);
    EXPECT_EQ(again.exit_status, 0) << again.err;
    EXPECT_EQ(again.out, "oui 1000001 is released already with this content\n");
    Tree after = ReadTree(repo_);
    after["state/lock"] = before.at("state/lock");  // names the last process
    EXPECT_EQ(after, before);
  }
  // An older content is a step like any other.
  MustRelease(second_);
  MustRelease(first_);
  EXPECT_EQ(Description()["db_list"]["oui"]["data_version"], "1000003");
  ExpectInOrder();
}

TEST_F(ReleaseTest, UnchangedDirectoryCanBeGivenTheNextVersion) {
  MustRelease(first_);
  MustRelease(first_, {"--version", "1000002"});
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002"));
  ExpectInOrder();
}

TEST_F(ReleaseTest, GapIsAllowedAndBreaksTheChain) {
  MustRelease(first_);
  MustRelease(second_);
  const CommandResult result = Release(third_, {"--version", "1000009"});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, AllOf(HasSubstr("no delta leads to version 1000009"),
                                HasSubstr("a gap after version 1000002"),
                                HasSubstr("deltas to 1000002 and older are not offered any more")));
  EXPECT_THAT(OfferedDeltas(), IsEmpty());
  EXPECT_FALSE(fs::exists(InPublic("packages/oui/oui_d1000009")));
  MustRelease(first_);
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000010"));
  ExpectInOrder();
}

TEST_F(ReleaseTest, VersionThatDoesNotGrowIsRefused) {
  MustRelease(first_, {"--version", "700"});
  for (const char* version : {"1", "699", "700"}) {
    ExpectFailure(Release(second_, {"--version", version}), HasSubstr("does not follow 700"));
  }
  EXPECT_EQ(Description()["db_list"]["oui"]["data_version"], "700");
  ExpectInOrder();
}

TEST_F(ReleaseTest, VersionWhoseTextOccursElsewhereInItsLinkIsRefused) {
  // The base URL holds 127.0.0.1:1.
  for (const char* version : {"1", "0", "27", "127"}) {
    ExpectFailure(Release(first_, {"--version", version}),
                  AllOf(HasSubstr("cannot be released"), HasSubstr("times in http://")));
  }
  EXPECT_FALSE(fs::exists(InPublic("packages/oui")));
  MustRelease(first_, {"--version", "128"});
}

TEST_F(ReleaseTest, OnlyWhatSurvivesAFullUpdateIsReleased) {
  Tree with_link = first_;
  with_link["link -> gone.txt"] = "";
  ExpectFailure(Release(with_link), HasSubstr("/link"));
  MustRelease(with_link, {"--follow-links"});
  ASSERT_EQ(Pub({"inspect", InPublic("packages/oui/oui_v1000001")}).exit_status, 0);
  EXPECT_THAT(Pub({"inspect", InPublic("packages/oui/oui_v1000001")}).out,
              Not(HasSubstr("gone.txt ->")));
  Tree with_file = first_;
  with_file["link"] = "x";
  EXPECT_THAT(Release(with_file).out, HasSubstr("is released already"));
  ASSERT_EQ(mkfifo((source_ / "pipe").c_str(), 0600), 0);
  ExpectFailure(Pub({"release", repo_, "oui", source_}), HasSubstr("/pipe"));
  ExpectFailure(Release({{"empty/", ""}}), HasSubstr("no files in it"));
  ExpectFailure(Pub({"release", repo_, "oui", "/tmp/nowhere"}), HasSubstr("/tmp/nowhere"));
  ExpectInOrder();
}

TEST_F(ReleaseTest, NameWithAColonIsReleasedWithAWarning) {
  Tree files = first_;
  files["a:b"] = "x";
  const CommandResult result = Release(files);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, AllOf(HasSubstr("tolmdbpub: note: "), HasSubstr("a:b")));
}

TEST_F(ReleaseTest, DeltasBeyondTheShareOfTheFullPackageAreNotOfferedAnyMore) {
  ASSERT_EQ(Pub({"set", repo_, "--chain-share", "25"}).exit_status, 0);
  std::string content = blob_;
  MustRelease({{"a", content}});
  for (unsigned step = 0; step < 3; ++step) {  // Each delta is a tenth of the full package.
    content.replace(step * 20000, 20000, Noise(20000, 100 + step));
    const CommandResult result = Release({{"a", content}});
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.err, step < 2 ? ""
                                   : "tolmdbpub: note: deltas to 1000002 and older are not offered "
                                     "any more: with it the deltas would exceed 25 % of the full "
                                     "package\n");
  }
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000003", "1000004"));
  EXPECT_TRUE(fs::exists(InPublic("packages/oui/oui_d1000002"))) << "devices may be fetching it";
  ExpectInOrder();
}

TEST_F(ReleaseTest, DeltaThatIsNotWorthItIsNotMade) {
  MustRelease({{"a", Noise(5000, 1)}});
  const CommandResult result = Release({{"a", Noise(5000, 2)}});
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_THAT(result.err, HasSubstr("exceeds 70 % of the full package"));
  EXPECT_THAT(OfferedDeltas(), IsEmpty());
  EXPECT_FALSE(fs::exists(InPublic("packages/oui/oui_d1000002")));
  ExpectInOrder();
}

TEST_F(ReleaseTest, FilesWithOneNameAmongWorkCopiesAreNotInOneChain) {
  MustRelease({{"a.b", "1"}, {"a_b", "1"}, {"blob", blob_}});
  MustRelease({{"a.b", "2"}, {"a_b", "1"}, {"blob", blob_}});
  const CommandResult one_step = Release({{"a.b", "2"}, {"a_b", "2"}, {"blob", blob_}});
  EXPECT_EQ(one_step.exit_status, 0);
  EXPECT_THAT(one_step.err, HasSubstr("the delta to 1000002 is not offered any more"));
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000003"));
  ExpectInOrder();
  const CommandResult both = Release({{"a.b", "3"}, {"a_b", "3"}, {"blob", blob_}});
  EXPECT_EQ(both.exit_status, 0);
  EXPECT_THAT(both.err, HasSubstr("no delta leads to version 1000004"));
  EXPECT_THAT(OfferedDeltas(), IsEmpty());
  ExpectInOrder();
}

TEST_F(ReleaseTest, DamagedPackageOfTheVersionBeforeIsNoSourceOfADelta) {
  MustRelease(first_);
  const fs::path package = InPublic("packages/oui/oui_v1000001");
  const std::string good = ReadFile(package);
  WriteFile(package, good + "x");
  ExpectFailure(Release(second_), HasSubstr("is not the package that was released"));
  WriteFile(package, good);
  MustRelease(second_);
  ExpectInOrder();
}

TEST_F(ReleaseTest, SigningKeyThatDevicesDoNotTrustIsRefusedBeforeAnythingIsPublished) {
  ASSERT_EQ(Pub({"keygen", "/tmp/others", "--no-passphrase"}).exit_status, 0);
  fs::copy_file("/tmp/others/root.pem", keys_ / "root.pem", fs::copy_options::overwrite_existing);
  ExpectFailure(Release(first_), HasSubstr("with the root /tmp/keys/root.pem"));
  EXPECT_FALSE(fs::exists(InPublic("packages/oui")));
}

TEST_F(ReleaseTest, StateOlderThanThePublicTreeReplacesNothing) {
  MustRelease(first_);
  const std::string old_catalog = ReadFile(repo_ / "state/catalog.json");
  MustRelease(second_);
  const std::string published = ReadFile(InPublic("packages/oui/oui_v1000002"));
  WriteFile(repo_ / "state/catalog.json", old_catalog);
  const CommandResult result = Release(third_);
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.err, HasSubstr("the catalog does not name it"));
  EXPECT_TRUE(ReadFile(InPublic("packages/oui/oui_v1000002")) == published);
}

TEST_F(ReleaseTest, SeveralDatabasesShareADescription) {
  MustRelease(first_);
  ASSERT_EQ(Pub({"release", repo_, "gr\xc3\xbcn & so", source_}).exit_status, 0);
  const Json::Value list = Description()["db_list"];
  EXPECT_THAT(list.getMemberNames(), ElementsAre("gr\xc3\xbcn & so", "oui"));
  EXPECT_EQ(list["gr\xc3\xbcn & so"]["download_link"],
            std::string(kBaseUrl) + "/packages/gr%C3%BCn%20%26%20so/gr%C3%BCn%20%26%20so_v1000001");
  ExpectInOrder();
}

TEST_F(ReleaseTest, FullDiskLeavesWhatWasServed) {
  fs::create_directory("/tmp/small");
  const ScopedMount small = ScopedMount::Tmpfs("/tmp/small", 1 << 20);
  ASSERT_EQ(Pub({"init", "/tmp/small/repo", "--base-url", kBaseUrl, "--key", keys_ / "signing.key",
                 "--cert", keys_ / "signing.pem"})
                .exit_status,
            0);
  MakeTree(source_, first_);
  ASSERT_EQ(Pub({"release", "/tmp/small/repo", "oui", source_}).exit_status, 0);
  const Tree before = ReadTree("/tmp/small/repo/public");
  WriteFile(source_ / "more", Noise(900000, 5));
  ExpectFailure(Pub({"release", "/tmp/small/repo", "oui", source_}), HasSubstr("No space left"));
  EXPECT_EQ(ReadTree("/tmp/small/repo/public"), before);
  fs::remove(source_ / "more");
  WriteFile(source_ / "little", "x");
  EXPECT_EQ(Pub({"release", "/tmp/small/repo", "oui", source_}).exit_status, 0);
  EXPECT_EQ(Pub({"check", "/tmp/small/repo"}).exit_status, 0);
}

constexpr char kReplay[] = "/usr/libexec/libtolmdbud/tolmdbud-replay";

// As an attempt on a device would have ended too.
void LetReplaysCrash() {
  fs::remove(kReplay);
  WriteFile(kReplay, "#!/bin/sh\nkill -SEGV $$\n");
  fs::permissions(kReplay, fs::perms::owner_all);
}

TEST_F(ReleaseTest, CrashOfTheReplayLeavesTheFullPackage) {
  MustRelease(first_);
  LetReplaysCrash();
  const CommandResult result = Release(second_);
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("the delta could not be applied as devices do: "
                                    "the update was ended by signal 11"));
  EXPECT_THAT(result.err, HasSubstr("every device takes the full package"));
  EXPECT_EQ(Description()["db_list"]["oui"]["data_version"], "1000002");
  EXPECT_THAT(OfferedDeltas(), IsEmpty());
  EXPECT_FALSE(fs::exists(InPublic("packages/oui/oui_d1000002")));
  ExpectInOrder();
}

TEST_F(ReleaseTest, DeltaWithoutPatchesThatCannotBeAppliedIsNotReleased) {
  MustRelease(first_);
  LetReplaysCrash();
  Tree more = first_;
  more["new.txt"] = "n";
  const CommandResult result = Release(more);
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("every device takes the full package: "
                                    "applied as devices do, it did not give the new version"));
  EXPECT_THAT(OfferedDeltas(), IsEmpty());
  EXPECT_FALSE(fs::exists(InPublic("packages/oui/oui_d1000002")));
}

// An encoder that damages what it makes for files with "bad" in their names. It is not asked for
// small ones.
void DamageSomePatches() {
  WriteFile("/tmp/bin/xdelta3",
            "#!/bin/bash\n"
            "if [[ ${@: -1} != *bad* ]]; then exec /usr/bin/xdelta3 \"$@\"; fi\n"
            "patch=$(mktemp) && /usr/bin/xdelta3 \"$@\" >$patch || exit\n"
            "size=$(stat -c %s $patch)\n"
            "head -c $((size - 3)) $patch\n"
            "tail -c 3 $patch | tr '\\000-\\377' '\\001-\\377\\000'\n");
  fs::permissions("/tmp/bin/xdelta3", fs::perms::owner_all);
}

// On the device that replays, this file is not what it was.
void LetReplaysFindAnother(const std::string& file) {
  fs::rename(kReplay, std::string(kReplay) + ".real");
  WriteFile(kReplay,
            "#!/bin/bash\ncat >/tmp/order\n"
            "cp /tmp/another.db /tmp/repo/state/work/replay/installed/" +
                file + ".new && mv /tmp/repo/state/work/replay/installed/" + file +
                "{.new,}\nexec " + kReplay + ".real </tmp/order\n");
  fs::permissions(kReplay, fs::perms::owner_all);
}

std::string SqliteFile(const std::string& sql) {
  fs::remove("/tmp/made.db");
  const CommandResult made = RunCommand({"sqlite3", "/tmp/made.db", sql});
  EXPECT_EQ(made.exit_status, 0) << made.err;
  return ReadFile("/tmp/made.db");
}

TEST_F(ReleaseTest, OnlyFilesWhosePatchesAreWrongGoWhole) {
  ASSERT_EQ(Pub({"set", repo_, "--chain-share", "1000"}).exit_status, 0);
  DamageSomePatches();
  const std::string rows =
      "CREATE TABLE t(k INTEGER PRIMARY KEY, v); WITH n(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
      "FROM n WHERE i < 2000) INSERT INTO t SELECT i, random() FROM n;";
  const std::string data = SqliteFile(rows);
  WriteFile("/tmp/another.db", SqliteFile(rows));
  WriteFile("/tmp/made.db", data);
  MustRelease(
      {{"a.bin", blob_}, {"bad.bin", blob_}, {"bad.db", data}, {"z.bin", blob_}, {"z.db", data}});
  WriteFile("/tmp/changed.db", data);
  ASSERT_EQ(
      RunCommand({"sqlite3", "/tmp/changed.db", "UPDATE t SET v = 'x' WHERE k = 7"}).exit_status,
      0);
  LetReplaysFindAnother("bad.db");
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", ("/tmp/bin:" + path).c_str(), 1);
  const std::string changed = ReadFile("/tmp/changed.db");
  const CommandResult result = Release({{"a.bin", blob_ + "x"},
                                        {"bad.bin", blob_ + "x"},
                                        {"bad.db", changed},
                                        {"z.bin", blob_ + "x"},
                                        {"z.db", changed}});
  ::setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("the vcdiff patch for /bad.bin could not be applied as devices "
                                    "do: Fail to apply vcdiff on ./"));
  EXPECT_THAT(result.err, HasSubstr("the sql patch for /bad.db could not be applied as devices do: "
                                    "Fail apply sql cmd: "));
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 2) << result.err;
  for (const char* line :
       {"vcdiff [^\n]* /a\\.bin\n", "whole [^\n]* /bad\\.bin", "whole [^\n]* /bad\\.db",
        "vcdiff [^\n]* /z\\.bin\n", "sql [^\n]* /z\\.db\n"}) {
    EXPECT_THAT(result.out, ContainsRegex(line));
  }
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002"));
  fs::rename(std::string(kReplay) + ".real", kReplay);
  ExpectInOrder();
}

// The rounds are bounded: after some of them all that are left go whole at once.
TEST_F(ReleaseTest, ManyWrongPatchesEndInAReleaseAllTheSame) {
  ASSERT_EQ(Pub({"set", repo_, "--chain-share", "1000"}).exit_status, 0);
  DamageSomePatches();
  Tree before;
  for (int file = 0; file < 9; ++file) {
    before["bad" + std::to_string(file)] = Noise(70000, static_cast<unsigned>(file));
  }
  before["noise"] = blob_;
  MustRelease(before);
  Tree after = before;
  for (auto& [name, content] : after) {
    content += "x";
  }
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", ("/tmp/bin:" + path).c_str(), 1);
  const CommandResult result = Release(after);
  ::setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("all patches that are left go whole"));
  EXPECT_THAT(result.out, Not(ContainsRegex("vcdiff [^\n]* /")));
  EXPECT_THAT(OfferedDeltas(), ElementsAre("1000002"));
  ExpectInOrder();
}

// The payload of a package: what is before its signature.
std::string PayloadOf(const fs::path& path) {
  const std::string package = ReadFile(path);
  std::size_t signature = 0;
  for (std::size_t i = package.size() - 16; i < package.size() - 8; ++i) {
    signature = signature << 8 | static_cast<unsigned char>(package[i]);
  }
  return package.substr(0, package.size() - 16 - signature);
}

TEST_F(ReleaseTest, JobsMakeNoDifference) {
  ASSERT_EQ(Pub({"set", repo_, "--chain-share", "1000"}).exit_status, 0);
  Tree before = {{"blob.bin", blob_},
                 {"gone.txt", "x"},
                 {"x.db", SqliteFile("CREATE TABLE t(k INTEGER PRIMARY KEY, v);"
                                     "INSERT INTO t VALUES(1, 'a'), (2, 'b')")},
                 {"whole.bin", Noise(1200000, 5)}};
  Tree after = {{"blob.bin", blob_ + "2"},
                {"created.txt", "n"},
                {"x.db", SqliteFile("CREATE TABLE t(k INTEGER PRIMARY KEY, v);"
                                    "INSERT INTO t VALUES(1, 'a'), (2, 'c')")},
                {"whole.bin", Noise(1200000, 6)}};
  for (unsigned i = 0; i < 12; ++i) {
    before["d/" + std::to_string(i)] = Noise(3000, i);
    after["d/" + std::to_string(i)] = Noise(3000, i) + "x";
  }
  MustRelease(before);
  fs::copy(repo_, "/tmp/kept", fs::copy_options::recursive);
  const auto release = [&](const std::string& jobs) {
    CommandResult result = Release(after, {"--jobs", jobs});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    // Signatures are not of one length, and neither are the numbers of packages with them.
    const std::string table = result.out.substr(0, result.out.find("  full package"));
    return std::vector<std::string>{table, result.err,
                                    PayloadOf(InPublic("packages/oui/oui_v1000002")),
                                    PayloadOf(InPublic("packages/oui/oui_d1000002"))};
  };
  const std::vector<std::string> by_one = release("1");
  EXPECT_TRUE(ListTree(repo_ / "state/work").empty());
  fs::remove_all(repo_);
  fs::rename("/tmp/kept", repo_);
  const std::vector<std::string> by_four = release("4");
  EXPECT_EQ(by_four[0], by_one[0]);
  EXPECT_EQ(by_four[1], by_one[1]);
  EXPECT_TRUE(by_four == by_one);
  EXPECT_TRUE(ListTree(repo_ / "state/work").empty());
  ExpectInOrder();
}

TEST_F(ReleaseTest, EncoderThatFailsForOneOfSeveralFilesEndsTheRelease) {
  Tree files;
  for (unsigned i = 0; i < 6; ++i) {
    files["f" + std::to_string(i)] = Noise(70000, i);
  }
  MustRelease(files);
  for (auto& [name, content] : files) {
    content += "x";
  }
  WriteFile("/tmp/bin/xdelta3",
            "#!/bin/sh\ncase $* in *f3*) echo no space >&2; exit 1 ;; esac\n"
            "exec /usr/bin/xdelta3 \"$@\"\n");
  fs::permissions("/tmp/bin/xdelta3", fs::perms::owner_all);
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", ("/tmp/bin:" + path).c_str(), 1);
  for (const char* jobs : {"1", "4"}) {
    ExpectFailure(Release(files, {"--jobs", jobs}),
                  HasSubstr("xdelta3 failed with status 1: no space"));
    EXPECT_EQ(Description()["db_list"]["oui"]["data_version"], "1000001");
  }
  ::setenv("PATH", path.c_str(), 1);
  MustRelease(files);
  ExpectInOrder();
}

TEST_F(ReleaseTest, WhereAllFilesWouldGoWholeThereIsNoDelta) {
  MustRelease({{"a", Noise(1200000, 1)}});
  const CommandResult result = Release({{"a", Noise(1200000, 2)}, {"b", "new"}});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("all its files would go whole, as in the full package"));
  EXPECT_THAT(OfferedDeltas(), IsEmpty());
  ExpectInOrder();
}

TEST_F(ReleaseTest, MissingReplayEndsTheRelease) {
  MustRelease(first_);
  fs::remove(kReplay);
  ExpectFailure(Release(second_),
                HasSubstr(std::string(kReplay) + " is not installed (Debian package tolmdbpub)"));
  EXPECT_EQ(Description()["db_list"]["oui"]["data_version"], "1000001");
  ExpectInOrder();
}

TEST_F(ReleaseTest, MissingReplayEndsACheckThatHasDeltasToApply) {
  MustRelease(first_);
  MustRelease(second_);
  fs::remove(kReplay);
  ExpectFailure(Pub({"check", repo_}),
                HasSubstr(std::string(kReplay) + " is not installed (Debian package tolmdbpub)"));
}

}  // namespace
}  // namespace tolm::testing

#include "publish/remote.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "package/error.h"
#include "publish/files.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/fake_rclone.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using publish::Remote;
using publish::Replacement;
using publish::Served;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

TEST(RemoteTest, FolderIsOneWhateverSlashesEndItsName) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path();
  const Remote remote(path);
  EXPECT_TRUE(remote.IsFolder());
  EXPECT_TRUE(remote.HasDigests());
  EXPECT_EQ(remote.Name(), path);
  EXPECT_EQ(Remote(path + "//").Key(), remote.Key());
  EXPECT_EQ(remote.Key(), publish::Sha384OfText(path).substr(0, 32));
  for (const char* root : {"/", "//", "///"}) {
    EXPECT_EQ(Remote(root).Name(), "/");
  }
  WriteFile(path + "/a", "text");
  EXPECT_EQ(remote.Read("a", 100), "text");
  EXPECT_EQ(remote.Read("a", 2), "te");
  EXPECT_EQ(remote.Read("b", 100), std::nullopt);
}

TEST(RemoteTest, WhatRcloneWouldTakeForAnOptionIsNone) {
  for (const std::string text : {"", "-v", "--config=/tmp/x"}) {
    ExpectError([&] { const Remote remote(text); }, "\"" + text + "\" is no remote of rclone");
  }
}

TEST(RemoteTest, FileIsNoFolder) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "a", "text");
  ExpectError([&] { const Remote remote(directory.Path() / "a"); }, HasSubstr("not a directory"));
}

TEST(RemoteTest, FileOfAFolderIsReadAsFarAsItIsWanted) {
  const TemporaryDirectory directory;
  const Remote remote(directory.Path());
  const std::string text = std::string(5000, 'a') + std::string(5000, 'b');
  WriteFile(directory.Path() / "a", text);
  EXPECT_EQ(remote.Read("a", 20000), text);
  EXPECT_EQ(remote.Read("a", 10000), text);
  EXPECT_EQ(remote.Read("a", 9999), text.substr(0, 9999));
  EXPECT_EQ(remote.Read("a/below", 100), std::nullopt);
  fs::create_directory(directory.Path() / "d");
  EXPECT_THROW(remote.Read("d", 100), package::Error);
}

TEST(RemoteTest, FolderIsReplacedInAtOnceAndSynchronised) {
  const TemporaryDirectory directory;
  const std::string store = directory.Path() / "store";
  const Remote remote(store);
  EXPECT_THAT(remote.List(), IsEmpty());
  EXPECT_THROW(remote.Sync(), package::Error);
  EXPECT_EQ(remote.Replace("d/1", "d/.new", "text", Served::kDescription), Replacement::kAtOnce);
  remote.Sync();
  EXPECT_EQ(ReadTree(store), (Tree{{"d/", ""}, {"d/1", "text"}}));
  EXPECT_EQ(remote.Key().size(), 32u);
  EXPECT_NE(remote.Key(), Remote(directory.Path()).Key());
}

/// A remote that a shell script plays in rclone's place.
class PlayedRemoteTest : public ::testing::Test {
 protected:
  static constexpr char kBucket[] = R"("IsLocal": false, "BucketBased": true, "Move": false)";
  static constexpr char kServer[] = R"("IsLocal": false, "BucketBased": false, "Move": true)";
  static constexpr char kPlain[] = R"("IsLocal": false, "BucketBased": false, "Move": false)";

  /// @p features: what it can do; @p commands: what it does when it is asked for more.
  Remote Open(const std::string& commands, const std::string& features = kBucket,
              const std::string& hashes = R"("md5")") {
    rclone_.reset();
    rclone_.emplace("if [ \"$1\" = backend ]; then\n  echo '{\"Features\": {" + features +
                    "}, \"Hashes\": [" + hashes + "]}'\n  : > /tmp/fakes/calls\n  exit\nfi\n" +
                    commands + '\n');
    Remote remote("store:b/");
    remote.UseWork(work_);
    return remote;
  }
  std::vector<std::string> Calls() const { return FakeRclone::Calls(); }

  TemporaryDirectory directory_;
  const std::string work_ = directory_.Path();
  std::optional<FakeRclone> rclone_;
};

TEST_F(PlayedRemoteTest, WhatIsListedAreSizesByPath) {
  const Remote remote =
      Open(R"(echo '[{"Path":"packages/a","Size":5},{"Path":"database_info/1","Size":-1},
                     {"Path":"packages/empty","Size":0}]')");
  EXPECT_FALSE(remote.IsFolder());
  EXPECT_EQ(remote.Name(), "store:b");
  EXPECT_THAT(remote.List(), ElementsAre(Pair("database_info/1", UINT64_MAX),
                                         Pair("packages/a", 5u), Pair("packages/empty", 0u)));
  EXPECT_THAT(Calls(), ElementsAre("lsjson -R --files-only --no-modtime --no-mimetype store:b "
                                   "--include /packages/** --include /packages-*/** "
                                   "--include /database_info/** --include /.tolmdbpub-*"));
  EXPECT_THAT(Open("exit 3").List(), IsEmpty());
  ExpectError([&] { Open("exit 4").List(); }, "store:b: cannot be listed: rclone: status 4");
  ExpectError([&] { Open("echo '{}'").List(); }, "store:b: rclone does not list it");
}

TEST_F(PlayedRemoteTest, FileThatIsNotThereIsNoneAndAnyOtherFailureIsTold) {
  const Remote remote = Open("printf text");
  EXPECT_EQ(remote.Read("a/b", 77), "text");
  EXPECT_THAT(Calls(), ElementsAre("cat store:b/a/b --count 77"));
  EXPECT_EQ(Open("exit 3").Read("a", 1), std::nullopt);
  EXPECT_EQ(Open("exit 4").Read("a", 1), std::nullopt);
  ExpectError([&] { Open("exit 5").Read("a", 1); }, "store:b: a cannot be read: rclone: status 5");
  ExpectError([&] { Open("exit 4").ReadInto("a", 1); },
              "store:b: a cannot be read: rclone: status 4");
  ExpectError([&] { Open("exit 1").Remove({"a"}); },
              "store:b: files cannot be removed: rclone: status 1");
}

TEST_F(PlayedRemoteTest, OnlyNamedFilesAreUploadedOrRemoved) {
  const Remote remote =
      Open("while [ $1 != --files-from-raw ]; do shift; done; cat \"$2\" > /tmp/fakes/list");
  const std::string list = work_ + "/files";
  remote.Upload("/from", {"a", "b c"}, nullptr);
  EXPECT_EQ(ReadFile("/tmp/fakes/list"), "a\nb c\n");
  remote.Remove({"d"});
  EXPECT_EQ(ReadFile("/tmp/fakes/list"), "d\n");
  EXPECT_THAT(
      Calls(),
      ElementsAre("copy /from store:b --files-from-raw " + list +
                      " --ignore-times --no-traverse --header-upload Cache-Control: public, "
                      "max-age=31536000, immutable --header-upload Content-Type: "
                      "application/octet-stream",
                  "delete store:b --files-from-raw " + list));
  ExpectError([&] { remote.Upload("/from", {}, nullptr); }, "store:b: no files are named");
  ExpectError([&] { remote.Remove({}); }, "store:b: no files are named");
  EXPECT_EQ(Calls().size(), 2u) << "without names rclone would take everything";
}

TEST_F(PlayedRemoteTest, EverythingThatIsNotToldToBeTheSameDiffers) {
  const Remote remote = Open("printf '= a\\n* b\\n- c\\n! d\\n'; exit 1");
  EXPECT_TRUE(remote.HasDigests());
  EXPECT_THAT(remote.Differing("/from", {"d", "a", "b", "c"}, nullptr), ElementsAre("d", "b", "c"));
  EXPECT_THAT(Calls(), ElementsAre("check /from store:b --one-way --combined - --files-from-raw " +
                                   work_ + "/files"));
  EXPECT_THAT(Open("exit 3").Differing("/from", {"a"}, nullptr), ElementsAre("a"));
  EXPECT_THAT(Open("printf '= a\\n'").Differing("/from", {"a", "b"}, nullptr), ElementsAre("b"));
  ExpectError(
      [&] {
        Open("printf '= a\\n'; exit 1").Differing("/from", {"a", "b"}, nullptr);
      },
      "store:b: packages cannot be compared: rclone: status 1");
  // A line that names no file tells nothing.
  ExpectError(
      [&] {
        Open("printf '= a\\n* \\n'; exit 1").Differing("/from", {"a", "b"}, nullptr);
      },
      "store:b: packages cannot be compared: rclone: status 1");
}

TEST_F(PlayedRemoteTest, WhatDigestsDoNotProveIsReadBack) {
  const std::string check =
      "check /from store:b --one-way --combined - --files-from-raw " + work_ + "/files";
  const Remote none = Open("printf '= a\\n'", kBucket, R"("own", 5)");
  EXPECT_FALSE(none.HasDigests());
  EXPECT_THAT(none.Differing("/from", {"a"}, nullptr), IsEmpty());
  EXPECT_THAT(Calls(), ElementsAre(check + " --download"));
  const Remote some = Open(R"(case "$*" in
  *--download*) printf '= a\n* b\n' ;;
  *) printf '= a\n= b\n'
     echo '{"level":"notice","msg":"1 hashes could not be checked"}' >&2 ;;
esac)",
                           kBucket, R"("own", "sha1")");
  EXPECT_THAT(some.Differing("/from", {"a", "b"}, nullptr), ElementsAre("b"));
  EXPECT_THAT(Calls(), ElementsAre(check, check + " --download"));
}

TEST_F(PlayedRemoteTest, StoreOfObjectsIsGivenTheFileUnderItsName) {
  for (const char* features : {kBucket, kPlain}) {
    const Remote remote = Open("cat \"$2\" > /tmp/fakes/brought", features);
    EXPECT_EQ(remote.Replace("d/1", "d/.new", "text", Served::kDescription), Replacement::kAtOnce);
    EXPECT_EQ(remote.Replace(".mark", ".mark-new", "mark", Served::kMark), Replacement::kAtOnce);
    EXPECT_EQ(ReadFile("/tmp/fakes/brought"), "mark");
    EXPECT_THAT(Calls(),
                ElementsAre("copyto " + work_ +
                                "/.new store:b/d/1 --ignore-times --header-upload Cache-Control: "
                                "public, max-age=60 --header-upload Content-Type: application/json",
                            "copyto " + work_ +
                                "/.mark-new store:b/.mark --ignore-times --header-upload "
                                "Cache-Control: no-store --header-upload Content-Type: "
                                "application/json"));
    EXPECT_TRUE(fs::is_empty(work_)) << "what was brought is not kept";
  }
}

TEST_F(PlayedRemoteTest, StoreOfFilesIsGivenItAsideAndMovesItInOneStepWhereItCan) {
  const std::string move = "moveto store:b/d/.new store:b/d/1";
  const std::string over = move + " --no-check-dest --retries 1 --low-level-retries 1";
  const std::string webdav = over + " --webdav-headers *OVERWRITE,T";
  const auto replace = [&](const std::string& moves) {
    const Replacement how = Open("[ \"$1\" != moveto ] || {\n" + moves + "\n}", kServer)
                                .Replace("d/1", "d/.new", "text", Served::kDescription);
    std::vector<std::string> calls = Calls();
    EXPECT_THAT(calls.front(), HasSubstr("/.new store:b/d/.new --ignore-times"));
    calls.erase(calls.begin());
    return std::make_pair(how, calls);
  };
  EXPECT_THAT(replace("true"), Pair(Replacement::kAtOnce, ElementsAre(over)));
  EXPECT_THAT(replace(R"(case "$*" in *OVERWRITE*) ;; *) false ;; esac)"),
              Pair(Replacement::kAtOnce, ElementsAre(over, webdav)));
  EXPECT_THAT(replace(R"(case "$*" in *no-check*) false ;; esac)"),
              Pair(Replacement::kWithGap, ElementsAre(over, webdav, move)));
  ExpectError([&] { replace("false"); }, "store:b: d/1 cannot be replaced: rclone: status 1");
}

TEST_F(PlayedRemoteTest, LastWordsThatSayItAgainAreNotTold) {
  const auto told = [&](const std::string& lines) {
    try {
      Open(lines + "exit 1").Remove({"a"});
    } catch (const publish::Error& error) {
      return std::string(error.what());
    }
    return std::string();
  };
  const std::string begin = "store:b: files cannot be removed: rclone: ";
  EXPECT_EQ(told("echo 'one\ntwo\nFailed to delete: two' >&2\n"), begin + "one; two");
  EXPECT_EQ(told("echo 'Failed to delete: why' >&2\n"), begin + "Failed to delete: why");
}

}  // namespace
}  // namespace tolm::testing

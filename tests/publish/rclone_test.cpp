#include "publish/rclone.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "package/error.h"
#include "publish/memory_file.h"
#include "publish/outside.h"
#include "tests/publish/fake_rclone.h"
#include "tests/support/files.h"
#include "tests/support/interrupted_calls.h"

namespace tolm::testing {
namespace {

using publish::RemotePath;
using publish::TakeApart;
using publish::WithoutSecrets;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

TEST(RcloneTest, ParametersOfARemoteAreNotShown) {
  EXPECT_EQ(TakeApart("store:bucket/path").shown, "store:bucket/path");
  EXPECT_EQ(TakeApart("/srv/a,b:c").shown, "/srv/a,b:c");
  EXPECT_EQ(TakeApart("folder/a,b").shown, "folder/a,b");
  EXPECT_EQ(TakeApart("store,pass=secret:path").shown, "store:path");
  EXPECT_EQ(TakeApart(":webdav,url='http://h:1/x,y',pass=\"a:\"\"b\":p/q").shown, ":webdav:p/q");
  EXPECT_THAT(TakeApart("store:bucket").secrets, IsEmpty());
}

TEST(RcloneTest, SecretsOfARemoteAreTakenOutOfMessages) {
  const std::string remote = ":webdav,url='http://h:1/',user=somebody,pass=\"a:\"\"b\":p";
  const publish::RemoteText text = TakeApart(remote);
  EXPECT_EQ(WithoutSecrets("cannot use \"" + remote + "\" at http://h:1/: a:\"b, somebody", text),
            "cannot use \":webdav:p\" at http://h:1/: ..., ...");
  const publish::RemoteText in_address = TakeApart(":webdav,url='http://me:word@h/':");
  EXPECT_THAT(WithoutSecrets("dial http://me:word@h/", in_address), Not(HasSubstr("word")));
  EXPECT_EQ(WithoutSecrets("somebody and somebody, somebody", text), "... and ..., ...")
      << "wherever it stands, and each time";
}

TEST(RcloneTest, PathsStandBehindTheRemote) {
  EXPECT_EQ(RemotePath("store:", "a/b"), "store:a/b");
  EXPECT_EQ(RemotePath("store:bucket", "a/b"), "store:bucket/a/b");
  EXPECT_EQ(RemotePath("/srv/x", "a/b"), "/srv/x/a/b");
}

TEST(RcloneTest, ItsErrorsAreToldWithoutTimes) {
  const publish::RcloneEnd end = publish::RunRclone({{"lsjson", "no-such-remote:x"}});
  EXPECT_NE(end.exit_status, 0);
  EXPECT_THAT(end.errors, ElementsAre(HasSubstr("didn't find section in config file")));
  EXPECT_THAT(end.errors.front(), Not(HasSubstr("20")));
}

TEST(RcloneTest, SignalThatEndsItIsAStatusAsShellsTellIt) {
  const FakeRclone rclone("kill -KILL $$\n");
  EXPECT_EQ(publish::RunRclone({}).exit_status, 128 + SIGKILL);
}

TEST(RcloneTest, ItsLogIsUnderstoodLineByLine) {
  const FakeRclone rclone(
      "cat >&2 <<'END'\n"
      R"({"level":"info","msg":"so far","stats":{"bytes":4711}})"
      "\n"
      R"({"level":"error","msg":"no room","object":"a/b"})"
      "\n"
      R"({"level":"error","msg":"not allowed"})"
      "\n"
      R"({"level":"notice","msg":"2 hashes could not be checked"})"
      "\n"
      R"(["no", "object"])"
      "\n"
      R"({"level":"info","msg":"later","stats":{"bytes":"many"}})"
      "\n2026/01/31 23:59:59 plain words\nEND\nexit 7\n");
  std::uint64_t transferred = 0;
  publish::RcloneRun run;
  run.transferred = [&](std::uint64_t bytes) { transferred = bytes; };
  const publish::RcloneEnd end = publish::RunRclone(run);
  EXPECT_EQ(publish::RunRclone({}).exit_status, 7) << "how far it is need not be asked";
  EXPECT_EQ(end.exit_status, 7);
  EXPECT_THAT(end.errors, ElementsAre("a/b: no room", "not allowed", "plain words"));
  EXPECT_TRUE(end.has_uncompared);
  EXPECT_EQ(transferred, 4711u);
}

TEST(RcloneTest, EveryCallEndsWithWhatTheEnvironmentMayNotChange) {
  const FakeRclone rclone("cat; echo written\n");
  publish::RunRclone({{"version", "-x"}});
  EXPECT_EQ(ReadFile("/tmp/fakes/calls"),
            "version -x --use-json-log --log-level NOTICE --stats-log-level NOTICE --stats 500ms "
            "--ask-password=false --log-file= --progress=false --quiet=false --verbose=0 "
            "--size-only=false --ignore-existing=false\n");
}

TEST(RcloneTest, OfManyErrorsTheLastThreeAreToldOnceEachAndCut) {
  const FakeRclone rclone(
      "for i in 1 2 3 4 4; do echo '{\"level\":\"error\",\"msg\":\"no '$i'\"}' >&2; done\n"
      "echo '{\"level\":\"error\",\"msg\":\"Attempt 1/3 failed\"}' >&2\n"
      "echo '{\"level\":\"error\",\"msg\":\"there\",\"object\":\"\"}' >&2\n"
      "printf '%600s' long | tr ' ' x >&2\n");
  const publish::RcloneEnd end = publish::RunRclone({});
  EXPECT_THAT(end.errors, ElementsAre("no 4", "there", std::string(500, 'x')));
  EXPECT_FALSE(end.has_uncompared);
}

TEST(RcloneTest, LineWithoutAnEndIsForgottenBeforeItFillsTheMemory) {
  const FakeRclone rclone(
      "(echo begin; head -c 200000 /dev/zero) | tr '\\0\\n' xx >&2; echo >&2; echo why >&2\n");
  const std::vector<std::string> errors = publish::RunRclone({}).errors;
  ASSERT_FALSE(errors.empty());
  EXPECT_EQ(errors.back(), "why");
  EXPECT_THAT(errors, ::testing::Each(Not(HasSubstr("begin"))));
}

TEST(RcloneTest, ShortValuesAndThoseThatAreToldStayInMessages) {
  const publish::RemoteText text =
      TakeApart(":sftp,host=h.example,port=2222,user=me,pass=abc,key_file=/k,flag:x");
  EXPECT_THAT(text.secrets,
              ElementsAre(",host=h.example,port=2222,user=me,pass=abc,key_file=/k,flag", "abc"));
  EXPECT_EQ(text.shown, ":sftp:x");
  EXPECT_THAT(TakeApart("store,pass='a''b\"':p").secrets, ElementsAre(",pass='a''b\"'", "a'b\""));
  EXPECT_EQ(TakeApart("store,pass=secret").shown, "store");
  EXPECT_EQ(TakeApart("s,pass=secret:p").shown, "s:p");
  EXPECT_THAT(TakeApart("store,pass=secret").secrets, ElementsAre("secret"));
}

TEST(RcloneTest, TimeAloneIsTakenFromPlainLines) {
  const FakeRclone rclone(
      "cat >&2 <<'END'\n"
      "2026/01/31 23:59:59 x\n"
      "no such/file\n"
      "NOTICE: no error\n"
      " \t\n"
      "2026/01/31 23:59:59 NOTICE: no error\n"
      "from 2026/01/31 23:59:59 on\nEND\n");
  EXPECT_THAT(publish::RunRclone({}).errors,
              ElementsAre("x", "no such/file", "from 2026/01/31 23:59:59 on"));
}

TEST(RcloneTest, LogThatHasAnotherFormTellsNothing) {
  const FakeRclone rclone(
      "cat >&2 <<'END'\n"
      R"({"level":"error","msg":{}})"
      "\n"
      R"({"level":5,"msg":"level"})"
      "\n"
      R"({"level":"error"})"
      "\n"
      R"({"level":"error","msg":"shown","object":7})"
      "\n"
      R"({"level":"warning","msg":"no error"})"
      "\nEND\n");
  EXPECT_THAT(publish::RunRclone({}).errors, ElementsAre("shown"));
}

TEST(RcloneTest, SignalsDoNotEndTheWaitForIt) {
  const FakeRclone rclone(
      "sleep 0.1; echo one >&2; sleep 0.1; printf x >&2; exec 2>&-; sleep 0.1; exit 7\n");
  const InterruptedCalls interrupted;
  const publish::RcloneEnd end = publish::RunRclone({});
  EXPECT_EQ(end.exit_status, 7);
  EXPECT_THAT(end.errors, ElementsAre("one", "x"));
}

// It is where nobody has given this program a standard input.
TEST(RcloneTest, OutputMayBeTheFirstDescriptor) {
  const FakeRclone rclone("echo written\n");
  const int input = ::dup(STDIN_FILENO);
  ::close(STDIN_FILENO);
  {
    const publish::MemoryFile output("output");
    ASSERT_EQ(output.Get(), 0);
    EXPECT_EQ(publish::RunRclone({{"version"}, output.Get()}).exit_status, 0);
    EXPECT_EQ(output.Content(), "written\n");
  }
  ::dup2(input, STDIN_FILENO);
  ::close(input);
}

TEST(RcloneTest, ThatItIsNotInstalledIsToldWithThePackage) {
  const std::string before = std::getenv("PATH");
  ::mkdir("/tmp/programs", 0755);
  ASSERT_EQ(::symlink("/usr/bin/setpriv", "/tmp/programs/setpriv"), 0);
  ::setenv("PATH", "/tmp/programs", 1);
  EXPECT_THROW(
      try { publish::RunRclone({{"version"}}); } catch (const package::Error& error) {
        EXPECT_STREQ(error.what(), "rclone is not installed (Debian package rclone)");
        throw;
      },
      package::Error);
  ::setenv("PATH", before.c_str(), 1);
}

}  // namespace
}  // namespace tolm::testing

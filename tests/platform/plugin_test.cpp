#include "tolm/plugin.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/plugin_runner.h"
#include "tests/platform/scratch.h"
#include "tests/support/syslog_capture.h"
#include "tolm/err.h"
#include "tolm/exec.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kModule[] = "some_module";
constexpr char kPath[] = "some_module/some_moment";
constexpr auto kPre = SDK_PLUGIN_ACTION_PRE;
constexpr auto kPost = SDK_PLUGIN_ACTION_POST;
// "KEY=value" and its NUL fit exactly into one environment string.
const std::size_t kLongestValue = 131072 - sizeof "KEY=";

class PluginTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SyslogCapture::Clear();
    fs::remove_all(root_);
    fs::create_directories(directory_);
    ASSERT_EQ(TLIBPluginSDKInit(kModule, kPath, &handle_), 0);
    ASSERT_NE(handle_, nullptr);
  }
  ~PluginTest() override {
    TLIBPluginExit(handle_);
    fs::remove_all(root_);
    TLIBCExecCancel(0);
  }

  void AddPlugin(const std::string& name, const std::string& body) {
    WriteScript(directory_ + "/" + name, body);
  }

  // A plug-in that appends its name and action to the trace, and leaves with the status.
  void AddTracing(const std::string& name, int status = 0) {
    AddPlugin(name, "echo " + name + " \"$*\" >> " + trace_ + "; exit " + std::to_string(status));
  }

  std::vector<std::string> Trace() const {
    return fs::exists(trace_) ? ReadLines(trace_) : std::vector<std::string>();
  }

  // What is left in /tmp of values handed over in files.
  static std::vector<std::string> HandOverFiles() {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator("/tmp")) {
      if (entry.path().filename().string().rfind("tolm-plugin-", 0) == 0)
        names.push_back(entry.path());
    }
    return names;
  }

  ScratchDirectory scratch_;
  const std::string root_ = "/usr/tolm/lib/plugins/some_module";
  const std::string directory_ = root_ + "/some_moment";
  const std::string trace_ = scratch_ / "trace";
  const std::string out_ = scratch_ / "out";
  void* handle_ = nullptr;
};

// ---- Preparing ----

struct PathCase {
  const char* name;
  const char* path;
  bool accepted;
};

class PluginPathTest : public ::testing::TestWithParam<PathCase> {};

TEST_P(PluginPathTest, IsJudged) {
  int any = 0;
  void* handle = &any;
  EXPECT_EQ(TLIBPluginSDKInit(kModule, GetParam().path, &handle) == 0, GetParam().accepted);
  EXPECT_EQ(handle != nullptr, GetParam().accepted);
  if (!GetParam().accepted) {
    EXPECT_EQ(TLIBCErrGet(), EINVAL);
  }
  TLIBPluginExit(handle);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PluginPathTest,
    ::testing::Values(PathCase{"Usual", "database_autoupdate/version_change", true},
                      PathCase{"One", "a", true}, PathCase{"Dots", "a/...", true},
                      PathCase{"Empty", "", false}, PathCase{"Absolute", "/a", false},
                      PathCase{"Root", "/", false}, PathCase{"DotDot", "..", false},
                      PathCase{"DotDotFirst", "../a", false},
                      PathCase{"DotDotInside", "a/../b", false},
                      PathCase{"DotDotLast", "a/..", false}, PathCase{"Dot", "a/./b", false},
                      PathCase{"TwoSlashes", "a//b", false}, PathCase{"TrailingSlash", "a/", false},
                      PathCase{"Null", nullptr, false}),
    [](const auto& row) { return row.param.name; });

TEST_F(PluginTest, NullModuleOrHandleIsRefused) {
  void* handle = handle_;
  EXPECT_NE(TLIBPluginSDKInit(nullptr, kPath, &handle), 0);
  EXPECT_EQ(handle, nullptr);
  EXPECT_NE(TLIBPluginSDKInit(kModule, kPath, nullptr), 0);
  EXPECT_NE(TLIBPluginAction(kPre, nullptr), 0);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
  EXPECT_NE(TLIBPluginSetArg(nullptr, "KEY", "value"), 0);
  TLIBPluginExit(nullptr);
}

struct KeyCase {
  const char* name;
  const char* key;
  bool accepted;
};

class PluginKeyTest : public PluginTest, public ::testing::WithParamInterface<KeyCase> {};

TEST_P(PluginKeyTest, IsJudged) {
  EXPECT_EQ(TLIBPluginSetArg(handle_, GetParam().key, "value") == 0, GetParam().accepted);
  if (!GetParam().accepted) {
    EXPECT_EQ(TLIBCErrGet(), EINVAL);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, PluginKeyTest,
    ::testing::Values(KeyCase{"Usual", "CHANGED_FILES", true}, KeyCase{"Short", "K", true},
                      KeyCase{"Actions", "ACTIONS", true}, KeyCase{"FileWithout", "FILE", true},
                      KeyCase{"Empty", "", false}, KeyCase{"Equals", "A=B", false},
                      KeyCase{"EqualsFirst", "=A", false}, KeyCase{"Action", "ACTION", false},
                      KeyCase{"Path", "PATH", false}, KeyCase{"HandOver", "DATABASE_FILE", false},
                      KeyCase{"Null", nullptr, false}),
    [](const auto& row) { return row.param.name; });

TEST_F(PluginTest, NullValueIsRefused) {
  EXPECT_NE(TLIBPluginSetArg(handle_, "KEY", nullptr), 0);
}

// ---- Which plug-ins run, and in which order ----

TEST_F(PluginTest, RunInByteOrderOfTheirNamesWithTheActionAsArgument) {
  for (const char* name : {"b", "a", "\xc3\xa9", "B", "10-x", "9-x", "a.sh", "aa"})
    AddTracing(name);
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), 0);
  EXPECT_THAT(Trace(), ElementsAre("10-x pre", "9-x pre", "B pre", "a pre", "a.sh pre", "aa pre",
                                   "b pre", "\xc3\xa9 pre"));
}

TEST_F(PluginTest, RunOneAfterTheOther) {
  AddPlugin("1", "echo 1 begins >> " + trace_ + "; sleep 0.2; echo 1 ends >> " + trace_);
  AddPlugin("2", "echo 2 begins >> " + trace_);
  EXPECT_EQ(TLIBPluginAction(kPost, handle_), 0);
  EXPECT_THAT(Trace(), ElementsAre("1 begins", "1 ends", "2 begins"));
}

TEST_F(PluginTest, HiddenBackupAndDirectoryEntriesAreSkipped) {
  AddTracing(".hidden");
  AddTracing("backup~");
  fs::create_directory(directory_ + "/subdirectory");
  WriteScript(directory_ + "/subdirectory/inside", "echo inside >> " + trace_);
  fs::create_directory_symlink("subdirectory", directory_ + "/link-to-directory");
  AddTracing("plain");
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), 0);
  EXPECT_THAT(Trace(), ElementsAre("plain pre"));
}

TEST_F(PluginTest, LinksToExecutablesRun) {
  WriteScript(scratch_ / "elsewhere", "echo \"$0\" >> " + trace_);
  fs::create_symlink(scratch_ / "elsewhere", directory_ + "/link");
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), 0);
  EXPECT_THAT(Trace(), ElementsAre(directory_ + "/link"));
}

TEST_F(PluginTest, OneThatOthersMayWriteIsSkippedAndCountsAsFailed) {
  AddTracing("a");
  AddTracing("b");
  ASSERT_EQ(chmod((directory_ + "/a").c_str(), 0775), 0);
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), -1);
  EXPECT_EQ(TLIBCErrGet(), EPERM);
  EXPECT_THAT(Trace(), ElementsAre("b pre"));
  ASSERT_THAT(SyslogCapture::Lines(), SizeIs(1));
  EXPECT_THAT(SyslogCapture::Lines()[0].text,
              HasSubstr("Plug-in " + directory_ + "/a (pre) was not run: " + directory_ +
                        "/a can be written by group"));
}

TEST_F(PluginTest, OneOfSomebodyElseIsSkipped) {
  AddTracing("a");
  if (chown((directory_ + "/a").c_str(), 1000, 1000) != 0) {
    GTEST_SKIP() << "there is one user only";
  }
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), -1);
  EXPECT_THAT(Trace(), IsEmpty());
}

TEST_F(PluginTest, NoneRunsFromADirectoryThatOthersMayWrite) {
  AddTracing("a");
  for (const std::string& directory : {directory_, root_}) {
    ASSERT_EQ(chmod(directory.c_str(), 0777), 0);
    EXPECT_EQ(TLIBPluginAction(kPre, handle_), -1) << directory;
    ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
  }
  EXPECT_THAT(Trace(), IsEmpty());
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), 0);
}

TEST_F(PluginTest, TheWayBehindALinkCounts) {
  const std::string elsewhere = scratch_ / "elsewhere";
  fs::create_directory(elsewhere);
  WriteScript(elsewhere + "/plugin", "echo ran >> " + trace_);
  fs::create_symlink(elsewhere + "/plugin", directory_ + "/link");
  ASSERT_EQ(chmod(elsewhere.c_str(), 0777), 0);
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), -1);
  EXPECT_THAT(Trace(), IsEmpty());
  ASSERT_EQ(chmod(elsewhere.c_str(), 0755), 0);
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), 0);
  EXPECT_THAT(Trace(), ElementsAre("ran"));
}

TEST_F(PluginTest, NoneIsSuccess) {
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), 0);
  fs::remove_all(root_);
  EXPECT_EQ(TLIBPluginAction(kPost, handle_), 0);
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST_F(PluginTest, ADirectoryThatCannotBeListedIsAFailure) {
  fs::remove(directory_);
  WriteFile(directory_, "");
  EXPECT_NE(TLIBPluginAction(kPre, handle_), 0);
  EXPECT_EQ(TLIBCErrGet(), ENOTDIR);
  EXPECT_THAT(LogTexts(),
              ElementsAre("Plug-ins in " + directory_ + " were not run: Not a directory"));
}

TEST_F(PluginTest, OtherActionsAreRefused) {
  AddTracing("a");
  EXPECT_NE(TLIBPluginAction(static_cast<_tag_sdk_plugin_action_>(0), handle_), 0);
  EXPECT_NE(TLIBPluginAction(static_cast<_tag_sdk_plugin_action_>(3), handle_), 0);
  EXPECT_NE(TLIBPluginAction(static_cast<_tag_sdk_plugin_action_>(6), handle_), 0);
  EXPECT_EQ(TLIBCErrGet(), EINVAL);
  EXPECT_THAT(Trace(), IsEmpty());
}

// ---- Failures ----

struct FailureCase {
  const char* name;
  const char* body;  // of the plug-in in the middle; empty: a file that cannot be executed
  int error;
  std::vector<std::string> log;  // behind "Plug-in <its path> (post)"
};

class PluginFailureTest : public PluginTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(PluginFailureTest, IsReportedAndTheOthersRun) {
  const FailureCase& row = GetParam();
  AddTracing("1");
  if (*row.body != '\0')
    AddPlugin("2", row.body);
  else
    WriteFile(directory_ + "/2", "#!/bin/sh\n");
  AddTracing("3");
  EXPECT_NE(TLIBPluginAction(kPost, handle_), 0);
  EXPECT_EQ(TLIBCErrGet(), row.error);
  EXPECT_THAT(Trace(), ElementsAre("1 post", "3 post"));
  const std::vector<SyslogLine> log = SyslogCapture::Lines();
  ASSERT_THAT(log, SizeIs(row.log.size()));
  for (std::size_t i = 0; i < log.size(); ++i) {
    EXPECT_EQ(log[i].text, "Plug-in " + directory_ + "/2 (post)" + row.log[i]);
    EXPECT_EQ(LOG_PRI(log[i].priority), LOG_WARNING);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, PluginFailureTest,
    ::testing::Values(FailureCase{"Status",
                                  "echo out; echo one >&2; echo two >&2; exit 3",
                                  EIO,
                                  {" failed with status 3", ": one", ": two"}},
                      FailureCase{"Signal", "kill -KILL $$", EIO, {" failed with status 137"}},
                      FailureCase{
                          "NotExecutable", "", EACCES, {" could not be run: Permission denied"}}),
    [](const auto& row) { return row.param.name; });

TEST_F(PluginTest, ADanglingLinkIsAFailure) {
  fs::create_symlink("nowhere", directory_ + "/1");
  AddTracing("2");
  EXPECT_NE(TLIBPluginAction(kPre, handle_), 0);
  EXPECT_EQ(TLIBCErrGet(), ENOENT);
  EXPECT_THAT(Trace(), ElementsAre("2 pre"));
}

TEST_F(PluginTest, TheFirstFailureIsTheError) {
  AddTracing("1", 1);
  fs::create_symlink("nowhere", directory_ + "/2");
  EXPECT_NE(TLIBPluginAction(kPre, handle_), 0);
  EXPECT_EQ(TLIBCErrGet(), EIO);
}

TEST_F(PluginTest, TheTimeLimitIsFiveMinutes) {
  EXPECT_EQ(platform::kPluginTimeLimit, std::chrono::seconds(300));
}

TEST_F(PluginTest, OneBeyondTheTimeLimitIsEndedWithItsGroupAndTheNextRuns) {
  Fifo group(scratch_ / "group");
  AddPlugin("1", "exec 9> " + (scratch_ / "group") + "; sleep 1000 & echo ready >&9; wait");
  AddTracing("2");
  int error = 0;
  std::thread action([&] { error = platform::RunPlugins({kPath, {}}, "pre", milliseconds(2000)); });
  group.WaitForEnd();
  action.join();
  EXPECT_EQ(error, ETIMEDOUT);
  EXPECT_THAT(Trace(), ElementsAre("2 pre"));
  EXPECT_THAT(LogTexts(),
              ElementsAre("Plug-in " + directory_ +
                          "/1 (pre) exceeded its time limit and ended with status 143"));
}

TEST_F(PluginTest, CancellingProgramsDoesNotTouchPlugins) {
  Fifo ready(scratch_ / "ready");
  ASSERT_EQ(mkfifo((scratch_ / "go").c_str(), 0600), 0);
  AddPlugin("1", "echo ready > " + (scratch_ / "ready") + "; read line < " + (scratch_ / "go") +
                     "; echo $line >> " + trace_);
  AddTracing("2");
  int result = -1;
  std::thread action([&] { result = TLIBPluginAction(kPost, handle_); });
  EXPECT_EQ(ready.ReadLine(), "ready");
  TLIBCExecCancel(1);
  WriteFile(scratch_ / "go", "to the end\n");
  action.join();
  EXPECT_EQ(result, 0);
  EXPECT_THAT(Trace(), ElementsAre("to the end", "2 post"));
}

// ---- What plug-ins are given ----

TEST_F(PluginTest, TheEnvironmentIsTheArgumentsThePathAndTheActionOnly) {
  AddPlugin("a", "exec cat /proc/self/environ > " + out_);
  setenv("LD_TEST_LEAK", "leaked", 1);
  EXPECT_EQ(TLIBPluginSetArg(handle_, "DATABASE", "geo ip"), 0);
  EXPECT_EQ(TLIBPluginSetArg(handle_, "CHANGED_FILES", ""), 0);
  EXPECT_EQ(TLIBPluginSetArg(handle_, "DELIMITER", "old"), 0);
  EXPECT_EQ(TLIBPluginSetArg(handle_, "DELIMITER", ":"), 0);
  EXPECT_EQ(TLIBPluginAction(kPost, handle_), 0);
  std::vector<std::string> variables;
  const std::string block = ReadFile(out_);
  for (std::size_t begin = 0; begin < block.size(); begin = block.find('\0', begin) + 1)
    variables.emplace_back(block.c_str() + begin);
  // A shell that runs a script exports PWD by itself.
  EXPECT_THAT(variables, ::testing::UnorderedElementsAre("PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                                                         "ACTION=post", "DATABASE=geo ip",
                                                         "CHANGED_FILES=", "DELIMITER=:", "PWD=/"));
}

TEST_F(PluginTest, ArgumentsStayForTheNextAction) {
  AddPlugin("a", "echo $ACTION $1 $KEY >> " + trace_);
  EXPECT_EQ(TLIBPluginSetArg(handle_, "KEY", "value"), 0);
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), 0);
  EXPECT_EQ(TLIBPluginAction(kPost, handle_), 0);
  EXPECT_THAT(Trace(), ElementsAre("pre pre value", "post post value"));
}

TEST_F(PluginTest, TheWorkingDirectoryIsTheRoot) {
  ASSERT_EQ(chdir("/tmp"), 0);
  AddPlugin("a", "pwd -P >> " + trace_);
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), 0);
  EXPECT_THAT(Trace(), ElementsAre("/"));
}

TEST_F(PluginTest, TheLongestValueThatFitsIsHandedOverInTheEnvironment) {
  AddPlugin("a", "printf %s \"$KEY\" > " + out_ + "; echo ${KEY_FILE-unset} >> " + trace_);
  const std::string value(kLongestValue, 'x');
  EXPECT_EQ(TLIBPluginSetArg(handle_, "KEY", value.c_str()), 0);
  EXPECT_EQ(TLIBPluginAction(kPre, handle_), 0);
  EXPECT_TRUE(ReadFile(out_) == value);
  EXPECT_THAT(Trace(), ElementsAre("unset"));
}

TEST_F(PluginTest, OneMoreByteIsHandedOverInAPrivateFileThatIsRemovedAfterwards) {
  const std::string body = "cat \"$KEY_FILE\" > " + out_ + "; echo ${KEY-unset} >> " + trace_ +
                           "; stat -c %a \"$KEY_FILE\" >> " + trace_;
  AddPlugin("a", body);
  AddPlugin("b", body);
  const std::string value = std::string(kLongestValue, 'x') + "y";
  EXPECT_EQ(TLIBPluginSetArg(handle_, "KEY", value.c_str()), 0);
  EXPECT_EQ(TLIBPluginSetArg(handle_, "OTHER", "short"), 0);
  EXPECT_EQ(TLIBPluginAction(kPost, handle_), 0);
  EXPECT_TRUE(ReadFile(out_) == value);
  EXPECT_THAT(Trace(), ElementsAre("unset", "600", "unset", "600"));
  EXPECT_THAT(HandOverFiles(), IsEmpty());
}

TEST_F(PluginTest, AHandOverFileIsRemovedAfterAFailureToo) {
  AddPlugin("a", "exit 1");
  EXPECT_EQ(TLIBPluginSetArg(handle_, "KEY", std::string(300000, 'x').c_str()), 0);
  EXPECT_NE(TLIBPluginAction(kPost, handle_), 0);
  EXPECT_THAT(HandOverFiles(), IsEmpty());
}

TEST_F(PluginTest, AnEnvironmentTooLargeAsAWholeIsHandedOverInFiles) {
  // 40 values that fit one by one, but not together: the kernel takes 2 MiB at the usual stack
  // limit.
  const std::string value(120000, 'x');
  for (int i = 10; i < 50; ++i)
    EXPECT_EQ(TLIBPluginSetArg(handle_, ("KEY" + std::to_string(i)).c_str(), value.c_str()), 0);
  EXPECT_EQ(TLIBPluginSetArg(handle_, "SMALL", "small"), 0);
  AddPlugin("a",
            "for i in 1 2 3 4; do for j in 0 1 2 3 4 5 6 7 8 9; do\n"
            "eval \"value=\\${KEY$i$j-} file=\\${KEY$i${j}_FILE-}\"\n"
            "if [ -n \"$file\" ]; then size=$(stat -c %s \"$file\"); else size=${#value}; fi\n"
            "echo $size $SMALL >> " +
                trace_ + "\ndone; done");
  EXPECT_EQ(TLIBPluginAction(kPost, handle_), 0);
  EXPECT_EQ(Trace(), std::vector<std::string>(40, "120000 small"));
  EXPECT_THAT(HandOverFiles(), IsEmpty());
}

TEST_F(PluginTest, NoneRunsWhenAnArgumentCannotBeHandedOver) {
  AddPlugin("a", "echo ran >> /run/plugin-trace");
  EXPECT_EQ(TLIBPluginSetArg(handle_, "KEY", std::string(300000, 'x').c_str()), 0);
  ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "size=64k"), 0);
  EXPECT_NE(TLIBPluginAction(kPost, handle_), 0);
  EXPECT_EQ(TLIBCErrGet(), ENOSPC);
  EXPECT_THAT(HandOverFiles(), IsEmpty());
  umount("/tmp");
  EXPECT_FALSE(fs::exists("/run/plugin-trace"));
  EXPECT_THAT(LogTexts(),
              ElementsAre("Plug-ins in " + directory_ + " were not run: No space left on device"));
}

}  // namespace
}  // namespace tolm::testing

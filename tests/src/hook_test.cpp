#include "dataupdate/hook.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <memory>

#include "tests/support/fake_platform.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/vtable_slot.h"

namespace tolm::testing {
namespace {

using dataupdate::UpdateHook;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kInit[] = "plugin init database_autoupdate database_autoupdate/version_change";
constexpr char kInitFailure[] =
    "Failed to init hook in module [database_autoupdate] and path "
    "[database_autoupdate/version_change]";
constexpr char kNotInit[] = "Not init or init failed";

std::vector<std::string> Errors() {
  return SyslogCapture::TextsWithoutPlace(LOG_ERR);
}

class UpdateHookTest : public ::testing::Test {
 protected:
  FakePlatform platform_;
};

TEST_F(UpdateHookTest, VirtualOperationsKeepTheirSlots) {
  EXPECT_TRUE(std::has_virtual_destructor_v<UpdateHook>);
  EXPECT_EQ(VtableSlot(&UpdateHook::ExecPre), 2U);
  EXPECT_EQ(VtableSlot(&UpdateHook::ExecPost), 3U);
  EXPECT_EQ(VtableSlot(&UpdateHook::Clear), 4U);
  EXPECT_THROW(VtableSlot(&UpdateHook::SetEnv), std::logic_error);
  EXPECT_THROW(VtableSlot(&UpdateHook::ExecAction), std::logic_error);
}

TEST_F(UpdateHookTest, PlugInsLearnDatabaseFilesAndDelimiterInThisOrder) {
  { const UpdateHook hook("x", {"/a/y.db", "/a/x.db"}); }
  EXPECT_THAT(platform_.Calls(), ElementsAre(kInit, "plugin set DATABASE=x",
                                             "plugin set CHANGED_FILES=/a/x.db:/a/y.db",
                                             "plugin set DELIMITER=:", "plugin exit"));
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST_F(UpdateHookTest, FilesAreJoinedInByteOrderWithoutEscaping) {
  EXPECT_EQ(UpdateHook::JoinFiles({"/a/x.db", "/a/y.db"}), "/a/x.db:/a/y.db");
  EXPECT_EQ(UpdateHook::JoinFiles({"/a/x.db"}), "/a/x.db");
  EXPECT_EQ(UpdateHook::JoinFiles({}), "");
  EXPECT_EQ(UpdateHook::JoinFiles({"b", "Z", "a", "\xc3\xa4"}), "Z:a:b:\xc3\xa4");
  EXPECT_EQ(UpdateHook::JoinFiles({"with:colon", "a\nb"}), "a\nb:with:colon");
  EXPECT_EQ(UpdateHook::JoinFiles({""}), "");
  EXPECT_EQ(UpdateHook::JoinFiles({"", "a"}), ":a");
}

TEST_F(UpdateHookTest, LongListsAreNotCut) {
  std::set<std::string> files;
  for (int i = 0; i < 20000; ++i) {
    files.insert("/directory/file" + std::to_string(i));
  }
  const UpdateHook hook("x", files);
  EXPECT_EQ(platform_.Calls().at(2), "plugin set CHANGED_FILES=" + UpdateHook::JoinFiles(files));
  EXPECT_GT(platform_.Calls().at(2).size(), 300000U);
}

TEST_F(UpdateHookTest, PreIsActionFourAndPostIsActionFive) {
  UpdateHook hook("x", {});
  EXPECT_TRUE(hook.ExecPre());
  EXPECT_TRUE(hook.ExecPost());
  EXPECT_EQ(platform_.Calls().at(4), "plugin action 4");
  EXPECT_EQ(platform_.Calls().at(5), "plugin action 5");
}

TEST_F(UpdateHookTest, FailedInitWithoutHandleIsSaidOnceAndByEveryCall) {
  platform_.plugin_init_result = -1;
  platform_.plugin_init_gives_handle = false;
  {
    UpdateHook hook("x", {"a"});
    EXPECT_THAT(Errors(), ElementsAre(kInitFailure, kNotInit, kNotInit, kNotInit));
    SyslogCapture::Clear();
    EXPECT_FALSE(hook.ExecPre());
    EXPECT_THAT(Errors(), ElementsAre(kNotInit));
    EXPECT_FALSE(hook.ExecPost());
    EXPECT_FALSE(hook.SetEnv("K", "V"));
    EXPECT_THAT(Errors(), ElementsAre(kNotInit, kNotInit, kNotInit));
  }
  EXPECT_THAT(platform_.Calls(), ElementsAre(kInit));
}

TEST_F(UpdateHookTest, FailedInitThatGaveAHandleLeavesTheObjectUsable) {
  platform_.plugin_init_result = 7;
  {
    UpdateHook hook("x", {});
    EXPECT_THAT(Errors(), ElementsAre(kInitFailure));
    EXPECT_TRUE(hook.ExecPre());
  }
  EXPECT_THAT(platform_.Calls(),
              ElementsAre(kInit, "plugin set DATABASE=x", "plugin set CHANGED_FILES=",
                          "plugin set DELIMITER=:", "plugin action 4", "plugin exit"));
}

TEST_F(UpdateHookTest, EachRefusedArgumentIsSaid) {
  platform_.plugin_set_result = 1;
  UpdateHook hook("x", {"a", "b"});
  EXPECT_THAT(Errors(), ElementsAre("Failed to set plugin argument key=DATABASE value=x",
                                    "Failed to set plugin argument key=CHANGED_FILES value=a:b",
                                    "Failed to set plugin argument key=DELIMITER value=:"));
  EXPECT_FALSE(hook.SetEnv("K", "100%s"));
  EXPECT_EQ(Errors().back(), "Failed to set plugin argument key=K value=100%s");
  platform_.plugin_set_result = 0;
  EXPECT_TRUE(hook.SetEnv("K", "V"));
}

TEST_F(UpdateHookTest, FailedActionIsSaidWithItsNumber) {
  platform_.plugin_action = [](int) { return 1; };
  UpdateHook hook("x", {});
  EXPECT_FALSE(hook.ExecPre());
  EXPECT_FALSE(hook.ExecPost());
  EXPECT_THAT(Errors(), ElementsAre("Failed to exec hook at action [4]",
                                    "Failed to exec hook at action [5]"));
}

TEST_F(UpdateHookTest, LogLinesNameTheSource) {
  platform_.plugin_init_result = -1;
  platform_.plugin_init_gives_handle = false;
  const UpdateHook hook("x", {});
  ASSERT_EQ(SyslogCapture::Lines().size(), 4U);
  EXPECT_EQ(SyslogCapture::Lines()[0].format,
            "%s:%d Failed to init hook in module [%s] and path [%s]");
  for (const SyslogLine& line : SyslogCapture::Lines()) {
    EXPECT_THAT(line.text, StartsWith("hook:"));
  }
}

TEST_F(UpdateHookTest, ClearReleasesAndKeepsTheHandle) {
  UpdateHook hook("x", {});
  hook.Clear();
  EXPECT_EQ(platform_.Calls().back(), "plugin exit");
  EXPECT_TRUE(hook.SetEnv("K", "V")) << "the handle is not forgotten";
}

TEST_F(UpdateHookTest, CopySharesTheHandleAndBothReleaseIt) {
  {
    UpdateHook hook("x", {});
    UpdateHook copy(hook);
    EXPECT_THAT(platform_.plugin_exits, ::testing::SizeIs(1));
    EXPECT_TRUE(copy.ExecPre());
    EXPECT_TRUE(hook.ExecPost());
    EXPECT_EQ(platform_.plugin_exits.begin()->second, 0);
  }
  EXPECT_EQ(platform_.plugin_exits.begin()->second, 2);
}

TEST_F(UpdateHookTest, AssignmentReleasesTheOwnHandleFirst) {
  {
    UpdateHook first("first", {});
    UpdateHook second("second", {});
    const std::size_t calls_before = platform_.Calls().size();
    first = second;
    EXPECT_EQ(platform_.Calls().size(), calls_before + 1);
    EXPECT_EQ(platform_.Calls().back(), "plugin exit");
    EXPECT_TRUE(first.ExecPre());
  }
  std::vector<int> exits;
  for (const auto& handle : platform_.plugin_exits) {
    exits.push_back(handle.second);
  }
  EXPECT_THAT(exits, ::testing::UnorderedElementsAre(1, 2));
}

TEST_F(UpdateHookTest, SelfAssignmentDoesNothing) {
  UpdateHook hook("x", {});
  const UpdateHook& same = hook;
  const std::size_t calls_before = platform_.Calls().size();
  hook = same;
  EXPECT_EQ(platform_.Calls().size(), calls_before);
  EXPECT_TRUE(hook.ExecPre());
}

TEST_F(UpdateHookTest, AssignmentClearsThroughTheVirtualOperation) {
  struct Counting : UpdateHook {
    using UpdateHook::UpdateHook;
    void Clear() override {
      ++cleared;
      UpdateHook::Clear();
    }
    int cleared = 0;
  };
  Counting first("first", {});
  const UpdateHook second("second", {});
  static_cast<UpdateHook&>(first) = second;
  EXPECT_EQ(first.cleared, 1);
}

TEST_F(UpdateHookTest, UninitialisedOriginalIsCopiedAsSuch) {
  platform_.plugin_init_result = -1;
  platform_.plugin_init_gives_handle = false;
  const UpdateHook hook("x", {});
  UpdateHook copy(hook);
  EXPECT_FALSE(copy.ExecPre());
  EXPECT_EQ(Errors().back(), kNotInit);
}

}  // namespace
}  // namespace tolm::testing

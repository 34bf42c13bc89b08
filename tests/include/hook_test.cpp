#include "dataupdate/hook.h"

#include <gtest/gtest.h>

namespace tolm::dataupdate {
namespace {

TEST(PublicHeaderTest, HookIsUsableAlone) {
  EXPECT_EQ(UpdateHook::JoinFiles({"/b", "/a"}), "/a:/b");
  UpdateHook hook("x", {"/a"});
  EXPECT_TRUE(hook.SetEnv("KEY", "value"));
  EXPECT_TRUE(hook.ExecAction(SDK_PLUGIN_ACTION_PRE)) << "there are no plug-ins";
  EXPECT_TRUE(hook.ExecPre());
  EXPECT_TRUE(hook.ExecPost());
}

// Every one of several copies would release the handle: these live on, and one is cleared.
TEST(PublicHeaderTest, HookIsCopiedAlone) {
  static auto* const original = new UpdateHook("x", {});
  static auto* const copy = new UpdateHook(*original);
  static auto* const assigned = new UpdateHook("y", {});
  *assigned = *original;
  EXPECT_TRUE(copy->ExecPre());
  EXPECT_TRUE(assigned->ExecPre());
  assigned->Clear();
}

}  // namespace
}  // namespace tolm::dataupdate

// The installed tool and deltas whose patches do not end or do not fit: the full package is taken
// in their place, and a signal ends them at once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/preload.h"
#include "tests/support/wait.h"
#include "tests/tools/device.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr char kDecoder[] = "/usr/tolm/sbin/tolmdbudvcdiff";
constexpr char kWork[] = "/volume1/@tmp/data_update/oui_sum";
constexpr char kEndlessScript[] =
    "CREATE TABLE t AS WITH RECURSIVE r(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM r) "
    "SELECT count(*) FROM r\n";
constexpr char kScriptThatGrows[] =
    "CREATE TABLE t AS WITH RECURSIVE r(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM r) "
    "SELECT zeroblob(1048576) FROM r\n";

CommandOptions InFastTime() {
  return {Preload(TOLM_FAST_CLOCK_LIBRARY), "", ""};
}

class TolmdbudPatchBoundsTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    ASSERT_EQ(RunCommand({"sqlite3", "/tmp/a.db", "CREATE TABLE old(x)"}).exit_status, 0);
    before_ = {{"a.db", ReadFile("/tmp/a.db")}};
    publisher_.PackFull("oui", 3, before_);
    publisher_.Offer("oui", 3);
    ASSERT_EQ(Tool({"update", "oui"}).out, "oui: updated to 3\n");
    publisher_.PackFull("oui", 4, after_);
  }

  void OfferPatch(const std::string& extension, const std::string& patch) {
    publisher_.PackDelta(
        "oui", 4, R"({"/a.db": {"operation": "update", "input_file": "a)" + extension + "\"}}",
        {{"a" + extension, patch}});
    publisher_.Offer("oui", 4, {4});
  }

  // A program that never ends by itself, in the decoder's place.
  static void ReplaceDecoder() {
    fs::remove(kDecoder);
    WriteFile(kDecoder, "#!/bin/sh\n: > /tmp/decoding\nexec sleep infinity\n");
    fs::permissions(kDecoder, fs::perms::owner_all);
  }

  void ExpectFullPackage(const CommandOptions& options, const std::string& logged) {
    const CommandResult result = RunCommand({kTool, "update", "oui", "-vv"}, options);
    EXPECT_EQ(result.out, "oui: updated to 4\n") << result.err;
    EXPECT_THAT(result.err, HasSubstr(logged));
    EXPECT_THAT(result.err, HasSubstr("Diff update fail, try full update: "));
    EXPECT_EQ(ReadTree(prefix_), after_);
    ExpectNothingLeft();
  }

  void ExpectEndBySignal(const std::string& sign_of_work) {
    RunningCommand tool({kTool, "update", "oui"});
    ASSERT_TRUE(WaitUntil([&] { return fs::exists(sign_of_work); }));
    tool.Process().Signal(SIGTERM);
    EXPECT_EQ(tool.Wait().exit_status, 128 + SIGTERM);
    EXPECT_EQ(ReadTree(prefix_), before_);
    ExpectNothingLeft();
  }

  const ScopedMount volume_ = ScopedMount::Tmpfs("/volume1", 20 << 20);
  Tree before_;
  const Tree after_ = {{"a.db", "new"}};
};

TEST_F(TolmdbudPatchBoundsTest, ScriptWithoutAnEndIsGivenUpAfterAnHour) {
  OfferPatch(".sqlitediff", kEndlessScript);
  ExpectFullPackage(InFastTime(), "an SQL script is ended after 3600 s");
}

TEST_F(TolmdbudPatchBoundsTest, ScriptThatFillsTheVolumeIsGivenUp) {
  OfferPatch(".sqlitediff", kScriptThatGrows);
  ExpectFullPackage({}, "Fail apply sql cmd: disk I/O error");
}

TEST_F(TolmdbudPatchBoundsTest, DecoderWithoutAnEndIsGivenUpAfterAnHour) {
  OfferPatch(".vcdiff", "delta");
  ReplaceDecoder();
  ExpectFullPackage(InFastTime(), "a binary delta is ended after 3600 s");
}

TEST_F(TolmdbudPatchBoundsTest, SignalEndsAScript) {
  OfferPatch(".sqlitediff", kEndlessScript);
  ExpectEndBySignal(std::string(kWork) + "/_a_db");
}

TEST_F(TolmdbudPatchBoundsTest, SignalEndsTheDecoder) {
  OfferPatch(".vcdiff", "delta");
  ReplaceDecoder();
  ExpectEndBySignal("/tmp/decoding");
}

}  // namespace
}  // namespace tolm::testing

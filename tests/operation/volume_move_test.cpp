// The installed tool, cut short while it moves the databases to another volume: the next event
// leaves them whole on one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "tests/operation/versioned_device.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/killed_run.h"
#include "tests/support/moments.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr int kKilled = 128 + SIGKILL;

class VolumeMoveTest : public VersionedDeviceTest {
 protected:
  VolumeMoveTest() : VersionedDeviceTest({2000, 1, 0}) {}

  void SetUp() override {
    AdoptOrphans();
    VersionedDeviceTest::SetUp();
    Install(kNew);
    Keep();
    Begin();
    calls_ = TraceFileChanges(kMove);
    for (std::size_t i = 0; i < calls_.size(); ++i) {
      if (calls_[i] == "posix_spawn /bin/mv") {
        move_ = i + 1;
      }
    }
    ASSERT_GT(move_, 1u) << ::testing::PrintToString(calls_);
    Begin();
  }

  // As it was before the move.
  static void Begin() {
    fs::remove_all("/volume2/@database");
    Restore();
    WriteFile("/usr/tolm/etc/data_update/data_update.conf",
              R"({"config": {"cur_volume": "/volume1"}})");
  }

  // Where the tool was when the power went; nothing is moved yet.
  void CutBeforeTheMove() const {
    ASSERT_EQ(RunUntilFileChange(kMove, move_).exit_status, kKilled);
    ASSERT_TRUE(fs::exists(kMark));
  }

  void ExpectNewVersionOn(const fs::path& place) {
    const fs::path other = place == kVolumePrefix ? kOther : kVolumePrefix;
    EXPECT_EQ(ReadTree(place / "oui"), new_);
    EXPECT_TRUE(!fs::exists(other) || fs::is_empty(other))
        << ::testing::PrintToString(ListTree(other));
    EXPECT_FALSE(fs::exists(kMark));
    const CommandResult verified = Tool({"verify", "oui"});
    EXPECT_EQ(verified.exit_status, 0) << verified.out;
  }

  inline static const fs::path kOther = "/volume2/@database/autoupdate";
  inline static const fs::path kMark = "/var/lib/data_update/move.json";
  inline static const std::vector<std::string> kMove = {kTool, "volume", "unmounting", "/volume1"};
  std::vector<std::string> calls_;
  std::size_t move_ = 0;  ///< The number of the call that starts it.
};

TEST_F(VolumeMoveTest, KilledAnywhereItEndsOnOneVolumeAtTheNextStart) {
  const std::size_t step = MomentStep(calls_.size());
  std::cout << calls_.size() << " calls\n";
  for (std::size_t i = 0; i < calls_.size(); ++i) {
    // In any case before and after the move was started.
    if (i % step != 0 && i + 1 != move_ && i != move_) {
      continue;
    }
    SCOPED_TRACE("killed before call " + std::to_string(i + 1) + ": " + calls_[i]);
    Begin();
    EXPECT_EQ(RunUntilFileChange(kMove, i + 1).exit_status, kKilled);
    const CommandResult result = Tool({"init"});
    EXPECT_EQ(result.exit_status, 0) << result.err;
    WaitForOrphans();
    ExpectNewVersionOn(result.out == "volume: /volume2\n" ? kOther : kVolumePrefix);
  }
}

// Or a power failure would bring back what was removed from the first volume.
TEST_F(VolumeMoveTest, IsForgottenAfterBothVolumesAreOnTheDisk) {
  const auto at = [this](const std::string& call) {
    const auto found =
        std::find(calls_.begin() + static_cast<std::ptrdiff_t>(move_), calls_.end(), call);
    EXPECT_NE(found, calls_.end()) << call << ": " << ::testing::PrintToString(calls_);
    return found;
  };
  const auto forgotten = at("remove " + kMark.string());
  EXPECT_LT(at("syncfs /volume1"), forgotten);
  EXPECT_LT(at("syncfs /volume2"), forgotten);
}

TEST_F(VolumeMoveTest, HalfACopyGoes) {
  CutBeforeTheMove();
  fs::create_directories(kOther);
  fs::copy(kVolumePrefix, kOther, fs::copy_options::recursive);
  fs::remove(kOther / "oui/a.bin");
  WriteFile(kOther / "oui/keep/0", "half");
  EXPECT_EQ(Tool({"init"}).out, "volume: /volume1\n");
  ExpectNewVersionOn(kVolumePrefix);
}

TEST_F(VolumeMoveTest, OperationSettlesItToo) {
  CutBeforeTheMove();
  fs::create_directories(kOther / "oui");
  fs::copy_file(prefix_ / "a.bin", kOther / "oui/a.bin");
  const CommandResult result = Tool({"fix", "oui"});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(result.out, "oui: intact\n");
  ExpectNewVersionOn(kVolumePrefix);
}

TEST_F(VolumeMoveTest, WholeCopyStaysWhenTheOtherIsNotWholeAnyMore) {
  CutBeforeTheMove();
  fs::create_directories(kOther);
  fs::copy(kVolumePrefix, kOther, fs::copy_options::recursive);
  fs::remove(prefix_ / "keep/0");
  EXPECT_EQ(Tool({"init"}).out, "volume: /volume2\n");
  ExpectNewVersionOn(kOther);
}

// What was chosen had not come to the disk.
TEST_F(VolumeMoveTest, WhatIsWholeCountsAndNotWhatTheSettingsSay) {
  CutBeforeTheMove();
  fs::create_directories(kOther);
  fs::rename(kVolumePrefix / "oui", "/volume1/moved");
  fs::copy("/volume1/moved", kOther / "oui", fs::copy_options::recursive);
  WriteFile("/usr/tolm/etc/data_update/data_update.conf",
            R"({"config": {"cur_volume": "/volume1"}})");
  EXPECT_EQ(Tool({"init"}).out, "volume: /volume2\n");
  ExpectNewVersionOn(kOther);
}

TEST_F(VolumeMoveTest, IsDoneAgainWhenTheVolumeGoesAwayAgain) {
  CutBeforeTheMove();
  fs::create_directories(kOther);
  fs::copy(kVolumePrefix, kOther, fs::copy_options::recursive);
  WriteFile(kOther / "oui/keep/0", "half");
  const CommandResult result = Tool({"volume", "unmounting", "/volume1"});
  EXPECT_EQ(result.out, "volume: /volume2 (was none)\n") << result.err;
  ExpectNewVersionOn(kOther);
}

TEST_F(VolumeMoveTest, VolumeThatComesLaterIsClearedThen) {
  CutBeforeTheMove();
  fs::create_directories(kOther);
  fs::copy(kVolumePrefix, kOther, fs::copy_options::recursive);
  WriteFile("/usr/tolm/etc/volumes.conf", "/volume2\n");
  EXPECT_EQ(Tool({"init"}).out, "volume: /volume2\n");
  EXPECT_EQ(Tool({"volume", "unmounting", "/volume3"}).out, "volume: /volume2\n");
  EXPECT_TRUE(fs::exists(kMark));
  fs::remove("/usr/tolm/etc/volumes.conf");
  EXPECT_EQ(Tool({"volume", "mounted", "/volume1"}).out, "volume: /volume2\n");
  ExpectNewVersionOn(kOther);
}

TEST_F(VolumeMoveTest, WhatStoodThereBeforeIsNoCopy) {
  WriteFile(kOther / "geo/file", "of another appliance");
  EXPECT_NE(Tool({"volume", "unmounting", "/volume1"}).exit_status, 0);
  EXPECT_FALSE(fs::exists(kMark));
  EXPECT_EQ(Tool({"init"}).out, "volume: /volume1\n");
  EXPECT_EQ(ReadFile(kOther / "geo/file"), "of another appliance");
  EXPECT_EQ(ReadTree(prefix_), new_);
}

TEST_F(VolumeMoveTest, MarkThatCannotBeReadIsNoReasonToRemoveAnything) {
  WriteFile(kMark, "{");
  WriteFile(kOther / "oui/file", "x");
  EXPECT_EQ(Tool({"init"}).out, "volume: /volume1\n");
  EXPECT_EQ(ReadTree(prefix_), new_);
  EXPECT_EQ(ReadFile(kOther / "oui/file"), "x");
  EXPECT_EQ(ReadFile(kMark.string() + ".aside"), "{");
}

}  // namespace
}  // namespace tolm::testing

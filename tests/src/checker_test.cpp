// Tests of the checker and of the start, which stand in update.cpp as well.

#include <gmock/gmock.h>
#include <json/json.h>
#include <syslog.h>

#include <filesystem>
#include <memory>

#include "dataupdate/update.h"
#include "tests/src/engine_support.h"
#include "tests/src/fake_time.h"
#include "tests/src/service_doubles.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_platform.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/vtable_slot.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::Checker;
using dataupdate::FakeTime;
using dataupdate::InitService;
using dataupdate::UpdateError;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kAnyLock[] = "/run/data_update/update_any.lock";
constexpr char kXLock[] = "/run/data_update/update_x.lock";

class CheckerTest : public ::testing::Test {
 protected:
  CheckerTest() { config_->Add("x"); }

  Journal journal_;
  std::shared_ptr<FakeServiceConfig> config_ = std::make_shared<FakeServiceConfig>(journal_);
  const Checker checker_ = Checker(config_);
};

TEST_F(CheckerTest, VirtualOperationsKeepTheirSlots) {
  EXPECT_TRUE(std::has_virtual_destructor_v<Checker>);
  EXPECT_EQ(VtableSlot(&Checker::IsUpdating), 2U);
  EXPECT_EQ(VtableSlot(&Checker::IsAnyUpdating), 3U);
}

TEST_F(CheckerTest, NothingIsRunningAtFirst) {
  EXPECT_FALSE(checker_.IsUpdating("x"));
  EXPECT_FALSE(checker_.IsAnyUpdating());
  EXPECT_TRUE(fs::exists(kXLock)) << "the probe makes the lock file";
  EXPECT_TRUE(fs::exists(kAnyLock));
  EXPECT_FALSE(IsLocked(kXLock)) << "and gives the lock back";
  EXPECT_FALSE(IsLocked(kAnyLock));
}

TEST_F(CheckerTest, SuccessfulProbeIsLoggedByTheLock) {
  checker_.IsUpdating("x");
  checker_.IsAnyUpdating();
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_INFO),
              ElementsAre(std::string("Acquire lock on file: ") + kXLock,
                          std::string("Release lock on file: ") + kXLock,
                          std::string("Acquire lock on file: ") + kAnyLock,
                          std::string("Release lock on file: ") + kAnyLock));
}

TEST_F(CheckerTest, HeldLockIsARunningOperation) {
  HeldLock x(kXLock, LOCK_EX);
  EXPECT_TRUE(checker_.IsUpdating("x"));
  EXPECT_FALSE(checker_.IsAnyUpdating()) << "the question is about the other lock";
  HeldLock any(kAnyLock, LOCK_EX);
  EXPECT_TRUE(checker_.IsAnyUpdating());
  x.Release();
  EXPECT_FALSE(checker_.IsUpdating("x"));
  EXPECT_TRUE(checker_.IsAnyUpdating());
  any.Release();
  EXPECT_FALSE(checker_.IsAnyUpdating());
}

TEST_F(CheckerTest, OtherDatabasesOperationDoesNotCount) {
  config_->Add("y");
  const HeldLock y("/run/data_update/update_y.lock", LOCK_EX);
  EXPECT_FALSE(checker_.IsUpdating("x"));
  EXPECT_TRUE(checker_.IsUpdating("y"));
}

TEST_F(CheckerTest, ReadersOfADatabaseAreNoOperation) {
  const HeldLock reader("/run/data_update/using_x.lock", LOCK_SH);
  EXPECT_FALSE(checker_.IsUpdating("x"));
}

TEST_F(CheckerTest, OperationOfAnotherProcessIsSeen) {
  ForkedChild other([](EventChannel& parent) {
    const HeldLock any(kAnyLock, LOCK_EX);
    const HeldLock x(kXLock, LOCK_EX);
    parent.Send("running");
    parent.Receive();
    return 0;
  });
  ASSERT_EQ(other.Channel().Receive(), "running");
  EXPECT_TRUE(checker_.IsUpdating("x"));
  EXPECT_TRUE(checker_.IsAnyUpdating());
  other.Channel().Send("end");
  other.Process().Wait();
  EXPECT_FALSE(checker_.IsUpdating("x"));
  EXPECT_FALSE(checker_.IsAnyUpdating());
}

TEST_F(CheckerTest, QuestionsNeverWait) {
  const HeldLock x(kXLock, LOCK_EX);
  const HeldLock any(kAnyLock, LOCK_EX);
  const FakeTime time;
  EXPECT_TRUE(checker_.IsUpdating("x"));
  EXPECT_TRUE(checker_.IsAnyUpdating());
  EXPECT_THAT(time.Sleeps(), IsEmpty());
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty()) << "a refused probe is not logged";
}

TEST_F(CheckerTest, DirectoryThatCannotBeWrittenCountsAsRunning) {
  const ScopedMount run = ScopedMount::Tmpfs("/run/data_update", 65536);
  run.MakeReadOnly();
  EXPECT_TRUE(checker_.IsUpdating("x"));
  EXPECT_TRUE(checker_.IsAnyUpdating());
}

TEST_F(CheckerTest, DirectoryThatCannotBeMadeCountsAsRunning) {
  WriteFile("/run/data_update", "in the way");
  EXPECT_TRUE(checker_.IsUpdating("x"));
  EXPECT_TRUE(checker_.IsAnyUpdating());
}

TEST_F(CheckerTest, UnsupportedDatabaseIsNotAnsweredFor) {
  EXPECT_EQ(UpdateErrorOf([&] { checker_.IsUpdating("z"); }), "Project z not supported");
  EXPECT_FALSE(fs::exists("/run/data_update")) << "no lock is touched";
}

TEST_F(CheckerTest, OnlyTheQuestionAboutOneDatabaseAsksTheConfiguration) {
  checker_.IsAnyUpdating();
  EXPECT_THAT(journal_, IsEmpty());
  checker_.IsUpdating("x");
  EXPECT_THAT(journal_, ElementsAre("CheckSupported x"));
}

// --- The start, with the real configuration

constexpr char kDefaults[] = "/usr/share/data_update/data_update.conf";
constexpr char kOverrides[] = "/usr/tolm/etc/data_update/data_update.conf";
constexpr char kDatabases[] = "/usr/share/data_update/databases.conf";

class InitServiceTest : public ::testing::Test {
 protected:
  InitServiceTest() {
    WriteFile(kDefaults, R"({"config": {"cur_volume": ""}})");
    WriteFile(kDatabases, R"({"x": {"min_rsv_space_inbytes": 4096}, "y": {}})");
  }

  static std::string ChosenVolume() {
    Json::Value document;
    Json::Reader().parse(ReadFile(kOverrides), document);
    return document["config"]["cur_volume"].asString();
  }

  // Without the lines of the configuration's lock.
  static std::vector<std::string> Log(int severity) {
    std::vector<std::string> lines;
    for (const std::string& text : SyslogCapture::Texts(severity)) {
      if (text.rfind("file_lock:", 0) != 0) {
        EXPECT_EQ(text.rfind("volume_handler:", 0), 0U) << text;
        lines.push_back(SyslogCapture::WithoutPlace(text));
      }
    }
    return lines;
  }
};

TEST_F(InitServiceTest, ChoosesAndPreparesARealVolume) {
  InitService();
  EXPECT_EQ(ChosenVolume(), "/volume1");
  EXPECT_TRUE(fs::is_directory("/volume1/@database/autoupdate"));
  EXPECT_FALSE(fs::exists("/volume2/@database"));
  EXPECT_THAT(Log(LOG_WARNING), ElementsAre("Autoupdate set the new volume at '/volume1'."));
}

TEST_F(InitServiceTest, SecondStartKeepsTheChoice) {
  InitService();
  WriteFile("/volume1/.no-services", "");
  SyslogCapture::Clear();
  InitService();
  EXPECT_EQ(ChosenVolume(), "/volume1");
  EXPECT_THAT(SyslogCapture::Lines(), IsEmpty());
}

TEST_F(InitServiceTest, PassesOverVolumesThatWillNotDo) {
  const ScopedMount small = ScopedMount::Tmpfs("/volume1", 4096);
  WriteFile("/volume1/full", std::string(4096, 'x'));
  WriteFile("/volume2/.no-services", "");
  const ScopedMount read_only = ScopedMount::Tmpfs("/volume3", 65536);
  read_only.MakeReadOnly();
  const ScopedMount good = ScopedMount::Tmpfs("/volume4", 65536);
  InitService();
  EXPECT_EQ(ChosenVolume(), "/volume4");
}

TEST_F(InitServiceTest, WithoutASuitableVolumeTheReasonIsSaid) {
  WriteFile("/volume1/.no-services", "");
  WriteFile("/volume2/.no-services", "");
  InitService();
  EXPECT_THAT(Log(LOG_INFO), ElementsAre("Failed to init volume: Cannot find suitable volume."));
  EXPECT_FALSE(fs::exists(kOverrides));
}

TEST_F(InitServiceTest, WithoutASettingTheReasonIsSaid) {
  WriteFile(kDefaults, "{}");
  InitService();
  EXPECT_THAT(Log(LOG_INFO), ElementsAre("Failed to init volume: section-key: "
                                         "'config'-'cur_volume' not found"));
}

TEST_F(InitServiceTest, WaitsTenMinutesForTheConfigurationsLock) {
  const HeldLock other("/run/data_update/config.lock", LOCK_EX);
  const FakeTime time;
  InitService();
  EXPECT_EQ(time.Passed(), std::chrono::seconds(600));
  EXPECT_THAT(Log(LOG_INFO),
              ElementsAre("Failed to init volume: Fail to lock /run/data_update/config.lock"));
}

TEST_F(InitServiceTest, ReleasesTheListOfVolumes) {
  FakePlatform platform;
  platform.volumes = {{"/volume1", 4095}, {"/volume2", 4096}};
  InitService();
  EXPECT_EQ(ChosenVolume(), "/volume2");
  EXPECT_EQ(platform.Calls().back(), "release volumes");
}

}  // namespace
}  // namespace tolm::testing

#include "operation/volume_events.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "base/file.h"
#include "dataupdate/error.h"
#include "operation/settings_check.h"
#include "tests/operation/told_volumes.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/syslog_capture.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::ScopedMount;
using testing::SyslogCapture;

constexpr std::uint64_t kMebibyte = 1 << 20;

Service ServiceOf(const std::string& databases, const std::string& volume = "") {
  testing::WriteFile("/usr/share/data_update/data_update.conf",
                     R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                    "db_ver": "1", "cur_volume": ")" +
                         volume + R"("}})");
  testing::WriteFile("/usr/share/data_update/databases.conf", databases);
  return BuildService([](const std::string&) {});
}

std::string ObstacleOn(const Service& service, const std::string& path) {
  for (const VolumeState& volume : ListVolumes(service)) {
    if (volume.path == path) {
      return volume.obstacle;
    }
  }
  return "not listed";
}

TEST(VolumeEventsTest, WhyNoVolumeTellsWhatIsMountedFromWhatIsNot) {
  EXPECT_EQ(WhyNoVolume("/volume1"), "");
  std::filesystem::create_directories("/mnt/plain");
  EXPECT_EQ(WhyNoVolume("/mnt/plain"), "/mnt/plain is no mounted volume");
  EXPECT_EQ(WhyNoVolume("/mnt/missing"), "/mnt/missing is no mounted volume");
  const ScopedMount disk = ScopedMount::Tmpfs("/mnt/disk", kMebibyte);
  EXPECT_EQ(WhyNoVolume("/mnt/disk"),
            "/mnt/disk is mounted but no volume: no pattern in /usr/tolm/etc/volumes.conf matches "
            "it");
}

TEST(VolumeEventsTest, RoomIsNoObstacleWhereAsMuchIsThereAsIsReserved) {
  const ScopedMount volume = ScopedMount::Tmpfs("/volume1", kMebibyte);
  const auto obstacle = [](std::uint64_t bytes) {
    return ObstacleOn(ServiceOf(R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%",
                                            "min_rsv_space_inbytes": )" +
                                std::to_string(bytes) + "}}"),
                      "/volume1");
  };
  EXPECT_EQ(obstacle(kMebibyte), "");
  EXPECT_EQ(obstacle(kMebibyte + 1), kTooLittleRoom);
  std::filesystem::create_directory("/volume1/@database");
  std::filesystem::permissions("/volume1/@database", std::filesystem::perms(0777));
  EXPECT_EQ(obstacle(kMebibyte), kUnsafeVolume) << "that, and not the room";
}

// ---- The events ----

constexpr char kMain1[] = "/volume1/@database/autoupdate";
constexpr char kMain2[] = "/volume2/@database/autoupdate";
constexpr char kReadersLock[] = "/run/data_update/using_oui.lock";
constexpr char kOverrides[] = "/usr/tolm/etc/data_update/databases.conf";
constexpr char kMoveMark[] = "/var/lib/data_update/move.json";

// With the umask of a careless start, and one database.
class EventTest : public ::testing::Test {
 protected:
  EventTest() : mask_(umask(0)) {}
  ~EventTest() override {
    umask(mask_);
    testing::told_volumes.clear();
  }

  static Service ServiceOn(const std::string& volume) {
    return ServiceOf(R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"}})", volume);
  }

  static mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }

  // A move was cut short, before anything was copied.
  static void CutAMoveShort() {
    testing::WriteFile(kMoveMark, R"({"from": "/volume1", "to": "/volume2"})");
  }

 private:
  const mode_t mask_;
};

TEST_F(EventTest, StartMakesTheLocksAndTheGroundAndChoosesAVolume) {
  const std::string half = base::StagingPath("/var/lib/data_update/history.jsonl");
  testing::WriteFile(half, "{");
  EXPECT_EQ(Start(ServiceOn("")), "/volume1");
  EXPECT_TRUE(fs::exists(kReadersLock));
  EXPECT_EQ(ModeOf("/volume1/@database"), 0755U);
  EXPECT_EQ(ModeOf(kMain1), 0755U);
  EXPECT_FALSE(fs::exists(half));
}

TEST_F(EventTest, WithDamagedSettingsReadersLockAndNothingIsChosen) {
  const Service service = ServiceOn("");
  testing::WriteFile(kOverrides, "{");
  EXPECT_THROW(Start(service), DamagedSettings);
  EXPECT_TRUE(fs::exists(kReadersLock));
  EXPECT_FALSE(fs::exists("/volume1/@database"));
}

TEST_F(EventTest, GroundIsMadeOnAMountedVolumeThatWillBeChosen) {
  const Service service = ServiceOn("");
  const VolumeChange change = Mounted(service, "/volume2");
  EXPECT_EQ(change.before, "");
  EXPECT_EQ(change.after, "/volume2");
  EXPECT_TRUE(fs::exists(kReadersLock));
  EXPECT_EQ(ModeOf("/volume2/@database"), 0755U);
  EXPECT_EQ(ModeOf(kMain2), 0755U);
  EXPECT_EQ(Mounted(service, "/volume1").after, "/volume2");
  EXPECT_FALSE(fs::exists("/volume1/@database")) << "one was chosen already";
}

TEST_F(EventTest, NothingIsMadeWhereNoneIsMountedOrSuitable) {
  const Service service = ServiceOn("");
  fs::create_directory("/volume9");
  EXPECT_THROW(Mounted(service, "/volume9"), dataupdate::UpdateError);
  EXPECT_TRUE(fs::is_empty("/volume9"));
  testing::told_volumes["/volume1"] = [](TOLMMountVolInfo& record) { record.is_local = 0; };
  EXPECT_EQ(Mounted(service, "/volume1").after, "");
  EXPECT_TRUE(fs::is_empty("/volume1"));
}

TEST_F(EventTest, DatabasesGoAlongAndWhatWasHalfDownloadedDoesNot) {
  testing::WriteFile("/volume1/@database/partial-downloads/x", "half");
  ASSERT_EQ(chmod("/volume1/@database", 0755), 0);
  ASSERT_EQ(chmod("/volume1/@database/partial-downloads", 0700), 0);
  testing::WriteFile(std::string(kMain1) + "/oui/a", "a");
  for (const char* const path :
       {"/volume1/@database/autoupdate/oui/a", "/volume1/@database/autoupdate/oui", kMain1}) {
    ASSERT_EQ(chmod(path, 0755), 0);
  }
  testing::synced.clear();
  const VolumeChange change = Unmounting(ServiceOn("/volume1"), "/volume1");
  EXPECT_EQ(change.before, "/volume1");
  EXPECT_EQ(change.after, "/volume2");
  EXPECT_EQ(testing::ReadFile(std::string(kMain2) + "/oui/a"), "a");
  EXPECT_FALSE(fs::exists(kMain1));
  EXPECT_FALSE(fs::exists("/volume1/@database/partial-downloads"));
  EXPECT_EQ(ModeOf("/volume2/@database"), 0755U);
  EXPECT_FALSE(fs::exists(kMoveMark));
  EXPECT_TRUE(fs::exists(kReadersLock));
  EXPECT_THAT(testing::synced, ::testing::Contains("syncfs /volume1"));
}

TEST_F(EventTest, WithoutDatabasesThereIsNoMoveToForget) {
  testing::synced.clear();
  EXPECT_EQ(Unmounting(ServiceOn("/volume1"), "/volume1").after, "/volume2");
  EXPECT_THAT(testing::synced, ::testing::Not(::testing::Contains("syncfs /volume1")));
}

TEST_F(EventTest, VolumeThatGoesAndWasNotChosenChangesNothing) {
  const VolumeChange none = Unmounting(ServiceOn(""), "/volume9");
  EXPECT_EQ(none.before, "");
  EXPECT_EQ(none.after, "");
  const Service service = ServiceOn("/volume1");
  CutAMoveShort();
  EXPECT_EQ(Unmounting(service, "/volume9").after, "/volume1");
  EXPECT_FALSE(fs::exists(kMoveMark)) << "what was cut short is settled all the same";
}

TEST_F(EventTest, WhatOthersCouldHaveChangedIsLeftBehindAndNoneIsChosenWhereThatIsNotPossible) {
  testing::WriteFile(std::string(kMain1) + "/oui/a", "a");
  ASSERT_EQ(chmod("/volume1/@database", 0755), 0);
  ASSERT_EQ(chmod(kMain1, 0755), 0);
  ASSERT_EQ(chmod("/volume1/@database/autoupdate/oui", 0755), 0);
  ASSERT_EQ(chmod("/volume1/@database/autoupdate/oui/a", 0666), 0);
  testing::WriteFile(std::string(kMain2) + "/geo/a", "of another appliance");
  ASSERT_EQ(chmod("/volume2/@database", 0755), 0);
  ASSERT_EQ(chmod(kMain2, 0755), 0);
  const Service service = ServiceOn("/volume1");
  SyslogCapture::Clear();
  EXPECT_THAT([&] { Unmounting(service, "/volume1"); },
              ::testing::ThrowsMessage<std::runtime_error>(
                  std::string(kMain2) + " is not empty, so /volume2 was not chosen (rm -r " +
                  kMain2 + ")"));
  EXPECT_EQ(service.config->GetCurVolume(), "");
  EXPECT_EQ(testing::ReadFile(std::string(kMain1) + "/oui/a"), "a");
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ::testing::Contains(std::string(kMain1) + " is not moved because " + kMain1 +
                                  "/oui/a can be written by others"));
}

}  // namespace
}  // namespace tolm::operation

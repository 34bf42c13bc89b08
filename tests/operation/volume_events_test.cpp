#include "operation/volume_events.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/support/files.h"
#include "tests/support/mounts.h"

namespace tolm::operation {
namespace {

using testing::ScopedMount;

constexpr std::uint64_t kMebibyte = 1 << 20;

Service ServiceOf(const std::string& databases) {
  testing::WriteFile("/usr/share/data_update/data_update.conf",
                     R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                    "db_ver": "1", "cur_volume": ""}})");
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

}  // namespace
}  // namespace tolm::operation

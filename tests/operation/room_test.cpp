#include "operation/room.h"

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "operation/failure.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::ScopedMount;

constexpr char kVolume[] = "/tmp/volume";
constexpr std::uint64_t kSize = 4 << 20;

TEST(RoomTest, IsWhatIsFreeBeyondTheReserve) {
  const ScopedMount volume = ScopedMount::Tmpfs(kVolume, kSize);
  constexpr std::uint64_t kReserve = kSize / 20;
  EXPECT_EQ(RoomIn(kVolume), kSize - kReserve);
  testing::WriteFile("/tmp/volume/file", std::string(1 << 20, 'x'));
  EXPECT_EQ(RoomIn(kVolume), kSize - (1 << 20) - kReserve);
  testing::WriteFile("/tmp/volume/more", std::string(kSize - (1 << 20) - kReserve / 2, 'x'));
  EXPECT_EQ(RoomIn(kVolume), 0u);
  EXPECT_EQ(RoomIn("/tmp/volume/missing"), std::nullopt);
}

TEST(RoomTest, MountPointIsToldAlsoOfWhatIsNotThereYet) {
  const ScopedMount volume = ScopedMount::Tmpfs(kVolume, kSize);
  fs::create_directories("/tmp/volume/a/b");
  const ScopedMount inner = ScopedMount::Tmpfs("/tmp/volume/a/b/inner", kSize);
  for (const char* directory : {"/tmp/volume", "/tmp/volume/a/b", "/tmp/volume/a/missing/deep"}) {
    EXPECT_EQ(MountPointOf(directory), kVolume) << directory;
  }
  EXPECT_EQ(MountPointOf("/tmp/volume/a/b/inner/missing"), "/tmp/volume/a/b/inner");
  EXPECT_EQ(MountPointOf("/"), "/");
  EXPECT_EQ(MountPointOf("missing/here"), "missing/here");
}

TEST(RoomTest, TooLittleSaysHowMuchThereIsAndWhatIsNeeded) {
  const ScopedMount volume = ScopedMount::Tmpfs(kVolume, kSize);
  const Failure needed = NoRoom("/tmp/volume/a", 1000, 3000000);
  EXPECT_EQ(needed.reason, reasons::kNoRoom);
  EXPECT_EQ(needed.text,
            "no room on /tmp/volume: 3.0 MB needed, 1.0 kB free beyond the 5 % reserve");
  EXPECT_EQ(needed.remedy, "make room there");
  EXPECT_EQ(NoRoom("/tmp/volume/a", 0).text,
            "no room on /tmp/volume: more is needed than the 0 B free beyond the 5 % reserve");
}

}  // namespace
}  // namespace tolm::operation

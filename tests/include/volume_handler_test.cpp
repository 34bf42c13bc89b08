#include "dataupdate/volume_handler.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace tolm::testing {
std::shared_ptr<dataupdate::ServiceConfig> MakeServiceConfig();
const void* ReadOnlyVolume();
}  // namespace tolm::testing

namespace tolm::dataupdate {
namespace {

TEST(PublicHeaderTest, VolumeHandlerIsUsableAlone) {
  std::filesystem::create_directories("/usr/share/data_update");
  std::ofstream("/usr/share/data_update/databases.conf") << "{}";
  std::ofstream("/usr/share/data_update/data_update.conf") << R"({"config": {"cur_volume": ""}})";
  const VolumeHandler handler(testing::MakeServiceConfig());
  const std::string main_directory = handler.GetMainDirPath("/volume1");
  EXPECT_EQ(main_directory, "/volume1/@database/autoupdate");
  handler.CreateDirectories("/tmp/d/e");
  EXPECT_TRUE(std::filesystem::is_directory("/tmp/d/e"));
  EXPECT_FALSE(handler.IsSuitable(testing::ReadOnlyVolume(), 0));
  EXPECT_EQ(handler.FindSuitableVolume(""), "/volume1");
  handler.MountVolumeEvent("/no-volume");
  EXPECT_FALSE(std::filesystem::exists(main_directory));
  handler.InitVolume();
  EXPECT_TRUE(std::filesystem::is_directory(main_directory));
  handler.UnmountVolumeEvent("/volume1");
  EXPECT_FALSE(std::filesystem::exists(main_directory)) << "it was moved to another volume";
}

}  // namespace
}  // namespace tolm::dataupdate

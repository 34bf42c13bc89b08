#include "operation/service.h"

#include <gtest/gtest.h>

namespace tolm::testing {
void MakeDevice();
}  // namespace tolm::testing

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, ServiceIsUsableAlone) {
  testing::MakeDevice();
  const Service service = BuildService([](const std::string&) {});
  EXPECT_EQ(service.config->GetCurVolume(), "/volume1");
  EXPECT_FALSE(service.checker->IsAnyUpdating());
  EXPECT_EQ(service.volumes->GetMainDirPath("/v"), "/v/@database/autoupdate");
  EXPECT_THROW(service.update->UpdateProject("x"), std::exception);
  RecordingInfoGetter& info = *service.info;
  EXPECT_EQ(info.GetDatabaseStatus("x").data_version, kNeverInstalled);
  EXPECT_EQ(info.GetRemoteInfo("x").data_version, 7);
  EXPECT_EQ(info.GetDiffInfos("x").at(7).file_size, 1);
  info.BeginOperation("x");
  info.SetDatabaseStatus("x", dataupdate::DatabaseStatus(6, 60, {}));
  EXPECT_EQ(info.stored_versions().at("x"), 6);
  EXPECT_EQ(info.VersionBefore("x"), kNeverInstalled);
}

}  // namespace
}  // namespace tolm::operation

#include "operation/volume_events.h"

#include <gtest/gtest.h>

namespace tolm::testing {
operation::Service MakeService();
}  // namespace tolm::testing

namespace tolm::operation {
namespace {

TEST(OperationHeaderTest, VolumeEventsIsUsableAlone) {
  const Service service = testing::MakeService();
  EXPECT_EQ(Start(service), "/volume1");
  EXPECT_EQ(Mounted(service, "/volume2").after, "/volume1");
  const VolumeChange change = Unmounting(service, "/volume2");
  EXPECT_EQ(change.before, "/volume1");
  EXPECT_EQ(change.after, "/volume1");
  const std::vector<VolumeState> volumes = ListVolumes(service);
  ASSERT_FALSE(volumes.empty());
  EXPECT_EQ(volumes.front().path, "/volume1");
}

}  // namespace
}  // namespace tolm::operation

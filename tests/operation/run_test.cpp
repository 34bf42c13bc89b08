#include "operation/run.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "operation/history.h"
#include "operation/settings_check.h"
#include "operation/source_cool_downs.h"
#include "operation/sources.h"
#include "tests/support/files.h"
#include "tests/tools/device.h"

namespace tolm::operation {
namespace {

constexpr char kOverrides[] = "/usr/tolm/etc/data_update/databases.conf";

class ScheduledRunTest : public ::testing::Test {
 protected:
  // The server has failed just now.
  ScheduledRunTest() {
    testing::WriteFile("/usr/share/data_update/databases.conf",
                       R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"}})");
    testing::WriteFile("/usr/share/data_update/data_update.conf",
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                      "db_ver": "1", "cur_volume": "/volume1"}})");
    const std::vector<Source> sources = PresentSources();
    SourceCoolDowns(sources).BeginAttempt(sources.front());
  }

  Service service_ = BuildService([](const std::string&) {});
};

TEST_F(ScheduledRunTest, LeavesAServerAloneThatHasFailed) {
  EXPECT_TRUE(operation::Run(service_, true, false).HeldBack());
  EXPECT_FALSE(operation::Run(service_, false, false).HeldBack());
}

TEST_F(ScheduledRunTest, SaysThatSettingsAreDamagedThoughItsServerHasFailed) {
  testing::WriteFile(kOverrides, "{");
  operation::Run run(service_, true, false);
  EXPECT_FALSE(run.HeldBack());
  EXPECT_THROW(run.Update("oui"), DamagedSettings);
}

// Whoever runs the operations one by one, without a Run.
TEST(DamagedSettingsTest, OperationOfAServiceDoesNotBegin) {
  testing::WriteFile("/usr/share/data_update/databases.conf",
                     R"({"oui": {"format_version": "2", "install_dest": "%ROOTFS%"}})");
  testing::WriteFile(kOverrides, "{");
  const Service service = BuildService([](const std::string&) {});
  EXPECT_THROW(service.update->UpdateProject("oui"), DamagedSettings);
}

class TwoDatabasesTest : public tolm::testing::DeviceTest {};

TEST_F(TwoDatabasesTest, FullPackageOfOneIsNoFallBackFromTheDeltaOfTheOther) {
  ConfigureDevice(publisher_,
                  {{"oui", tolm::testing::kOnVolume}, {"zoo", tolm::testing::kOnVolume}});
  publisher_.PackFull("zoo", 1, {{"z", "zoo"}});
  publisher_.Offer("zoo", 1);
  InstallFirst();
  publisher_.Offer("oui", 2, {2});
  ASSERT_EQ(tolm::testing::Tool({"update", "oui", "zoo", "--refresh"}).exit_status, 0);
  ASSERT_TRUE(LastOf("oui"));
  EXPECT_EQ(LastOf("oui")->to, 2);
  ASSERT_TRUE(LastOf("zoo"));
  EXPECT_EQ(LastOf("zoo")->to, 1);
  EXPECT_FALSE(LastOf("zoo")->fell_back);
}

}  // namespace
}  // namespace tolm::operation

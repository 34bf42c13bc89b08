#include "operation/run.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "operation/settings_check.h"
#include "operation/source_cool_downs.h"
#include "operation/sources.h"
#include "tests/support/files.h"

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

}  // namespace
}  // namespace tolm::operation

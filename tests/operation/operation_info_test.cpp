#include "operation/operation_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "dataupdate/io_utils.h"
#include "operation/server_config.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

class OperationInfoTest : public ::testing::Test {
 protected:
  // Version 6 is installed, and version 7 is offered with the delta to it.
  OperationInfoTest() {
    testing::WriteFile("/usr/share/data_update/databases.conf",
                       R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"}})");
    testing::WriteFile("/usr/share/data_update/data_update.conf",
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                      "db_ver": "1", "cur_volume": "/volume1"}})");
    testing::WriteFile("/var/cache/data_update/database_info.json",
                       R"({"deprecated": false, "db_list": {"oui": {
                            "data_version": "7", "last_fetch_time": 70, "download_link": "http://h/7",
                            "diff_files": {"7": {"download_link": "http://h/d7",
                                                 "file_size": 1}}}}})");
    testing::WriteFile("/var/lib/data_update/oui/version.json",
                       R"({"data_version": "6", "last_fetch_time": 60, "files": {}})");
  }

  void Begin() {
    info_.Begin("oui", {OperationKind::kUpdate}, "/volume1/@database/autoupdate/oui", [] {});
  }

  OperationInfo info_{std::make_shared<dataupdate::IOUtils>(), std::make_shared<ServerConfig>()};
};

TEST_F(OperationInfoTest, OperationIsOfferedTheDeltasFromWhatIsInstalled) {
  Begin();
  EXPECT_EQ(info_.DemandedBecause(), "");
  EXPECT_EQ(info_.GetDatabaseStatus("oui").data_version, 6);
  EXPECT_THAT(info_.GetDiffInfos("oui"), SizeIs(1));
}

TEST_F(OperationInfoTest, DemandOfAFullInstallationHoldsForTheNextOperationOnly) {
  info_.DemandFullInstallation("oui", "damaged");
  Begin();
  EXPECT_EQ(info_.DemandedBecause(), "damaged");
  EXPECT_EQ(info_.GetDatabaseStatus("oui").data_version, kNeverInstalled);
  EXPECT_THAT(info_.GetDiffInfos("oui"), IsEmpty());
  info_.End();
  Begin();
  EXPECT_EQ(info_.DemandedBecause(), "");
  EXPECT_THAT(info_.GetDiffInfos("oui"), SizeIs(1));
}

}  // namespace
}  // namespace tolm::operation

#include "dataupdate/update.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <vector>

namespace tolm::testing {
std::shared_ptr<dataupdate::IOUtils> MakeIoUtils();
std::shared_ptr<dataupdate::ServiceConfig> MakeServiceConfig();
std::shared_ptr<dataupdate::Updater> MakeUpdater();
}  // namespace tolm::testing

namespace tolm::dataupdate {
namespace {

// One database, which the cached description offers at a place that is none.
class PublicUpdateHeaderTest : public ::testing::Test {
 protected:
  PublicUpdateHeaderTest() {
    for (const char* directory :
         {"/usr/share/data_update", "/var/cache/data_update", "/var/lib/data_update/x"}) {
      std::filesystem::create_directories(directory);
    }
    std::ofstream("/usr/share/data_update/databases.conf")
        << R"({"x": {"format_version": "2", "install_dest": "%VOLUME%"}})";
    std::ofstream("/usr/share/data_update/data_update.conf")
        << R"({"config": {"download_scheme": "http", "db_netloc": "host", "db_ver": "v1",
                          "cur_volume": "/volume1"}})";
    std::ofstream("/var/cache/data_update/database_info.json")
        << R"({"deprecated": false, "db_list": {"x": {
                 "data_version": "7", "last_fetch_time": 70, "download_link": "-no-url7",
                 "diff_files": {"7": {"download_link": "-no-url", "file_size": 1}}}}})";
    info_ = std::make_shared<InfoGetter>(testing::MakeIoUtils(), testing::MakeServiceConfig());
  }

  std::shared_ptr<InfoGetter> info_;
};

TEST_F(PublicUpdateHeaderTest, InitServiceIsUsableAlone) {
  EXPECT_NO_THROW(InitService());
}

TEST_F(PublicUpdateHeaderTest, InfoGetterIsUsableAlone) {
  EXPECT_EQ(info_->GetRemoteInfo("x").data_version, 7);
  EXPECT_EQ(info_->GetDiffInfos("x").at(7).file_size, 1);
  EXPECT_EQ(info_->GetDatabaseStatus("x").data_version, -1);
  info_->SetDatabaseStatus("x", DatabaseStatus(6, 60, {}));
  EXPECT_EQ(info_->GetDatabaseStatus("x").data_version, 6);
  EXPECT_FALSE(info_->GetDatabaseInfo()["deprecated"].asBool());
  EXPECT_EQ(info_->GetQueryString().rfind("?os=tmo&dlid=", 0), 0U);
  EXPECT_EQ(info_->GetDatabaseUrl(), "http://host/database_info/v1" + info_->GetQueryString());
}

TEST_F(PublicUpdateHeaderTest, UpdateIsUsableAlone) {
  const Update update(testing::MakeUpdater(), info_, testing::MakeServiceConfig());
  EXPECT_THROW(update.UpdateProject("x"), std::exception);
  EXPECT_THROW(update.UpdateAllProjects(), std::exception);
  EXPECT_THROW(update.FixProject("x"), std::exception);
  EXPECT_THROW(update.FixAllProjects(), std::exception);
  EXPECT_THROW(update.ForceInstall("x", 0), std::exception);
  std::vector<std::string> names;
  update.OperateAllProjects([&names](const std::string& name) { names.push_back(name); });
  EXPECT_EQ(names, std::vector<std::string>{"x"});
}

TEST_F(PublicUpdateHeaderTest, CheckerIsUsableAlone) {
  const Checker checker(testing::MakeServiceConfig());
  EXPECT_FALSE(checker.IsUpdating("x"));
  EXPECT_FALSE(checker.IsAnyUpdating());
}

}  // namespace
}  // namespace tolm::dataupdate

#include "dataupdate/config.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace tolm::testing {
std::shared_ptr<dataupdate::IOUtils> MakeIoUtils();
}

namespace tolm::dataupdate {
namespace {

void WriteDefaults(const std::string& name, const std::string& content) {
  std::filesystem::create_directories("/usr/share/data_update");
  std::ofstream("/usr/share/data_update/" + name) << content;
}

TEST(PublicHeaderTest, ConfigIsUsableAlone) {
  const Config config(testing::MakeIoUtils());
  config.Init("/tmp/defaults", "/tmp/overrides");
  EXPECT_THROW(config.Get("s", "text"), std::exception);
  config.Set("s", "text", "a");
  EXPECT_EQ(config.Get("s", "text"), "a");
  config.Set("s", "text", std::string("b"));
  EXPECT_EQ(config.Get("s", "text"), "b");
  config.Set("s", "number", 5ULL);
  EXPECT_EQ(config.GetAsUInt64("s", "number"), 5U);
  config.Set("s", "flag", true);
  EXPECT_TRUE(config.GetAsBool("s", "flag"));
  EXPECT_EQ(config.GetSections(), std::vector<std::string>{"s"});
}

TEST(PublicHeaderTest, DatabaseConfigIsUsableAlone) {
  WriteDefaults("databases.conf", R"({"x": {"format_version": "2", "install_dest": "%VOLUME%",
                                            "min_rsv_space_inbytes": 9}})");
  const DatabaseConfig config("x", "/volume1", std::make_shared<Config>(testing::MakeIoUtils()));
  EXPECT_TRUE(config.GetScheduled());
  config.SetScheduled(false);
  EXPECT_FALSE(config.GetScheduled());
  EXPECT_EQ(config.GetFormatVersion(), "2");
  EXPECT_EQ(config.GetInstallPrefix(), "/volume1/@database/autoupdate/x");
  EXPECT_EQ(config.GetRootDirectory(), "/volume1");
  EXPECT_EQ(config.GetMinReservedSpaceInbytes(), 9U);
}

TEST(PublicHeaderTest, ServiceConfigIsUsableAlone) {
  WriteDefaults("databases.conf", R"({"x": {"format_version": "2"}})");
  WriteDefaults("data_update.conf", R"({"config": {"download_scheme": "https", "db_netloc": "host",
                                                   "db_ver": "v1", "cur_volume": ""}})");
  const ServiceConfig config(std::make_shared<Config>(testing::MakeIoUtils()));
  EXPECT_EQ(config.GetDatabaseIDs(), std::vector<std::string>{"x"});
  EXPECT_EQ(config.GetDatabaseConfig("x")->GetFormatVersion(), "2");
  EXPECT_NO_THROW(config.CheckSupported("x"));
  EXPECT_THROW(config.CheckSupported("y"), std::exception);
  EXPECT_EQ(config.GetDownloadScheme(), "https");
  EXPECT_EQ(config.GetDBInfoDomainName(), "host");
  EXPECT_EQ(config.GetDBInfoVersion(), "v1");
  config.SetCurVolume("/volume1");
  EXPECT_EQ(config.GetCurVolume(), "/volume1");
}

}  // namespace
}  // namespace tolm::dataupdate

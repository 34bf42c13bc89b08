#include "operation/settings_reader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "base/paths.h"
#include "dataupdate/error.h"
#include "operation/belief.h"
#include "operation/server_config.h"
#include "operation/settings_check.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::WriteFile;

class SettingsReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(paths::kServiceDefaults,
              R"({"config": {"download_scheme": "http", "db_netloc": "default", "db_ver": "1",
                 "cur_volume": "/volume1"}})");
    WriteFile(paths::kDatabaseDefaults,
              R"({"oui": {"format_version": "1", "install_dest": "%VOLUME%"}})");
  }

  // What a disk does not give: nothing is at the beginning of that file.
  static void MakeUnreadable(const fs::path& file) {
    fs::create_directories(file.parent_path());
    fs::remove(file);
    fs::create_symlink("/proc/self/mem", file);
  }

  template <typename Action>
  static std::string WhyDamaged(Action action) {
    try {
      action();
    } catch (const DamagedSettings& error) {
      return error.what();
    }
    return "nothing";
  }

  static std::string Unreadable(const std::string& file) {
    return file + ": cannot be read: Input/output error";
  }
};

TEST_F(SettingsReaderTest, DefaultsCountWhereThereAreNoOverrides) {
  EXPECT_EQ(ServerConfig().GetDBInfoDomainName(), "default");
  EXPECT_EQ(ServerConfig().GetDatabaseIDs(), std::vector<std::string>{"oui"});
  EXPECT_EQ(ServerConfig().GetDatabaseConfig("oui")->GetInstallPrefix(),
            "/volume1/@database/autoupdate/oui");
  EXPECT_FALSE(IsSignedRequired());
}

TEST_F(SettingsReaderTest, DefaultsDoNotCountWhereOverridesCannotBeRead) {
  MakeUnreadable(paths::kServiceOverrides);
  const std::string expected = Unreadable(paths::kServiceOverrides);
  EXPECT_EQ(WhyDamaged([] { ServerConfig().GetDBInfoDomainName(); }), expected);
  EXPECT_EQ(WhyDamaged([] { ServerConfig().GetDatabaseConfig("oui"); }), expected);
  EXPECT_EQ(WhyDamaged([] { ServerConfig().SetCurVolume("/volume2"); }), expected);
  EXPECT_EQ(WhyDamaged([] { ConfiguredServer(); }), expected);
  EXPECT_EQ(WhyDamaged([] { IsSignedRequired(); }), expected);
  EXPECT_TRUE(fs::is_symlink(paths::kServiceOverrides));
}

TEST_F(SettingsReaderTest, DatabasesAreNotThoseOfTheDefaultsWhereOverridesCannotBeRead) {
  MakeUnreadable(paths::kDatabaseOverrides);
  const std::string expected = Unreadable(paths::kDatabaseOverrides);
  EXPECT_EQ(WhyDamaged([] { ServerConfig().GetDatabaseIDs(); }), expected);
  EXPECT_EQ(WhyDamaged([] { ServerConfig().CheckSupported("oui"); }), expected);
  const auto oui = ServerConfig().GetDatabaseConfig("oui");
  EXPECT_EQ(WhyDamaged([&] { oui->GetScheduled(); }), expected);
  EXPECT_EQ(WhyDamaged([&] { oui->GetMinReservedSpaceInbytes(); }), expected);
}

TEST_F(SettingsReaderTest, DefaultsThatCannotBeReadAreNamed) {
  MakeUnreadable(paths::kServiceDefaults);
  EXPECT_EQ(WhyDamaged([] { ServerConfig().GetCurVolume(); }), Unreadable(paths::kServiceDefaults));
}

// Of all else the library says what it says.
TEST_F(SettingsReaderTest, DamagedAndMissingFilesAreTheLibrarysMatter) {
  WriteFile(paths::kServiceOverrides, "{");
  EXPECT_EQ(ServerConfig().GetDBInfoDomainName(), "default");
  fs::remove(paths::kServiceDefaults);
  EXPECT_THROW(ServerConfig().GetDBInfoDomainName(), dataupdate::UpdateError);
}

}  // namespace
}  // namespace tolm::operation

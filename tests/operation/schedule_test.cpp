#include "operation/schedule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>

#include "base/paths.h"
#include "dataupdate/error.h"
#include "operation/service.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::ReadFile;
using testing::WriteFile;

const std::string kOverrides = paths::kDatabaseOverrides;

// "asn" is hidden by the override file, once there is one.
class ScheduleTest : public ::testing::Test {
 protected:
  ScheduleTest() {
    WriteFile("/usr/share/data_update/data_update.conf", R"({"config": {"cur_volume": ""}})");
    WriteFile(paths::kDatabaseDefaults, R"({"asn": {"auto_update": true},
                                            "geo": {"auto_update": false},
                                            "oui": {"auto_update": true}})");
  }

  static void Override() {
    WriteFile(kOverrides, R"({"geo": {"auto_update": false}, "oui": {"auto_update": true,
                                                                      "min_rsv": 5}})");
  }

  static Json::Value Written() {
    Json::Value document;
    std::istringstream(ReadFile(kOverrides)) >> document;
    return document;
  }

  Service service_ = BuildService([](const std::string&) {});
};

TEST_F(ScheduleTest, SettingOfEveryDatabaseIsWrittenAlongAndNoneIsHiddenAfterwards) {
  EXPECT_THAT(HiddenDatabases(), IsEmpty());
  Override();
  ASSERT_EQ(chmod(kOverrides.c_str(), 0640), 0);
  EXPECT_THAT(HiddenDatabases(), ElementsAre("asn"));
  SetScheduled(*service_.config, "oui", false);
  const Json::Value written = Written();
  EXPECT_THAT(written.getMemberNames(), ElementsAre("asn", "geo", "oui"));
  EXPECT_TRUE(written["asn"]["auto_update"].asBool());
  EXPECT_FALSE(written["geo"]["auto_update"].asBool());
  EXPECT_FALSE(written["oui"]["auto_update"].asBool());
  EXPECT_EQ(written["oui"]["min_rsv"].asInt(), 5) << "what else it says stays";
  struct stat status {};
  ASSERT_EQ(stat(kOverrides.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  EXPECT_THAT(HiddenDatabases(), IsEmpty());
  const Service anew = BuildService([](const std::string&) {});
  EXPECT_THAT(ScheduledDatabases(*anew.config), ElementsAre("asn"));
  EXPECT_TRUE(IsScheduled(*anew.config, "asn"));
  EXPECT_FALSE(IsScheduled(*anew.config, "oui"));
}

TEST_F(ScheduleTest, HiddenDatabaseCanBeSetAndAnUnknownOneCannot) {
  Override();
  const std::string before = ReadFile(kOverrides);
  EXPECT_THROW(SetScheduled(*service_.config, "zoo", true), dataupdate::UpdateError);
  EXPECT_THROW(IsScheduled(*service_.config, "zoo"), dataupdate::UpdateError);
  EXPECT_EQ(ReadFile(kOverrides), before);
  SetScheduled(*service_.config, "asn", false);
  EXPECT_FALSE(Written()["asn"]["auto_update"].asBool());
  EXPECT_TRUE(Written()["oui"]["auto_update"].asBool());
}

TEST_F(ScheduleTest, DamagedFileIsKeptAsideAndAnEmptyOneIsNot) {
  WriteFile(kOverrides, "");
  SetScheduled(*service_.config, "geo", true);
  EXPECT_FALSE(fs::exists(kOverrides + ".aside"));
  WriteFile(kOverrides, "{");
  SetScheduled(*service_.config, "geo", true);
  EXPECT_EQ(ReadFile(kOverrides + ".aside"), "{");
  EXPECT_TRUE(Written()["geo"]["auto_update"].asBool());
  fs::remove(kOverrides + ".aside");
  SetScheduled(*service_.config, "geo", false);
  EXPECT_FALSE(fs::exists(kOverrides + ".aside")) << "it is in order now";
}

TEST_F(ScheduleTest, FileThatADiskDoesNotGiveStays) {
  fs::create_directories(fs::path(kOverrides).parent_path());
  fs::create_symlink("/proc/self/mem", kOverrides);
  EXPECT_THAT(
      [&] { SetScheduled(*service_.config, "oui", false); },
      ::testing::ThrowsMessage<std::runtime_error>(::testing::EndsWith("; nothing was done")));
  EXPECT_TRUE(fs::is_symlink(kOverrides));
}

}  // namespace
}  // namespace tolm::operation

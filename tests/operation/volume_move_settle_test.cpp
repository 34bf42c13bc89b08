// What is left of a move that was cut short, put together by hand.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "operation/volume_move.h"
#include "tests/operation/told_volumes.h"
#include "tests/support/files.h"
#include "tests/support/syslog_capture.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using tolm::testing::synced;
using tolm::testing::SyslogCapture;
using tolm::testing::told_volumes;

const fs::path kFrom = "/volume1/@database/autoupdate";
const fs::path kTo = "/volume2/@database/autoupdate";
constexpr char kMark[] = "/var/lib/data_update/move.json";
constexpr char kMarkText[] = R"({"from": "/volume1", "to": "/volume2"})";
constexpr char kOverrides[] = "/usr/tolm/etc/data_update/data_update.conf";

class VolumeMoveSettleTest : public ::testing::Test {
 protected:
  VolumeMoveSettleTest() { Choose("/volume1"); }
  ~VolumeMoveSettleTest() override {
    told_volumes.clear();
    tolm::testing::refused_volume.clear();
  }

  static void Choose(const std::string& volume) {
    testing::WriteFile("/usr/share/data_update/data_update.conf",
                       R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                                      "db_ver": "1", "cur_volume": ")" +
                           volume + R"("}})");
  }

  // The whole copy, with everything still where it was taken from.
  static void CopyAll() {
    testing::WriteFile(kFrom / "oui/a", "a");
    testing::WriteFile(kTo / "oui/a", "a");
    testing::WriteFile(kMark, kMarkText);
  }

  std::string Chosen() const { return service_.config->GetCurVolume(); }

  Service service_ = BuildService([](const std::string&) {});
};

TEST_F(VolumeMoveSettleTest, IsNotedWhereThereIsSomethingToMoveAndNothingInItsWay) {
  EXPECT_FALSE(NoteMove(service_, "/volume1", "/volume2")) << "there are no databases";
  fs::create_directories(kTo);
  EXPECT_FALSE(NoteMove(service_, "/volume1", "/volume2"));
  testing::WriteFile(kFrom / "oui/a", "a");
  testing::WriteFile(kTo / "oui/a", "of another appliance");
  EXPECT_FALSE(NoteMove(service_, "/volume1", "/volume2"));
  EXPECT_FALSE(fs::exists(kMark));
  fs::remove_all(kTo / "oui");
  EXPECT_TRUE(NoteMove(service_, "/volume1", "/volume2")) << "an empty directory";
  fs::remove_all(kTo);
  EXPECT_TRUE(NoteMove(service_, "/volume1", "/volume2"));
  EXPECT_EQ(testing::ReadFile(kMark),
            "{\n\t\"from\" : \"/volume1\",\n\t\"to\" : \"/volume2\"\n}\n");
}

TEST_F(VolumeMoveSettleTest, IsForgottenOnTheDisk) {
  testing::WriteFile(kMark, kMarkText);
  synced.clear();
  ForgetMove("/volume1");
  EXPECT_FALSE(fs::exists(kMark));
  EXPECT_THAT(synced, ElementsAre("syncfs /volume1", "fsync /var/lib/data_update"));
}

TEST_F(VolumeMoveSettleTest, MarkThatNamesNoTwoVolumesIsSetAside) {
  for (const char* const text :
       {"", "{", "[]", "{}", R"({"from": "/volume1"})", R"({"to": "/volume2"})",
        R"({"from": 1, "to": "/volume2"})", R"({"from": "/volume1", "to": ["/volume2"]})"}) {
    CopyAll();
    testing::WriteFile(kMark, text);
    SyslogCapture::Clear();
    SettleMove(service_);
    EXPECT_FALSE(fs::exists(kMark)) << text;
    EXPECT_EQ(testing::ReadFile(std::string(kMark) + ".aside"), text);
    EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING),
                ElementsAre(std::string(kMark) + " is damaged; kept as move.json.aside"));
    EXPECT_TRUE(fs::exists(kFrom / "oui/a")) << text;
    EXPECT_TRUE(fs::exists(kTo / "oui/a")) << text;
  }
}

TEST_F(VolumeMoveSettleTest, WhatIsNotChosenIsRemovedOnTheDisk) {
  CopyAll();
  synced.clear();
  SettleMove(service_);
  EXPECT_EQ(Chosen(), "/volume1");
  EXPECT_TRUE(fs::exists(kFrom / "oui/a"));
  EXPECT_FALSE(fs::exists(kTo));
  EXPECT_FALSE(fs::exists(kMark));
  EXPECT_THAT(synced, ElementsAre("syncfs /volume2", "fsync /var/lib/data_update"));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ElementsAre("A move of the databases was cut short; they are used on /volume1.",
                          "Removing " + kTo.string() +
                              ", which a move that was cut short has "
                              "left"));
}

TEST_F(VolumeMoveSettleTest, VolumeThatCanKeepThemIsChosenInPlaceOfOneThatCannot) {
  const std::vector<std::pair<const char*, std::function<void(TOLMMountVolInfo&)>>> obstacles = {
      {"a network volume", [](TOLMMountVolInfo& record) { record.is_local = 0; }},
      {"an unhealthy volume", [](TOLMMountVolInfo& record) { record.is_healthy = 0; }},
      {"a read-only volume", [](TOLMMountVolInfo& record) { record.flags = 0; }},
      {"a refused volume", [](TOLMMountVolInfo&) { tolm::testing::refused_volume = "/volume1"; }}};
  for (const auto& [name, change] : obstacles) {
    SCOPED_TRACE(name);
    fs::remove(kOverrides);
    CopyAll();
    told_volumes["/volume1"] = change;
    synced.clear();
    SettleMove(service_);
    EXPECT_EQ(Chosen(), "/volume2");
    EXPECT_FALSE(fs::exists(kFrom));
    EXPECT_TRUE(fs::exists(kTo / "oui/a"));
    EXPECT_FALSE(fs::exists(kMark));
    EXPECT_THAT(synced,
                ::testing::IsSupersetOf(std::vector<std::string>{
                    "syncfs /volume2", std::string("fsync ") + kOverrides, "syncfs /volume1"}));
    fs::remove_all(kTo);
  }
}

TEST_F(VolumeMoveSettleTest, WhereNeitherCanKeepThemNothingIsDecided) {
  Choose("");
  CopyAll();
  const auto refuse = [](TOLMMountVolInfo& record) { record.is_local = 0; };
  told_volumes = {{"/volume1", refuse}, {"/volume2", refuse}};
  SettleMove(service_);
  EXPECT_EQ(Chosen(), "");
  EXPECT_TRUE(fs::exists(kFrom / "oui/a"));
  EXPECT_TRUE(fs::exists(kTo / "oui/a"));
  EXPECT_TRUE(fs::exists(kMark));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING), IsEmpty());
}

TEST_F(VolumeMoveSettleTest, VolumeThatIsGoneIsNoPlaceForThem) {
  testing::WriteFile(kMark, R"({"from": "/volume9", "to": "/volume2"})");
  Choose("/volume9");
  SettleMove(service_);
  EXPECT_EQ(Chosen(), "/volume2");
  EXPECT_TRUE(fs::exists(kMark)) << "what is on the other is not removed yet";
  EXPECT_FALSE(fs::exists("/volume9"));
}

TEST_F(VolumeMoveSettleTest, MainDirectoryOfTheChosenOneIsRootsWhateverTheUmask) {
  Choose("");
  testing::WriteFile(kMark, kMarkText);
  const mode_t before = umask(0);
  SettleMove(service_);
  umask(before);
  EXPECT_EQ(Chosen(), "/volume1");
  struct stat status {};
  ASSERT_EQ(stat(kFrom.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755U);
}

TEST_F(VolumeMoveSettleTest, WhatCannotBeRemovedSafelyStaysForTheNextTime) {
  CopyAll();
  fs::create_directory("/volume2/@tmp");
  ASSERT_EQ(chmod("/volume2/@tmp", 0777), 0);
  SettleMove(service_);
  EXPECT_TRUE(fs::exists(kTo / "oui/a"));
  EXPECT_TRUE(fs::exists(kMark));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_ERR),
              Contains(StartsWith(kTo.string() + " stays: /volume2/@tmp can be written by")));
  ASSERT_EQ(chmod("/volume2/@tmp", 0755), 0);
  SettleMove(service_);
  EXPECT_FALSE(fs::exists(kTo));
  EXPECT_FALSE(fs::exists(kMark));
}

}  // namespace
}  // namespace tolm::operation

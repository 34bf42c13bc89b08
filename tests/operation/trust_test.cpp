#include "operation/trust.h"

#include <gtest/gtest.h>

#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "operation/history.h"
#include "operation/trust_state.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

std::vector<HistoryEntry> History() {
  std::vector<HistoryEntry> entries;
  ForEachEntry([&](const HistoryEntry& entry) { entries.push_back(entry); });
  return entries;
}

class TrustTest : public ::testing::Test {
 protected:
  TrustTest() {
    testing::WriteFile("/usr/share/data_update/databases.conf",
                       R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"}})");
  }

  Service service_ = BuildService([](const std::string&) {});
};

TEST_F(TrustTest, FloorThatAPersonLowersStandsInTheHistory) {
  SetFloor("oui", 7);
  EXPECT_THROW(LowerFloor(service_, "oui", 7), NotLower);
  EXPECT_TRUE(History().empty());
  LowerFloor(service_, "oui", 5);
  EXPECT_EQ(FloorOf(service_, "oui"), 5);
  const std::vector<HistoryEntry> history = History();
  ASSERT_EQ(history.size(), 1u);
  EXPECT_EQ(history[0].operation, "trust-lower");
  EXPECT_EQ(history[0].database, "oui");
  EXPECT_EQ(history[0].from, 7);
  EXPECT_EQ(history[0].to, 5);
  EXPECT_EQ(history[0].outcome, kLowered);
}

TEST_F(TrustTest, OnlyAFloorThatThereIsOfADatabaseThatThereIsIsLoweredDownToZero) {
  const auto why = [this](const std::string& name, int version) -> std::string {
    try {
      LowerFloor(service_, name, version);
    } catch (const std::exception& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_EQ(why("oui", 0), "nothing was ever installed, so there is no floor");
  SetFloor("oui", 7);
  EXPECT_EQ(why("oui", 8), "the floor is 7, which is not above 8");
  EXPECT_EQ(why("oui", -1), "a version is not negative");
  SetFloor("geo", 7);
  EXPECT_NE(why("geo", 1), "");
  EXPECT_EQ(FloorOf("geo"), 7);
  EXPECT_ANY_THROW(FloorOf(service_, "geo"));
  EXPECT_TRUE(History().empty());
  EXPECT_EQ(why("oui", 0), "");
  EXPECT_EQ(FloorOf(service_, "oui"), 0);
}

TEST_F(TrustTest, WithTheAcceptedDescriptionTheCachedOneIsForgotten) {
  const std::string cached = "/var/cache/data_update/database_info.json";
  testing::WriteFile(cached, "{}");
  ForgetDescriptions();
  EXPECT_FALSE(std::filesystem::exists(cached)) << "what is forgotten would come back by it";
}

TEST_F(TrustTest, AcceptedDescriptionIsToldUntilItIsForgotten) {
  EXPECT_FALSE(TrustInDescriptions().accepted);
  RememberAccepted({{"https://dl.example/repository", 10, 3, "", 20, 30}, true, false}, {});
  const DescriptionTrust trust = TrustInDescriptions();
  ASSERT_TRUE(trust.accepted);
  EXPECT_EQ(trust.accepted->repository, "https://dl.example/repository");
  EXPECT_EQ(trust.accepted->counter, 3u);
  EXPECT_EQ(trust.accepted->expires, 30);
  ForgetDescriptions();
  EXPECT_FALSE(TrustInDescriptions().accepted);
}

TEST_F(TrustTest, ForgettingDescriptionsStandsInTheHistory) {
  ForgetDescriptions();
  const std::vector<HistoryEntry> history = History();
  ASSERT_EQ(history.size(), 1u);
  EXPECT_EQ(history[0].operation, "trust-reset");
  EXPECT_EQ(history[0].outcome, kReset);
}

}  // namespace
}  // namespace tolm::operation

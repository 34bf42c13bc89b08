#include "operation/operation_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/file.h"
#include "dataupdate/io_utils.h"
#include "operation/installed_record.h"
#include "operation/road.h"
#include "operation/rollout.h"
#include "operation/server_config.h"
#include "operation/trust_state.h"
#include "tests/offer/offers.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

// Is told this description, and does not ask for one.
class ToldInfo : public OperationInfo {
 public:
  using OperationInfo::OperationInfo;
  Json::Value GetDatabaseInfo() const override { return told; }

  Json::Value told;
};

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

  void Begin(const Order& order = {OperationKind::kUpdate}) {
    info_.Begin("oui", order, kDirectory, [] {});
  }

  // A file and a link.
  static InstalledRecord RecordOfTwo() {
    InstalledRecord record{6, VersionFileDigest("oui"), 0, {}};
    for (const mode_t mode : std::initializer_list<mode_t>{S_IFREG | 0644, S_IFLNK | 0777}) {
      const std::string name = S_ISREG(mode) ? "a" : "link";
      record.files[name] = {{name, mode, 1, 0, 0, 0}, std::string(96, 'a')};
    }
    return record;
  }

  // What was accepted of a signer, and that version 9 was installed once.
  static void WriteTrust(int epoch, const std::string& more = "") {
    testing::WriteFile("/var/lib/data_update/trust.json",
                       R"({"format": 1, "databases": {"oui": {"floor": 9)" + more + R"(}},
                           "accepted": {"repository": "r", "epoch": )" +
                           std::to_string(epoch) +
                           R"(, "counter": 1, "digest": "d", "issued": 1, "expires": 2},
                           "signed_wanted": )" +
                           (more.empty() ? "false" : "true") + "}");
  }

  void BeginTold(const Order& order) {
    told_.Begin("oui", order, kDirectory, [] {});
  }

  std::string ToldPackages() const {
    std::string tags;
    for (const auto& [tag, package] : told_.Packages()) {
      tags += tag + ' ';
    }
    return tags;
  }

  static constexpr char kDirectory[] = "/volume1/@database/autoupdate/oui";
  static constexpr char kVersionFile[] = "/var/lib/data_update/oui/version.json";
  static constexpr char kRecord[] = "/var/lib/data_update/oui/installed.json";
  OperationInfo info_{std::make_shared<dataupdate::IOUtils>(), std::make_shared<ServerConfig>()};
  ToldInfo told_{std::make_shared<dataupdate::IOUtils>(), std::make_shared<ServerConfig>()};
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

TEST_F(OperationInfoTest, OperationKnowsNothingOfTheOneBefore) {
  Begin();
  EXPECT_EQ(info_.OfferedVersion(), std::nullopt);
  EXPECT_EQ(info_.GetRemoteInfo("oui").data_version, 7);
  EXPECT_EQ(info_.OfferedVersion(), 7);
  info_.End();
  Begin();
  EXPECT_EQ(info_.OfferedVersion(), std::nullopt);
  EXPECT_EQ(info_.VersionBefore("oui"), 6);
  info_.InstallInFull();
  EXPECT_EQ(info_.GetDatabaseStatus("oui").data_version, kNeverInstalled);
  info_.End();
  EXPECT_EQ(info_.GetDatabaseStatus("oui").data_version, 6);
}

TEST_F(OperationInfoTest, RecordIsReadOnceForEachOperation) {
  WriteRecord("oui", RecordOfTwo());
  EXPECT_FALSE(info_.Record()) << "no operation runs";
  Begin();
  EXPECT_TRUE(info_.Record());
  std::filesystem::remove(kRecord);
  EXPECT_TRUE(info_.Record());
  info_.End();
  EXPECT_FALSE(info_.Record());
  Begin();
  EXPECT_FALSE(info_.Record());
}

TEST_F(OperationInfoTest, RecordThatADiskDoesNotGiveEndsOnlyWhatNeedsIt) {
  std::filesystem::create_directory(kRecord);  // It opens, and cannot be read.
  Begin();
  EXPECT_THROW(info_.Record(), base::FileError);
  info_.InstallInFull();
  EXPECT_FALSE(info_.Record());
  info_.End();
  Begin({OperationKind::kFix});
  EXPECT_THROW(info_.Record(), base::FileError);
  info_.End();
  Begin({OperationKind::kForceInstall, 7});
  EXPECT_FALSE(info_.Record());
}

TEST_F(OperationInfoTest, RepairIsToldTheDigestsOfAllRecordedFiles) {
  const auto names = [this] {
    std::string text;
    for (const auto& [name, file] : info_.GetDatabaseStatus("oui").file_statuses) {
      text += name + ' ';
    }
    return text;
  };
  testing::WriteFile(kVersionFile, R"({"data_version": "6", "last_fetch_time": 60,
                                       "file_statuses": {"/x": {"sha384_digest": "d"}}})");
  WriteRecord("oui", RecordOfTwo());
  EXPECT_EQ(names(), "/x ");
  Begin();
  EXPECT_EQ(names(), "/x ");
  info_.End();
  Begin({OperationKind::kFix});
  EXPECT_EQ(names(), "a ");
  info_.End();
  std::filesystem::remove(kRecord);
  Begin({OperationKind::kFix});
  EXPECT_EQ(names(), "/x ");
}

TEST_F(OperationInfoTest, WhatIsStoredIsRecordedAndRaisesOrSetsTheFloor) {
  using dataupdate::DatabaseStatus;
  info_.SetDatabaseStatus("oui", DatabaseStatus(6, 60, {}));  // No operation runs.
  EXPECT_EQ(info_.stored_versions().at("oui"), 6);
  EXPECT_FALSE(std::filesystem::exists(kRecord));
  EXPECT_EQ(FloorOf("oui"), kNeverInstalled);

  struct Row {
    Order order;
    int version;
    int floor;
  };
  for (const Row& row : {Row{{OperationKind::kUpdate}, 7, 7}, Row{{OperationKind::kFix}, 5, 7},
                         Row{{OperationKind::kForceInstall, 4}, 4, 4}}) {
    Begin(row.order);
    info_.SetDatabaseStatus("oui", DatabaseStatus(row.version, 70, {}));
    info_.End();
    ASSERT_TRUE(ReadRecord("oui")) << row.version;
    EXPECT_EQ(ReadRecord("oui")->version, row.version);
    EXPECT_EQ(FloorOf("oui"), row.floor);
    EXPECT_EQ(InstalledVersionOf("oui"), row.version);
  }
}

TEST_F(OperationInfoTest, SignedDescriptionTellsOfItsPackagesAndItsRolloutOnce) {
  offer::Offer offer = testing::SomeOffer();
  offer.databases["oui"].next = offer::NextOffer{9, 1, testing::PackageNamed("v9"), {}, {}};
  Rollout rollout;
  rollout.stable = 7;
  rollout.next = 9;
  rollout.setting = "stable";
  told_.told = DocumentOf(offer, {{"oui", rollout}});
  std::vector<std::string> lines;
  const Road road([&lines](const std::string& line) { lines.push_back(line); });

  BeginTold({OperationKind::kUpdate});
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(told_.GetRemoteInfo("oui").data_version, 7);
    EXPECT_EQ(lines, std::vector<std::string>{"oui: " + RolloutText(rollout, 0)});
    EXPECT_EQ(ToldPackages(), "d7 v7 v9 ");
  }
  BeginTold({OperationKind::kForceInstall, 9});
  EXPECT_EQ(ToldPackages(), "");
  EXPECT_EQ(told_.GetRemoteInfo("oui").data_version, 9);
  BeginTold({OperationKind::kFix});
  EXPECT_THAT(told_.GetDiffInfos("oui"), SizeIs(1));
  EXPECT_EQ(ToldPackages(), "d7 v7 v9 ");
}

TEST_F(OperationInfoTest, LowerVersionTakesThePlaceOfTheInstalledOneWhereItIsAuthorized) {
  const auto lower_of = [this](int offered) {
    told_.told["deprecated"] = false;
    Json::Value& record = told_.told["db_list"]["oui"];
    record["data_version"] = std::to_string(offered);
    record["last_fetch_time"] = 70;
    record["download_link"] = "http://h/p";
    BeginTold({OperationKind::kUpdate});
    return told_.LowerVersionFor("oui");
  };
  WriteTrust(1, R"(, "authorized": 4)");  // Version 6 is installed.
  EXPECT_EQ(lower_of(3), std::nullopt);
  EXPECT_EQ(lower_of(4), 4);
  EXPECT_EQ(lower_of(5), 5);
  EXPECT_EQ(lower_of(6), std::nullopt);
  EXPECT_EQ(lower_of(7), std::nullopt);
  WriteTrust(1, R"(, "authorized": 9)");
  EXPECT_EQ(lower_of(5), std::nullopt);
  WriteTrust(1);
  EXPECT_EQ(lower_of(5), std::nullopt);
}

TEST_F(OperationInfoTest, SignerThatIsNewSinceTheBeginningSetsTheFloorBelowWhatIsInstalled) {
  struct Row {
    int epoch;
    int version;
    int floor;
    std::optional<int> authorized;
  };
  // Version 7 is offered.
  for (const Row& row : {Row{2, 8, 7, 7}, Row{1, 8, 9, std::nullopt}, Row{2, 7, 9, std::nullopt}}) {
    WriteTrust(1);
    Begin();
    WriteTrust(row.epoch);
    info_.SetDatabaseStatus("oui", dataupdate::DatabaseStatus(row.version, 70, {}));
    info_.End();
    EXPECT_EQ(FloorOf("oui"), row.floor) << row.epoch << ' ' << row.version;
    EXPECT_EQ(LookForAuthorized("oui"), row.authorized) << row.epoch << ' ' << row.version;
  }
}

TEST_F(OperationInfoTest, ForcedInstallationRecordsAnewOnlyWhatItHasChanged) {
  const std::string recorded(96, 'a');
  for (const bool is_changed : {false, true}) {
    testing::WriteFile(std::string(kDirectory) + "/a", "content");
    testing::WriteFile(kVersionFile, R"({"data_version": "6", "last_fetch_time": 60})");
    WriteRecord("oui", RecordOfTwo());
    Begin({OperationKind::kForceInstall, 4});
    if (is_changed) {
      testing::WriteFile(std::string(kDirectory) + "/a", "other content");
    }
    info_.SetDatabaseStatus("oui", dataupdate::DatabaseStatus(4, 70, {}));
    info_.End();
    ASSERT_TRUE(ReadRecord("oui"));
    EXPECT_EQ(ReadRecord("oui")->files.at("a").sha384 == recorded, !is_changed);
  }
}

}  // namespace
}  // namespace tolm::operation

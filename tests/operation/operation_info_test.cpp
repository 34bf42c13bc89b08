#include "operation/operation_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

#include "base/file.h"
#include "dataupdate/io_utils.h"
#include "operation/installed_record.h"
#include "operation/server_config.h"
#include "operation/trust_state.h"
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

  void Begin(const Order& order = {OperationKind::kUpdate}) {
    info_.Begin("oui", order, "/volume1/@database/autoupdate/oui", [] {});
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

  static constexpr char kVersionFile[] = "/var/lib/data_update/oui/version.json";
  static constexpr char kRecord[] = "/var/lib/data_update/oui/installed.json";
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

}  // namespace
}  // namespace tolm::operation

#include "operation/demands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/paths.h"
#include "dataupdate/io_utils.h"
#include "operation/installed_record.h"
#include "operation/operation_info.h"
#include "operation/server_config.h"
#include "operation/trust_state.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::WriteFile;

constexpr char kDirectory[] = "/volume1/@database/autoupdate/oui";
constexpr char kTemporary[] = "/volume1/@tmp/data_update/";

std::string Downloaded(const std::string& tag) {
  return kTemporary + std::string("oui_") + tag;
}

// Version 6 is installed.
class DemandsTest : public ::testing::Test {
 protected:
  DemandsTest() {
    WriteFile("/usr/share/data_update/databases.conf",
              R"({"oui": {"format_version": "2", "install_dest": "%VOLUME%"}})");
    WriteFile("/usr/share/data_update/data_update.conf",
              R"({"config": {"download_scheme": "http", "db_netloc": "127.0.0.1:1",
                             "db_ver": "1", "cur_volume": "/volume1"}})");
    WriteFile("/var/lib/data_update/oui/version.json",
              R"({"data_version": "6", "last_fetch_time": 60, "files": {}})");
    fs::create_directories(kTemporary);
  }

  // The operation learns that this version is offered.
  void Offer(int version) {
    WriteFile(paths::kDatabaseInfo,
              R"({"deprecated": false, "db_list": {"oui": {"data_version": ")" +
                  std::to_string(version) +
                  R"(", "last_fetch_time": 70, "download_link": "http://h/7",
                                            "diff_files": {}}}})");
    info_.GetRemoteInfo("oui");
  }

  void Begin(OperationKind kind = OperationKind::kUpdate) {
    info_.Begin("oui", {kind}, kDirectory, [] {});
  }

  Demands Of(OperationKind kind, int wanted = 0) {
    return Demands(installation_, kind, wanted, info_, say_);
  }

  // A file as it was installed, which the record knows.
  void Install(const std::string& file) {
    const std::string path = std::string(kDirectory) + '/' + file;
    WriteFile(path, file);
    record_.version = 6;
    record_.version_file = VersionFileDigest("oui");
    record_.files[file] = {{file, S_IFREG | 0644}, testing::Sha384Hex(path)};
    WriteRecord("oui", record_);
  }

  // What the delta to that version says of its files; returns the delta's package.
  static std::string Unpack(int version, const std::string& patches) {
    WriteFile(
        kTemporary + std::string("oui_delta_") + std::to_string(version) + "/patch_infos.json",
        patches);
    return Downloaded("d" + std::to_string(version));
  }

  const Installation installation_{"oui", "/volume1", kDirectory};
  std::vector<std::string> said_;
  const std::function<void(const std::string&)> say_ = [this](const std::string& line) {
    said_.push_back(line);
  };
  InstalledRecord record_;
  OperationInfo info_{std::make_shared<dataupdate::IOUtils>(), std::make_shared<ServerConfig>()};
};

// ---- Versions ----

TEST_F(DemandsTest, NothingIsInstalledBelowWhatWasInstalledBefore) {
  Begin();
  Demands demands = Of(OperationKind::kUpdate);
  EXPECT_TRUE(demands.MayMake(kTemporary)) << "it is not known yet what is offered";
  Offer(6);
  EXPECT_TRUE(demands.MayMake(kTemporary));
  EXPECT_EQ(demands.Refusal(), "");
  Offer(5);
  EXPECT_TRUE(demands.MayMake(paths::kCacheDirectory));
  EXPECT_TRUE(Of(OperationKind::kForceInstall).MayMake(kTemporary));
  EXPECT_EQ(demands.Refusal(), "");
  EXPECT_FALSE(Of(OperationKind::kFix).MayMake(kTemporary));
  EXPECT_FALSE(demands.MayMake(kTemporary));
  EXPECT_EQ(demands.Refusal(),
            "version 5 is offered, but version 6 was installed before; an older one is installed "
            "by force-install, or after \"tolmdbud trust lower oui 5\"");
}

TEST_F(DemandsTest, FloorCountsWhereThereIsOne) {
  Begin();
  SetFloor("oui", 4);
  Offer(5);
  EXPECT_TRUE(Of(OperationKind::kUpdate).MayMake(kTemporary));
  SetFloor("oui", 9);
  Offer(8);
  Demands demands = Of(OperationKind::kUpdate);
  EXPECT_FALSE(demands.MayMake(kTemporary));
  EXPECT_THAT(demands.Refusal(), ::testing::HasSubstr("but version 9 was installed before"));
}

TEST_F(DemandsTest, ForcedPackageIsOpenedUnderTheVersionThatWasAskedFor) {
  Begin(OperationKind::kForceInstall);
  const std::string package = Downloaded("debug");
  const auto opened = [&](int wanted) {
    WriteFile(package, "x");
    const std::string path = Of(OperationKind::kForceInstall, wanted).PathToOpen(package);
    EXPECT_TRUE(fs::exists(path));
    EXPECT_FALSE(fs::exists(package));
    return path;
  };
  EXPECT_EQ(opened(-1), Downloaded("v-1")) << "it is not known what is offered";
  Offer(7);
  EXPECT_EQ(opened(0), Downloaded("v7"));
  EXPECT_EQ(opened(-2), Downloaded("v5"));
  EXPECT_EQ(opened(1), Downloaded("v1"));
  WriteFile(package, "x");
  EXPECT_EQ(Of(OperationKind::kUpdate, 3).PathToOpen(package), package);
  EXPECT_EQ(Of(OperationKind::kForceInstall, 3).PathToOpen(Downloaded("v7")), Downloaded("v7"));
  EXPECT_TRUE(fs::exists(package));
}

// ---- Deltas ----

TEST_F(DemandsTest, DeltaPatchesWhatItWasMadeForAndNothingElse) {
  Install("a");
  Install("sub/b");
  Begin();
  Demands demands = Of(OperationKind::kUpdate);
  const std::string of_all = Unpack(7, R"({"/a": {"operation": "update"},
                                           "sub/b": {"operation": "update"},
                                           "/gone": {"operation": "update"},
                                           "/new/c": {"operation": "create"},
                                           "/odd": "update",
                                           "/../../x": {"operation": "update"}})");
  WriteFile("/volume1/@database/autoupdate/x", "outside");
  EXPECT_TRUE(demands.Accepts(of_all));
  EXPECT_TRUE(demands.Accepts(Unpack(9, R"({"../x": {"operation": "update"}})")))
      << "the library refuses it";
  WriteFile(std::string(kDirectory) + "/a", "patched by it");
  EXPECT_TRUE(demands.Accepts(Unpack(8, R"({"/a": {"operation": "update"}})")))
      << "what follows patches the result";
  EXPECT_THAT(said_, IsEmpty());

  EXPECT_FALSE(Of(OperationKind::kUpdate).Accepts(of_all));
  WriteFile(std::string(kDirectory) + "/mine", "x");
  EXPECT_TRUE(
      Of(OperationKind::kUpdate).Accepts(Unpack(7, R"({"mine": {"operation": "create"}})")));
  EXPECT_FALSE(
      Of(OperationKind::kUpdate).Accepts(Unpack(7, R"({"mine": {"operation": "update"}})")));
  const std::string instead = "; the full package is installed in place of deltas";
  EXPECT_THAT(said_, ElementsAre("a has another content than was installed" + instead,
                                 "mine is not among the files that were installed" + instead));
}

TEST_F(DemandsTest, DeltaThatWouldFollowALinkIsRefused) {
  Install("a");
  Begin();
  WriteFile("/tmp/outside/deep/x", "x");
  fs::create_directory_symlink("/tmp/outside", std::string(kDirectory) + "/way");
  fs::create_directories(std::string(kDirectory) + "/s");
  fs::create_directory_symlink("/tmp/outside", std::string(kDirectory) + "/s/t");
  for (const char* const file : {"/way/x", "way/deep/x", "/s/t/x", "s/t/deep/x"}) {
    EXPECT_FALSE(
        Of(OperationKind::kUpdate)
            .Accepts(Unpack(7, std::string("{\"") + file + R"(": {"operation": "create"}})")))
        << file;
  }
  const std::string instead = " is a link; the full package is installed in place of deltas";
  EXPECT_THAT(said_,
              ElementsAre("way" + instead, "way" + instead, "s/t" + instead, "s/t" + instead));
}

TEST_F(DemandsTest, WhatNothingIsKnownOfIsForTheLibraryToJudge) {
  WriteFile(std::string(kDirectory) + "/a", "of whatever");
  Begin();
  Demands demands = Of(OperationKind::kUpdate);
  EXPECT_TRUE(demands.Accepts(Unpack(7, R"({"/a": {"operation": "update"}})"))) << "no record";
  EXPECT_TRUE(demands.Accepts(Unpack(8, "[1]")));
  EXPECT_TRUE(demands.Accepts(Unpack(8, "{")));
  EXPECT_TRUE(demands.Accepts(Downloaded("d9"))) << "nothing was unpacked";
  EXPECT_TRUE(demands.Accepts(Downloaded("v7"))) << "no delta";
  EXPECT_TRUE(demands.Accepts("/tmp/other_d7"));
  EXPECT_EQ(demands.DifferenceFromOffer(Downloaded("v7")), "");
  EXPECT_THAT(said_, IsEmpty());
}

}  // namespace
}  // namespace tolm::operation

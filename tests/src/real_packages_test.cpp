// The engine and the front with nothing in place of anything: real packages, real downloads, real
// patches.

#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>
#include <syslog.h>

#include <memory>

#include "dataupdate/config.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/strategy.h"
#include "dataupdate/update.h"
#include "dataupdate/updater.h"
#include "tests/src/engine_support.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/noise.h"
#include "tests/support/publisher.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/vcdiff_delta.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using dataupdate::Config;
using dataupdate::DiffStrategy;
using dataupdate::FullStrategy;
using dataupdate::InfoGetter;
using dataupdate::IOUtils;
using dataupdate::ServiceConfig;
using dataupdate::Update;
using dataupdate::Updater;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kOnVolume[] = "/volume1/@database/autoupdate/x";
constexpr char kOnRootFs[] = "/var/db/x";

class PackagesTest : public ::testing::Test {
 protected:
  PackagesTest() {
    const auto io = std::make_shared<IOUtils>();
    const auto config = std::make_shared<ServiceConfig>(std::make_shared<Config>(io));
    info_ = std::make_shared<InfoGetter>(io, config);
    update_ = std::make_unique<Update>(std::make_shared<Updater>(), info_, config);
  }

  static std::string NewDatabase() {
    fs::remove("/tmp/new.db");
    SQLite::Database("/tmp/new.db", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE)
        .exec("CREATE TABLE t(v); INSERT INTO t VALUES('one')");
    return ReadFile("/tmp/new.db");
  }

  // Version 1 in full and deltas to 2 and 3.
  void PackThreeVersions() {
    publisher_.PackFull("x", 1, {{"a.bin", before_}, {"d/x.db", NewDatabase()}, {"gone", "old"}});
    publisher_.PackDelta("x", 2,
                         R"({"/a.bin": {"operation": "update", "input_file": "a.vcdiff"},
                             "/d/x.db": {"operation": "update", "input_file": "x.sqlitediff"},
                             "/new/file": {"operation": "create", "input_file": "file"}})",
                         {{"a.vcdiff", VcdiffDelta(before_, between_)},
                          {"x.sqlitediff", "INSERT INTO t VALUES('two')\n"},
                          {"file", "new"}});
    publisher_.PackDelta("x", 3,
                         R"({"/a.bin": {"operation": "update", "input_file": "a.vcdiff"},
                             "/gone": {"operation": "delete"}})",
                         {{"a.vcdiff", VcdiffDelta(between_, after_)}});
    publisher_.PackFull("x", 3, {{"a.bin", after_}, {"full", "yes"}});
  }

  void InstallFirstVersion() {
    publisher_.Offer("x", 1);
    update_->UpdateProject("x");
  }

  Publisher publisher_;
  std::shared_ptr<InfoGetter> info_;
  std::unique_ptr<Update> update_;
  const std::string before_ = std::string(50000, 'a') + std::string(50000, 'b');
  const std::string between_ = std::string(50000, 'b') + "inserted" + std::string(50000, 'a');
  const std::string after_ = between_.substr(10) + "end";
};

TEST_F(PackagesTest, InstallsInFullAndGoesForwardByDeltas) {
  ConfigureDevice(publisher_, {{"x", "%VOLUME%"}});
  PackThreeVersions();
  InstallFirstVersion();
  EXPECT_EQ(info_->GetDatabaseStatus("x").data_version, 1);
  EXPECT_EQ(info_->GetDatabaseStatus("x").file_statuses.size(), 3U);

  publisher_.Offer("x", 3, {2, 3});
  update_->UpdateProject("x");
  Tree tree = ReadTree(kOnVolume);
  EXPECT_TRUE(tree["a.bin"] == after_);
  EXPECT_EQ(tree["new/file"], "new");
  EXPECT_EQ(tree.count("gone"), 0U);
  EXPECT_EQ(SQLite::Database(std::string(kOnVolume) + "/d/x.db")
                .execAndGet("SELECT group_concat(v) FROM t")
                .getString(),
            "one,two");
  EXPECT_EQ(publisher_.Server().RequestCount(Publisher::PathOf(publisher_.FullPackage("x", 3))),
            0U);
  EXPECT_EQ(info_->GetDatabaseStatus("x").data_version, 3);
  EXPECT_FALSE(fs::exists("/volume1/@tmp/data_update"));
}

TEST_F(PackagesTest, GoesForwardOnAnotherFileSystemThanTheVolumes) {
  const ScopedMount other = ScopedMount::Tmpfs("/var/db", 64 * 1024 * 1024);
  ConfigureDevice(publisher_, {{"x", "%ROOTFS%"}});
  PackThreeVersions();
  InstallFirstVersion();
  EXPECT_TRUE(ReadFile(std::string(kOnRootFs) + "/a.bin") == before_);
  publisher_.Offer("x", 3, {2, 3});
  update_->UpdateProject("x");
  EXPECT_TRUE(ReadFile(std::string(kOnRootFs) + "/a.bin") == after_);
  update_->FixProject("x");
  EXPECT_EQ(publisher_.Server().RequestCount(Publisher::PathOf(publisher_.FullPackage("x", 3))), 0U)
      << "what was installed is whole";
}

TEST_F(PackagesTest, DamagedFileIsRepairedFromTheFullPackage) {
  ConfigureDevice(publisher_, {{"x", "%VOLUME%"}});
  PackThreeVersions();
  publisher_.Offer("x", 3);
  update_->UpdateProject("x");
  WriteFile(std::string(kOnVolume) + "/a.bin", "damaged");
  update_->FixProject("x");
  EXPECT_TRUE(ReadFile(std::string(kOnVolume) + "/a.bin") == after_);
}

TEST_F(PackagesTest, DeltaOfAnotherVersionIsRefusedAndTheFullPackageInstalled) {
  ConfigureDevice(publisher_, {{"x", "%VOLUME%"}});
  PackThreeVersions();
  InstallFirstVersion();
  fs::copy_file(publisher_.DeltaPackage("x", 2), publisher_.DeltaPackage("x", 3),
                fs::copy_options::overwrite_existing);
  publisher_.Offer("x", 3, {2, 3});
  SyslogCapture::Clear();
  update_->UpdateProject("x");
  EXPECT_EQ(ReadTree(kOnVolume), (Tree{{"a.bin", after_}, {"full", "yes"}}));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ::testing::Contains(StartsWith("Diff update fail, try full update: tolmarchive_open "
                                             "/volume1/@tmp/data_update/x_d3 failed, ret: ")));
}

TEST_F(PackagesTest, AlteredPackageIsRefusedAndInstalledFilesStay) {
  ConfigureDevice(publisher_, {{"x", "%VOLUME%"}});
  PackThreeVersions();
  InstallFirstVersion();
  const Tree installed = ReadTree(kOnVolume);
  const fs::path package = publisher_.FullPackage("x", 3);
  ChangeByte(package, fs::file_size(package) / 3);
  publisher_.Offer("x", 3);
  EXPECT_THAT(UpdateErrorOf([&] { update_->UpdateProject("x"); }),
              StartsWith("tolmarchive_open /volume1/@tmp/data_update/x_v3 failed, ret: "));
  EXPECT_EQ(ReadTree(kOnVolume), installed);
  EXPECT_EQ(info_->GetDatabaseStatus("x").data_version, 1);
  EXPECT_FALSE(fs::exists("/volume1/@tmp/data_update"));
}

TEST_F(PackagesTest, OlderVersionIsInstalledByForce) {
  ConfigureDevice(publisher_, {{"x", "%VOLUME%"}});
  // Long enough not to stand in the link's port, too.
  publisher_.PackFull("x", 1000002, {{"full", "old"}});
  publisher_.PackFull("x", 1000003, {{"full", "new"}, {"survivor", "new"}});
  publisher_.Offer("x", 1000003);
  update_->UpdateProject("x");
  update_->ForceInstall("x", -1);
  EXPECT_EQ(ReadTree(kOnVolume), (Tree{{"full", "old"}, {"survivor", "new"}}));
  EXPECT_EQ(info_->GetDatabaseStatus("x"), dataupdate::DatabaseStatus(1000002, 1700000000, {}));
}

TEST_F(PackagesTest, VolumeThatFillsUpWhileUnpackingIsAFailure) {
  ConfigureDevice(publisher_, {{"x", "%VOLUME%"}}, "/volume9");
  const ScopedMount volume = ScopedMount::Tmpfs("/volume9", 1024 * 1024);
  publisher_.PackFull("x", 1, {{"a", "small"}});
  publisher_.PackFull("x", 2, {{"large", std::string(4 * 1024 * 1024, '\0')}});
  InstallFirstVersion();
  publisher_.Offer("x", 2);
  EXPECT_THAT(UpdateErrorOf([&] { update_->UpdateProject("x"); }),
              StartsWith("tolmarchive_extract /volume9/@tmp/data_update/x_v2 failed, ret: "));
  EXPECT_EQ(ReadTree("/volume9/@database/autoupdate/x"), (Tree{{"a", "small"}}));
  EXPECT_EQ(info_->GetDatabaseStatus("x").data_version, 1);
  EXPECT_FALSE(fs::exists("/volume9/@tmp/data_update"));
}

TEST_F(PackagesTest, VolumeThatFillsUpWhileDownloadingIsAFailure) {
  ConfigureDevice(publisher_, {{"x", "%VOLUME%"}}, "/volume9");
  const ScopedMount volume = ScopedMount::Tmpfs("/volume9", 1024 * 1024);
  publisher_.PackFull("x", 1, {{"noise", Noise(2 * 1024 * 1024)}});
  publisher_.Offer("x", 1);
  EXPECT_THAT(UpdateErrorOf([&] { update_->UpdateProject("x"); }),
              StartsWith("Fail to wget url: "));
  EXPECT_FALSE(fs::exists("/volume9/@tmp/data_update"));
  EXPECT_FALSE(fs::exists("/var/lib/data_update/x/version.json"));
}

TEST_F(PackagesTest, DeltaChainThatOutgrowsTheVolumeFallsBackToTheFullPackage) {
  ConfigureDevice(publisher_, {{"x", "%VOLUME%"}}, "/volume9");
  const ScopedMount volume = ScopedMount::Tmpfs("/volume9", 1024 * 1024);
  publisher_.PackFull("x", 1, {{"a", std::string(600 * 1024, 'a')}});
  publisher_.PackDelta("x", 2, R"({"/a": {"operation": "update", "input_file": "a.vcdiff"}})",
                       {{"a.vcdiff", "never read"}});
  publisher_.PackFull("x", 2, {{"a", "small"}});
  WriteFile("/volume9/@database/autoupdate/x/a", std::string(600 * 1024, 'a'));
  info_->SetDatabaseStatus("x", dataupdate::DatabaseStatus(1, 0, {}));
  publisher_.Offer("x", 2, {2});
  update_->UpdateProject("x");
  EXPECT_EQ(ReadTree("/volume9/@database/autoupdate/x"), (Tree{{"a", "small"}}));
  EXPECT_THAT(SyslogCapture::TextsWithoutPlace(LOG_WARNING),
              ::testing::Contains(::testing::AllOf(
                  StartsWith("Diff update fail, try full update: Fail to copy from "),
                  HasSubstr("No space left on device"))));
}

}  // namespace
}  // namespace tolm::testing

#include "publish/upgrade.h"

#include <gmock/gmock.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "package/error.h"
#include "publish/signed_description.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

// A repository of a former program: descriptions are not signed, and there is no key for it.
class UpgradeTest : public ReleaseFixture {
 protected:
  UpgradeTest() {
    InitRepository(NewRepository(now_), now_);
    fs::rename(Path("keys/info.key"), Path("info.key"));
    fs::rename(Path("keys/info.pem"), Path("info.pem"));
    request_.repository = Path("repo");
    request_.root_key = Path("keys/root.key");
  }

  publish::UpgradeReport Upgrade() const {
    return UpgradeRepository(request_, now_,
                             [](const std::string& note) { ADD_FAILURE() << note; });
  }
  publish::Settings Settings() const {
    return publish::LoadSettings(Path("repo/state/settings.json"));
  }

  const std::time_t now_ = std::time(nullptr);
  publish::UpgradeRequest request_;
};

TEST_F(UpgradeTest, KeyIsMadeBesideTheOtherAndDescriptionsAreSignedFromThenOn) {
  publish::Database database;
  database.releases.resize(1);
  database.releases[0].version = 1;
  database.releases[0].full.size_bytes = 7;
  database.releases[0].no_delta_reason = "first";
  PutReleases("oui", database);
  const publish::UpgradeReport report = Upgrade();
  EXPECT_FALSE(report.is_signed_already);
  EXPECT_EQ(report.info_key, Path("keys/info.key"));
  EXPECT_EQ(report.databases, 1u);
  const publish::Settings settings = Settings();
  EXPECT_EQ(settings.info_key, "../keys/info.key");
  EXPECT_EQ(settings.info_certificate_path, "../keys/info.pem");
  EXPECT_THAT(settings.identity, MatchesRegex("[0-9a-f]{32}"));
  const auto served =
      ServedOffer(publish::RepositoryPaths(Path("repo")), settings, std::time(nullptr));
  ASSERT_TRUE(served);
  EXPECT_EQ(served->repository, settings.identity);
  EXPECT_NEAR(static_cast<double>(report.expires), static_cast<double>(served->expires), 60);
  EXPECT_EQ(served->databases.count("oui"), 1u);
  const Tree before = ReadTree(Path("repo"));
  const publish::UpgradeReport again = Upgrade();
  EXPECT_TRUE(again.is_signed_already);
  EXPECT_EQ(again.info_key, report.info_key);
  EXPECT_EQ(again.databases, 1u);
  EXPECT_EQ(again.expires, 0);
  EXPECT_EQ(ReadTree(Path("repo")), before);
}

TEST_F(UpgradeTest, KeysThatAreThereAreTaken) {
  fs::rename(Path("info.key"), Path("keys/info.key"));
  fs::rename(Path("info.pem"), Path("keys/info.pem"));
  const Tree keys = ReadTree(Path("keys"));
  Upgrade();
  EXPECT_EQ(ReadTree(Path("keys")), keys);
  EXPECT_EQ(Settings().info_key, "../keys/info.key");
}

TEST_F(UpgradeTest, LoneKeyOfAnEndedUpgradeGetsItsCertificate) {
  fs::rename(Path("info.key"), Path("keys/info.key"));
  const std::string key = ReadFile(Path("keys/info.key"));
  Upgrade();
  EXPECT_EQ(ReadFile(Path("keys/info.key")), key);
  EXPECT_NE(LoadInfoSigner(Settings(), now_).key, nullptr);
}

TEST_F(UpgradeTest, KeysThatAreGivenAreTaken) {
  request_.keys.info_key = Path("info.key");
  request_.keys.info_certificate_path = Path("info.pem");
  EXPECT_EQ(Upgrade().info_key, Path("info.key"));
  EXPECT_FALSE(fs::exists(Path("keys/info.key")));
  EXPECT_EQ(Settings().info_certificate_path, "../info.pem");
}

TEST_F(UpgradeTest, FailureTakesAwayWhatWasMadeAndNothingElse) {
  publish::GenerateKeys(Path("others"), now_);
  request_.root_key = Path("others/root.key");
  request_.root_path = Path("others/root.pem");
  const Tree repository = ReadTree(Path("repo"));
  const Tree keys = ReadTree(Path("keys"));
  EXPECT_THROW(Upgrade(), package::Error);
  EXPECT_EQ(ReadTree(Path("keys")), keys);
  // A lone key was there before.
  fs::rename(Path("info.key"), Path("keys/info.key"));
  const Tree with_key = ReadTree(Path("keys"));
  EXPECT_THROW(Upgrade(), package::Error);
  EXPECT_EQ(ReadTree(Path("keys")), with_key);
  EXPECT_EQ(ReadTree(Path("repo")), repository);
}

TEST_F(UpgradeTest, WhatIsMissingIsNamed) {
  request_.root_key.clear();
  ExpectError([this] { Upgrade(); },
              Path("repo") +
                  ": its descriptions are not signed yet; --root-key KEY makes a key "
                  "for them, or --info-key KEY and --info-cert FILE give one");
  request_.root_key = Path("keys/root.key");
  fs::rename(Path("keys/signing.key"), Path("signing.key"));
  ExpectError(
      [this] { Upgrade(); },
      HasSubstr("key ../keys/signing.key: no file, beside which an info key could be made"));
}

TEST_F(UpgradeTest, GroupMayRefreshWhatWasSignedBefore) {
  Upgrade();
  EXPECT_FALSE(fs::exists(Path("repo/state/refresh")));
  const std::string served = ReadFile(Path("repo/public/database_info/1"));
  request_.refresh_group = std::to_string(::getegid());
  EXPECT_TRUE(Upgrade().is_signed_already);
  EXPECT_TRUE(fs::exists(Path("repo/state/refresh")));
  EXPECT_EQ(ReadFile(Path("repo/public/database_info/1")), served);
}

}  // namespace
}  // namespace tolm::testing

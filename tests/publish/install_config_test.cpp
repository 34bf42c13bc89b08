#include "publish/install_config.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "publish/files.h"
#include "publish/repository.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr char kOverrides[] = "/usr/tolm/etc/data_update/databases.conf";

class InstallConfigTest : public ReleaseFixture {
 protected:
  InstallConfigTest() {
    InitRepository(NewRepository(), kNow);
    publish::RepositoryChange change(Path("repo"), [](const std::string&) {});
    change.Begin("test");
    publish::Release release;
    release.version = 1;
    release.full = {"packages/oui/oui_v1", 7, publish::Sha384OfText("package")};
    release.no_delta_reason = "first";
    WriteFile(change.paths().Work() + "/package", "package");
    change.Publish(change.paths().Work() + "/package", release.full);
    change.catalog.databases["oui"].releases.push_back(release);
    change.Commit();
  }

  void Install() {
    publish::InstallConfigRequest request;
    request.repository = Path("repo");
    request.root = Path("image");
    EXPECT_EQ(InstallConfig(request, kNow).databases, 1u);
  }
  std::string InImage(const std::string& path) const { return Path("image") + path; }
};

TEST_F(InstallConfigTest, DeviceLearnsServerDatabasesAndRoot) {
  Install();
  EXPECT_THAT(ReadFile(InImage("/usr/share/data_update/data_update.conf")),
              HasSubstr("example.org"));
  EXPECT_THAT(ReadFile(InImage("/usr/share/data_update/databases.conf")), HasSubstr("\"oui\""));
  EXPECT_EQ(ReadFile(InImage("/usr/tolm/etc/keyring/6.pem")), ReadFile(Path("keys/root.pem")));
  EXPECT_FALSE(std::filesystem::exists(InImage(kOverrides)));
}

TEST_F(InstallConfigTest, OverridesThatHideADatabaseListItBesidesTheirOwn) {
  WriteFile(InImage(kOverrides), R"({"geo": {"auto_update": false}})");
  Install();
  EXPECT_THAT(ReadFile(InImage(kOverrides)),
              AllOf(HasSubstr("\"geo\""), HasSubstr("auto_update"), HasSubstr("\"oui\"")));
  WriteFile(InImage(kOverrides), "{damaged");
  Install();
  EXPECT_EQ(ReadFile(InImage(kOverrides)), "{damaged");
}

}  // namespace
}  // namespace tolm::testing

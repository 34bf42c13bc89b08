#include "publish/install_config.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "base/rules.h"
#include "package/error.h"
#include "publish/files.h"
#include "publish/json_object.h"
#include "publish/repository.h"
#include "tests/package/authority.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace {

std::function<void()> when_waited;
std::uint64_t waited_microseconds = 0;

}  // namespace

// Before the C library's: nobody waits for a lock here.
extern "C" int usleep(useconds_t microseconds) {
  waited_microseconds += microseconds;
  if (when_waited) {
    when_waited();
  }
  return 0;
}

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

TEST_F(InstallConfigTest, MachinesSettingsAreChangedUnderTheirLock) {
  const std::string path = "/run/data_update/config.lock";
  publish::InstallConfigRequest request;
  request.repository = Path("repo");
  Install();
  EXPECT_FALSE(std::filesystem::exists("/run/data_update")) << "an image is nobody else's";
  request.root = "/";
  InstallConfig(request, kNow);
  ASSERT_TRUE(std::filesystem::is_regular_file(path));
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
  EXPECT_EQ(waited_microseconds, 0u);
  // Somebody has it, for a moment.
  WriteFile(kOverrides, "{\"geo\": {}}");
  base::Descriptor other(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.Get(), LOCK_EX), 0);
  when_waited = [&] {
    EXPECT_EQ(ReadFile(kOverrides), "{\"geo\": {}}");
    if (waited_microseconds == 300'000) {
      other = base::Descriptor();
    }
  };
  InstallConfig(request, kNow);
  when_waited = nullptr;
  EXPECT_EQ(waited_microseconds, 300'000u);
  EXPECT_THAT(ReadFile(kOverrides), HasSubstr("\"oui\""));
  // And for longer than anybody waits.
  WriteFile(kOverrides, "{}");
  other = base::Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.Get(), LOCK_EX), 0);
  waited_microseconds = 0;
  ExpectError([&] { InstallConfig(request, kNow); }, "Fail to lock " + path);
  EXPECT_EQ(waited_microseconds, std::uint64_t{rules::kLockWaitSeconds} * 1'000'000);
  // A link is no lock.
  std::filesystem::rename(path, path + ".file");
  std::filesystem::create_symlink(path + ".file", path);
  waited_microseconds = 0;
  ExpectError([&] { InstallConfig(request, kNow); }, "Fail to lock " + path);
  EXPECT_EQ(waited_microseconds, 0u);
  EXPECT_EQ(ReadFile(kOverrides), "{}");
}

TEST_F(InstallConfigTest, RootThatIsNoneIsNotInstalled) {
  publish::InstallConfigRequest request;
  request.repository = Path("repo");
  request.root = Path("image");
  WriteFile(Path("keys/root.pem"), "damaged");
  EXPECT_THROW(InstallConfig(request, kNow), package::Error);
  EXPECT_FALSE(std::filesystem::exists(Path("image")));
}

TEST_F(InstallConfigTest, DeviceIsToldThisAndNothingElse) {
  publish::InstallConfigRequest request;
  request.repository = Path("repo");
  request.root = Path("image");
  const publish::InstallConfigReport report = InstallConfig(request, kNow);
  EXPECT_EQ(report.databases, 1u);
  EXPECT_FALSE(report.requires_signed);
  EXPECT_FALSE(report.revocations);
  EXPECT_EQ(report.refused, 0u);
  EXPECT_EQ(ReadFile(InImage("/usr/share/data_update/data_update.conf")),
            publish::FormatJson(publish::ParseJson(R"({"config": {"download_scheme": "http",
                "db_netloc": "example.org", "db_ver": "1", "cur_volume": ""}})",
                                                   "")));
  EXPECT_EQ(ReadFile(InImage("/usr/share/data_update/databases.conf")),
            publish::FormatJson(publish::ParseJson(
                R"({"oui": {"format_version": "1", "install_dest": "%VOLUME%"}})", "")));
  request.install_dest = "%ROOTFS%";
  InstallConfig(request, kNow);
  EXPECT_THAT(ReadFile(InImage("/usr/share/data_update/databases.conf")), HasSubstr("%ROOTFS%"));
  request.repository = Path("none");
  request.root = Path("other");
  ExpectError([&] { InstallConfig(request, kNow); }, HasSubstr("no repository"));
  EXPECT_FALSE(std::filesystem::exists(Path("other")));
}

TEST_F(InstallConfigTest, OverridesKeepTheirSettingsModeAndLink) {
  const std::string file = Path("image/etc/overrides");
  WriteFile(file, "{\"geo\": {\"auto_update\": false}}\n");
  std::filesystem::permissions(file, std::filesystem::perms(0640));
  std::filesystem::create_directories(std::filesystem::path(InImage(kOverrides)).parent_path());
  std::filesystem::create_symlink(file, InImage(kOverrides));
  Install();
  EXPECT_EQ(ReadFile(file), publish::FormatJson(publish::ParseJson(
                                R"({"geo": {"auto_update": false}, "oui": {}})", "")));
  EXPECT_TRUE(std::filesystem::is_symlink(InImage(kOverrides)));
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0640));
  // What lists it is not written again, nor is what is no list of databases.
  for (const std::string text : {"{\"oui\":{}}", "[]", "[\"oui\"]", "7", "", "null"}) {
    WriteFile(file, text);
    Install();
    EXPECT_EQ(ReadFile(file), text);
  }
}

// A repository with one package that is signed by its signer, and revocations of its root.
class InstallRevocationsTest : public ReleaseFixture {
 protected:
  static constexpr std::int64_t kLater = 2100000000;

  InstallRevocationsTest() {
    WriteFile(Path("root.pem"), root_.Pem());
    WriteFile(Path("signing.key"), PemOf(signer_.key.get()));
    WriteFile(Path("signing.pem"), PemOf(signer_.certificate.get()));
    publish::InitRequest request;
    request.repository = Path("repo");
    request.settings.base_url = {"http", "example.org"};
    request.settings.key = Path("signing.key");
    request.settings.certificate_path = Path("signing.pem");
    InitRepository(request, kLater);
    publish::MakeRelease(
        NewRelease(), kLater, [](const std::string&) {}, [](const publish::Step&) {});
  }
  publish::InstallConfigReport Install(const std::string& pem) const {
    WriteFile(Path("crl.pem"), pem);
    publish::InstallConfigRequest request;
    request.repository = Path("repo");
    request.root = Path("image");
    request.revocations_path = Path("crl.pem");
    return InstallConfig(request, kLater);
  }
  std::string List(const std::vector<X509*>& revoked, long number,
                   std::int64_t next = kLater) const {
    return root_.RevocationPem(revoked, kLater - 9, next, number);
  }

  const Authority root_;
  const package::Signer signer_ = root_.NewSigner();
  const std::string installed_ = Path("image/usr/tolm/etc/keyring/6.crl.pem");
};

TEST_F(InstallRevocationsTest, OverdueListInstallsNothing) {
  ExpectError([this] { Install(List({}, 1, kLater - 1)); },
              AllOf(HasSubstr(Path("crl.pem") + ": the list of CN=Test root revokes 0"),
                    ::testing::EndsWith("; nothing was installed")));
  EXPECT_FALSE(std::filesystem::exists(Path("image")));
}

TEST_F(InstallRevocationsTest, PackagesThatDevicesWillRefuseAreCounted) {
  const publish::InstallConfigReport none = Install(List({}, 2));
  ASSERT_TRUE(none.revocations);
  EXPECT_EQ(none.revocations->lists.size(), 1u);
  EXPECT_EQ(none.refused, 0u);
  EXPECT_EQ(ReadFile(installed_), ReadFile(Path("crl.pem")));
  EXPECT_EQ(Install(List({signer_.certificate.get()}, 3)).refused, 1u);
  const std::string before = ReadFile(installed_);
  EXPECT_THROW(Install(List({}, 2)), package::Error);
  EXPECT_EQ(ReadFile(installed_), before);
  publish::InstallConfigRequest request;
  request.repository = Path("repo");
  request.root = Path("image");
  EXPECT_FALSE(InstallConfig(request, kLater).revocations);
  EXPECT_EQ(ReadFile(installed_), before) << "what is there stays";
}

TEST(InstallSignedConfigTest, DevicesAreToldToTakeNoUnsignedDescription) {
  const TemporaryDirectory directory;
  const std::time_t now = std::time(nullptr);
  publish::GenerateKeys(directory.Path() / "keys", now);
  publish::InitRequest request;
  request.repository = directory.Path() / "repo";
  request.settings.base_url = {"http", "example.org"};
  request.settings.key = directory.Path() / "keys/signing.key";
  request.settings.certificate_path = directory.Path() / "keys/signing.pem";
  TakeInfoFilesBesideKey(request.settings);
  InitRepository(request, now);
  publish::InstallConfigRequest install;
  install.repository = request.repository;
  install.root = directory.Path() / "image";
  const publish::InstallConfigReport report = InstallConfig(install, now);
  EXPECT_TRUE(report.requires_signed);
  EXPECT_EQ(report.databases, 0u);
  EXPECT_THAT(ReadFile(directory.Path() / "image/usr/share/data_update/data_update.conf"),
              HasSubstr("\"require_signed_description\" : true"));
}

}  // namespace
}  // namespace tolm::testing

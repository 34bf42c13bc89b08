#include "publish/resign.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "package/error.h"
#include "package/package.h"
#include "package/package_writer.h"
#include "publish/files.h"
#include "publish/repository.h"
#include "tests/package/authority.h"
#include "tests/publish/expect_error.h"
#include "tests/support/files.h"
#include "tests/support/noise.h"
#include "tests/support/temporary_directory.h"

namespace {

// The error of synchronising a package in the work directory; 0: there is none.
int sync_error = 0;

}  // namespace

// A disk that fails in the end, when a test wants that.
int fsync(int file) {
  std::error_code ignored;
  const std::string path =
      std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), ignored).string();
  if (sync_error != 0 && path.find("/state/work/oui/") != std::string::npos) {
    errno = sync_error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, file));
}

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::CompressionChoice;
using package::Kind;
using package::Signer;
using publish::Catalog;
using publish::ResignReport;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr std::int64_t kNow = 2100000000;
constexpr std::int64_t kReleased = kNow - 1000;

// A repository whose packages this test signs.
class ResignTest : public ::testing::Test {
 protected:
  ResignTest() {
    ::umask(0);
    WriteFile(Path("root.pem"), root_.Pem());
    Keep(signer_, "signing");
    publish::InitRequest request;
    request.repository = Path("repo");
    request.settings.base_url = {"http", "example.org"};
    request.settings.key = Path("signing.key");
    request.settings.certificate_path = Path("signing.pem");
    InitRepository(request, kReleased);
    WriteFile(Path("tree/a.txt"), "a");
  }

  std::string Path(const std::string& name) const { return directory_.Path() / name; }
  void Keep(const Signer& signer, const std::string& name) const {
    WriteFile(Path(name + ".key"), PemOf(signer.key.get()));
    WriteFile(Path(name + ".pem"), PemOf(signer.certificate.get()));
  }
  std::unique_ptr<publish::RepositoryChange> Change() const {
    return std::make_unique<publish::RepositoryChange>(
        Path("repo"), [](const std::string& note) { ADD_FAILURE() << note; });
  }
  publish::PackageRecord Put(publish::RepositoryChange& change, Kind kind, int version,
                             const Signer& signer, CompressionChoice compression) const {
    publish::PackageRecord record;
    record.path = publish::PackagePath(change.catalog.part, "oui", kind, version);
    const std::string work =
        change.paths().Work() + '/' + fs::path(record.path).filename().string();
    package::Packing packing;
    packing.compression = compression;
    WritePackage(Path("tree"), work, {"oui", kind, version}, packing, signer_, kNow);
    const std::uint64_t payload_bytes = package::Package(work).layout().payload_bytes;
    WriteFile(work, SignedPackage(ReadFile(work).substr(0, payload_bytes), signer));
    const publish::FileFacts facts = publish::MeasureFile(work);
    record.size_bytes = facts.size_bytes;
    record.sha384 = facts.sha384;
    change.Publish(work, record);
    return record;
  }
  // Another release of "oui", with a delta unless it is the first.
  void Release(const Signer& signer,
               CompressionChoice compression = CompressionChoice::kZstd) const {
    const auto change = Change();
    change->Begin("test");
    publish::Database& database = change->catalog.databases["oui"];
    publish::Release release;
    release.version = static_cast<int>(database.releases.size()) + 7;
    release.released = kReleased;
    release.full = Put(*change, Kind::kFull, release.version, signer, compression);
    if (database.releases.empty()) {
      release.no_delta_reason = "first";
    } else {
      release.delta = publish::DeltaRecord{
          Put(*change, Kind::kDelta, release.version, signer, CompressionChoice::kZstd), {}, 0};
    }
    database.releases.push_back(release);
    change->Commit();
  }
  ResignReport Resign(const publish::KeyFiles& keys = {}, bool force = false) {
    steps_.clear();
    return publish::ResignRepository(
        {Path("repo"), keys, force}, kNow, [](const std::string& note) { ADD_FAILURE() << note; },
        [this](const publish::Step& step) {
          steps_.push_back(std::string(step.what) + ' ' + std::to_string(step.done) + '/' +
                           std::to_string(step.total));
        });
  }
  Catalog Kept() const { return publish::LoadCatalog(Path("repo/state/catalog.json")); }
  publish::KeyFiles NextKeys(const CertificateOptions& options = {}) const {
    Keep(root_.NewSigner(options), "next");
    return {Path("next.key"), Path("next.pem"), ""};
  }
  void ExpectRefused(const publish::KeyFiles& keys, const ::testing::Matcher<std::string>& text) {
    const Tree before = ReadTree(Path("repo"));
    ExpectError([&] { Resign(keys); }, text);
    EXPECT_EQ(ReadTree(Path("repo")), before);
  }

  TemporaryDirectory directory_;
  const Authority root_;
  const Signer signer_ = root_.NewSigner();
  std::vector<std::string> steps_;
};

TEST_F(ResignTest, EverythingOfferedIsSignedAnewAndTheOldIsRetired) {
  Release(signer_, CompressionChoice::kXz);
  Release(signer_);
  Release(signer_);
  {
    const auto change = Change();
    change->catalog.databases["oui"].releases[1].delta->withdrawn = kNow - 50;
    change->catalog.former_roots = root_.Pem();
    change->Begin("test");
    change->Commit();
  }
  const Catalog before = Kept();
  const Tree packages = ReadTree(Path("repo/public/packages"));
  const publish::KeyFiles keys = NextKeys();
  const ResignReport report = Resign(keys);
  EXPECT_FALSE(report.is_signed_already);
  EXPECT_EQ(report.packages, 4u);
  EXPECT_EQ(report.part, "packages-2");
  EXPECT_EQ(report.compressions, (std::map<std::string, std::size_t>{{"xz", 1}, {"zstd", 3}}));
  EXPECT_EQ(report.signer.subject, "CN=Test signing");
  EXPECT_THAT(steps_, ElementsAre("signing 0/5", "signing 1/5", "signing 2/5"));
  const Catalog after = Kept();
  EXPECT_EQ(after.part, "packages-2");
  EXPECT_EQ(after.former_roots, "");
  const publish::Database& oui = after.databases.at("oui");
  const std::vector<publish::Release>& old = before.databases.at("oui").releases;
  std::vector<std::string> retired;
  for (const publish::RetiredPackage& package : oui.retired) {
    retired.push_back(package.package.path + ' ' + std::to_string(kNow - package.since));
  }
  EXPECT_THAT(retired, ElementsAre(old[0].full.path + " 0", old[1].full.path + " 0",
                                   old[1].delta->package.path + " 50", old[2].full.path + " 0",
                                   old[2].delta->package.path + " 0"));
  EXPECT_EQ(ReadTree(Path("repo/public/packages")), packages) << "devices may load them still";
  EXPECT_FALSE(oui.releases[1].delta);
  EXPECT_EQ(oui.releases[1].no_delta_reason,
            "it was not offered any more when the packages were signed anew");
  const package::Trust trust = package::Trust::Load(Path("root.pem"), "");
  for (const publish::PackageRecord& record :
       {oui.releases[0].full, oui.releases[1].full, oui.releases[2].full,
        oui.releases[2].delta->package}) {
    const std::string path = Path("repo/public/" + record.path);
    EXPECT_THAT(record.path, StartsWith("packages-2/oui/oui_"));
    EXPECT_EQ(record.sha384, publish::MeasureFile(path).sha384);
    EXPECT_EQ(record.size_bytes, fs::file_size(path));
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0644));
    const package::Package package(path);
    package.Verify(trust, kNow);
    EXPECT_EQ(package.ReadSignerCertificate().fingerprint, report.signer.fingerprint);
  }
  EXPECT_EQ(publish::LoadSettings(Path("repo/state/settings.json")).key, "../next.key");
  EXPECT_THAT(ListTree(Path("repo/state/work")), IsEmpty());
}

TEST_F(ResignTest, WhatIsSignedAlreadyIsCountedAndStays) {
  Release(signer_, CompressionChoice::kXz);
  Release(signer_);
  const Tree served = ReadTree(Path("repo/public"));
  const ResignReport report = Resign();
  EXPECT_TRUE(report.is_signed_already);
  EXPECT_EQ(report.packages, 3u);
  EXPECT_EQ(report.compressions, (std::map<std::string, std::size_t>{{"xz", 1}, {"zstd", 2}}));
  EXPECT_EQ(report.part, "");
  EXPECT_THAT(steps_, ElementsAre("checking 0/3", "checking 1/3", "checking 2/3"));
  EXPECT_EQ(ReadTree(Path("repo/public")), served);
  EXPECT_EQ(Resign({}, true).packages, 3u);
  EXPECT_EQ(Kept().part, "packages-2");
}

TEST_F(ResignTest, OneOfAnotherSignerIsEnoughToSignAllAnew) {
  Release(signer_);
  Release(root_.NewSigner());
  EXPECT_FALSE(Resign().is_signed_already);
  EXPECT_THAT(steps_, ElementsAre("signing 0/3", "signing 1/3"));
}

TEST_F(ResignTest, PartsAreCountedOnAndOneThatMakesALinkAmbiguousIsPassedOver) {
  {
    const auto change = Change();
    change->catalog.part = "packages-6";
    change->Begin("test");
    change->Commit();
  }
  Release(signer_);
  EXPECT_EQ(Resign({}, true).part, "packages-8") << "version 7 stands in packages-7 twice";
  EXPECT_EQ(Resign({}, true).part, "packages-9");
}

TEST_F(ResignTest, SignerThatHasExpiredSinceOrIsYoungerThanTheReleaseIsNoReason) {
  CertificateOptions expired;
  expired.not_after = kReleased + 1;
  Release(root_.NewSigner(expired));
  CertificateOptions younger;
  younger.not_before = kNow - 1;
  Release(root_.NewSigner(younger));
  EXPECT_EQ(Resign().packages, 3u);
}

TEST_F(ResignTest, SignerOfAnotherTimeRootOrDatabaseIsAReason) {
  const auto refused = [this](const Signer& signer, const ::testing::Matcher<std::string>& text) {
    fs::remove_all(Path("kept"));
    fs::copy(Path("repo"), Path("kept"), fs::copy_options::recursive);
    // As somebody would who replaces a package and what is recorded of it.
    Release(signer);
    ExpectRefused(
        {}, AllOf(StartsWith(Path("repo/public/packages/oui/oui_v7") + ": is not signed anew: "),
                  text, EndsWith(". Nothing was changed")));
    fs::remove_all(Path("repo"));
    fs::rename(Path("kept"), Path("repo"));
  };
  const char* const another_root =
      "; when it was released below another root, put that into the file of the root, after the "
      "present one, until all is signed anew";
  const char* const another_package =
      "; bring back the package that was released, or have \"prune\" or \"remove\" take it out";
  refused(Authority("other").NewSigner(), HasSubstr(another_root));
  CertificateOptions expired;
  expired.not_after = kReleased;
  refused(root_.NewSigner(expired), HasSubstr(another_package));
  CertificateOptions of_others;
  of_others.scope = {"geo"};
  refused(root_.NewSigner(of_others),
          HasSubstr("its signer's certificate is for geo" + std::string(another_package)));
}

TEST_F(ResignTest, PackageThatIsNotTheReleasedOneIsAReason) {
  Release(signer_);
  const std::string path = Path("repo/public/packages/oui/oui_v7");
  ChangeByte(path, 30);
  ExpectRefused({}, path + ": is not the package that was released");
}

TEST_F(ResignTest, PackageThatIsSealedForAnotherVersionIsAReason) {
  Release(signer_);
  const std::string path = Path("repo/public/packages/oui/oui_v8");
  fs::copy_file(Path("repo/public/packages/oui/oui_v7"), path);
  Catalog catalog = Kept();
  publish::Release& release = catalog.databases["oui"].releases[0];
  release.version = 8;
  release.full.path = "packages/oui/oui_v8";
  WriteFile(Path("repo/state/catalog.json"), FormatCatalog(catalog));
  fs::remove(Path("repo/public/packages/oui/oui_v7"));
  try {
    publish::ResignRepository(
        {Path("repo"), {}, true}, kNow, [](const std::string&) {}, [](const publish::Step&) {});
    ADD_FAILURE() << "nothing was thrown";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), package::Code::kWrongVersion);
  }
  EXPECT_EQ(FormatCatalog(Kept()), FormatCatalog(catalog));
  EXPECT_FALSE(fs::exists(Path("repo/public/packages-2")));
}

TEST_F(ResignTest, NextSignerSignsForEveryDatabaseThatIsOffered) {
  Release(signer_);
  CertificateOptions others;
  others.scope = {"geo"};
  const publish::KeyFiles keys = NextKeys(others);
  EXPECT_THROW(Resign(keys), package::Error);
  EXPECT_THAT(steps_, IsEmpty()) << "refused after all the work";
  EXPECT_EQ(Kept().part, "packages");
  others.scope = {"geo", "oui"};
  EXPECT_EQ(Resign(NextKeys(others)).packages, 1u);
}

TEST_F(ResignTest, LargePackageIsSignedAnewByteByByte) {
  WriteFile(Path("tree/n"), Noise(1200000));
  Release(signer_);
  const std::string old = ReadFile(Path("repo/public/packages/oui/oui_v7"));
  ASSERT_EQ(Resign({}, true).packages, 1u);
  const std::string path = Path("repo/public/packages-2/oui/oui_v7");
  const std::string anew = ReadFile(path);
  const std::uint64_t payload_bytes = package::Package(path).layout().payload_bytes;
  ASSERT_GT(payload_bytes, 1200000u);
  EXPECT_TRUE(anew.substr(0, payload_bytes) == old.substr(0, payload_bytes));
}

TEST_F(ResignTest, PackageThatIsNotOnTheDiskIsNotPublished) {
  Release(signer_);
  const Tree before = ReadTree(Path("repo"));
  sync_error = EIO;
  try {
    Resign({}, true);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.errno_value(), EIO) << error.what();
    EXPECT_THAT(error.what(), HasSubstr("/state/work/oui/oui_v7"));
  }
  sync_error = 0;
  EXPECT_EQ(ReadTree(Path("repo")), before);
}

TEST_F(ResignTest, KeysForDescriptionsThatAreNotSignedAreRefused) {
  Release(signer_);
  Keep(root_.NewSigner(), "info");
  publish::KeyFiles keys;
  keys.info_key = Path("info.key");
  keys.info_certificate_path = Path("info.pem");
  ExpectRefused(keys, HasSubstr("its descriptions are not signed"));
  EXPECT_THAT(steps_, IsEmpty());
}

}  // namespace
}  // namespace tolm::testing

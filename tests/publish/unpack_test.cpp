#include "publish/unpack.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "package/error.h"
#include "package/package_writer.h"
#include "publish/files.h"
#include "tests/publish/expect_error.h"
#include "tests/publish/release_fixture.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Kind;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class UnpackTest : public ReleaseFixture {
 protected:
  UnpackTest() {
    publish::GenerateKeys(Path("keys"), kNow);
    MakeTree(Path("files"), files_);
    package_ = Pack("oui_v7", Kind::kFull);
    request_.package_path = package_;
    request_.directory = Path("out");
    request_.keyring_path = Path("keys/root.pem");
  }

  std::string Pack(const std::string& file_name, Kind kind) const {
    const package::Signer signer =
        publish::LoadSigner(Path("keys/signing.key"), Path("keys/signing.pem"));
    package::WritePackage(Path("files"), Path(file_name), {"oui", kind, 7}, {}, signer, kNow);
    return Path(file_name);
  }

  publish::Tree UnpackRelease(const std::string& path, std::int64_t now = kNow) const {
    return publish::UnpackRelease(path, package::Trust::Load(Path("keys/root.pem"), ""), now,
                                  Path("out"));
  }

  // And nothing is unpacked.
  template <typename Action>
  void ExpectRefused(const Action& action, Code code, const std::string& beginning) const {
    try {
      action();
      ADD_FAILURE() << "was unpacked";
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), code) << error.what();
      EXPECT_THAT(error.what(), StartsWith(beginning));
    }
    EXPECT_FALSE(fs::exists(Path("out")));
  }

  const Tree files_ = {{"a", "1"}, {"d/", ""}, {"d/b", "22"}, {"d/empty/", ""}};
  std::string package_;
  publish::UnpackRequest request_;
};

TEST_F(UnpackTest, ReleaseIsVerifiedAndItsFilesAreReadInPlaceOfWhatWasThere) {
  MakeTree(Path("out"), {{"left", "over"}});
  const publish::Tree tree = UnpackRelease(package_);
  EXPECT_EQ(ReadTree(Path("out")), files_);
  EXPECT_EQ(publish::TreeDigest(tree), publish::TreeDigest(publish::ScanTree(Path("files"))));
  EXPECT_EQ(tree.files.at("/d/b").path, Path("out/d/b"));
}

TEST_F(UnpackTest, ReleaseThatNoDeviceWouldTakeIsNotUnpacked) {
  const auto release = [this](const std::string& path, std::int64_t now = kNow) {
    return [this, path, now] { UnpackRelease(path, now); };
  };
  const std::string end = ReadFile(package_);
  WriteFile(Path("oui_v8"), end);
  ExpectRefused(release(Path("oui_v8")), Code::kWrongVersion, Path("oui_v8: "));
  WriteFile(Path("geo_v7"), end);
  ExpectRefused(release(Path("geo_v7")), Code::kWrongName, Path("geo_v7: "));
  ExpectRefused(release(package_, kNow + (publish::kSigningDays + 1) * 86400LL), Code::kExpired,
                package_ + ": ");
  ExpectRefused(release(Path("none")), Code::kOpen, Path("none: "));
  fs::remove_all(Path("keys"));
  publish::GenerateKeys(Path("keys"), kNow);
  ExpectRefused(release(package_), Code::kUntrusted, package_ + ": ");
}

TEST_F(UnpackTest, KnownPackageIsToldByItsDigestWhoeverHasSignedIt) {
  const std::string digest = publish::MeasureFile(package_).sha384;
  MakeTree(Path("out"), {{"left", "over"}});
  EXPECT_EQ(publish::UnpackKnown(package_, digest, Path("out")).files.size(), 2u);
  EXPECT_EQ(ReadTree(Path("out")), files_);
  fs::remove_all(Path("out"));
  ChangeByte(package_, 100);
  ExpectError([&] { publish::UnpackKnown(package_, digest, Path("out")); },
              package_ + ": is not the package that was released");
  // By its digest, and no package all the same.
  WriteFile(package_, "none");
  ExpectRefused(
      [&] { publish::UnpackKnown(package_, publish::MeasureFile(package_).sha384, Path("out")); },
      Code::kNotAPackage, package_ + ": ");
}

TEST_F(UnpackTest, ReportSaysWhatThePackageIsAndCountsItsFiles) {
  for (const std::string& directory : {Path("out"), Path("new/"), Path("d/../more/.")}) {
    request_.directory = directory;
    fs::create_directories(Path("d"));
    const publish::UnpackReport report = UnpackPackage(request_, kNow);
    EXPECT_EQ(report.seal.name, "oui");
    EXPECT_EQ(report.seal.kind, Kind::kFull);
    EXPECT_EQ(report.seal.version, 7);
    EXPECT_EQ(report.files, 2u);
    EXPECT_EQ(ReadTree(directory), files_) << directory;
  }
  request_.package_path = Pack("oui_d7", Kind::kDelta);
  request_.directory = Path("delta");
  EXPECT_EQ(UnpackPackage(request_, kNow).seal.kind, Kind::kDelta);
}

TEST_F(UnpackTest, PackageIsUnpackedAsADeviceWithTheKeyringTakesItOrNotAtAll) {
  const auto unpack = [this] { UnpackPackage(request_, kNow); };
  request_.revocations_path = Path("none");
  ExpectRefused(unpack, Code::kKeyring, Path("none: "));
  try {
    unpack();
  } catch (const package::Error& error) {
    EXPECT_EQ(error.errno_value(), ENOENT);
  }
  request_.revocations_path.clear();
  ExpectRefused([&] { UnpackPackage(request_, kNow - 3 * 86400); }, Code::kNotYetValid,
                package_ + ": ");
  request_.package_path = Path("oui_d7");
  fs::copy_file(package_, request_.package_path);
  ExpectRefused(unpack, Code::kWrongKind, Path("oui_d7: "));
  request_.package_path = Path("other");
  ExpectRefused(unpack, Code::kOpen, Path("other: "));
  fs::copy_file(package_, request_.package_path);
  ChangeByte(request_.package_path, fs::file_size(package_) - 1);
  EXPECT_THROW(unpack(), package::Error);
  EXPECT_FALSE(fs::exists(Path("out")));
  // What is there already stays as it is.
  request_.package_path = package_;
  MakeTree(Path("out"), {{"mine", "1"}});
  ExpectError(unpack, StartsWith(Path("out") + ": exists already and is not empty"));
  EXPECT_EQ(ReadTree(Path("out")), (Tree{{"mine", "1"}}));
}

}  // namespace
}  // namespace tolm::testing

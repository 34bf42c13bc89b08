#include "publish/pack.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>

#include "package/error.h"
#include "package/package.h"
#include "publish/key_generator.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Kind;

constexpr std::time_t kNow = 1800000000;

class PackTest : public ::testing::Test {
 protected:
  PackTest() {
    publish::GenerateKeys(directory_.Path() / "keys", kNow);
    MakeTree(directory_.Path() / "source", {{"a", "1"}, {"d/b", "2"}});
    request_.source_directory = directory_.Path() / "source";
    request_.package_path = directory_.Path() / "oui_d8";
    request_.seal = {"oui", Kind::kDelta, 8};
    request_.key = directory_.Path() / "keys/signing.key";
    request_.certificate_path = directory_.Path() / "keys/signing.pem";
  }

  TemporaryDirectory directory_;
  publish::PackRequest request_;
};

TEST_F(PackTest, PackageVerifiesUnderTheRoot) {
  publish::Pack(request_, kNow, {});
  const package::Package package(request_.package_path);
  package.Verify(package::Trust::Load(directory_.Path() / "keys/root.pem", ""), kNow);
  package.CheckName();
}

TEST_F(PackTest, FailuresNameSourceAndPackage) {
  request_.certificate_path = directory_.Path() / "keys/root.pem";
  try {
    publish::Pack(request_, kNow, {});
    ADD_FAILURE() << "packed with a certificate of another key";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), Code::kArgument);
    EXPECT_EQ(std::string(error.what()), "pack " + request_.source_directory + " into " +
                                             request_.package_path +
                                             ": the key does not belong to the certificate");
  }
  EXPECT_FALSE(fs::exists(request_.package_path));
}

TEST_F(PackTest, ExpiredCertificateDoesNotPack) {
  try {
    publish::Pack(request_, kNow + 5L * 365 * 24 * 60 * 60, {});
    ADD_FAILURE() << "packed after the certificate's end";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), Code::kExpired);
  }
  EXPECT_FALSE(fs::exists(request_.package_path));
}

}  // namespace
}  // namespace tolm::testing

#include "publish/key_generator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>

#include "package/trust.h"
#include "publish/signer.h"
#include "tests/package/expect_code.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Signer;
using package::Trust;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr std::time_t kNow = 1800000000;
constexpr std::time_t kYear = 365 * 24 * 60 * 60;

class KeyGeneratorTest : public ::testing::Test {
 protected:
  fs::path Keys() const { return directory_.Path() / "keys"; }
  Signer Load(const std::string& name) const {
    return publish::LoadSigner(Keys() / (name + ".key"), Keys() / (name + ".pem"));
  }
  std::string Describe(const std::string& name) const {
    return RunCommand({"openssl", "x509", "-noout", "-text", "-in", Keys() / (name + ".pem")}).out;
  }

  TemporaryDirectory directory_;
};

TEST_F(KeyGeneratorTest, SixFilesAreMade) {
  ::umask(0);
  publish::GenerateKeys(Keys(), kNow);
  EXPECT_THAT(ListTree(Keys()), ElementsAre("info.key", "info.pem", "root.key", "root.pem",
                                            "signing.key", "signing.pem"));
  const auto mode = [this](const char* name) {
    struct stat status {};
    EXPECT_EQ(::stat((Keys() / name).c_str(), &status), 0);
    return status.st_mode & 07777;
  };
  EXPECT_EQ(mode("root.key"), 0600U);
  EXPECT_EQ(mode("signing.key"), 0600U);
  EXPECT_EQ(mode("info.key"), 0600U);
  EXPECT_EQ(mode("info.pem"), 0644U);
  EXPECT_EQ(mode("root.pem"), 0644U);
  EXPECT_EQ(mode("signing.pem"), 0644U);
  EXPECT_EQ(mode("."), 0700U);
}

TEST_F(KeyGeneratorTest, SigningCertificateIsTrustedThroughTheRoot) {
  publish::GenerateKeys(Keys(), kNow);
  const Trust trust = Trust::Load(Keys() / "root.pem", "");
  const Signer signer = Load("signing");
  const auto check = [&](std::time_t at) {
    return CodeOf([&] { trust.CheckSigner(signer.certificate.get(), nullptr, at); });
  };
  EXPECT_EQ(check(kNow), std::nullopt);
  EXPECT_EQ(check(kNow - 3600), std::nullopt) << "a slow clock";
  EXPECT_EQ(check(kNow + 3 * kYear - 1), std::nullopt);
  EXPECT_EQ(check(kNow + 3 * kYear + 1), Code::kExpired);
  EXPECT_EQ(CodeOf([&] { trust.CheckSigner(Load("root").certificate.get(), nullptr, kNow); }),
            Code::kWrongUsage)
      << "the root itself signs no packages";
}

TEST_F(KeyGeneratorTest, CertificatesSayWhatTheyAreFor) {
  publish::GenerateKeys(Keys(), kNow);
  const std::string root = Describe("root");
  EXPECT_THAT(root, HasSubstr("X509v3 Basic Constraints: critical\n                CA:TRUE\n"));
  EXPECT_THAT(
      root, HasSubstr("X509v3 Key Usage: critical\n                Certificate Sign, CRL Sign\n"));
  EXPECT_THAT(root, HasSubstr("NIST CURVE: P-256"));
  const std::string signing = Describe("signing");
  EXPECT_THAT(signing, HasSubstr("CA:FALSE"));
  EXPECT_THAT(signing,
              HasSubstr("X509v3 Key Usage: critical\n                Digital Signature\n"));
  EXPECT_THAT(signing, HasSubstr("X509v3 Extended Key Usage: \n                Code Signing\n"));
  EXPECT_THAT(signing, HasSubstr("ecdsa-with-SHA256"));
}

TEST_F(KeyGeneratorTest, OpensslAcceptsTheChainStrictly) {
  publish::GenerateKeys(Keys(), std::time(nullptr));
  const CommandResult result = RunCommand({"openssl", "verify", "-x509_strict", "-CAfile",
                                           Keys() / "root.pem", Keys() / "signing.pem"});
  EXPECT_EQ(result.exit_status, 0) << result.out << result.err;
}

TEST_F(KeyGeneratorTest, ExistingFilesAreNeverOverwritten) {
  for (const char* name :
       {"root.key", "root.pem", "signing.key", "signing.pem", "info.key", "info.pem"}) {
    fs::remove_all(Keys());
    WriteFile(Keys() / name, "precious");
    EXPECT_EQ(CodeOf([&] { publish::GenerateKeys(Keys(), kNow); }), Code::kWrite) << name;
    EXPECT_EQ(ReadTree(Keys()), (Tree{{name, "precious"}})) << name;
  }
}

TEST_F(KeyGeneratorTest, FailureLeavesNothing) {
  const ScopedMount disk = ScopedMount::Tmpfs("/small", 8192);
  EXPECT_EQ(CodeOf([] { publish::GenerateKeys("/small", kNow); }), Code::kNoSpace);
  EXPECT_EQ(ReadTree("/small"), Tree{});
  EXPECT_EQ(CodeOf([] { publish::GenerateKeys("/nowhere/keys", kNow); }), Code::kWrite);
}

TEST_F(KeyGeneratorTest, TwoGenerationsAreDifferent) {
  publish::GenerateKeys(directory_.Path() / "a", kNow);
  publish::GenerateKeys(directory_.Path() / "b", kNow);
  EXPECT_NE(ReadFile(directory_.Path() / "a/root.key"), ReadFile(directory_.Path() / "b/root.key"));
  const Trust trust = Trust::Load(directory_.Path() / "a/root.pem", "");
  const Signer other =
      publish::LoadSigner(directory_.Path() / "b/signing.key", directory_.Path() / "b/signing.pem");
  EXPECT_EQ(CodeOf([&] { trust.CheckSigner(other.certificate.get(), nullptr, kNow); }),
            Code::kUntrusted);
}

}  // namespace
}  // namespace tolm::testing

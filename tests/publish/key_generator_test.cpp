#include "publish/key_generator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "package/certificate.h"
#include "package/error.h"
#include "package/scope.h"
#include "package/trust.h"
#include "publish/signer.h"
#include "tests/package/expect_code.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/mounts.h"
#include "tests/support/temporary_directory.h"

namespace {

int successful_syncs = -1;  // any number

}  // namespace

// Before the C library's: a disk that fails.
extern "C" int fsync(int file) {
  if (successful_syncs == 0) {
    errno = EIO;
    return -1;
  }
  successful_syncs -= successful_syncs > 0 ? 1 : 0;
  return static_cast<int>(::syscall(SYS_fsync, file));
}

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Signer;
using package::Trust;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr std::time_t kNow = 1800000000;
constexpr std::int64_t kDay = 24 * 60 * 60;
constexpr std::int64_t kYear = 365 * kDay;

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

TEST_F(KeyGeneratorTest, CertificatesAreValidFromTheDayBeforeOn) {
  publish::GenerateKeys(Keys(), kNow);
  for (const auto& [name, years] :
       std::map<std::string, std::int64_t>{{"root", 20}, {"signing", 3}, {"info", 2}}) {
    const package::CertificateDetails details = package::DetailsOf(Load(name).certificate.get());
    EXPECT_EQ(details.not_before, kNow - kDay) << name;
    EXPECT_EQ(details.not_after, kNow + years * kYear) << name;
  }
  EXPECT_EQ(package::DetailsOf(Load("root").certificate.get()).subject,
            "CN=Database package root 2027-01-15");
  EXPECT_EQ(package::DetailsOf(Load("signing").certificate.get()).subject,
            "CN=Database package signing 2027-01-15");
  EXPECT_EQ(package::DetailsOf(Load("info").certificate.get()).subject,
            "CN=Database description signing 2027-01-15");
}

TEST_F(KeyGeneratorTest, EveryCertificateHasANumberOfSixteenBytes) {
  publish::GenerateKeys(Keys(), kNow);
  std::set<std::string> numbers;
  for (const char* name : {"root", "signing", "info"}) {
    const std::string text = RunCommand({"openssl", "x509", "-noout", "-serial", "-in",
                                         Keys() / (name + std::string(".pem"))})
                                 .out;
    EXPECT_THAT(text, ::testing::MatchesRegex("serial=01[0-9A-F]{30}\n"));
    numbers.insert(text);
  }
  EXPECT_EQ(numbers.size(), 3u);
}

TEST_F(KeyGeneratorTest, SignersNameTheirAuthorityAndWhatTheyMayDo) {
  publish::KeysOptions options;
  options.scope = {"geo", "oui"};
  publish::GenerateKeys(Keys(), kNow, options);
  const auto key_id = [](const std::string& text, const std::string& title) {
    const std::size_t at = text.find(title);
    const std::size_t begin = text.find_first_not_of(" \n", at + title.size());
    return at == std::string::npos ? "" : text.substr(begin, text.find('\n', begin) - begin);
  };
  const std::string root = key_id(Describe("root"), "Subject Key Identifier:");
  EXPECT_NE(root, "");
  for (const char* name : {"signing", "info"}) {
    const std::string text = Describe(name);
    EXPECT_THAT(text, HasSubstr("X509v3 Basic Constraints: critical\n                CA:FALSE\n"));
    EXPECT_EQ(key_id(text, "Authority Key Identifier:"), root) << name;
    EXPECT_NE(key_id(text, "Subject Key Identifier:"), "") << name;
    EXPECT_THAT(text, HasSubstr("X509v3 Key Usage: critical\n                Digital Signature\n"));
    EXPECT_THAT(text, HasSubstr("Version: 3 (0x2)"));
  }
  EXPECT_THAT(Describe("info"), HasSubstr("X509v3 Extended Key Usage: critical\n"));
  EXPECT_EQ(package::ScopeOf(Load("signing").certificate.get()), options.scope);
  EXPECT_EQ(package::ScopeOf(Load("info").certificate.get()), std::nullopt);
}

TEST_F(KeyGeneratorTest, RootsKeyIsEncryptedWithScrypt) {
  publish::KeysOptions options;
  options.passphrase = "one pass phrase";
  publish::GenerateKeys(Keys(), kNow, options);
  EXPECT_EQ(CodeOf([&] { publish::LoadKey(Keys() / "root.key", "another"); }), Code::kArgument);
  const Signer root =
      publish::LoadSigner(Keys() / "root.key", Keys() / "root.pem", options.passphrase);
  EXPECT_EQ(X509_check_private_key(root.certificate.get(), root.key.get()), 1);
  const std::string form = RunCommand({"openssl", "asn1parse", "-in", Keys() / "root.key"}).out;
  EXPECT_THAT(form, HasSubstr(":scrypt\n"));
  EXPECT_THAT(form, HasSubstr("aes-256-cbc"));
  EXPECT_THAT(form, HasSubstr("INTEGER           :4000\n")) << "the cost";
  EXPECT_THAT(form, HasSubstr("INTEGER           :08\n"));
  EXPECT_THAT(form, HasSubstr("INTEGER           :01\n"));
  const std::string bytes = "[HEX DUMP]:";
  for (std::size_t at = form.find(bytes); at != std::string::npos; at = form.find(bytes, at)) {
    at += bytes.size();
    EXPECT_GE(form.find('\n', at) - at, 16u) << "salt and first block are no shorter";
  }
}

TEST_F(KeyGeneratorTest, FurtherSignersEndWithTheirAuthorityAtTheLatest) {
  publish::GenerateKeys(Keys(), kNow);
  publish::SigningKeyRequest request;
  request.root_key = Keys() / "root.key";
  request.root_path = Keys() / "root.pem";
  const auto end_of = [&](std::int64_t now, int days, auto generate, const std::string& name) {
    request.directory = directory_.Path() / ("new" + std::to_string(now) + name);
    request.days = days;
    generate(request, now);
    return package::DetailsOf(publish::LoadSigner(request.directory + '/' + name + ".key",
                                                  request.directory + '/' + name + ".pem")
                                  .certificate.get())
        .not_after;
  };
  constexpr std::int64_t kEnd = kNow + 20 * kYear;
  EXPECT_EQ(end_of(kNow, 10, publish::GenerateSigningKey, "signing"), kNow + 10 * kDay);
  EXPECT_EQ(end_of(kEnd - 11 * kDay, 10, publish::GenerateSigningKey, "signing"), kEnd - kDay);
  EXPECT_EQ(end_of(kEnd - 9 * kDay, 10, publish::GenerateSigningKey, "signing"), kEnd);
  EXPECT_EQ(end_of(kEnd - 1, 10, publish::GenerateSigningKey, "signing"), kEnd);
  EXPECT_EQ(end_of(kNow, 10, publish::GenerateInfoKey, "info"), kNow + 2 * kYear);
  EXPECT_EQ(end_of(kEnd - kYear, 10, publish::GenerateInfoKey, "info"), kEnd);
  request.directory = directory_.Path() / "late";
  for (const auto& [generate, now] :
       std::map<void (*)(const publish::SigningKeyRequest&, std::int64_t), std::int64_t>{
           {publish::GenerateSigningKey, kEnd}, {publish::GenerateInfoKey, kEnd + 1}}) {
    try {
      generate(request, now);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), Code::kArgument);
      EXPECT_EQ(error.what(), request.root_path + ": the authority's certificate has expired");
    }
  }
  EXPECT_FALSE(fs::exists(request.directory));
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

TEST_F(KeyGeneratorTest, DiskThatFailsAtAnyMomentLeavesNothing) {
  constexpr int kSyncs = 6 + 1;  // of each file, and of the directory
  for (int good = 0; good < kSyncs; ++good) {
    successful_syncs = good;
    EXPECT_EQ(CodeOf([&] { publish::GenerateKeys(Keys(), kNow); }), Code::kWrite) << good;
    EXPECT_EQ(ReadTree(Keys()), Tree{}) << good;
  }
  successful_syncs = kSyncs;
  EXPECT_EQ(CodeOf([&] { publish::GenerateKeys(Keys(), kNow); }), std::nullopt);
  EXPECT_EQ(successful_syncs, 0);
  successful_syncs = -1;
}

TEST_F(KeyGeneratorTest, EndThatNoCertificateCanSayIsRefused) {
  constexpr std::int64_t kYear9999 = 253370764800;
  EXPECT_THROW(publish::GenerateKeys(Keys(), kYear9999), package::Error);
  EXPECT_FALSE(fs::exists(Keys()));
}

TEST_F(KeyGeneratorTest, AuthorityIsRefusedThatCannotSign) {
  publish::GenerateKeys(Keys(), kNow);
  publish::GenerateKeys(directory_.Path() / "others", kNow);
  publish::SigningKeyRequest request;
  request.directory = directory_.Path() / "new";
  const auto expect_refused = [&](const std::string& key, const std::string& certificate,
                                  const std::string& why) {
    request.root_key = directory_.Path() / key;
    request.root_path = directory_.Path() / certificate;
    for (const auto generate : {publish::GenerateSigningKey, publish::GenerateInfoKey}) {
      try {
        generate(request, kNow);
        ADD_FAILURE() << "nothing was thrown";
      } catch (const package::Error& error) {
        EXPECT_EQ(error.code(), Code::kArgument);
        EXPECT_EQ(error.what(), request.root_path + ": " + why);
      }
    }
  };
  expect_refused("others/root.key", "keys/root.pem",
                 "the key " + (directory_.Path() / "others/root.key").string() +
                     " does not belong to this certificate");
  expect_refused("keys/signing.key", "keys/signing.pem", "no certificate of an authority");
  EXPECT_FALSE(fs::exists(request.directory));
}

TEST_F(KeyGeneratorTest, KeyOfDescriptionsThatIsThereGetsACertificate) {
  ::umask(0);
  publish::GenerateKeys(Keys(), kNow);
  publish::SigningKeyRequest request;
  request.directory = Keys();
  request.root_key = Keys() / "root.key";
  request.root_path = Keys() / "root.pem";
  const Tree before = ReadTree(Keys());
  EXPECT_EQ(CodeOf([&] { GenerateInfoKey(request, kNow); }), Code::kWrite);
  EXPECT_EQ(ReadTree(Keys()), before);
  fs::remove(Keys() / "info.pem");
  GenerateInfoKey(request, kNow + kDay);
  EXPECT_EQ(ReadFile(Keys() / "info.key"), before.at("info.key"));
  EXPECT_NE(ReadFile(Keys() / "info.pem"), before.at("info.pem"));
  EXPECT_EQ(fs::status(Keys() / "info.pem").permissions(), fs::perms(0644));
  const Signer info = Load("info");
  EXPECT_EQ(X509_check_private_key(info.certificate.get(), info.key.get()), 1);
  EXPECT_EQ(package::DetailsOf(info.certificate.get()).not_before, kNow);
  fs::remove(Keys() / "info.key");
  EXPECT_EQ(CodeOf([&] { GenerateInfoKey(request, kNow); }), Code::kWrite)
      << "a certificate alone is another key's";
  EXPECT_FALSE(fs::exists(Keys() / "info.key"));
  fs::remove(Keys() / "signing.key");
  EXPECT_EQ(CodeOf([&] { GenerateSigningKey(request, kNow); }), Code::kWrite);
  fs::remove(Keys() / "signing.pem");
  GenerateSigningKey(request, kNow);
  const Signer signing = Load("signing");
  EXPECT_EQ(X509_check_private_key(signing.certificate.get(), signing.key.get()), 1);
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

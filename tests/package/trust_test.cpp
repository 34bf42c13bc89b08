#include "package/trust.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <filesystem>

#include "tests/package/authority.h"
#include "tests/package/expect_code.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using package::Code;
using package::Signer;
using package::Trust;

constexpr std::int64_t kNow = 1800000000;

class TrustTest : public ::testing::Test {
 protected:
  std::optional<Code> Check(const std::string& keyring, const Signer& signer,
                            const std::string& revocations = "", X509* other = nullptr,
                            std::int64_t at = kNow) {
    const std::string certificates = directory_.Path() / "6.pem";
    const std::string lists = directory_.Path() / "6.crl.pem";
    WriteFile(certificates, keyring);
    std::filesystem::remove(lists);
    if (!revocations.empty()) {
      WriteFile(lists, revocations);
    }
    const package::X509StackPtr others(sk_X509_new_null());
    if (other != nullptr) {
      X509_up_ref(other);
      sk_X509_push(others.get(), other);
    }
    return CodeOf([&] {
      Trust::Load(certificates, lists).CheckSigner(signer.certificate.get(), others.get(), at);
    });
  }

  TemporaryDirectory directory_;
  Authority root_{"Root A"};
};

TEST_F(TrustTest, SignerBelowATrustedRootIsAccepted) {
  EXPECT_EQ(Check(root_.Pem(), root_.NewSigner()), std::nullopt);
}

TEST_F(TrustTest, EveryCertificateOfTheKeyringIsTrusted) {
  const Authority other("Root B");
  const std::string both = other.Pem() + "comment between\n" + root_.Pem();
  EXPECT_EQ(Check(both, root_.NewSigner()), std::nullopt);
  EXPECT_EQ(Check(both, other.NewSigner()), std::nullopt);
  EXPECT_EQ(Check(other.Pem(), root_.NewSigner()), Code::kUntrusted);
}

TEST_F(TrustTest, RootOfTheSameNameIsAnotherRoot) {
  const Authority impostor("Root A");
  EXPECT_EQ(Check(root_.Pem(), impostor.NewSigner()), Code::kUntrusted);
  EXPECT_EQ(Check(root_.Pem() + impostor.Pem(), impostor.NewSigner()), std::nullopt);
}

TEST_F(TrustTest, AuthorityBetweenComesWithTheSignature) {
  const Authority between = root_.NewAuthorityBelow();
  EXPECT_EQ(Check(root_.Pem(), between.NewSigner(), "", between.certificate()), std::nullopt);
  EXPECT_EQ(Check(root_.Pem(), between.NewSigner()), Code::kUntrusted);
  EXPECT_EQ(Check(between.Pem(), between.NewSigner()), std::nullopt) << "it may be trusted itself";
}

TEST_F(TrustTest, ForeignRootInTheSignatureIsNotTrusted) {
  const Authority foreign("Foreign");
  EXPECT_EQ(Check(root_.Pem(), foreign.NewSigner(), "", foreign.certificate()), Code::kUntrusted);
}

TEST_F(TrustTest, SigningCertificateSignsNoOtherCertificate) {
  CertificateOptions options;
  options.usage = "critical,digitalSignature,keyCertSign";
  const Authority not_an_authority = root_.NewAuthorityBelow(options);
  // The same with CA:FALSE: made by hand, because the helper makes only proper authorities.
  const Signer leaf = root_.NewSigner(options);
  Signer below = not_an_authority.NewSigner();
  ASSERT_EQ(
      X509_set_issuer_name(below.certificate.get(), X509_get_subject_name(leaf.certificate.get())),
      1);
  ASSERT_GT(X509_sign(below.certificate.get(), leaf.key.get(), EVP_sha256()), 0);
  EXPECT_EQ(Check(root_.Pem(), below, "", leaf.certificate.get()), Code::kUntrusted);
}

TEST_F(TrustTest, UsageMustBeCodeSigning) {
  struct Row {
    const char* extended_usage;
    const char* usage;
    std::optional<Code> code;
  };
  const Row rows[] = {{"codeSigning", "", std::nullopt},
                      {"serverAuth,codeSigning", "digitalSignature", std::nullopt},
                      {"serverAuth", "critical,digitalSignature", Code::kWrongUsage},
                      {"serverAuth,clientAuth", "", Code::kWrongUsage},
                      {"emailProtection", "", Code::kWrongUsage},
                      {"anyExtendedKeyUsage", "", Code::kWrongUsage},
                      {"", "critical,digitalSignature", Code::kWrongUsage},
                      {"", "", Code::kWrongUsage},
                      {"codeSigning", "critical,keyEncipherment", Code::kWrongUsage}};
  for (const Row& row : rows) {
    CertificateOptions options;
    options.extended_usage = row.extended_usage;
    options.usage = row.usage;
    EXPECT_EQ(Check(root_.Pem(), root_.NewSigner(options)), row.code)
        << row.extended_usage << " / " << row.usage;
  }
}

TEST_F(TrustTest, NobodySignsPackagesAndDescriptions) {
  const std::string description = package::kDescriptionSigningOid;
  struct Row {
    std::string extended_usage;
    std::optional<Code> for_packages;
    std::optional<Code> for_descriptions;
  };
  const Row rows[] = {
      {"codeSigning", std::nullopt, Code::kWrongUsage},
      {description, Code::kWrongUsage, std::nullopt},
      {"serverAuth," + description, Code::kWrongUsage, std::nullopt},
      {"codeSigning," + description, Code::kWrongUsage, Code::kWrongUsage},
      {"anyExtendedKeyUsage", Code::kWrongUsage, Code::kWrongUsage},
      {"", Code::kWrongUsage, Code::kWrongUsage},
  };
  const Trust trust = Trust::InCertificate(root_.certificate());
  for (const Row& row : rows) {
    CertificateOptions options;
    options.extended_usage = row.extended_usage;
    const Signer signer = root_.NewSigner(options);
    const auto check = [&](package::SignerUse use) {
      return CodeOf([&] { trust.CheckSigner(signer.certificate.get(), nullptr, kNow, use); });
    };
    EXPECT_EQ(check(package::SignerUse::kPackages), row.for_packages) << row.extended_usage;
    EXPECT_EQ(check(package::SignerUse::kDescriptions), row.for_descriptions) << row.extended_usage;
  }
}

TEST_F(TrustTest, ScopeIsWhatTheWholeChainLeaves) {
  using Names = std::set<std::string>;
  struct Row {
    const char* what;
    Names of_authority;  // None: no extension.
    Names of_signer;
    package::Scope left;
  };
  const Row rows[] = {{"nobody limits", {}, {}, std::nullopt},
                      {"the signer", {}, {"oui", "geo"}, Names{"oui", "geo"}},
                      {"the authority", {"oui", "geo"}, {}, Names{"oui", "geo"}},
                      {"both narrow", {"oui", "geo"}, {"oui", "tor"}, Names{"oui"}},
                      {"nothing is left", {"geo"}, {"oui"}, Names{}}};
  const Trust trust = Trust::InCertificate(root_.certificate());
  for (const Row& row : rows) {
    CertificateOptions authority;
    authority.scope = row.of_authority;
    CertificateOptions leaf;
    leaf.scope = row.of_signer;
    const Authority between = root_.NewAuthorityBelow(authority);
    const Signer signer = between.NewSigner(leaf);
    const package::X509StackPtr others(sk_X509_new_null());
    X509_up_ref(between.certificate());
    sk_X509_push(others.get(), between.certificate());
    EXPECT_EQ(trust.CheckSigner(signer.certificate.get(), others.get(), kNow), row.left)
        << row.what;
  }
}

TEST_F(TrustTest, DamagedScopeAnywhereInTheChainIsRefused) {
  CertificateOptions damaged;
  damaged.odd_scope = std::string("\x04\x01x", 3);
  const Authority between = root_.NewAuthorityBelow(damaged);
  EXPECT_EQ(Check(root_.Pem(), root_.NewSigner(damaged)), Code::kWrongUsage);
  EXPECT_EQ(Check(root_.Pem(), between.NewSigner(), "", between.certificate()), Code::kWrongUsage);
}

TEST_F(TrustTest, ValidityIsJudgedAtTheGivenTime) {
  CertificateOptions options;
  options.not_before = kNow - 10;
  options.not_after = kNow + 10;
  const Signer signer = root_.NewSigner(options);
  EXPECT_EQ(Check(root_.Pem(), signer, "", nullptr, kNow - 11), Code::kNotYetValid);
  EXPECT_EQ(Check(root_.Pem(), signer, "", nullptr, kNow - 10), std::nullopt);
  EXPECT_EQ(Check(root_.Pem(), signer, "", nullptr, kNow + 9), std::nullopt);
  EXPECT_EQ(Check(root_.Pem(), signer, "", nullptr, kNow + 11), Code::kExpired);
}

TEST_F(TrustTest, ExpiredAuthorityBetweenExpiresItsSigners) {
  CertificateOptions options;
  options.not_after = kNow - 1;
  const Authority between = root_.NewAuthorityBelow(options);
  EXPECT_EQ(Check(root_.Pem(), between.NewSigner(), "", between.certificate()), Code::kExpired);
}

TEST_F(TrustTest, RevokedSignerIsRefused) {
  const Signer bad = root_.NewSigner();
  const Signer good = root_.NewSigner();
  const std::string list = root_.RevocationPem({bad.certificate.get()});
  EXPECT_EQ(Check(root_.Pem(), bad, list), Code::kRevoked);
  EXPECT_EQ(Check(root_.Pem(), good, list), std::nullopt);
}

TEST_F(TrustTest, RevokedAuthorityBetweenRevokesItsSigners) {
  const Authority between = root_.NewAuthorityBelow();
  const std::string list = root_.RevocationPem({between.certificate()});
  EXPECT_EQ(Check(root_.Pem(), between.NewSigner(), list, between.certificate()), Code::kRevoked);
}

TEST_F(TrustTest, RevocationsOutliveTheirDate) {
  const Signer bad = root_.NewSigner();
  const Signer good = root_.NewSigner();
  for (const auto& [issued, next] :
       {std::pair{kLongAgo, kNow - 1000}, std::pair{kNow + 1000, kNow + 2000}}) {
    const std::string list = root_.RevocationPem({bad.certificate.get()}, issued, next);
    EXPECT_EQ(Check(root_.Pem(), bad, list), Code::kRevoked);
    EXPECT_EQ(Check(root_.Pem(), good, list), std::nullopt);
  }
}

// OpenSSL alone takes the one whose time is not over.
TEST_F(TrustTest, NewerListCountsThoughItsSuccessorIsDue) {
  const Signer bad = root_.NewSigner();
  const std::string older = root_.RevocationPem({}, kLongAgo, kFarFuture, 7);
  const std::string newer = root_.RevocationPem({bad.certificate.get()}, kNow - 1000, kNow - 10, 8);
  EXPECT_EQ(Check(root_.Pem(), bad, older + newer), Code::kRevoked);
  EXPECT_EQ(Check(root_.Pem(), bad, newer + older), Code::kRevoked);
  const std::string further = directory_.Path() / "further.pem";
  for (const auto& [beside, learned] : {std::pair{older, newer}, std::pair{newer, older}}) {
    WriteFile(directory_.Path() / "6.crl.pem", beside);
    WriteFile(further, learned);
    EXPECT_EQ(CodeOf([&] {
                Trust::Load(directory_.Path() / "6.pem", directory_.Path() / "6.crl.pem", further)
                    .CheckSigner(bad.certificate.get(), nullptr, kNow);
              }),
              Code::kRevoked);
  }
  WriteFile(further, "damaged");
  EXPECT_EQ(CodeOf([&] { Trust::Load(directory_.Path() / "6.pem", "", further); }), Code::kKeyring);
}

TEST_F(TrustTest, AuthorityWithoutAListHasRevokedNothing) {
  const Authority other("Root B");
  const std::string list = other.RevocationPem({});
  EXPECT_EQ(Check(root_.Pem() + other.Pem(), root_.NewSigner(), list), std::nullopt);
}

TEST_F(TrustTest, ListOfAForeignAuthorityRevokesNothing) {
  const Signer signer = root_.NewSigner();
  const Authority impostor("Root A");
  EXPECT_NE(Check(root_.Pem(), signer, impostor.RevocationPem({signer.certificate.get()})),
            Code::kRevoked);
}

// OpenSSL takes a list for an authority's by its name alone.
TEST_F(TrustTest, ListOfATrustedNamesakeIsNotThisAuthoritys) {
  const Authority namesake("Root A");
  const Signer signer = root_.NewSigner();
  const Signer other = namesake.NewSigner();
  const std::string both = root_.Pem() + namesake.Pem();
  const std::string foreign = namesake.RevocationPem({signer.certificate.get()});
  const std::string own = root_.RevocationPem({signer.certificate.get()});
  const std::string clean = root_.RevocationPem({});
  EXPECT_EQ(Check(both, signer, foreign), std::nullopt);
  EXPECT_EQ(Check(both, signer, foreign + clean), std::nullopt);
  EXPECT_EQ(Check(both, signer, clean + foreign), std::nullopt);
  EXPECT_EQ(Check(both, signer, foreign + own), Code::kRevoked);
  EXPECT_EQ(Check(both, signer, own + foreign), Code::kRevoked);
  EXPECT_EQ(Check(both, other, own), std::nullopt);
  EXPECT_EQ(Check(root_.Pem(), signer, foreign), Code::kUntrusted) << "of nobody who is trusted";
}

TEST_F(TrustTest, WeakCertificatesAreRefused) {
  CertificateOptions options;
  options.digest = EVP_sha1();
  EXPECT_EQ(Check(root_.Pem(), root_.NewSigner(options)), Code::kWeakDigest);
  const Signer short_key = root_.NewSigner({}, Checked(KeyPtr(EVP_RSA_gen(1024))));
  EXPECT_EQ(Check(root_.Pem(), short_key), Code::kWeakDigest);
  const Signer rsa = root_.NewSigner({}, Checked(KeyPtr(EVP_RSA_gen(2048))));
  EXPECT_EQ(Check(root_.Pem(), rsa), std::nullopt);
}

TEST_F(TrustTest, UnusableKeyringsAreRefused) {
  const Signer signer = root_.NewSigner();
  const std::string pem = root_.Pem();
  EXPECT_EQ(Check("", signer), Code::kKeyring);
  EXPECT_EQ(Check("no certificate\n", signer), Code::kKeyring);
  EXPECT_EQ(Check(pem.substr(0, pem.size() / 2), signer), Code::kKeyring);
  EXPECT_EQ(Check(pem + pem.substr(0, pem.size() / 2), signer), Code::kKeyring);
  EXPECT_EQ(Check(pem + "-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n", signer),
            Code::kKeyring);
  EXPECT_EQ(Check(pem, signer, "no list\n"), Code::kKeyring);
  EXPECT_EQ(Check(pem + std::string(1 << 20, '\n'), signer), Code::kKeyring) << "too large";
  EXPECT_EQ(CodeOf([] { Trust::Load("/nowhere/6.pem", ""); }), Code::kKeyring);
}

TEST_F(TrustTest, OneMadeOfAnothersTextsJudgesAlike) {
  const Authority other("Root B");
  const Signer bad = root_.NewSigner();
  const Signer good = root_.NewSigner();
  WriteFile(directory_.Path() / "6.pem", root_.Pem() + other.Pem());
  WriteFile(directory_.Path() / "6.crl.pem", root_.RevocationPem({bad.certificate.get()}));
  const auto verdict = [](const Trust& trust, const Signer& signer) {
    return CodeOf([&] { trust.CheckSigner(signer.certificate.get(), nullptr, kNow); });
  };
  const Trust copy = Trust::FromTexts(
      Trust::Load(directory_.Path() / "6.pem", directory_.Path() / "6.crl.pem").Texts());
  EXPECT_EQ(verdict(copy, good), std::nullopt);
  EXPECT_EQ(verdict(copy, other.NewSigner()), std::nullopt);
  EXPECT_EQ(verdict(copy, bad), Code::kRevoked);
  EXPECT_EQ(verdict(copy, Authority("Root C").NewSigner()), Code::kUntrusted);
  const Trust without_revocations =
      Trust::FromTexts(Trust::Load(directory_.Path() / "6.pem", "").Texts());
  EXPECT_EQ(verdict(without_revocations, bad), std::nullopt);
}

TEST_F(TrustTest, UnusableTextsAreRefused) {
  EXPECT_EQ(CodeOf([] { Trust::FromTexts({"no certificate\n", ""}); }), Code::kKeyring);
  EXPECT_EQ(CodeOf([this] { Trust::FromTexts({root_.Pem(), "no list\n"}); }), Code::kKeyring);
}

TEST_F(TrustTest, ChecksLeaveTheErrorQueueAlone) {
  ERR_clear_error();
  ERR_raise(ERR_LIB_USER, 7);
  EXPECT_EQ(Check(Authority("Foreign").Pem(), root_.NewSigner()), Code::kUntrusted);
  EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), 7);
  ERR_clear_error();
}

TEST(VerificationTimeTest, IsNeverBeforeTheBuild) {
  EXPECT_GT(package::BuildDate(), 1700000000);
  EXPECT_EQ(package::VerificationTime(0), package::BuildDate());
  EXPECT_EQ(package::VerificationTime(package::BuildDate() + 5), package::BuildDate() + 5);
}

}  // namespace
}  // namespace tolm::testing

#include "package/signature.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "tests/package/authority.h"
#include "tests/package/expect_code.h"
#include "tests/package/payload_file.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"

namespace tolm::testing {
namespace {

using package::Code;
using package::Signer;
using package::Trust;

constexpr std::int64_t kNow = 1800000000;
constexpr char kPayload[] = "The payload, which is only bytes here.";

class SignatureTest : public ::testing::Test {
 protected:
  std::optional<Code> Verify(const std::string& signature, const std::string& payload = kPayload) {
    const PayloadFile file(payload);
    return CodeOf([&] {
      package::VerifyPayload(file.fd(), file.size(), signature,
                             Trust::InCertificate(root_.certificate()), kNow);
    });
  }
  std::string Sign(const Signer& signer, const std::string& payload = kPayload) {
    const PayloadFile file(payload);
    return package::SignPayload(file.fd(), file.size(), signer);
  }

  Authority root_;
  Signer signer_ = root_.NewSigner();
};

TEST_F(SignatureTest, WhatIsSignedVerifies) {
  const std::string signature = Sign(signer_);
  EXPECT_LT(signature.size(), 2000U);
  EXPECT_EQ(Verify(signature), std::nullopt);
}

TEST_F(SignatureTest, OpensslCommandVerifiesIt) {
  const TemporaryDirectory directory;
  WriteFile(directory.Path() / "payload", kPayload);
  WriteFile(directory.Path() / "signature", Sign(signer_));
  WriteFile(directory.Path() / "root.pem", root_.Pem());
  const CommandResult result =
      RunCommand({"openssl", "cms", "-verify", "-binary", "-inform", "DER", "-in", "signature",
                  "-content", "payload", "-CAfile", "root.pem", "-purpose", "any", "-out", "out"},
                 {{}, directory.Path(), ""});
  EXPECT_EQ(result.exit_status, 0) << result.err;
  EXPECT_EQ(ReadFile(directory.Path() / "out"), kPayload);
}

TEST_F(SignatureTest, AnotherPayloadIsRefused) {
  const std::string signature = Sign(signer_);
  for (const std::string& payload : {std::string("x"), std::string(kPayload) + "\n",
                                     std::string(kPayload).substr(1), std::string()}) {
    EXPECT_EQ(Verify(signature, payload), Code::kBadSignature) << payload;
  }
}

// Text mode would change line ends before signing.
TEST_F(SignatureTest, PayloadBytesAreTakenAsTheyAre) {
  const std::string payload("a\nb\r\nc\0d\r", 9);
  EXPECT_EQ(Verify(Sign(signer_, payload), payload), std::nullopt);
  EXPECT_EQ(Verify(Sign(signer_, payload), std::string("a\r\nb\r\nc\0d\r", 10)),
            Code::kBadSignature);
}

TEST_F(SignatureTest, FlippedSignatureBytesNeverVerifyAnotherPayload) {
  const std::string signature = Sign(signer_);
  std::size_t refused = 0;
  for (std::size_t i = 0; i < signature.size(); ++i) {
    std::string flipped = signature;
    flipped[i] = static_cast<char>(flipped[i] ^ 0x41);
    EXPECT_TRUE(Verify(flipped, std::string(kPayload) + "x").has_value()) << i;
    refused += Verify(flipped).has_value() ? 1 : 0;
  }
  EXPECT_GT(refused, signature.size() * 9 / 10);
}

TEST_F(SignatureTest, SignaturesCutAnywhereOrWithSomethingBehindAreRefused) {
  const std::string signature = Sign(signer_);
  for (std::size_t length = 0; length < signature.size(); ++length) {
    EXPECT_EQ(Verify(signature.substr(0, length)), Code::kSignatureForm) << length;
  }
  EXPECT_EQ(Verify(signature + std::string(1, '\0')), Code::kSignatureForm);
  EXPECT_EQ(Verify(signature + signature), Code::kSignatureForm);
}

TEST_F(SignatureTest, UnfitSignaturesAreRefusedForTheirReason) {
  struct Row {
    const char* why;
    std::optional<Code> code;
    SignatureOptions options;
  };
  const unsigned int plain = CMS_BINARY | CMS_DETACHED;
  const Row rows[] = {
      {"good", std::nullopt, {}},
      {"SHA-384", std::nullopt, {EVP_sha384(), plain, true, 1}},
      {"SHA-512", std::nullopt, {EVP_sha512(), plain, true, 1}},
      {"SHA-1", Code::kWeakDigest, {EVP_sha1(), plain, true, 1}},
      {"SHA-224", Code::kWeakDigest, {EVP_sha224(), plain, true, 1}},
      {"embedded", Code::kEmbeddedContent, {EVP_sha256(), CMS_BINARY, true, 1}},
      {"no signer", Code::kNoSigner, {EVP_sha256(), plain, false, 0}},
      {"two signers", Code::kSignatureForm, {EVP_sha256(), plain, true, 2}},
      {"no certificate", Code::kNoSigner, {EVP_sha256(), plain | CMS_NOCERTS, true, 1}},
      {"no signed attributes", Code::kSignatureForm, {EVP_sha256(), plain | CMS_NOATTR, true, 1}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    EXPECT_EQ(Verify(SignAs(kPayload, signer_, row.options)), row.code);
  }
}

TEST_F(SignatureTest, PayloadsAndTextsHaveSignersOfTheirOwn) {
  CertificateOptions options;
  options.extended_usage = package::kDescriptionSigningOid;
  const Signer of_texts = root_.NewSigner(options);
  const Trust trust = Trust::InCertificate(root_.certificate());
  const auto verify_text = [&](const Signer& signer) {
    return CodeOf(
        [&] { package::VerifyText(kPayload, package::SignText(kPayload, signer), trust, kNow); });
  };
  EXPECT_EQ(verify_text(of_texts), std::nullopt);
  EXPECT_EQ(verify_text(signer_), Code::kWrongUsage);
  EXPECT_EQ(Verify(Sign(of_texts)), Code::kWrongUsage);
  EXPECT_EQ(Verify(Sign(signer_)), std::nullopt);
}

TEST_F(SignatureTest, AnotherTextIsRefused) {
  CertificateOptions options;
  options.extended_usage = package::kDescriptionSigningOid;
  const std::string signature = package::SignText(kPayload, root_.NewSigner(options));
  const Trust trust = Trust::InCertificate(root_.certificate());
  for (const auto& [text, code] : std::map<std::string, std::optional<Code>>{
           {kPayload, std::nullopt},
           {std::string(kPayload) + "\n", Code::kBadSignature},
           {"", Code::kBadSignature}}) {
    EXPECT_EQ(CodeOf([&, &text = text] { package::VerifyText(text, signature, trust, kNow); }),
              code)
        << text;
  }
}

TEST_F(SignatureTest, SizeIsBoundedForTextsToo) {
  const Trust trust = Trust::InCertificate(root_.certificate());
  const auto code = [&](std::size_t bytes) {
    return CodeOf([&] { package::VerifyText("", std::string(bytes, 'x'), trust, kNow); });
  };
  EXPECT_EQ(code(package::kMaxSignatureBytes), Code::kSignatureForm);
  EXPECT_EQ(code(package::kMaxSignatureBytes + 1), Code::kSignatureSize);
}

TEST_F(SignatureTest, LargerOneThanAllowedIsNotMade) {
  const auto chain_of = [this](std::size_t authorities) {
    Signer signer = root_.NewSigner();
    CertificateOptions options;
    for (std::size_t i = 0; i < authorities; ++i) {
      options.name = std::to_string(i) + std::string(50, 'n');
      signer.chain.push_back(root_.NewSigner(options, Share(signer.key)).certificate);
    }
    return signer;
  };
  EXPECT_GT(Sign(chain_of(10)).size(), package::kMaxSignatureBytes / 20);
  EXPECT_EQ(CodeOf([&] { Sign(chain_of(200)); }), Code::kArgument);
}

TEST_F(SignatureTest, PayloadThatCannotBeReadIsNeitherSignedNorVerified) {
  const PayloadFile file(kPayload);
  const std::string signature = Sign(signer_);
  const Trust trust = Trust::InCertificate(root_.certificate());
  const auto sign = [&](int fd, std::uint64_t bytes) {
    return CodeOf([&] { package::SignPayload(fd, bytes, signer_); });
  };
  const auto verify = [&](int fd, std::uint64_t bytes) {
    return CodeOf([&] { package::VerifyPayload(fd, bytes, signature, trust, kNow); });
  };
  EXPECT_EQ(sign(-1, file.size()), Code::kRead);
  EXPECT_EQ(sign(file.fd(), file.size() + 1), Code::kChanged);
  EXPECT_EQ(verify(-1, file.size()), Code::kRead);
  EXPECT_EQ(verify(file.fd(), file.size() + 1), Code::kChanged);
  EXPECT_EQ(verify(file.fd(), file.size()), std::nullopt);
  const PayloadFile one_byte("x");
  EXPECT_EQ(verify(one_byte.fd(), 2), Code::kChanged);
}

TEST_F(SignatureTest, OtherCmsObjectsAreNoSignatures) {
  const std::string payload = kPayload;
  const BioPtr content = package::ViewOf(payload);
  const CmsPtr data = Checked(CmsPtr(CMS_data_create(content.get(), CMS_BINARY)));
  const BioPtr der = NewMemoryBio();
  CheckResult(i2d_CMS_bio(der.get(), data.get()));
  EXPECT_EQ(Verify(DrainBio(der.get())), Code::kSignatureForm);
  EXPECT_EQ(Verify(std::string(100, '\0')), Code::kSignatureForm);
  const CmsPtr digest = Checked(CmsPtr(
      CMS_digest_create(package::ViewOf(payload).get(), EVP_sha256(), CMS_BINARY | CMS_DETACHED)));
  const BioPtr digest_der = NewMemoryBio();
  CheckResult(i2d_CMS_bio(digest_der.get(), digest.get()));
  EXPECT_EQ(Verify(DrainBio(digest_der.get())), Code::kSignatureForm) << "a digest of plain data";
}

TEST_F(SignatureTest, SignatureOverOtherContentThanPlainDataIsRefused) {
  const std::string payload = kPayload;
  for (const auto& [content, code] :
       {std::pair{NID_pkcs7_data, std::optional<Code>()},
        std::pair{NID_id_smime_ct_TSTInfo, std::optional<Code>(Code::kSignatureForm)}}) {
    const unsigned int flags = CMS_BINARY | CMS_DETACHED | CMS_PARTIAL;
    const CmsPtr cms = Checked(CmsPtr(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags)));
    CheckResult(CMS_set1_eContentType(cms.get(), OBJ_nid2obj(content)));
    ASSERT_NE(CMS_add1_signer(cms.get(), signer_.certificate.get(), signer_.key.get(), EVP_sha256(),
                              flags),
              nullptr);
    CheckResult(
        CMS_final(cms.get(), package::ViewOf(payload).get(), nullptr, CMS_BINARY | CMS_DETACHED));
    const BioPtr der = NewMemoryBio();
    CheckResult(i2d_CMS_bio(der.get(), cms.get()));
    EXPECT_EQ(Verify(DrainBio(der.get())), code) << OBJ_nid2sn(content);
  }
}

TEST_F(SignatureTest, DamagedSignatureIsNoneOfThisPayload) {
  std::string damaged = Sign(signer_);
  damaged.back() = static_cast<char>(damaged.back() ^ 1);
  EXPECT_EQ(Verify(damaged), Code::kBadSignature);
}

// The announced digests are not signed, and each costs a pass over the payload.
TEST_F(SignatureTest, AdditionalDigestsAreRefused) {
  std::string signature = Sign(signer_);
  // SET { SEQUENCE { OID sha256 } }, the only digest announced.
  const std::string sha256("\x30\x0b\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01", 13);
  const std::string set = std::string("\x31\x0d", 2) + sha256;
  const std::size_t position = signature.find(set);
  ASSERT_NE(position, std::string::npos);
  const std::string two = std::string("\x31\x1a", 2) + sha256 + sha256;
  signature.replace(position, set.size(), two);
  // ContentInfo, [0] and SignedData: each length, two bytes after 0x82, grows by 13.
  for (const std::size_t length_at : {2U, 17U, 21U}) {
    ASSERT_EQ(static_cast<unsigned char>(signature[length_at - 1]), 0x82);
    const auto byte = [&](std::size_t at) -> unsigned int {
      return static_cast<unsigned char>(signature[at]);
    };
    const unsigned int length = (byte(length_at) << 8U) + byte(length_at + 1) + 13U;
    signature[length_at] = static_cast<char>(length >> 8U);
    signature[length_at + 1] = static_cast<char>(length & 0xffU);
  }
  const auto* bytes = reinterpret_cast<const unsigned char*>(signature.data());
  const unsigned char* end = bytes;
  const CmsPtr parsed(d2i_CMS_ContentInfo(nullptr, &end, static_cast<long>(signature.size())));
  ASSERT_EQ(end, bytes + signature.size()) << "the form itself is still right";
  EXPECT_EQ(Verify(signature), Code::kSignatureForm);
}

TEST_F(SignatureTest, SignerIsJudgedBeforeThePayloadIsRead) {
  const Signer foreign = Authority("Foreign").NewSigner();
  EXPECT_EQ(Verify(Sign(foreign)), Code::kUntrusted);
  EXPECT_EQ(Verify(Sign(foreign), "another payload"), Code::kUntrusted);
}

TEST_F(SignatureTest, ChainTravelsWithTheSignature) {
  const Authority between = root_.NewAuthorityBelow();
  Signer signer = between.NewSigner();
  EXPECT_EQ(Verify(Sign(signer)), Code::kUntrusted);
  X509_up_ref(between.certificate());
  signer.chain.emplace_back(between.certificate());
  EXPECT_EQ(Verify(Sign(signer)), std::nullopt);
}

TEST_F(SignatureTest, KeyAndCertificateMustBelongTogether) {
  Signer mixed = root_.NewSigner();
  mixed.key = Share(signer_.key);
  for (const bool is_text : {false, true}) {
    try {
      is_text ? package::SignText(kPayload, mixed) : Sign(mixed);
      ADD_FAILURE() << "it is signed";
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), Code::kArgument);
      EXPECT_STREQ(error.what(), "the key does not belong to the certificate");
    }
  }
}

TEST_F(SignatureTest, KeysThatCannotSignPackagesAreRefused) {
  const Signer edwards =
      root_.NewSigner({}, Checked(KeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"))));
  EXPECT_EQ(CodeOf([&] { Sign(edwards); }), Code::kArgument);
  const Signer rsa = root_.NewSigner({}, Checked(KeyPtr(EVP_RSA_gen(2048))));
  EXPECT_EQ(Verify(Sign(rsa)), std::nullopt);
}

TEST_F(SignatureTest, SignerIsDescribed) {
  CertificateOptions options;
  options.name = "Some, one";
  options.not_before = 1893456000;
  options.not_after = 4102444800;
  const package::SignerDetails details = package::ReadSigner(Sign(root_.NewSigner(options)));
  EXPECT_EQ(details.subject, "CN=Some\\, one");
  EXPECT_EQ(details.not_before, "2030-01-01T00:00:00Z");
  EXPECT_EQ(details.not_after, "2100-01-01T00:00:00Z");
  EXPECT_EQ(CodeOf([] { package::ReadSigner("x"); }), Code::kSignatureForm);
}

TEST_F(SignatureTest, MemoryDoesNotGrowWithThePayload) {
  const PayloadFile file("");
  constexpr std::uint64_t kSize = 200 << 20;
  ASSERT_EQ(::ftruncate(file.fd(), kSize), 0);
  struct rusage before {};
  ASSERT_EQ(::getrusage(RUSAGE_SELF, &before), 0);
  const std::string signature = package::SignPayload(file.fd(), kSize, signer_);
  package::VerifyPayload(file.fd(), kSize, signature, Trust::InCertificate(root_.certificate()),
                         kNow);
  struct rusage after {};
  ASSERT_EQ(::getrusage(RUSAGE_SELF, &after), 0);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 16 * 1024);
}

TEST_F(SignatureTest, ErrorQueueIsLeftAlone) {
  ERR_clear_error();
  EXPECT_EQ(Verify("garbage"), Code::kSignatureForm);
  EXPECT_EQ(Verify(Sign(signer_), "x"), Code::kBadSignature);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

}  // namespace
}  // namespace tolm::testing

#include "offer/signed_offer.h"

#include <gtest/gtest.h>

#include <string>

#include "base/digest.h"
#include "package/layout.h"
#include "tests/offer/offers.h"
#include "tests/package/authority.h"

namespace tolm::testing {
namespace {

using offer::Code;
using offer::SignedText;
using package::Signer;
using package::Trust;

CertificateOptions ForDescriptions() {
  CertificateOptions options;
  options.name = "Test descriptions";
  options.extended_usage = std::string("critical,") + package::kDescriptionSigningOid;
  return options;
}

class SignedOfferTest : public ::testing::Test {
 protected:
  std::optional<Code> Verify(const SignedText& signed_text, std::int64_t at = kIssued) const {
    return OfferCodeOf([&] { offer::Verify(signed_text, Trusted(), at); });
  }
  SignedText SignedBy(const Signer& signer) const { return {text_, Signature(text_, signer)}; }
  // By a key that this program itself would not sign with.
  static std::string Signature(const std::string& text, const Signer& signer) {
    return SignAs(offer::kSignaturePrefix + text, signer);
  }
  Trust Trusted() const { return Trust::InCertificate(root_.certificate()); }
  Json::Value Document() const {
    Json::Value document(Json::objectValue);
    offer::AddTo(document, offer::Sign(text_, signer_));
    return document;
  }

  const std::string text_ = offer::FormatOffer(SomeOffer());
  Authority root_{"Root A"};
  Signer signer_ = root_.NewSigner(ForDescriptions());
};

TEST_F(SignedOfferTest, IsReadWithWhatWasSigned) {
  const auto read = offer::SignedTextIn(Document());
  ASSERT_TRUE(read.has_value());
  const offer::VerifiedOffer verified = offer::Verify(*read, Trusted(), kIssued);
  EXPECT_EQ(offer::FormatOffer(verified.offer), text_);
  EXPECT_EQ(verified.signer.subject, "CN=Test descriptions");
  EXPECT_EQ(verified.signer.not_before, kLongAgo);
  base::Sha384 digest;
  digest.Add(text_.data(), text_.size());
  EXPECT_EQ(verified.digest, digest.Hex());
  EXPECT_EQ(offer::SignerOf(*read).fingerprint, verified.signer.fingerprint);
}

TEST_F(SignedOfferTest, OfOthersIsRefused) {
  CertificateOptions both = ForDescriptions();
  both.extended_usage += ",codeSigning";
  CertificateOptions any = ForDescriptions();
  any.extended_usage = "anyExtendedKeyUsage";
  CertificateOptions none = ForDescriptions();
  none.extended_usage.clear();
  CertificateOptions over = ForDescriptions();
  over.not_after = kIssued - 1;
  CertificateOptions later = ForDescriptions();
  later.not_before = kIssued + 1;
  EXPECT_EQ(Verify(SignedBy(signer_)), std::nullopt);
  EXPECT_EQ(Verify(SignedBy(root_.NewSigner())), Code::kWrongUsage) << "a key for packages";
  EXPECT_EQ(Verify(SignedBy(root_.NewSigner(both))), Code::kWrongUsage);
  EXPECT_EQ(Verify(SignedBy(root_.NewSigner(any))), Code::kWrongUsage);
  EXPECT_EQ(Verify(SignedBy(root_.NewSigner(none))), Code::kWrongUsage);
  EXPECT_EQ(Verify(SignedBy(root_.NewSigner(over))), Code::kSignerNotValid);
  EXPECT_EQ(Verify(SignedBy(root_.NewSigner(later))), Code::kSignerNotValid);
  EXPECT_EQ(Verify(SignedBy(Authority("Root A").NewSigner(ForDescriptions()))), Code::kNotTrusted);
}

TEST_F(SignedOfferTest, RevokedSignerIsRefused) {
  const Trust trust =
      Trust::FromTexts({root_.Pem(), root_.RevocationPem({signer_.certificate.get()})});
  EXPECT_EQ(OfferCodeOf([&] { offer::Verify(SignedBy(signer_), trust, kIssued); }),
            Code::kNotTrusted);
}

TEST_F(SignedOfferTest, AnotherTextUnderTheSignatureIsRefused) {
  SignedText mixed = SignedBy(signer_);
  mixed.text.replace(mixed.text.find("\"counter\":41"), 12, "\"counter\":42");
  EXPECT_EQ(Verify(mixed), Code::kSignature);
  // Signed without what stands before it, as something else might be.
  EXPECT_EQ(Verify({text_, SignAs(text_, signer_)}), Code::kSignature);
  EXPECT_EQ(Verify({offer::kSignaturePrefix + text_, SignAs(text_, signer_)}), Code::kSignature);
}

TEST_F(SignedOfferTest, SignatureThatIsNoneIsRefused) {
  const std::string good = SignedBy(signer_).signature;
  for (const std::string& signature : {std::string(), std::string("x"), good + "x",
                                       good.substr(0, good.size() - 1), std::string(70000, 'x')}) {
    EXPECT_EQ(Verify({text_, signature}), Code::kSignature) << signature.size();
  }
}

TEST_F(SignedOfferTest, WellSignedTextThatIsNoOfferIsRefused) {
  EXPECT_EQ(Verify({"{}", Signature("{}", signer_)}), Code::kForm);
}

TEST_F(SignedOfferTest, LimitedSignerSpeaksForItsDatabasesOnly) {
  CertificateOptions options = ForDescriptions();
  options.scope = {"oui", "geo"};
  EXPECT_EQ(Verify(SignedBy(root_.NewSigner(options))), Code::kWrongUsage);
  options.scope.insert("Zeichen \xC3\xA4");  // Without what no seal can have.
  offer::Offer small = SomeOffer();
  small.databases.erase("Zeichen \xC3\xA4\"\n");
  const std::string text = offer::FormatOffer(small);
  EXPECT_EQ(Verify({text, Signature(text, root_.NewSigner(options))}), std::nullopt);
}

TEST_F(SignedOfferTest, SignatureOfAnyLengthIsTheSameAfterItWasWrittenAndRead) {
  for (std::size_t size = 1; size <= 7; ++size) {
    for (const char last : {'\0', '\xFF'}) {
      const std::string signature = std::string(size - 1, '\0') + last;
      Json::Value document(Json::objectValue);
      offer::AddTo(document, {text_, signature});
      const auto read = offer::SignedTextIn(document);
      ASSERT_TRUE(read.has_value());
      EXPECT_EQ(read->signature, signature) << size;
      EXPECT_EQ(read->text, text_);
    }
  }
}

TEST_F(SignedOfferTest, SignatureHasTwiceAsManyLettersAsAPackageAllowsBytesAtMost) {
  Json::Value document = Document();
  document["signature"] = std::string(2 * package::kMaxSignatureBytes, 'A');
  EXPECT_EQ(OfferCodeOf([&] { offer::SignedTextIn(document); }), std::nullopt);
  document["signature"] = std::string(2 * package::kMaxSignatureBytes + 4, 'A');
  EXPECT_EQ(OfferCodeOf([&] { offer::SignedTextIn(document); }), Code::kSignature);
}

TEST_F(SignedOfferTest, MembersThatAreNoneAreRefused) {
  EXPECT_FALSE(offer::SignedTextIn(Json::Value(Json::objectValue)).has_value());
  EXPECT_FALSE(offer::SignedTextIn(Json::Value("signed")).has_value());
  const std::string good = Document()["signature"].asString();
  struct Row {
    const char* member;
    Json::Value value;
    Code code;
  };
  for (const Row& row :
       {Row{"signed", true, Code::kForm}, Row{"signed", Json::Value(Json::nullValue), Code::kForm},
        Row{"signature", 5, Code::kForm}, Row{"signature", "", Code::kSignature},
        Row{"signature", good + "\n", Code::kSignature},
        Row{"signature", ' ' + good, Code::kSignature},
        Row{"signature", good + "====", Code::kSignature},
        Row{"signature", "AB=C" + good, Code::kSignature},
        Row{"signature", "%%%%", Code::kSignature}, Row{"signature", "====", Code::kSignature},
        Row{"signature", "=", Code::kSignature}, Row{"signature", "    ", Code::kSignature},
        Row{"signature", std::string(200000, 'A'), Code::kSignature}}) {
    Json::Value document = Document();
    document[row.member] = row.value;
    EXPECT_EQ(OfferCodeOf([&] { offer::SignedTextIn(document); }), row.code)
        << row.member << ": " << row.value.toStyledString().substr(0, 80);
  }
  for (const char* member : {"signed", "signature"}) {
    Json::Value document = Document();
    document.removeMember(member);
    EXPECT_EQ(OfferCodeOf([&] { offer::SignedTextIn(document); }), Code::kForm) << member;
  }
}

}  // namespace
}  // namespace tolm::testing

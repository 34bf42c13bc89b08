#include "package/signature.h"

#include <openssl/err.h>

#include <array>
#include <ctime>
#include <utility>

#include "package/certificate.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/layout.h"
#include "package/payload_bio.h"

namespace tolm::package {
namespace {

// Exactly one DER object and nothing behind it.
CmsPtr ParseSignature(const std::string& signature) {
  const auto* position = reinterpret_cast<const unsigned char*>(signature.data());
  const unsigned char* end = position + signature.size();
  CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(signature.size())));
  if (!cms || position != end) {
    throw Error(Code::kSignatureForm, "the signature is not one CMS object");
  }
  if (OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed ||
      OBJ_obj2nid(CMS_get0_eContentType(cms.get())) != NID_pkcs7_data) {
    throw Error(Code::kSignatureForm, "the signature is not a SignedData over plain data");
  }
  return cms;
}

CMS_SignerInfo* SingleSigner(CMS_ContentInfo* cms) {
  const STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms);
  const int count = sk_CMS_SignerInfo_num(signers);
  if (count < 1) {
    throw Error(Code::kNoSigner, "the signature has no signer");
  }
  if (count > 1) {
    throw Error(Code::kSignatureForm, "the signature has several signers");
  }
  return sk_CMS_SignerInfo_value(signers, 0);
}

// The certificate stays the property of `cms`.
X509* SignerCertificate(CMS_ContentInfo* cms, CMS_SignerInfo* signer) {
  X509* certificate = nullptr;
  CMS_set1_signers_certs(cms, nullptr, 0);
  CMS_SignerInfo_get0_algs(signer, nullptr, &certificate, nullptr, nullptr);
  if (certificate == nullptr) {
    throw Error(Code::kNoSigner, "the signer's certificate is not in the signature");
  }
  return certificate;
}

void CheckForm(CMS_ContentInfo* cms, CMS_SignerInfo* signer) {
  if (CMS_is_detached(cms) != 1) {
    throw Error(Code::kEmbeddedContent, "the signature carries content of its own");
  }
  X509_ALGOR* digest = nullptr;
  CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, nullptr);
  const ASN1_OBJECT* algorithm = nullptr;
  X509_ALGOR_get0(&algorithm, nullptr, nullptr, digest);
  const int nid = OBJ_obj2nid(algorithm);
  if (nid != NID_sha256 && nid != NID_sha384 && nid != NID_sha512) {
    throw Error(Code::kWeakDigest, "the signature's digest is not SHA-256, SHA-384 or SHA-512");
  }
  // Without them a signature could pass for one over a payload that is the encoded attributes.
  if (CMS_signed_get_attr_count(signer) < 1) {
    throw Error(Code::kSignatureForm, "the signature has no signed attributes");
  }
}

// The digests that a signature announces are not signed themselves, and each is computed over the
// whole payload: thousands of them would keep a device busy for hours.
void CheckSingleDigest(CMS_ContentInfo* cms) {
  BioPtr nothing = Checked(BioPtr(BIO_new(BIO_s_null())));
  const BioChainPtr chain(CMS_dataInit(cms, nothing.get()));
  if (!chain) {
    throw Error(Code::kSignatureForm, "the signature announces a digest that is unknown here");
  }
  nothing.release();  // Owned by the chain now.
  BIO* digest = BIO_find_type(chain.get(), BIO_TYPE_MD);
  if (digest == nullptr || BIO_method_type(BIO_next(digest)) == BIO_TYPE_MD) {
    throw Error(Code::kSignatureForm, "the signature does not announce exactly one digest");
  }
}

void CheckCursor(const PayloadCursor& cursor) {
  if (cursor.errno_value != 0) {
    throw UnreadPart("payload", cursor.fd, cursor.errno_value);
  }
  if (cursor.offset != cursor.end) {
    throw Error(Code::kChanged, "payload: the file became shorter");
  }
}

void CheckContent(CMS_ContentInfo* cms, int fd, std::uint64_t payload_bytes) {
  PayloadCursor cursor{fd, 0, payload_bytes};
  const BioPtr payload = NewPayloadBio(cursor);
  const int result = CMS_verify(cms, nullptr, nullptr, payload.get(), nullptr,
                                CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY);
  if (cursor.offset > 0 || cursor.errno_value != 0) {
    CheckCursor(cursor);
  }
  if (result != 1 || cursor.offset != cursor.end) {
    throw Error(Code::kBadSignature, "the signature does not belong to this payload");
  }
}

void CheckSigningKey(const Signer& signer) {
  if (X509_check_private_key(signer.certificate.get(), signer.key.get()) != 1) {
    throw Error(Code::kArgument, "the key does not belong to the certificate");
  }
}

CmsPtr NewSignature(const Signer& signer) {
  constexpr unsigned int kFlags = CMS_BINARY | CMS_DETACHED | CMS_PARTIAL;
  CmsPtr cms = Checked(CmsPtr(CMS_sign(nullptr, nullptr, nullptr, nullptr, kFlags)));
  if (CMS_add1_signer(cms.get(), signer.certificate.get(), signer.key.get(), EVP_sha256(),
                      kFlags | CMS_NOSMIMECAP) == nullptr) {
    throw Error(Code::kArgument, "this kind of key cannot sign packages: " + OpenSslReason());
  }
  for (const X509Ptr& authority : signer.chain) {
    CheckResult(CMS_add1_cert(cms.get(), authority.get()));
  }
  return cms;
}

std::string Encode(CMS_ContentInfo* cms) {
  const int size = i2d_CMS_ContentInfo(cms, nullptr);
  CheckResult(size);
  if (static_cast<std::size_t>(size) > kMaxSignatureBytes) {
    throw Error(Code::kArgument, "the signature would take " + std::to_string(size) +
                                     " bytes, allowed are " + std::to_string(kMaxSignatureBytes));
  }
  std::string der(static_cast<std::size_t>(size), '\0');
  auto* position = reinterpret_cast<unsigned char*>(der.data());
  CheckResult(i2d_CMS_ContentInfo(cms, &position));
  return der;
}

void CheckSigned(int result) {
  if (result != 1) {
    throw Error(Code::kArgument, "the key did not sign: " + OpenSslReason());
  }
}

// All but the content.
VerifiedSigner JudgeSigner(CMS_ContentInfo* cms, const Trust& trust, std::int64_t at,
                           SignerUse use) {
  CMS_SignerInfo* signer = SingleSigner(cms);
  CheckForm(cms, signer);
  X509* certificate = SignerCertificate(cms, signer);
  const X509StackPtr others(CMS_get1_certs(cms));
  Scope scope = trust.CheckSigner(certificate, others.get(), at, use);
  CheckSingleDigest(cms);
  return {DetailsOf(certificate), std::move(scope)};
}

std::string TimeText(const ASN1_TIME* time) {
  std::tm parts{};
  std::array<char, 32> text{};
  if (ASN1_TIME_to_tm(time, &parts) != 1) {
    return "unreadable";
  }
  return std::string(text.data(),
                     std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts));
}

}  // namespace

std::string SignPayload(int fd, std::uint64_t payload_bytes, const Signer& signer) {
  const OpenSslErrorScope errors;
  CheckSigningKey(signer);
  const CmsPtr cms = NewSignature(signer);
  PayloadCursor cursor{fd, 0, payload_bytes};
  const BioPtr payload = NewPayloadBio(cursor);
  const int result = CMS_final(cms.get(), payload.get(), nullptr, CMS_BINARY | CMS_DETACHED);
  CheckCursor(cursor);
  CheckSigned(result);
  return Encode(cms.get());
}

VerifiedSigner VerifyPayload(int fd, std::uint64_t payload_bytes, const std::string& signature,
                             const Trust& trust, std::int64_t at) {
  const OpenSslErrorScope errors;
  const CmsPtr cms = ParseSignature(signature);
  const VerifiedSigner signer = JudgeSigner(cms.get(), trust, at, SignerUse::kPackages);
  CheckContent(cms.get(), fd, payload_bytes);
  return signer;
}

std::string SignText(const std::string& text, const Signer& signer) {
  const OpenSslErrorScope errors;
  CheckSigningKey(signer);
  const CmsPtr cms = NewSignature(signer);
  CheckSigned(CMS_final(cms.get(), ViewOf(text).get(), nullptr, CMS_BINARY | CMS_DETACHED));
  return Encode(cms.get());
}

VerifiedSigner VerifyText(const std::string& text, const std::string& signature, const Trust& trust,
                          std::int64_t at) {
  const OpenSslErrorScope errors;
  if (signature.size() > kMaxSignatureBytes) {
    throw Error(Code::kSignatureSize, "the signature has " + std::to_string(signature.size()) +
                                          " bytes, allowed are " +
                                          std::to_string(kMaxSignatureBytes));
  }
  const CmsPtr cms = ParseSignature(signature);
  VerifiedSigner signer = JudgeSigner(cms.get(), trust, at, SignerUse::kDescriptions);
  if (CMS_verify(cms.get(), nullptr, nullptr, ViewOf(text).get(), nullptr,
                 CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) != 1) {
    throw Error(Code::kBadSignature, "the signature does not belong to this text");
  }
  return signer;
}

CertificateDetails ReadSignerCertificate(const std::string& signature) {
  const OpenSslErrorScope errors;
  const CmsPtr cms = ParseSignature(signature);
  return DetailsOf(SignerCertificate(cms.get(), SingleSigner(cms.get())));
}

void CheckSigner(const std::string& signature, const Trust& trust, std::int64_t at) {
  const OpenSslErrorScope errors;
  const CmsPtr cms = ParseSignature(signature);
  X509* certificate = SignerCertificate(cms.get(), SingleSigner(cms.get()));
  const X509StackPtr others(CMS_get1_certs(cms.get()));
  trust.CheckSigner(certificate, others.get(), at);
}

SignerDetails ReadSigner(const std::string& signature) {
  const OpenSslErrorScope errors;
  const CmsPtr cms = ParseSignature(signature);
  X509* certificate = SignerCertificate(cms.get(), SingleSigner(cms.get()));
  return {NameText(X509_get_subject_name(certificate)), TimeText(X509_get0_notBefore(certificate)),
          TimeText(X509_get0_notAfter(certificate))};
}

}  // namespace tolm::package

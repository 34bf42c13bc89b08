#include "package/trust.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <utility>

#include "base/keyring_bounds.h"
#include "package/certificate.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/revocations.h"

namespace tolm::package {
namespace {

// 112 bits: refuses SHA-1, RSA below 2048 bits and curves below 224 in the whole chain.
constexpr int kSecurityLevel = 2;

struct CrlStackDelete {
  void operator()(STACK_OF(X509_CRL) * lists) const noexcept {
    sk_X509_CRL_pop_free(lists, X509_CRL_free);
  }
};
struct CertificateStackDelete {
  void operator()(STACK_OF(X509) * certificates) const noexcept {
    sk_X509_pop_free(certificates, X509_free);
  }
};

// Revocation lists are shipped by hand; a missing or outdated one is no verdict about the
// certificate.
int AcceptMissingRevocations(int ok, X509_STORE_CTX* context) {
  switch (X509_STORE_CTX_get_error(context)) {
    case X509_V_ERR_UNABLE_TO_GET_CRL:
    case X509_V_ERR_CRL_HAS_EXPIRED:
    case X509_V_ERR_CRL_NOT_YET_VALID:
      X509_STORE_CTX_set_error(context, X509_V_OK);
      return 1;
    default:
      return ok;
  }
}

using CrlStackPtr = std::unique_ptr<STACK_OF(X509_CRL), CrlStackDelete>;
using CertificateStackPtr = std::unique_ptr<STACK_OF(X509), CertificateStackDelete>;
using UsagesPtr = std::unique_ptr<EXTENDED_KEY_USAGE, OpenSslDelete<EXTENDED_KEY_USAGE_free>>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, OpenSslDelete<ASN1_OBJECT_free>>;

bool IsIssuedByOneOf(X509_CRL* list, const STACK_OF(X509) * certificates) {
  for (int i = 0; i < sk_X509_num(certificates); ++i) {
    if (IsIssuedBy(list, sk_X509_value(certificates, i))) {
      return true;
    }
  }
  return false;
}

// OpenSSL takes a list for an authority's by the name alone: those of another trusted one of that
// name are left out. A list that nobody has signed stays, and makes every signer a refused one.
STACK_OF(X509_CRL) * ListsOf(const X509_STORE_CTX* context, const X509_NAME* name) {
  CrlStackPtr lists(X509_STORE_CTX_get1_crls(context, name));
  auto* const own = const_cast<X509_STORE_CTX*>(context);  // OpenSSL's, whose reading it is.
  const CertificateStackPtr namesakes(X509_STORE_CTX_get1_certs(own, name));
  for (int i = sk_X509_CRL_num(lists.get()) - 1; i >= 0; --i) {
    X509_CRL* const list = sk_X509_CRL_value(lists.get(), i);
    if (!IsIssuedByOneOf(list, X509_STORE_CTX_get0_chain(own)) &&
        IsIssuedByOneOf(list, namesakes.get())) {
      X509_CRL_free(sk_X509_CRL_delete(lists.get(), i));
    }
  }
  return lists.release();
}

Code CodeOf(int verify_error) {
  switch (verify_error) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return Code::kExpired;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return Code::kNotYetValid;
    case X509_V_ERR_CERT_REVOKED:
      return Code::kRevoked;
    case X509_V_ERR_EE_KEY_TOO_SMALL:
    case X509_V_ERR_CA_KEY_TOO_SMALL:
    case X509_V_ERR_CA_MD_TOO_WEAK:
      return Code::kWeakDigest;
    case X509_V_ERR_OUT_OF_MEM:
      return Code::kInternal;
    default:
      return Code::kUntrusted;
  }
}

bool HasDescriptionUsage(X509* signer) {
  const UsagesPtr usages(static_cast<EXTENDED_KEY_USAGE*>(
      X509_get_ext_d2i(signer, NID_ext_key_usage, nullptr, nullptr)));
  const ObjectPtr wanted = Checked(ObjectPtr(OBJ_txt2obj(kDescriptionSigningOid, 1)));
  for (int i = 0; i < sk_ASN1_OBJECT_num(usages.get()); ++i) {
    if (OBJ_cmp(sk_ASN1_OBJECT_value(usages.get(), i), wanted.get()) == 0) {
      return true;
    }
  }
  return false;
}

// OpenSSL's own purposes do not fit: one refuses code signing, the other accepts whatever the
// authority signed, a TLS server's certificate too.
void CheckUsage(X509* signer, SignerUse use) {
  const bool has_usage = (X509_get_extension_flags(signer) & EXFLAG_XKUSAGE) != 0;
  const bool is_for_packages =
      has_usage && (X509_get_extended_key_usage(signer) & XKU_CODE_SIGN) != 0;
  const bool is_for_descriptions = HasDescriptionUsage(signer);
  if (use == SignerUse::kPackages && !is_for_packages) {
    throw Error(Code::kWrongUsage, "the signer's certificate is not for code signing");
  }
  if (use == SignerUse::kDescriptions && !is_for_descriptions) {
    throw Error(Code::kWrongUsage, "the signer's certificate is not for signing descriptions");
  }
  if (is_for_packages && is_for_descriptions) {
    throw Error(Code::kWrongUsage,
                "the signer's certificate is for packages and for descriptions, which no key signs "
                "both");
  }
  if ((X509_get_key_usage(signer) & KU_DIGITAL_SIGNATURE) == 0) {
    throw Error(Code::kWrongUsage, "the signer's certificate is not for digital signatures");
  }
}

Scope ScopeOfChain(X509_STORE_CTX* context) {
  const STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context);
  Scope scope;
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    scope = Narrowed(scope, ScopeOf(sk_X509_value(chain, i)));
  }
  return scope;
}

// None of a file that is not there.
std::vector<X509CrlPtr> RevocationsIn(const std::string& path) {
  if (path.empty() || (::access(path.c_str(), F_OK) != 0 && errno == ENOENT)) {
    return {};
  }
  return ParseRevocations(ReadSmallFile(path, rules::kRevocationBytes, Code::kKeyring), path);
}

std::string TextIn(BIO* memory) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory, &data);
  return std::string(data, static_cast<std::size_t>(size));
}

[[noreturn]] void Refuse(int error) {
  throw Error(CodeOf(error), std::string("the signer's certificate is refused: ") +
                                 X509_verify_cert_error_string(error));
}

// Where time_t has 32 bits, OpenSSL knows no later moment than its last one, in 2038. Elsewhere it
// has looked already.
void RequireNoneEnded(X509_STORE_CTX* context, std::int64_t at) {
  const STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context);
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    if (SecondsOf(X509_get0_notAfter(sk_X509_value(chain, i))) <= at) {
      Refuse(X509_V_ERR_CERT_HAS_EXPIRED);
    }
  }
}

}  // namespace

Trust::Trust(const std::vector<X509Ptr>& certificates, std::vector<X509CrlPtr> revocations)
    : store_(Checked(X509StorePtr(X509_STORE_new()))) {
  // Any certificate in the keyring ends a chain, not only one that signed itself.
  CheckResult(X509_STORE_set_flags(store_.get(), X509_V_FLAG_PARTIAL_CHAIN));
  for (const X509Ptr& certificate : certificates) {
    CheckResult(X509_STORE_add_cert(store_.get(), certificate.get()));
  }
  if (revocations.empty()) {
    return;
  }
  X509_STORE_set_lookup_crls(store_.get(), ListsOf);
  // OpenSSL prefers an older list to a newer one whose next one is due.
  for (const X509CrlPtr& revocation : WithoutOlder(std::move(revocations), certificates)) {
    CheckResult(X509_STORE_add_crl(store_.get(), revocation.get()));
  }
  CheckResult(
      X509_STORE_set_flags(store_.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL));
}

Trust Trust::Load(const std::string& certificates_path, const std::string& revocations_path,
                  const std::string& further_revocations_path) {
  std::vector<X509Ptr> certificates = ParseCertificates(
      ReadSmallFile(certificates_path, rules::kKeyringBytes, Code::kKeyring), certificates_path);
  std::vector<X509CrlPtr> revocations = RevocationsIn(revocations_path);
  for (X509CrlPtr& list : IssuedByAnyOf(RevocationsIn(further_revocations_path), certificates)) {
    revocations.push_back(std::move(list));
  }
  return Trust(certificates, std::move(revocations));
}

Trust Trust::FromTexts(const TrustTexts& texts) {
  std::vector<X509CrlPtr> revocations;
  if (!texts.revocations.empty()) {
    revocations = ParseRevocations(texts.revocations, "revocations");
  }
  return Trust(ParseCertificates(texts.certificates, "trusted certificates"),
               std::move(revocations));
}

TrustTexts Trust::Texts() const {
  const BioPtr certificates = Checked(BioPtr(BIO_new(BIO_s_mem())));
  const BioPtr revocations = Checked(BioPtr(BIO_new(BIO_s_mem())));
  const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store_.get());
  for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
    const X509_OBJECT* object = sk_X509_OBJECT_value(objects, i);
    if (X509* certificate = X509_OBJECT_get0_X509(object)) {
      CheckResult(PEM_write_bio_X509(certificates.get(), certificate));
    } else if (X509_CRL* revocation = X509_OBJECT_get0_X509_CRL(object)) {
      CheckResult(PEM_write_bio_X509_CRL(revocations.get(), revocation));
    }
  }
  return {TextIn(certificates.get()), TextIn(revocations.get())};
}

Trust Trust::InCertificate(X509* certificate) {
  Trust trust({}, {});
  CheckResult(X509_STORE_add_cert(trust.store_.get(), certificate));
  return trust;
}

Scope Trust::CheckSigner(X509* signer, STACK_OF(X509) * others, std::int64_t at,
                         SignerUse use) const {
  const OpenSslErrorScope errors;
  CheckUsage(signer, use);
  const X509StoreContextPtr context = Checked(X509StoreContextPtr(X509_STORE_CTX_new()));
  CheckResult(X509_STORE_CTX_init(context.get(), store_.get(), signer, others));
  X509_VERIFY_PARAM* rules = X509_STORE_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_time(rules, static_cast<std::time_t>(std::min<std::int64_t>(
                                        at, std::numeric_limits<std::time_t>::max())));
  X509_VERIFY_PARAM_set_auth_level(rules, kSecurityLevel);
  X509_STORE_CTX_set_verify_cb(context.get(), AcceptMissingRevocations);
  if (X509_verify_cert(context.get()) > 0) {
    RequireNoneEnded(context.get(), at);
    return ScopeOfChain(context.get());
  }
  Refuse(X509_STORE_CTX_get_error(context.get()));
}

std::int64_t VerificationTime(std::int64_t now) {
  return std::max(now, BuildDate());
}

std::int64_t BuildDate() {
  return TOLM_BUILD_DATE;
}

}  // namespace tolm::package

#ifndef TOLM_TESTS_PACKAGE_AUTHORITY_H_
#define TOLM_TESTS_PACKAGE_AUTHORITY_H_

#include <openssl/cms.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "package/layout.h"
#include "package/openssl.h"
#include "package/scope.h"
#include "package/signature.h"

namespace tolm::testing {

using package::BioPtr;
using package::Checked;
using package::CheckResult;
using package::CmsPtr;
using package::KeyPtr;
using package::X509Ptr;

constexpr std::int64_t kDaySeconds = 24 * 60 * 60;

/// 2001-09-09 and 2100-01-01.
constexpr std::int64_t kLongAgo = 1000000000;
constexpr std::int64_t kFarFuture = 4102444800;

/// What a test wants different from a good signing certificate.
struct CertificateOptions {
  std::string name = "Test signing";
  std::int64_t not_before = kLongAgo;
  std::int64_t not_after = kFarFuture;
  std::string extended_usage = "codeSigning";       ///< empty: no extension
  std::string usage = "critical,digitalSignature";  ///< empty: no extension
  std::string other_names;                          ///< "IP:127.0.0.1"; empty: no extension
  std::set<std::string> scope;                      ///< databases; empty: no extension
  std::string odd_scope;  ///< DER in the place of that, however damaged; empty: no extension
  bool is_authority = false;
  const EVP_MD* digest = EVP_sha256();
};

/// A copy that shares the object.
inline X509Ptr Share(const X509Ptr& certificate) {
  X509_up_ref(certificate.get());
  return X509Ptr(certificate.get());
}
inline KeyPtr Share(const KeyPtr& key) {
  EVP_PKEY_up_ref(key.get());
  return KeyPtr(key.get());
}

inline std::string DrainBio(BIO* bio) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<std::size_t>(size));
}

inline BioPtr NewMemoryBio() {
  return Checked(BioPtr(BIO_new(BIO_s_mem())));
}

inline std::string PemOf(X509* certificate) {
  const BioPtr bio = NewMemoryBio();
  CheckResult(PEM_write_bio_X509(bio.get(), certificate));
  return DrainBio(bio.get());
}

inline std::string PemOf(X509_CRL* list) {
  const BioPtr bio = NewMemoryBio();
  CheckResult(PEM_write_bio_X509_CRL(bio.get(), list));
  return DrainBio(bio.get());
}

inline std::string PemOf(EVP_PKEY* key) {
  const BioPtr bio = NewMemoryBio();
  CheckResult(PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr));
  return DrainBio(bio.get());
}

/// A certificate authority for one test. Everything it makes is decided by the options; the clock
/// plays no part.
class Authority {
 public:
  explicit Authority(const std::string& name = "Test root") : Authority(Options(name), nullptr) {}

  /// An authority below this one.
  Authority NewAuthorityBelow(CertificateOptions options = {}) const {
    options.is_authority = true;
    options.extended_usage.clear();
    options.usage = "critical,keyCertSign,cRLSign";
    return Authority(options, this);
  }

  X509* certificate() const { return certificate_.get(); }
  EVP_PKEY* key() const { return key_.get(); }
  std::string Pem() const { return PemOf(certificate_.get()); }

  package::Signer NewSigner(const CertificateOptions& options = {}) const {
    return NewSigner(options, Checked(KeyPtr(EVP_EC_gen("P-256"))));
  }

  package::Signer NewSigner(const CertificateOptions& options, KeyPtr key) const {
    package::Signer signer;
    signer.certificate = Issue(options, key.get(), this);
    signer.key = std::move(key);
    return signer;
  }

  /// A revocation list with these certificates, dated as told; without its next date or a number
  /// where that is 0.
  std::string RevocationPem(const std::vector<X509*>& revoked, std::int64_t issued = kLongAgo,
                            std::int64_t next = kFarFuture, long number = 0) const {
    const package::X509CrlPtr list = Checked(package::X509CrlPtr(X509_CRL_new()));
    CheckResult(X509_CRL_set_version(list.get(), X509_CRL_VERSION_2));
    CheckResult(X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(certificate())));
    SetTime(issued, [&](ASN1_TIME* time) { return X509_CRL_set1_lastUpdate(list.get(), time); });
    if (next != 0) {
      SetTime(next, [&](ASN1_TIME* time) { return X509_CRL_set1_nextUpdate(list.get(), time); });
    }
    for (X509* certificate : revoked) {
      X509_REVOKED* entry = X509_REVOKED_new();
      CheckResult(X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(certificate)));
      SetTime(issued,
              [&](ASN1_TIME* time) { return X509_REVOKED_set_revocationDate(entry, time); });
      CheckResult(X509_CRL_add0_revoked(list.get(), entry));
    }
    if (number > 0) {
      ASN1_INTEGER* value = ASN1_INTEGER_new();
      ASN1_INTEGER_set(value, number);
      const int result = X509_CRL_add1_ext_i2d(list.get(), NID_crl_number, value, 0, 0);
      ASN1_INTEGER_free(value);
      CheckResult(result);
    }
    CheckResult(X509_CRL_sign(list.get(), key_.get(), EVP_sha256()));
    return PemOf(list.get());
  }

 private:
  Authority(const CertificateOptions& options, const Authority* above)
      : key_(Checked(KeyPtr(EVP_EC_gen("P-256")))),
        certificate_(Issue(options, key_.get(), above)) {}

  static CertificateOptions Options(const std::string& name) {
    CertificateOptions options;
    options.name = name;
    options.is_authority = true;
    options.extended_usage.clear();
    options.usage = "critical,keyCertSign,cRLSign";
    return options;
  }

  template <typename Set>
  static void SetTime(std::int64_t time, Set set) {
    // Days and seconds after 1970: time_t may not reach so far.
    ASN1_TIME* value = ASN1_TIME_adj(nullptr, 0, static_cast<int>(time / kDaySeconds),
                                     static_cast<long>(time % kDaySeconds));
    const int result = set(value);
    ASN1_TIME_free(value);
    CheckResult(result);
  }

  static void AddExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
    if (value.empty()) {
      return;
    }
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    const int result = extension != nullptr ? X509_add_ext(certificate, extension, -1) : 0;
    X509_EXTENSION_free(extension);
    CheckResult(result);
  }

  static package::X509ExtensionPtr OddScopeExtension(const std::string& der) {
    ASN1_OBJECT* object = OBJ_txt2obj(package::kScopeOid, 1);
    ASN1_OCTET_STRING* octets = ASN1_OCTET_STRING_new();
    CheckResult(ASN1_OCTET_STRING_set(octets, reinterpret_cast<const unsigned char*>(der.data()),
                                      static_cast<int>(der.size())));
    package::X509ExtensionPtr made(X509_EXTENSION_create_by_OBJ(nullptr, object, 0, octets));
    ASN1_OCTET_STRING_free(octets);
    ASN1_OBJECT_free(object);
    return Checked(std::move(made));
  }

  static X509Ptr Issue(const CertificateOptions& options, EVP_PKEY* key, const Authority* above) {
    static long serial = 0;
    X509Ptr made = Checked(X509Ptr(X509_new()));
    X509* issuer = above != nullptr ? above->certificate() : made.get();
    CheckResult(X509_set_version(made.get(), X509_VERSION_3));
    CheckResult(ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ++serial));
    SetTime(options.not_before,
            [&](ASN1_TIME* time) { return X509_set1_notBefore(made.get(), time); });
    SetTime(options.not_after,
            [&](ASN1_TIME* time) { return X509_set1_notAfter(made.get(), time); });
    CheckResult(X509_set_pubkey(made.get(), key));
    CheckResult(X509_NAME_add_entry_by_txt(
        X509_get_subject_name(made.get()), "CN", MBSTRING_UTF8,
        reinterpret_cast<const unsigned char*>(options.name.c_str()), -1, -1, 0));
    CheckResult(X509_set_issuer_name(made.get(), X509_get_subject_name(issuer)));
    AddExtension(made.get(), issuer, NID_basic_constraints,
                 options.is_authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
    AddExtension(made.get(), issuer, NID_key_usage, options.usage);
    AddExtension(made.get(), issuer, NID_ext_key_usage, options.extended_usage);
    AddExtension(made.get(), issuer, NID_subject_alt_name, options.other_names);
    AddExtension(made.get(), issuer, NID_subject_key_identifier, "hash");
    AddExtension(made.get(), issuer, NID_authority_key_identifier, "keyid");
    if (!options.scope.empty()) {
      CheckResult(X509_add_ext(made.get(), package::NewScopeExtension(options.scope).get(), -1));
    }
    if (!options.odd_scope.empty()) {
      CheckResult(X509_add_ext(made.get(), OddScopeExtension(options.odd_scope).get(), -1));
    }
    CheckResult(X509_sign(made.get(), above != nullptr ? above->key_.get() : key, options.digest));
    return made;
  }

  KeyPtr key_;
  X509Ptr certificate_;
};

/// The authority's own certificate, but it ends at what is no time.
inline std::string PemWithoutEnd(const Authority& authority) {
  const X509Ptr certificate = Checked(X509Ptr(X509_dup(authority.certificate())));
  CheckResult(ASN1_STRING_set(X509_getm_notAfter(certificate.get()), "never", -1));
  CheckResult(X509_sign(certificate.get(), authority.key(), EVP_sha256()));
  return PemOf(certificate.get());
}

/// How a test wants a signature made.
struct SignatureOptions {
  const EVP_MD* digest = EVP_sha256();
  unsigned int flags = CMS_BINARY | CMS_DETACHED;
  bool with_signer = true;
  int signers = 1;
};

/// A signature over @p payload, good or as broken as the options say.
inline std::string SignAs(const std::string& payload, const package::Signer& signer,
                          const SignatureOptions& options = {}) {
  const CmsPtr cms =
      Checked(CmsPtr(CMS_sign(nullptr, nullptr, nullptr, nullptr, options.flags | CMS_PARTIAL)));
  for (int i = 0; options.with_signer && i < options.signers; ++i) {
    // A second signer with the same certificate adds it once more: not allowed, hence CMS_NOCERTS.
    const unsigned int flags = options.flags | (i > 0 ? CMS_NOCERTS : 0U) | CMS_PARTIAL;
    if (CMS_add1_signer(cms.get(), signer.certificate.get(), signer.key.get(), options.digest,
                        flags) == nullptr) {
      package::ThrowOpenSslError();
    }
  }
  // Without a signer there is nothing to compute.
  const BioPtr content = package::ViewOf(payload);
  CheckResult(!options.with_signer ||
              CMS_final(cms.get(), content.get(), nullptr, options.flags) > 0);
  const BioPtr der = NewMemoryBio();
  CheckResult(i2d_CMS_bio(der.get(), cms.get()));
  return DrainBio(der.get());
}

/// The three parts put together.
inline std::string Assemble(const std::string& payload, const std::string& signature) {
  return payload + signature + package::FormatTrailer(signature.size());
}

/// A well-signed package with this payload.
inline std::string SignedPackage(const std::string& payload, const package::Signer& signer) {
  return Assemble(payload, SignAs(payload, signer));
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_PACKAGE_AUTHORITY_H_

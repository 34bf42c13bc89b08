#ifndef TOLM_PACKAGE_OPENSSL_H_
#define TOLM_PACKAGE_OPENSSL_H_

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>
#include <string>
#include <vector>

namespace tolm::package {

/// Calls @p kRelease on what it is given: one type for every OpenSSL object.
template <auto kRelease>
struct OpenSslDelete {
  template <typename T>
  void operator()(T* object) const noexcept {
    kRelease(object);
  }
};

struct X509StackDelete {
  void operator()(STACK_OF(X509) * stack) const noexcept { sk_X509_pop_free(stack, X509_free); }
};

using BioPtr = std::unique_ptr<BIO, OpenSslDelete<BIO_free>>;
using BioChainPtr = std::unique_ptr<BIO, OpenSslDelete<BIO_free_all>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, OpenSslDelete<CMS_ContentInfo_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDelete<EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, OpenSslDelete<X509_free>>;
using X509CrlPtr = std::unique_ptr<X509_CRL, OpenSslDelete<X509_CRL_free>>;
using X509StackPtr = std::unique_ptr<STACK_OF(X509), X509StackDelete>;
using X509StorePtr = std::unique_ptr<X509_STORE, OpenSslDelete<X509_STORE_free>>;
using X509StoreContextPtr = std::unique_ptr<X509_STORE_CTX, OpenSslDelete<X509_STORE_CTX_free>>;

/// Forgets at its end what OpenSSL recorded in this thread during its life, and nothing older: the
/// error queue belongs to the whole program.
class OpenSslErrorScope {
 public:
  OpenSslErrorScope() noexcept;
  ~OpenSslErrorScope();
  OpenSslErrorScope(const OpenSslErrorScope&) = delete;
  OpenSslErrorScope& operator=(const OpenSslErrorScope&) = delete;
};

/// The reason of this thread's last OpenSSL error, "unknown reason" when there is none.
std::string OpenSslReason();

/// @p object, or Error(kInternal) with OpenSSL's reason when it is null.
template <typename Pointer>
Pointer Checked(Pointer object);

/// Throws Error(kInternal) with OpenSSL's reason unless @p result is positive.
void CheckResult(int result);

/// A read-only view of @p data, which must outlive it. @p data is a key, certificate or signature:
/// small.
BioPtr ViewOf(const std::string& data);
BioPtr ViewOf(std::string&& data) = delete;

/// Every certificate of a PEM text, in its order. Throws Error(kKeyring) that names @p what when
/// one is damaged or there is none.
std::vector<X509Ptr> ParseCertificates(const std::string& pem, const std::string& what);

/// Every revocation list of a PEM text; otherwise the same.
std::vector<X509CrlPtr> ParseRevocations(const std::string& pem, const std::string& what);

[[noreturn]] void ThrowOpenSslError();

template <typename Pointer>
Pointer Checked(Pointer object) {
  if (!object) {
    ThrowOpenSslError();
  }
  return object;
}

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_OPENSSL_H_

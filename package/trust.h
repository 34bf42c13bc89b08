#ifndef TOLM_PACKAGE_TRUST_H_
#define TOLM_PACKAGE_TRUST_H_

#include <cstdint>
#include <string>
#include <vector>

#include "package/openssl.h"
#include "package/scope.h"

namespace tolm::package {

/// What a Trust is made of, as PEM texts.
struct TrustTexts {
  std::string certificates;
  std::string revocations;  ///< empty when there are none
};

/// What somebody signs. Nobody signs both: who signs descriptions, every day and on a machine in
/// the network, makes no data, and who makes data says nothing of what is newest.
enum class SignerUse {
  kPackages,      ///< extended key usage codeSigning
  kDescriptions,  ///< extended key usage kDescriptionSigningOid
};

/// Certificates that signers are trusted for, and what was revoked. Every certificate in it is an
/// anchor of its own: a root, or an authority below one. Not for use by two threads at once.
class Trust {
 public:
  /// Reads the PEM file of trusted certificates and, where they name existing files, the PEM files
  /// of revocation lists. Of several lists of one trusted authority the newest counts. Throws
  /// Error(kKeyring) when one cannot be used.
  static Trust Load(const std::string& certificates_path, const std::string& revocations_path,
                    const std::string& further_revocations_path = "");

  /// The same from texts. Throws Error(kKeyring).
  static Trust FromTexts(const TrustTexts& texts);
  /// For FromTexts(), in another process too.
  TrustTexts Texts() const;

  /// Trusts exactly @p certificate.
  static Trust InCertificate(X509* certificate);

  /// Checks at time @p at that @p signer may sign: its certificate is for that use and not for the
  /// other, it and every certificate above it is valid and not revoked, and it leads to an anchor,
  /// with the help of @p others, which are not trusted themselves. Returns the databases to which
  /// it and all above it are limited. Throws Error (kWrongUsage, kExpired, kNotYetValid, kRevoked,
  /// kWeakDigest, kUntrusted).
  ///
  /// An authority without a revocation list in the file has revoked nothing, and a list past its
  /// date still counts: a device that hears nothing new must not lose the revocations that it has,
  /// nor its updates.
  Scope CheckSigner(X509* signer, STACK_OF(X509) * others, std::int64_t at,
                    SignerUse use = SignerUse::kPackages) const;

 private:
  Trust(const std::vector<X509Ptr>& certificates, std::vector<X509CrlPtr> revocations);

  X509StorePtr store_;
};

/// The time at which certificates are judged: @p now, but never before this library was built, so
/// that a clock that has not been set yet invalidates nothing.
std::int64_t VerificationTime(std::int64_t now);

/// When this library was built.
std::int64_t BuildDate();

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_TRUST_H_

#ifndef TOLM_PACKAGE_SIGNATURE_H_
#define TOLM_PACKAGE_SIGNATURE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "package/certificate.h"
#include "package/openssl.h"
#include "package/trust.h"

namespace tolm::package {

/// What signs packages: a private key, its certificate, and the authorities between that and the
/// root.
struct Signer {
  KeyPtr key;
  X509Ptr certificate;
  std::vector<X509Ptr> chain;
};

/// What a signature's own certificate says of its signer.
struct SignerDetails {
  std::string subject;     ///< RFC 2253 text
  std::string not_before;  ///< as 2030-01-31T23:59:59Z
  std::string not_after;
};

/// Who has signed, proved.
struct VerifiedSigner {
  CertificateDetails certificate;
  Scope scope;  ///< the databases that may be signed for
};

/// Signs the first @p payload_bytes bytes of @p fd: a detached CMS SignedData, DER, SHA-256, with
/// the signer's certificate and chain inside. Reads the payload once, in constant memory. Throws
/// Error: kArgument when the key does not belong to the certificate, cannot sign like this, or the
/// result exceeds the format's bound; kRead when the payload cannot be read.
std::string SignPayload(int fd, std::uint64_t payload_bytes, const Signer& signer);

/// Returns when @p signature is one trusted signer's signature over the first @p payload_bytes
/// bytes of @p fd, with certificates judged at @p at; throws Error with the reason otherwise. The
/// signer is judged before the payload is read; the payload is read once, in constant memory.
/// Whether the payload is for a database within the signer's scope is the caller's to look at.
VerifiedSigner VerifyPayload(int fd, std::uint64_t payload_bytes, const std::string& signature,
                             const Trust& trust, std::int64_t at);

/// The same for a text in memory, by and of who signs descriptions.
std::string SignText(const std::string& text, const Signer& signer);
VerifiedSigner VerifyText(const std::string& text, const std::string& signature, const Trust& trust,
                          std::int64_t at);

/// Who claims to have signed; nothing is verified. Throws Error (kSignatureForm, kNoSigner).
SignerDetails ReadSigner(const std::string& signature);
CertificateDetails ReadSignerCertificate(const std::string& signature);

/// Judges the certificate of who claims to have signed, as VerifyPayload() does; whether they have
/// is not looked at.
void CheckSigner(const std::string& signature, const Trust& trust, std::int64_t at);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_SIGNATURE_H_

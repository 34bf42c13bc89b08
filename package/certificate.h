#ifndef TOLM_PACKAGE_CERTIFICATE_H_
#define TOLM_PACKAGE_CERTIFICATE_H_

#include <cstdint>
#include <string>

#include "package/openssl.h"

namespace tolm::package {

/// What a certificate says of itself.
struct CertificateDetails {
  std::string subject;  ///< RFC 2253 text
  std::int64_t not_before = 0;
  std::int64_t not_after = 0;
  std::string fingerprint;  ///< SHA-256 of the whole certificate, 64 lower-case hexadecimal digits
};

/// Throws Error(kInternal) for one whose times are none.
CertificateDetails DetailsOf(const X509* certificate);

/// Seconds since 1970. Throws Error(kInternal) for what is no time.
std::int64_t SecondsOf(const ASN1_TIME* time);

/// A name as RFC 2253 writes it, in UTF-8.
std::string NameText(const X509_NAME* name);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_CERTIFICATE_H_

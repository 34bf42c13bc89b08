#ifndef TOLM_PACKAGE_REVOCATIONS_H_
#define TOLM_PACKAGE_REVOCATIONS_H_

#include <string>
#include <vector>

#include "package/openssl.h"

namespace tolm::package {

/// Lists of revoked certificates (RFC 5280, section 5). None of these calls leaves anything in
/// OpenSSL's error queue.

/// Whether the authority is named as its issuer, may issue lists and has signed it.
bool IsIssuedBy(X509_CRL* list, X509* authority);

/// By number, where both have one, or by date.
bool IsOlder(const X509_CRL* list, const X509_CRL* other);

/// The newest that the authority has issued; null when there is none. Owned by the lists.
X509_CRL* NewestOf(const std::vector<X509CrlPtr>& lists, X509* authority);

/// Why it cannot stand for all that its issuer has revoked, as "is a delta list"; empty when it
/// can. Who judges by lists puts nothing together.
std::string PartProblem(const X509_CRL* list);

/// The lists without those of which there is a newer one by the same of these authorities. Lists of
/// others stay: nothing is known of them.
std::vector<X509CrlPtr> WithoutOlder(std::vector<X509CrlPtr> lists,
                                     const std::vector<X509Ptr>& authorities);

/// The lists that one of these authorities has issued.
std::vector<X509CrlPtr> IssuedByAnyOf(std::vector<X509CrlPtr> lists,
                                      const std::vector<X509Ptr>& authorities);

/// As ParseRevocations() reads them.
std::string PemOf(const std::vector<X509CrlPtr>& lists);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_REVOCATIONS_H_

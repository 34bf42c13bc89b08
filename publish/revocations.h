#ifndef TOLM_PUBLISH_REVOCATIONS_H_
#define TOLM_PUBLISH_REVOCATIONS_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "package/trust.h"
#include "publish/settings.h"

namespace tolm::publish {

/// So many days before its next one is due a revocation list is noted.
inline constexpr int kRevocationWarningDays = 30;

struct RevocationList {
  std::string issuer;                    ///< RFC 2253 text
  std::optional<std::int64_t> next_due;  ///< "nextUpdate"; some lists have none
  std::size_t revoked = 0;               ///< certificates
};

/// A file of revocation lists that belongs to a repository.
struct Revocations {
  std::string file;
  std::string pem;
  std::vector<RevocationList> lists;
};

/// Reads the file and proves every list in it: issued and signed by a certificate of the
/// repository's root, or by one above its signer, whole, and not from the future. Lists whose next
/// one is due are taken: devices take them, too. Throws package::Error(kKeyring) that names the
/// file.
Revocations LoadRevocations(const std::string& file, const Settings& settings, std::int64_t now);

/// Throws package::Error(kKeyring) when devices that have the lists of @p installed_file would lose
/// some by @p next: of an authority of the repository that has a list there, but none here that is
/// at least as new by its number and its date. A file that is not there or damaged has no lists.
void RequireNoneTakenBack(const Revocations& next, const std::string& installed_file,
                          const Settings& settings);

/// Throws package::Error(kKeyring) when devices that have taken the lists of @p brought (PEM; what
/// is damaged has none) would refuse a description with @p next: one of them is older. One that is
/// missing is none.
void RequireNoneOlder(const Revocations& next, const std::string& brought,
                      const Settings& settings);

/// Whom devices trust that have the repository's root and these revocations.
package::Trust TrustWith(const Settings& settings, const Revocations& revocations);

/// "the list of CN=... revokes 1 certificate; the next one is due by 2026-01-31 23:59 UTC".
std::string RevocationText(const RevocationList& list);

/// A sentence for each list whose next one is due, or will be within kRevocationWarningDays.
std::vector<std::string> RevocationWarnings(const Revocations& revocations, std::int64_t now);

/// Whether the next one of some list is due.
bool IsOverdue(const Revocations& revocations, std::int64_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REVOCATIONS_H_

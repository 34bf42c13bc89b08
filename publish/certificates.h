#ifndef TOLM_PUBLISH_CERTIFICATES_H_
#define TOLM_PUBLISH_CERTIFICATES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "package/certificate.h"
#include "publish/catalog.h"
#include "publish/repository.h"
#include "publish/settings.h"

namespace tolm::publish {

/// From so many days on before its end a certificate is warned of.
inline constexpr int kCertificateWarningDays = 60;

/// What a certificate is for in a repository.
enum class CertificateRole {
  kSigning,       ///< signs what is released
  kDescriptions,  ///< signs descriptions
  kAuthority,     ///< between one of these and the root
  kRoot,          ///< trusted by devices
  kPackages,      ///< has signed packages that are offered, and signs no longer
};

/// "signing", "descriptions", "authority", "root" or "packages".
const char* CertificateRoleText(CertificateRole role);

struct RepositoryCertificate {
  CertificateRole role = CertificateRole::kSigning;
  package::CertificateDetails details;
  std::string file;          ///< where it is; empty for kPackages
  std::size_t packages = 0;  ///< that it has signed; for kPackages only
  /// Whether what is offered depends on it: not on one of several roots that none of it leads to.
  bool is_needed = true;
};

/// The certificates on which it depends whether devices accept what a repository offers.
struct RepositoryCertificates {
  std::vector<RepositoryCertificate> all;  ///< in the order of their roles
  std::vector<std::string> unreadable;     ///< a sentence for each file that could not be read
};

/// Reads them: of the packages only who claims to have signed them. Packages that cannot be read
/// are passed over.
RepositoryCertificates ReadCertificates(const RepositoryPaths& paths, const Settings& settings,
                                        const Catalog& catalog);

/// Packages that devices are given: of every release, without deltas that are not offered any more.
std::vector<PackageRecord> OfferedPackages(const Catalog& catalog);

/// A sentence, with the command that helps, for each certificate that is not valid at @p now or has
/// at most kCertificateWarningDays left, or fewer than @p min_days.
std::vector<std::string> CertificateWarnings(const RepositoryCertificates& certificates,
                                             const RepositoryPaths& paths, int min_days,
                                             std::int64_t now);

/// The same of a repository that is not at hand yet, under its own settings.
std::vector<std::string> CertificateWarnings(const std::string& repository, std::int64_t now);

/// Of the one that is needed and ends first; of none as many as there can be.
std::int64_t FewestDaysLeft(const RepositoryCertificates& certificates, std::int64_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_CERTIFICATES_H_

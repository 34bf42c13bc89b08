#include "publish/certificates.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <map>
#include <utility>

#include "package/error.h"
#include "package/openssl.h"
#include "package/package.h"
#include "package/trust.h"
#include "publish/files.h"
#include "publish/validity.h"

namespace tolm::publish {
namespace {

using package::CertificateDetails;

class Reader {
 public:
  Reader(const RepositoryPaths& paths, const Settings& settings, const Catalog& catalog)
      : paths_(paths), settings_(settings), catalog_(catalog) {}

  RepositoryCertificates Read() {
    CertificateRole role = CertificateRole::kSigning;
    AddFile(settings_.CertificateFile(),
            [&role] { return std::exchange(role, CertificateRole::kAuthority); });
    if (settings_.IsSigned()) {
      role = CertificateRole::kDescriptions;
      AddFile(settings_.InfoCertificateFile(),
              [&role] { return std::exchange(role, CertificateRole::kAuthority); });
    }
    AddFile(settings_.RootFile(), [] { return CertificateRole::kRoot; });
    AddSigners();
    return std::move(result_);
  }

 private:
  void AddFile(const std::string& file, const std::function<CertificateRole()>& role) {
    try {
      for (const package::X509Ptr& certificate :
           package::ParseCertificates(ReadWholeFile(file), file)) {
        RepositoryCertificate found;
        found.role = role();
        found.details = package::DetailsOf(certificate.get());
        found.file = file;
        found.is_needed = found.role != CertificateRole::kRoot || IsNeeded(certificate.get());
        result_.all.push_back(std::move(found));
      }
    } catch (const package::Error& error) {
      result_.unreadable.push_back(error.what());
    }
  }

  bool IsNeeded(X509* root) const {
    const package::Trust trust = package::Trust::InCertificate(root);
    const std::vector<PackageRecord> offered = OfferedPackages(catalog_);
    return offered.empty() || IsInfoBelow(trust) ||
           std::any_of(offered.begin(), offered.end(),
                       [&](const PackageRecord& record) { return LeadsTo(record, trust); });
  }

  // Whatever else is wrong with the package or its signer; when they are judged is no matter.
  bool LeadsTo(const PackageRecord& record, const package::Trust& trust) const {
    try {
      package::Package(paths_.InPublic(record.path)).CheckSigner(trust, 0);
    } catch (const package::Error& error) {
      return error.code() != package::Code::kUntrusted;
    }
    return true;
  }

  // Like LeadsTo().
  bool IsInfoBelow(const package::Trust& trust) const {
    if (!settings_.IsSigned()) {
      return false;
    }
    try {
      const std::string file = settings_.InfoCertificateFile();
      const auto chain = package::ParseCertificates(ReadWholeFile(file), file);
      const package::X509StackPtr others(sk_X509_new_null());
      for (const package::X509Ptr& certificate : chain) {
        X509_up_ref(certificate.get());
        sk_X509_push(others.get(), certificate.get());
      }
      trust.CheckSigner(chain.front().get(), others.get(), 0, package::SignerUse::kDescriptions);
    } catch (const package::Error& error) {
      return error.code() != package::Code::kUntrusted;
    }
    return true;
  }

  bool IsKnown(const std::string& fingerprint) const {
    return std::any_of(result_.all.begin(), result_.all.end(), [&](const auto& certificate) {
      return certificate.details.fingerprint == fingerprint;
    });
  }

  void AddSigners() {
    std::map<std::string, RepositoryCertificate> signers;
    for (const PackageRecord& record : OfferedPackages(catalog_)) {
      try {
        const CertificateDetails details =
            package::Package(paths_.InPublic(record.path)).ReadSignerCertificate();
        if (!IsKnown(details.fingerprint)) {
          RepositoryCertificate& signer = signers[details.fingerprint];
          signer.role = CertificateRole::kPackages;
          signer.details = details;
          ++signer.packages;
        }
      } catch (const package::Error&) {
        // What is wrong with packages is the matter of `check`.
      }
    }
    for (auto& signer : signers) {
      result_.all.push_back(std::move(signer.second));
    }
  }

  const RepositoryPaths& paths_;
  const Settings& settings_;
  const Catalog& catalog_;
  RepositoryCertificates result_;
};

std::string Quoted(const std::string& command) {
  return "\"tolmdbpub " + command + '"';
}

// What comes of it for devices.
std::string Consequence(const CertificateDetails& details, const std::string& what,
                        std::int64_t now) {
  const char* const when = now < details.not_before  ? "until then devices refuse "
                           : now > details.not_after ? "devices refuse "
                                                     : "from then on devices refuse ";
  return ValidityText(details, now) + "; " + when + what;
}

std::string Sentence(const RepositoryCertificate& certificate, const std::string& repository,
                     std::int64_t now) {
  const CertificateDetails& details = certificate.details;
  const std::string name = details.subject + " (" + certificate.file + ") ";
  const std::string resign = Quoted("resign " + repository + " --key KEY --cert FILE");
  switch (certificate.role) {
    case CertificateRole::kSigning:
      return "the signing certificate " + name + Consequence(details, "what it signed", now) +
             ". Make another with " + Quoted("keygen DIR --root-key KEY --root FILE") +
             " and sign with it: " + resign;
    case CertificateRole::kDescriptions:
      return "the certificate of descriptions " + name +
             Consequence(details, "what it signed", now) + ". Make another with " +
             Quoted("keygen DIR --root-key KEY --root FILE --info") + " and sign with it: " +
             Quoted("set " + repository + " --info-key KEY --info-cert FILE");
    case CertificateRole::kAuthority:
      return "the authority " + name + Consequence(details, "what was signed below it", now) +
             ". Sign with another: " + resign;
    case CertificateRole::kRoot:
      if (!certificate.is_needed) {
        return "the root certificate " + name + ValidityText(details, now) +
               "; nothing that is offered is signed below it. Take it out with " +
               Quoted("set " + repository + " --root FILE") + " when no device needs it";
      }
      return "the root certificate " + name +
             Consequence(details, "what was signed below it", now) + ". Make another with " +
             Quoted("keygen DIR") + ", bring it to all devices, then " +
             Quoted("resign " + repository + " --key KEY --cert FILE --root FILE");
    case CertificateRole::kPackages:
      break;
  }
  const bool one = certificate.packages == 1;
  return "the certificate " + details.subject + ", which signed " +
         std::to_string(certificate.packages) +
         (one ? " package that is offered, " : " packages that are offered, ") +
         Consequence(details, one ? "it" : "them", now) +
         ". Sign anew: " + Quoted("resign " + repository);
}

}  // namespace

const char* CertificateRoleText(CertificateRole role) {
  switch (role) {
    case CertificateRole::kSigning:
      return "signing";
    case CertificateRole::kDescriptions:
      return "descriptions";
    case CertificateRole::kAuthority:
      return "authority";
    case CertificateRole::kRoot:
      return "root";
    case CertificateRole::kPackages:
      return "packages";
  }
  return "";
}

RepositoryCertificates ReadCertificates(const RepositoryPaths& paths, const Settings& settings,
                                        const Catalog& catalog) {
  return Reader(paths, settings, catalog).Read();
}

std::vector<PackageRecord> OfferedPackages(const Catalog& catalog) {
  std::vector<PackageRecord> packages;
  for (const auto& [name, database] : catalog.databases) {
    for (const Release& release : database.releases) {
      packages.push_back(release.full);
      if (release.delta && release.delta->withdrawn == 0) {
        packages.push_back(release.delta->package);
      }
    }
  }
  return packages;
}

std::vector<std::string> CertificateWarnings(const RepositoryCertificates& certificates,
                                             const RepositoryPaths& paths, int min_days,
                                             std::int64_t now) {
  const std::int64_t at = package::VerificationTime(now);
  const std::int64_t enough = std::max(kCertificateWarningDays + 1, min_days);
  std::vector<std::string> warnings = certificates.unreadable;
  for (const RepositoryCertificate& certificate : certificates.all) {
    if (at < certificate.details.not_before ||
        DaysLeft(certificate.details.not_after, at) < enough) {
      warnings.push_back(Sentence(certificate, paths.Root(), at));
    }
  }
  return warnings;
}

std::vector<std::string> CertificateWarnings(const std::string& repository, std::int64_t now) {
  const RepositoryPaths paths(repository);
  const Settings settings = LoadSettings(paths.SettingsFile());
  return CertificateWarnings(ReadCertificates(paths, settings, LoadCatalog(paths.CatalogFile())),
                             paths, settings.min_certificate_days, now);
}

std::int64_t FewestDaysLeft(const RepositoryCertificates& certificates, std::int64_t now) {
  const std::int64_t at = package::VerificationTime(now);
  std::int64_t fewest = std::numeric_limits<std::int64_t>::max();
  for (const RepositoryCertificate& certificate : certificates.all) {
    if (certificate.is_needed) {
      fewest = std::min(fewest, DaysLeft(certificate.details.not_after, at));
    }
  }
  return fewest;
}

}  // namespace tolm::publish

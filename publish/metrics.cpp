#include "publish/metrics.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <system_error>
#include <vector>

#include "offer/rollout.h"
#include "publish/catalog.h"
#include "publish/certificates.h"
#include "publish/list.h"
#include "publish/repository.h"
#include "publish/settings.h"
#include "report/open_metrics.h"

namespace tolm::publish {
namespace {

using report::MetricFamily;
using report::MetricLabels;
using report::OpenMetrics;

constexpr MetricFamily kBuild{"tolmdbpub_build_info",
                              "Always 1; its label is the version of the program."};
constexpr MetricFamily kCollected{"tolmdbpub_collected_timestamp_seconds",
                                  "When these numbers were collected."};

constexpr MetricFamily kNewest{"tolmdbpub_newest_version", "The newest version of the database."};
constexpr MetricFamily kReleased{"tolmdbpub_released_timestamp_seconds",
                                 "When the newest version was released."};
constexpr MetricFamily kData{"tolmdbpub_data_timestamp_seconds",
                             "When the newest data were made, as devices are told."};
constexpr MetricFamily kReleases{"tolmdbpub_releases", "Releases that are kept."};
constexpr MetricFamily kDeprecated{"tolmdbpub_deprecated", "Whether the database is deprecated."};
constexpr MetricFamily kFullBytes{"tolmdbpub_full_bytes", "The newest full package."};
constexpr MetricFamily kDeltaBytes{"tolmdbpub_delta_bytes",
                                   "The delta to the newest version, where it is offered."};
constexpr MetricFamily kChainDeltas{"tolmdbpub_chain_deltas",
                                    "Offered deltas, which lead to the newest version."};
constexpr MetricFamily kChainBytes{"tolmdbpub_chain_bytes", "All of these together."};
constexpr MetricFamily kRetiredPackages{"tolmdbpub_retired_packages",
                                        "Packages that are not offered any more and still served."};
constexpr MetricFamily kRetiredBytes{"tolmdbpub_retired_bytes", "All of these together."};

constexpr MetricFamily kStable{"tolmdbpub_stable_version",
                               "The version that every device may have: the newest one, unless "
                               "that is staged."};
constexpr MetricFamily kRolloutVersion{
    "tolmdbpub_rollout_version", "The version that is staged; absent where no rollout is open."};
constexpr MetricFamily kRolloutReached{"tolmdbpub_rollout_reached_ratio",
                                       "The share of the devices that is offered it."};
constexpr MetricFamily kRolloutHeld{"tolmdbpub_rollout_held", "Whether its clock was stopped."};
constexpr MetricFamily kRolloutStopped{"tolmdbpub_rollout_stopped",
                                       "Whether no further device is offered it."};
constexpr MetricFamily kRolloutOpened{"tolmdbpub_rollout_opened_timestamp_seconds",
                                      "When the first version was staged beside the stable one."};
constexpr MetricFamily kRolloutHalted{"tolmdbpub_rollout_halted_timestamp_seconds",
                                      "Since when its clock stands; absent while it runs."};
constexpr MetricFamily kRolloutLastStage{
    "tolmdbpub_rollout_last_stage_timestamp_seconds",
    "When its last stage begins or began; absent while its clock stands."};

constexpr MetricFamily kPublicFiles{"tolmdbpub_public_files", "Files that are served."};
constexpr MetricFamily kPublicBytes{"tolmdbpub_public_bytes", "All of these together."};

constexpr MetricFamily kSigned{
    "tolmdbpub_description_signed",
    "Whether the description is signed so that devices accept it; absent where none is to be."};
constexpr MetricFamily kCounter{"tolmdbpub_description_number",
                                "The number of the signed description."};
constexpr MetricFamily kIssued{"tolmdbpub_description_issued_timestamp_seconds",
                               "When the description was signed."};
constexpr MetricFamily kExpire{"tolmdbpub_description_expire_timestamp_seconds",
                               "When devices refuse the description."};
constexpr MetricFamily kCertificateEnd{"tolmdbpub_certificate_not_after_timestamp_seconds",
                                       "When the certificate ends."};
constexpr MetricFamily kUnreadable{"tolmdbpub_certificates_unreadable",
                                   "Files of certificates that could not be read."};

constexpr MetricFamily kCheckProblems{"tolmdbpub_check_problems",
                                      "What is wrong, by the part of the check that found it."};
constexpr MetricFamily kCheckRemarks{"tolmdbpub_check_remarks", "What the check remarks besides."};
constexpr MetricFamily kCheckPackages{"tolmdbpub_check_packages",
                                      "Packages whose digests were compared."};
constexpr MetricFamily kCheckReplayed{"tolmdbpub_check_deltas_proved",
                                      "Deltas that were applied now or before."};

std::uint64_t SizeOf(const std::vector<RetiredPackage>& packages) {
  std::uint64_t bytes = 0;
  for (const RetiredPackage& retired : packages) {
    bytes += retired.package.size_bytes;
  }
  return bytes;
}

void AddRetired(const MetricLabels& labels, const std::vector<RetiredPackage>& packages,
                OpenMetrics& out) {
  out.Add(kRetiredPackages, labels, static_cast<double>(packages.size()));
  out.Add(kRetiredBytes, labels, static_cast<double>(SizeOf(packages)));
}

void AddChain(const MetricLabels& labels, const Database& database, OpenMetrics& out) {
  const std::vector<const Release*> chain = OfferedChain(database);
  std::uint64_t bytes = 0;
  for (const Release* release : chain) {
    bytes += release->delta->package.size_bytes;
  }
  if (!chain.empty()) {
    out.Add(kDeltaBytes, labels, static_cast<double>(chain.back()->delta->package.size_bytes));
  }
  out.Add(kChainDeltas, labels, static_cast<double>(chain.size()));
  out.Add(kChainBytes, labels, static_cast<double>(bytes));
}

// When the first of the versions above the stable one was released.
std::int64_t OpenedAt(const Database& database) {
  const std::vector<Release>& releases = database.releases;
  const auto first = std::find_if(
      releases.begin(), releases.end(),
      [&database](const Release& release) { return release.version > database.rollout->stable; });
  return first->released;
}

void AddRollout(const MetricLabels& labels, const Database& database, std::int64_t now,
                OpenMetrics& out) {
  if (!database.rollout) {
    return;
  }
  const offer::RolloutPlan& plan = database.rollout->plan;
  out.Add(kRolloutVersion, labels, database.releases.back().version);
  out.Add(kRolloutReached, labels,
          static_cast<double>(offer::ShareAt(plan, now)) / offer::kWholeShare);
  out.Add(kRolloutHeld, labels, plan.held && !plan.stopped ? 1 : 0);
  out.Add(kRolloutStopped, labels, plan.stopped ? 1 : 0);
  out.Add(kRolloutOpened, labels, static_cast<double>(OpenedAt(database)));
  if (plan.held) {
    out.Add(kRolloutHalted, labels, static_cast<double>(*plan.held));
  } else {
    out.Add(kRolloutLastStage, labels, static_cast<double>(offer::LastStepOf(plan)));
  }
}

void AddDatabase(const std::string& name, const Database& database, std::int64_t now,
                 OpenMetrics& out) {
  const MetricLabels labels = {{"database", name}};
  const Release& newest = database.releases.back();
  out.Add(kNewest, labels, newest.version);
  out.Add(kStable, labels, StableRelease(database).version);
  out.Add(kReleased, labels, static_cast<double>(newest.released));
  out.Add(kData, labels, static_cast<double>(database.last_fetch_time));
  out.Add(kReleases, labels, static_cast<double>(database.releases.size()));
  out.Add(kDeprecated, labels, database.deprecated ? 1 : 0);
  out.Add(kFullBytes, labels, static_cast<double>(newest.full.size_bytes));
  AddChain(labels, database, out);
  AddRetired(labels, database.retired, out);
  AddRollout(labels, database, now, out);
}

void AddPublic(const RepositoryPaths& paths, OpenMetrics& out) {
  std::uint64_t bytes = 0;
  const std::vector<std::string> files = ListPublic(paths);
  for (const std::string& file : files) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(paths.InPublic(file), error);
    bytes += error ? 0 : size;
  }
  out.Add(kPublicFiles, {}, static_cast<double>(files.size()));
  out.Add(kPublicBytes, {}, static_cast<double>(bytes));
}

void AddDescription(const RepositoryPaths& paths, const Settings& settings, std::int64_t now,
                    OpenMetrics& out) {
  if (!settings.IsSigned()) {
    return;
  }
  const std::optional<offer::Offer> served = ServedOffer(paths, settings, now);
  out.Add(kSigned, {}, served ? 1 : 0);
  if (served) {
    out.Add(kCounter, {}, static_cast<double>(served->counter));
    out.Add(kIssued, {}, static_cast<double>(served->issued));
    out.Add(kExpire, {}, static_cast<double>(served->expires));
  }
}

void AddCertificates(const RepositoryPaths& paths, const Settings& settings, const Catalog& catalog,
                     OpenMetrics& out) {
  const RepositoryCertificates certificates = ReadCertificates(paths, settings, catalog);
  for (const RepositoryCertificate& certificate : certificates.all) {
    out.Add(kCertificateEnd,
            {{"role", CertificateRoleText(certificate.role)},
             {"subject", certificate.details.subject},
             {"fingerprint", certificate.details.fingerprint},
             {"needed", certificate.is_needed ? "1" : "0"}},
            static_cast<double>(certificate.details.not_after));
  }
  out.Add(kUnreadable, {}, static_cast<double>(certificates.unreadable.size()));
}

void AddCheck(const CheckReport& report, OpenMetrics& out) {
  for (const auto& [part, problems] : report.problems) {
    out.Add(kCheckProblems, {{"part", part}}, static_cast<double>(problems));
  }
  out.Add(kCheckRemarks, {}, static_cast<double>(report.remarks.size()));
  out.Add(kCheckPackages, {}, static_cast<double>(report.packages));
  out.Add(kCheckReplayed, {}, static_cast<double>(report.replayed + report.remembered));
}

}  // namespace

std::string RepositoryMetrics(const std::string& repository, const CheckReport* check,
                              std::int64_t now) {
  const RepositoryPaths paths(repository);
  RequireRepository(paths);
  const Settings settings = LoadSettings(paths.SettingsFile());
  const Catalog catalog = LoadCatalog(paths.CatalogFile());
  // A machine may have several repositories, and one collector reads the files of all.
  OpenMetrics out(MetricLabels{{"path", std::filesystem::canonical(repository)}});
  out.Add(kBuild, {{"version", TOLM_VERSION}}, 1);
  out.Add(kCollected, {}, static_cast<double>(now));
  for (const auto& [name, database] : catalog.databases) {
    AddDatabase(name, database, now, out);
  }
  for (const auto& [name, removed] : catalog.removed) {
    AddRetired({{"database", name}}, removed.retired, out);
  }
  AddPublic(paths, out);
  AddDescription(paths, settings, now, out);
  AddCertificates(paths, settings, catalog, out);
  if (check != nullptr) {
    AddCheck(*check, out);
  }
  return out.Text();
}

}  // namespace tolm::publish

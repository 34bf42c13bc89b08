#include "publish/list.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <optional>
#include <ostream>

#include "base/human_text.h"
#include "base/utf8.h"
#include "publish/catalog.h"
#include "publish/certificates.h"
#include "publish/inspect.h"
#include "publish/json_object.h"
#include "publish/repository.h"
#include "publish/rollout.h"

namespace tolm::publish {
namespace {

constexpr int kListFormat = 1;

std::string PackageText(const RepositoryPaths& paths, const PackageRecord& package) {
  const std::string compression = CompressionOfPackage(paths.InPublic(package.path));
  return base::Grouped(package.size_bytes) + " bytes" +
         (compression.empty() ? "" : " as " + compression);
}

std::string DeltaText(const RepositoryPaths& paths, const Release& release) {
  if (!release.delta) {
    return "no delta: " + release.no_delta_reason;
  }
  std::string text = "delta " + PackageText(paths, release.delta->package) + " (" +
                     ShareText(release.delta->package.size_bytes, release.full.size_bytes) + ")";
  if (release.delta->withdrawn != 0) {
    text += ", not offered since " + TimeText(release.delta->withdrawn);
  }
  return text;
}

std::string FateText(const Release& release) {
  std::string text;
  if (release.restores) {
    text += "; the files of " + std::to_string(*release.restores) + " again";
  }
  if (release.withdrawn != 0) {
    text += "; withdrawn " + TimeText(release.withdrawn);
  }
  return text;
}

void PrintRetired(const std::vector<RetiredPackage>& packages, std::ostream& out) {
  for (const RetiredPackage& retired : packages) {
    out << "  " << base::EscapeControls(retired.package.path) << "  retired "
        << TimeText(retired.since) << '\n';
  }
}

void PrintDatabase(const RepositoryPaths& paths, const std::string& name, const Database& database,
                   std::ostream& out) {
  out << base::EscapeControls(name) << (database.deprecated ? "  (deprecated)" : "") << '\n';
  if (const std::optional<OpenRollout> rollout = RolloutOf(name, database)) {
    out << "  " << RolloutText(*rollout, std::time(nullptr)) << '\n';
  }
  for (const Release& release : database.releases) {
    out << "  " << release.version << "  " << TimeText(release.released) << "  full "
        << PackageText(paths, release.full) << ", " << DeltaText(paths, release)
        << FateText(release) << '\n';
  }
  PrintRetired(database.retired, out);
}

Json::Value ToJson(const RepositoryPaths& paths, const PackageRecord& package) {
  Json::Value value;
  value["path"] = package.path;
  value["size"] = Json::UInt64(package.size_bytes);
  value["sha384"] = package.sha384;
  const std::string compression = CompressionOfPackage(paths.InPublic(package.path));
  value["compression"] = compression.empty() ? Json::Value() : Json::Value(compression);
  return value;
}

Json::Value ToJson(const RepositoryPaths& paths, const Release& release) {
  Json::Value value;
  value["version"] = release.version;
  value["released"] = Json::Int64(release.released);
  value["full"] = ToJson(paths, release.full);
  value["delta"] = Json::Value();
  if (release.delta) {
    value["delta"] = ToJson(paths, release.delta->package);
    value["delta"]["offered"] = release.delta->withdrawn == 0;
  } else {
    value["no_delta"] = release.no_delta_reason;
  }
  value["withdrawn"] =
      release.withdrawn == 0 ? Json::Value() : Json::Value(Json::Int64(release.withdrawn));
  value["restores"] = release.restores ? Json::Value(*release.restores) : Json::Value();
  return value;
}

Json::Value ToJson(const RepositoryPaths& paths, const std::vector<RetiredPackage>& packages) {
  Json::Value value(Json::arrayValue);
  for (const RetiredPackage& retired : packages) {
    Json::Value record = ToJson(paths, retired.package);
    record["since"] = Json::Int64(retired.since);
    value.append(record);
  }
  return value;
}

Json::Value ToJson(const RepositoryPaths& paths, const std::string& name,
                   const Database& database) {
  Json::Value value;
  value["name"] = name;
  value["newest"] = database.releases.back().version;
  value["stable"] = StableRelease(database).version;
  value["deprecated"] = database.deprecated;
  value["last_fetch_time"] = Json::Int64(database.last_fetch_time);
  value["releases"] = Json::Value(Json::arrayValue);
  for (const Release& release : database.releases) {
    value["releases"].append(ToJson(paths, release));
  }
  value["retired"] = ToJson(paths, database.retired);
  const std::optional<OpenRollout> rollout = RolloutOf(name, database);
  value["rollout"] = rollout ? ToJson(*rollout, std::time(nullptr)) : Json::Value();
  return value;
}

Json::Value ToJson(const RepositoryPaths& paths, const std::string& name,
                   const RemovedDatabase& removed) {
  Json::Value value;
  value["name"] = name;
  value["newest"] = removed.newest;
  value["since"] = Json::Int64(removed.since);
  value["retired"] = ToJson(paths, removed.retired);
  return value;
}

Json::Value ToJson(const RepositoryCertificate& certificate) {
  Json::Value value;
  value["role"] = CertificateRoleText(certificate.role);
  value["subject"] = certificate.details.subject;
  value["not_before"] = Json::Int64(certificate.details.not_before);
  value["not_after"] = Json::Int64(certificate.details.not_after);
  if (certificate.role == CertificateRole::kPackages) {
    value["packages"] = Json::UInt64(certificate.packages);
  } else {
    value["file"] = certificate.file;
  }
  return value;
}

void PrintSettings(const Settings& settings, std::ostream& out) {
  out << "description  " << settings.base_url.Text() << "/database_info/" << settings.info_version
      << "\nkey          " << base::EscapeControls(settings.key) << "\ncertificate  "
      << base::EscapeControls(settings.certificate_path) << "\nroot         "
      << base::EscapeControls(settings.root_path) << "\ncompression  "
      << CompressionChoiceText(settings.packing.compression) << ", window "
      << settings.packing.window_mebibytes << " MiB\n";
}

Json::Value ToJson(const offer::Offer& signed_offer) {
  Json::Value value;
  value["repository"] = signed_offer.repository;
  value["counter"] = Json::UInt64(signed_offer.counter);
  value["issued"] = Json::Int64(signed_offer.issued);
  value["expires"] = Json::Int64(signed_offer.expires);
  return value;
}

void PrintSigned(const RepositoryPaths& paths, const Settings& settings, std::ostream& out) {
  if (!settings.IsSigned()) {
    return;
  }
  const auto signed_offer = ServedOffer(paths, settings, std::time(nullptr));
  out << "info key     " << base::EscapeControls(settings.info_key) << "\nsigned       ";
  if (signed_offer) {
    out << TimeText(signed_offer->issued) << ", until " << TimeText(signed_offer->expires)
        << ", counter " << signed_offer->counter << '\n';
  } else {
    out << "not as devices accept it\n";
  }
}

void PrintJson(const RepositoryPaths& paths, const Settings& settings, const Catalog& catalog,
               std::ostream& out) {
  Json::Value value;
  value["format"] = kListFormat;
  value["base_url"] = settings.base_url.Text();
  value["info_version"] = settings.info_version;
  value["key"] = settings.key;
  value["certificate"] = settings.certificate_path;
  value["root"] = settings.root_path;
  value["compression"] = CompressionChoiceText(settings.packing.compression);
  value["compression_window_mib"] = settings.packing.window_mebibytes;
  value["certificates"] = Json::Value(Json::arrayValue);
  for (const auto& certificate : ReadCertificates(paths, settings, catalog).all) {
    value["certificates"].append(ToJson(certificate));
  }
  const auto signed_offer = ServedOffer(paths, settings, std::time(nullptr));
  value["description"] = signed_offer ? ToJson(*signed_offer) : Json::Value();
  value["databases"] = Json::Value(Json::arrayValue);
  for (const auto& [name, database] : catalog.databases) {
    value["databases"].append(ToJson(paths, name, database));
  }
  value["removed"] = Json::Value(Json::arrayValue);
  for (const auto& [name, removed] : catalog.removed) {
    value["removed"].append(ToJson(paths, name, removed));
  }
  out << FormatJson(value);
}

}  // namespace

void ListRepository(const std::string& repository, bool as_json, std::ostream& out) {
  const RepositoryPaths paths(repository);
  RequireRepository(paths);
  const Settings settings = LoadSettings(paths.SettingsFile());
  const Catalog catalog = LoadCatalog(paths.CatalogFile());
  if (as_json) {
    PrintJson(paths, settings, catalog, out);
    return;
  }
  PrintSettings(settings, out);
  PrintSigned(paths, settings, out);
  for (const auto& [name, database] : catalog.databases) {
    PrintDatabase(paths, name, database, out);
  }
  for (const auto& [name, removed] : catalog.removed) {
    out << base::EscapeControls(name) << "  (removed " << TimeText(removed.since)
        << "; the newest was " << removed.newest << ")\n";
    PrintRetired(removed.retired, out);
  }
}

std::string TimeText(std::int64_t seconds) {
  return base::UtcMinutes(seconds);
}

std::string ShareText(std::uint64_t part, std::uint64_t whole) {
  if (whole == 0) {
    return "-";
  }
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.1f %%",
                static_cast<double>(part) * 100 / static_cast<double>(whole));
  return text.data();
}

}  // namespace tolm::publish

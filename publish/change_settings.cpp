#include "publish/change_settings.h"

#include <filesystem>
#include <system_error>

#include "package/error.h"
#include "package/package.h"
#include "publish/certificates.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/revocations.h"

namespace tolm::publish {
namespace {

std::string Count(std::size_t packages) {
  return std::to_string(packages) + (packages == 1 ? " package is" : " packages are");
}

// What is offered stays as it was signed; whether that matters is said.
void NoteWhatFollows(const RepositoryChange& change, const package::Signer& signer,
                     std::int64_t now) {
  const package::Trust root = LoadRoot(change.settings);
  const std::string signing = package::DetailsOf(signer.certificate.get()).fingerprint;
  std::size_t refused = 0;
  std::size_t others = 0;
  for (const PackageRecord& record : OfferedPackages(change.catalog)) {
    try {
      const package::Package package(change.paths().InPublic(record.path));
      others += package.ReadSignerCertificate().fingerprint != signing ? 1 : 0;
      package.CheckSigner(root, now);
    } catch (const package::Error&) {
      ++refused;
    }
  }
  const std::string resign = "\"tolmdbpub resign " + change.paths().Root() + "\" signs anew";
  if (refused > 0) {
    change.notes()(Count(refused) + " offered that devices with this root refuse; " + resign);
  } else if (others > 0) {
    change.notes()(Count(others) + " signed with another certificate, and stay so; " + resign);
  }
}

[[noreturn]] void RefuseUnsigned(const RepositoryChange& change) {
  throw Error(change.paths().Root() +
              ": its descriptions are not signed, so that nothing can be set for them; \"tolmdbpub "
              "upgrade " +
              change.paths().Root() + " --root-key KEY\" begins with it");
}

std::string TextOf(const std::string& file) {
  std::error_code ignored;
  return std::filesystem::exists(file, ignored) ? ReadWholeFile(file) : "";
}

// What is offered stays signed below the root before until "resign", which looks there.
void RememberRoot(RepositoryChange& change, const std::string& before) {
  if (!before.empty() && before != TextOf(change.settings.RootFile()) &&
      change.catalog.former_roots.find(before) == std::string::npos &&
      !OfferedPackages(change.catalog).empty()) {
    change.catalog.former_roots += before + '\n';
  }
}

void TakeKeys(const ChangeSettingsRequest& request, RepositoryChange& change) {
  RequireSignedForInfoKeys(request.keys, change);
  const std::string before = TextOf(change.settings.RootFile());
  TakeKeyFiles(request.keys, change.settings);
  RememberRoot(change, before);
}

void TakeDescriptionSettings(const ChangeSettingsRequest& request, RepositoryChange& change,
                             std::int64_t now) {
  Settings& settings = change.settings;
  if ((request.description_days || request.revocations_path) && !settings.IsSigned()) {
    RefuseUnsigned(change);
  }
  settings.description_days = request.description_days.value_or(settings.description_days);
  if (!request.revocations_path) {
    return;
  }
  settings.revocations_path.clear();
  if (!request.revocations_path->empty()) {
    TakeRevocations(*request.revocations_path, settings);
    for (const std::string& warning :
         RevocationWarnings(LoadRevocations(settings.RevocationsFile(), settings, now), now)) {
      change.notes()(warning);
    }
  }
}

Purpose PurposeOf(const ChangeSettingsRequest& request) {
  const bool is_for_signing =
      request.keys.AreGiven() || request.keys.IsInfoGiven() || request.revocations_path;
  return is_for_signing ? Purpose::kNewKeys : Purpose::kChange;
}

}  // namespace

void RequireSignedForInfoKeys(const KeyFiles& given, const RepositoryChange& change) {
  if (given.IsInfoGiven() && !change.settings.IsSigned()) {
    RefuseUnsigned(change);
  }
}

void ChangeSettings(const ChangeSettingsRequest& request, std::int64_t now, const Notes& notes) {
  RepositoryChange change(request.repository, notes, PurposeOf(request));
  Settings& settings = change.settings;
  settings.base_url = request.base_url.value_or(settings.base_url);
  settings.chain_share_percent = request.chain_share_percent.value_or(settings.chain_share_percent);
  settings.oldest_sqlite = request.oldest_sqlite.value_or(settings.oldest_sqlite);
  settings.max_shrink_percent = request.max_shrink_percent.value_or(settings.max_shrink_percent);
  settings.min_certificate_days =
      request.min_certificate_days.value_or(settings.min_certificate_days);
  settings.packing.compression = request.compression.value_or(settings.packing.compression);
  settings.packing.window_mebibytes =
      request.window_mebibytes.value_or(settings.packing.window_mebibytes);
  package::Signer signer;
  TakeKeys(request, change);
  if (request.keys.AreGiven()) {
    signer = LoadTrustedSigner(settings, now);
  }
  TakeDescriptionSettings(request, change, now);
  change.RequireGoodLinks();
  change.Begin("set");
  change.Commit();
  if (request.keys.AreGiven()) {
    NoteWhatFollows(change, signer, now);
  }
}

void ChangeDatabaseSettings(const ChangeDatabaseSettingsRequest& request, const Notes& notes) {
  RepositoryChange change(request.repository, notes);
  DatabaseSettings& settings = change.settings.databases[request.name];
  settings.max_shrink_percent = request.max_shrink_percent.value_or(settings.max_shrink_percent);
  settings.test = request.test.value_or(settings.test);
  if (change.catalog.databases.count(request.name) == 0) {
    notes("no database \"" + request.name + "\" is offered yet; this counts when it is released");
  }
  change.Begin("set " + request.name);
  change.Commit();
}

}  // namespace tolm::publish

#include "publish/change_settings.h"

#include "package/error.h"
#include "package/package.h"
#include "publish/certificates.h"

namespace tolm::publish {
namespace {

std::string Count(std::size_t packages) {
  return std::to_string(packages) + (packages == 1 ? " package is" : " packages are");
}

// What is offered stays as it was signed; whether that matters is said.
void NoteWhatFollows(const RepositoryChange& change, const package::Signer& signer,
                     std::time_t now) {
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

}  // namespace

void ChangeSettings(const ChangeSettingsRequest& request, std::time_t now, const Notes& notes) {
  RepositoryChange change(request.repository, notes);
  Settings& settings = change.settings;
  settings.base_url = request.base_url.value_or(settings.base_url);
  settings.chain_share_percent = request.chain_share_percent.value_or(settings.chain_share_percent);
  settings.oldest_sqlite = request.oldest_sqlite.value_or(settings.oldest_sqlite);
  settings.max_shrink_percent = request.max_shrink_percent.value_or(settings.max_shrink_percent);
  settings.min_certificate_days =
      request.min_certificate_days.value_or(settings.min_certificate_days);
  package::Signer signer;
  if (request.keys.AreGiven()) {
    TakeKeyFiles(request.keys, settings);
    signer = LoadTrustedSigner(settings, now);
  }
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

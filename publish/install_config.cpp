#include "publish/install_config.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>

#include "base/descriptor.h"
#include "base/file.h"
#include "base/messages.h"
#include "base/paths.h"
#include "base/rules.h"
#include "package/error.h"
#include "package/package.h"
#include "publish/certificates.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/json_object.h"
#include "publish/repository.h"

namespace tolm::publish {
namespace {

// Sent to the server, which is a static one here.
constexpr char kFormatVersion[] = "1";

void Install(const std::string& path, const std::string& content) {
  MakeDirectories(std::filesystem::path(path).parent_path());
  ReplaceFile(path, content, path + ".new");
}

std::string ServiceConfigText(const Settings& settings) {
  Json::Value value;
  value["config"]["download_scheme"] = settings.base_url.scheme;
  value["config"]["db_netloc"] = settings.base_url.netloc;
  value["config"]["db_ver"] = settings.info_version;
  value["config"]["cur_volume"] = "";
  if (settings.IsSigned()) {
    value["config"]["require_signed_description"] = true;
  }
  return FormatJson(value);
}

std::string DatabasesText(const Catalog& catalog, const std::string& install_dest) {
  Json::Value value(Json::objectValue);
  for (const auto& [name, database] : catalog.databases) {
    value[name]["format_version"] = kFormatVersion;
    value[name]["install_dest"] = install_dest;
  }
  return FormatJson(value);
}

std::string KeyringFile(const char* extension) {
  return paths::kKeyringDirectory + std::to_string(rules::kPackageKeyType) + extension;
}

Revocations TakeRevocations(const std::string& file, const Settings& settings, std::int64_t now) {
  Revocations revocations = LoadRevocations(file, settings, now);
  if (IsOverdue(revocations, now)) {
    throw Error(RevocationWarnings(revocations, now).front() + "; nothing was installed");
  }
  return revocations;
}

std::size_t CountRefused(const RepositoryPaths& paths, const Catalog& catalog,
                         const package::Trust& trust, std::int64_t now) {
  std::size_t refused = 0;
  for (const PackageRecord& record : OfferedPackages(catalog)) {
    try {
      package::Package(paths.InPublic(record.path)).CheckSigner(trust, now);
    } catch (const package::Error&) {
      ++refused;
    }
  }
  return refused;
}

// The lock of everybody who writes a device's settings; an image is nobody else's.
base::Descriptor LockSettings(const std::string& root) {
  if (!root.empty()) {
    return base::Descriptor();
  }
  MakeDirectories(paths::kLockDirectory);
  base::Descriptor lock(
      open(paths::kConfigLock, O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  constexpr std::uint32_t kMicroseconds = 1000000;
  for (std::uint64_t waited = 0; flock(lock.Get(), LOCK_EX | LOCK_NB) != 0;
       waited += rules::kLockPollMicroseconds) {
    if (!lock.IsOpen() || waited >= std::uint64_t{rules::kLockWaitSeconds} * kMicroseconds) {
      throw Error(std::string(messages::kFailToLock) + paths::kConfigLock);
    }
    usleep(rules::kLockPollMicroseconds);
  }
  return lock;
}

// By the rules of the devices, which take comments. Null for what they make nothing of.
Json::Value ReadOverrides(const std::string& path) {
  Json::Value document;
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored)) {
    return Json::Value();
  }
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  const std::string text = ReadWholeFile(path);
  try {
    const bool is_read = reader->parse(text.data(), text.data() + text.size(), &document, nullptr);
    return is_read && document.isObject() ? document : Json::Value();
  } catch (const Json::Exception&) {
    return Json::Value();
  }
}

// Follows a link, so that the file behind it is replaced and not the link.
void ListInOverrides(const std::string& root, const Catalog& catalog) {
  const base::Descriptor lock = LockSettings(root);
  std::error_code ignored;
  const std::string path =
      std::filesystem::weakly_canonical(root + paths::kDatabaseOverrides, ignored);
  Json::Value overrides = ReadOverrides(path);
  bool is_changed = false;
  for (const auto& database : catalog.databases) {
    if (overrides.isObject() && !overrides.isMember(database.first)) {
      overrides[database.first] = Json::Value(Json::objectValue);
      is_changed = true;
    }
  }
  if (!is_changed) {
    return;
  }
  base::Replacement replacement(path);
  replacement.Write(FormatJson(overrides), 0644);
  replacement.TakeOverOwnerAndMode();
  replacement.PutInPlace();
}

}  // namespace

InstallConfigReport InstallConfig(const InstallConfigRequest& request, std::int64_t now) {
  const RepositoryPaths paths(request.repository);
  RequireRepository(paths);
  const Settings settings = LoadSettings(paths.SettingsFile());
  const Catalog catalog = LoadCatalog(paths.CatalogFile());
  LoadRoot(settings);
  const std::string keyring = ReadWholeFile(settings.RootFile());
  InstallConfigReport report;
  report.databases = catalog.databases.size();
  report.requires_signed = settings.IsSigned();
  const std::string root = request.root == "/" ? "" : request.root;
  if (!request.revocations_path.empty()) {
    report.revocations = TakeRevocations(request.revocations_path, settings, now);
    RequireNoneTakenBack(*report.revocations, root + KeyringFile(".crl.pem"), settings);
    report.refused = CountRefused(paths, catalog, TrustWith(settings, *report.revocations), now);
  }
  Install(root + paths::kServiceDefaults, ServiceConfigText(settings));
  Install(root + paths::kDatabaseDefaults, DatabasesText(catalog, request.install_dest));
  if (report.revocations) {
    Install(root + KeyringFile(".crl.pem"), report.revocations->pem);
  }
  Install(root + KeyringFile(".pem"), keyring);
  ListInOverrides(root, catalog);
  return report;
}

}  // namespace tolm::publish

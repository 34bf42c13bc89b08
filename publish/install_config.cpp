#include "publish/install_config.h"

#include <filesystem>

#include "base/paths.h"
#include "base/rules.h"
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

std::string KeyringFile() {
  return paths::kKeyringDirectory + std::to_string(rules::kPackageKeyType) + ".pem";
}

}  // namespace

std::size_t InstallConfig(const InstallConfigRequest& request) {
  const RepositoryPaths paths(request.repository);
  RequireRepository(paths);
  const Settings settings = LoadSettings(paths.SettingsFile());
  const Catalog catalog = LoadCatalog(paths.CatalogFile());
  LoadRoot(settings);
  const std::string keyring = ReadWholeFile(settings.RootFile());
  const std::string root = request.root == "/" ? "" : request.root;
  Install(root + paths::kServiceDefaults, ServiceConfigText(settings));
  Install(root + paths::kDatabaseDefaults, DatabasesText(catalog, request.install_dest));
  Install(root + KeyringFile(), keyring);
  return catalog.databases.size();
}

}  // namespace tolm::publish

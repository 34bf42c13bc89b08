#include "dataupdate/config.h"

#include <algorithm>
#include <boost/format.hpp>
#include <utility>

#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "file_system.h"

namespace tolm::dataupdate {
namespace {

constexpr char kServiceSection[] = "config";
constexpr char kCurVolume[] = "cur_volume";
constexpr char kAutoUpdate[] = "auto_update";
constexpr char kOnVolume[] = "%VOLUME%";
constexpr char kOnRootFs[] = "%ROOTFS%";

// The value, or null when the key is absent. A document or a section that is no object holds no
// keys.
Json::Value Find(const Json::Value& document, const std::string& section, const std::string& key) {
  if (!document.isObject() || !document[section].isObject()) {
    return Json::Value();
  }
  return document[section][key];
}

Json::Value ToJson(const std::string& value) {
  return value;
}
Json::Value ToJson(bool value) {
  return value;
}
Json::Value ToJson(unsigned long long value) {
  return Json::Value(Json::UInt64{value});
}

std::vector<std::string> SectionsOf(const IOUtils& io, const std::string& path) {
  const Json::Value document = io.ReadJson(path);
  if (!document.isObject()) {
    throw UpdateError("Fail to decode: " + path);
  }
  return document.getMemberNames();
}

std::shared_ptr<Config> NewConfig() {
  return std::make_shared<Config>(std::make_shared<IOUtils>());
}

void InitForDatabases(const Config& config) {
  config.Init(paths::kDatabaseDefaults, paths::kDatabaseOverrides);
}

[[noreturn]] void ThrowInvalidDestination(const std::string& value) {
  // The field is named by the template of the location, not by its key.
  throw UpdateError(
      (NoexceptFormat("Invalid value '%s' for '%s' field") % value % paths::kVolumeDatabases)
          .str());
}

}  // namespace

Config::Config(std::shared_ptr<IOUtils> io) : io_(std::move(io)) {}

Config::~Config() = default;

void Config::Init(const std::string& default_path, const std::string& override_path) const {
  default_path_ = default_path;
  override_path_ = override_path;
}

template <>
std::string Config::GetAs<std::string>(const Json::Value& value) {
  if (!value.isString()) {
    throw UpdateError("Bad type conversion");
  }
  return value.asString();
}

template <>
bool Config::GetAs<bool>(const Json::Value& value) {
  if (!value.isBool()) {
    throw UpdateError("Bad type conversion");
  }
  return value.asBool();
}

template <>
unsigned long long Config::GetAs<unsigned long long>(const Json::Value& value) {
  if (!value.isUInt()) {
    throw UpdateError("Bad type conversion");
  }
  return value.asUInt();
}

template <typename T>
T Config::__Get(const std::string& section, const std::string& key) const {
  try {
    const Json::Value value = Find(io_->ReadJson(override_path_), section, key);
    if (value.isNull()) {
      throw UpdateError("");
    }
    return GetAs<T>(value);
  } catch (const UpdateError&) {
    // Whatever is wrong with the override, the default counts.
  }
  const Json::Value value = Find(io_->ReadJson(default_path_), section, key);
  if (value.isNull()) {
    throw UpdateError((NoexceptFormat("section-key: '%s'-'%s' not found") % section % key).str());
  }
  return GetAs<T>(value);
}

template <typename T>
void Config::__Set(const std::string& section, const std::string& key, const T& value) const {
  const FileLock lock(paths::kConfigLock, rules::kLockWaitSeconds);
  Json::Value document(Json::objectValue);
  try {
    document = io_->ReadJson(override_path_);
  } catch (const UpdateError&) {
    // Usually the first setting ever made.
  }
  if (!document.isObject()) {
    document = Json::Value(Json::objectValue);
  }
  if (!document[section].isObject()) {
    document[section] = Json::Value(Json::objectValue);
  }
  document[section][key] = ToJson(value);
  try {
    io_->WriteJson(override_path_, document);
  } catch (const UpdateError&) {
    throw UpdateError((NoexceptFormat("Fail to set config %s:%s") % section % key).str());
  }
}

std::string Config::Get(const std::string& section, const std::string& key) const {
  return __Get<std::string>(section, key);
}

unsigned long long Config::GetAsUInt64(const std::string& section, const std::string& key) const {
  return __Get<unsigned long long>(section, key);
}

bool Config::GetAsBool(const std::string& section, const std::string& key) const {
  return __Get<bool>(section, key);
}

void Config::Set(const std::string& section, const std::string& key,
                 const std::string& value) const {
  __Set(section, key, value);
}

void Config::Set(const std::string& section, const std::string& key, const char* value) const {
  __Set(section, key, std::string(value));
}

void Config::Set(const std::string& section, const std::string& key,
                 unsigned long long value) const {
  __Set(section, key, value);
}

void Config::Set(const std::string& section, const std::string& key, bool value) const {
  __Set(section, key, value);
}

std::vector<std::string> Config::GetSections() const {
  try {
    return SectionsOf(*io_, override_path_);
  } catch (const UpdateError&) {
    return SectionsOf(*io_, default_path_);
  }
}

DatabaseConfig::DatabaseConfig(const std::string& id, const std::string& volume,
                               std::shared_ptr<Config> config)
    : id_(id), volume_(volume), config_(std::move(config)) {
  InitForDatabases(*config_);
}

DatabaseConfig::~DatabaseConfig() = default;

bool DatabaseConfig::GetScheduled() const {
  try {
    return config_->GetAsBool(id_, kAutoUpdate);
  } catch (const UpdateError&) {
    return true;
  }
}

void DatabaseConfig::SetScheduled(bool scheduled) const {
  config_->Set(id_, kAutoUpdate, scheduled);
}

std::string DatabaseConfig::GetFormatVersion() const {
  return config_->Get(id_, "format_version");
}

std::string DatabaseConfig::GetInstallPrefix() const {
  const std::string destination = config_->Get(id_, "install_dest");
  if (destination == kOnVolume) {
    return (NoexceptFormat(paths::kVolumeDatabases) % volume_).str() + "/" + id_;
  }
  if (destination == kOnRootFs) {
    return std::string(paths::kRootFsDatabases) + "/" + id_;
  }
  ThrowInvalidDestination(destination);
}

std::string DatabaseConfig::GetRootDirectory() const {
  const std::string destination = config_->Get(id_, "install_dest");
  if (destination == kOnVolume) {
    return volume_;
  }
  if (destination == kOnRootFs) {
    return "/";
  }
  ThrowInvalidDestination(destination);
}

unsigned long long DatabaseConfig::GetMinReservedSpaceInbytes() const {
  try {
    return config_->GetAsUInt64(id_, "min_rsv_space_inbytes");
  } catch (const UpdateError&) {
    return 0;
  }
}

ServiceConfig::ServiceConfig(std::shared_ptr<Config> config) : config_(std::move(config)) {
  config_->Init(paths::kServiceDefaults, paths::kServiceOverrides);
}

ServiceConfig::~ServiceConfig() = default;

std::vector<std::string> ServiceConfig::GetDatabaseIDs() const {
  const std::shared_ptr<Config> config = NewConfig();
  InitForDatabases(*config);
  return config->GetSections();
}

std::shared_ptr<DatabaseConfig> ServiceConfig::GetDatabaseConfig(const std::string& id) const {
  const std::string volume = GetCurVolume();
  return std::make_shared<DatabaseConfig>(id, volume, NewConfig());
}

void ServiceConfig::CheckSupported(const std::string& id) const {
  const std::vector<std::string> ids = GetDatabaseIDs();
  if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
    throw UpdateError("Project " + id + " not supported");
  }
}

std::string ServiceConfig::GetDownloadScheme() const {
  return config_->Get(kServiceSection, "download_scheme");
}

std::string ServiceConfig::GetDBInfoDomainName() const {
  return config_->Get(kServiceSection, "db_netloc");
}

std::string ServiceConfig::GetDBInfoVersion() const {
  return config_->Get(kServiceSection, "db_ver");
}

std::string ServiceConfig::GetCurVolume() const {
  return config_->Get(kServiceSection, kCurVolume);
}

void ServiceConfig::SetCurVolume(const std::string& volume) const {
  config_->Set(kServiceSection, kCurVolume, volume);
}

}  // namespace tolm::dataupdate

#include "operation/schedule.h"

#include <json/value.h>

#include <filesystem>
#include <memory>
#include <system_error>

#include "base/file.h"
#include "base/paths.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "operation/interruptible_lock.h"
#include "operation/settings_file.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::IOUtils;

// Follows a link, so that the file behind it is replaced and not the link.
fs::path OverrideFile() {
  std::error_code ignored;
  const fs::path resolved = fs::weakly_canonical(paths::kDatabaseOverrides, ignored);
  return resolved.empty() ? fs::path(paths::kDatabaseOverrides) : resolved;
}

bool ReadScheduled(const std::string& name) {
  const auto config = std::make_shared<dataupdate::Config>(std::make_shared<IOUtils>());
  return dataupdate::DatabaseConfig(name, "", config).GetScheduled();
}

void SetScheduledIn(Json::Value& document, const std::string& name, bool scheduled) {
  Json::Value& section = document[name];
  if (!section.isObject()) {
    section = Json::Value(Json::objectValue);
  }
  section["auto_update"] = scheduled;
}

}  // namespace

void SetScheduled(const dataupdate::ServiceConfig& config, const std::string& name,
                  bool scheduled) {
  const dataupdate::FileLock lock = InterruptibleLock(paths::kConfigLock);
  config.CheckSupported(name);
  const fs::path file = OverrideFile();
  const bool was_damaged = IsDamagedSettings(file);
  Json::Value document = ReadSettings(file).value_or(Json::Value(Json::objectValue));
  for (const std::string& listed : config.GetDatabaseIDs()) {
    SetScheduledIn(document, listed, listed == name ? scheduled : ReadScheduled(listed));
  }
  base::Replacement replacement(file);
  IOUtils().WriteJson(replacement.staging(), document);
  replacement.TakeOverOwnerAndMode();
  if (was_damaged) {
    fs::copy_file(file, NextAside(file));
  }
  replacement.PutInPlace();
}

std::vector<std::string> ScheduledDatabases(const dataupdate::ServiceConfig& config) {
  std::vector<std::string> names;
  for (const std::string& name : config.GetDatabaseIDs()) {
    if (config.GetDatabaseConfig(name)->GetScheduled()) {
      names.push_back(name);
    }
  }
  return names;
}

bool IsScheduled(const dataupdate::ServiceConfig& config, const std::string& name) {
  config.CheckSupported(name);
  return ReadScheduled(name);
}

}  // namespace tolm::operation

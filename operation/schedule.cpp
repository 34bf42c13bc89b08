#include "operation/schedule.h"

#include <json/value.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "base/file.h"
#include "base/paths.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "operation/interruptible_lock.h"
#include "operation/settings_file.h"
#include "operation/settings_reader.h"

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
  return dataupdate::DatabaseConfig(name, "", NewSettings()).GetScheduled();
}

// The listed databases and the hidden ones. Throws as CheckSupported() does for one that is
// neither.
std::vector<std::string> AllDatabases(const dataupdate::ServiceConfig& config,
                                      const std::string& wanted) {
  std::vector<std::string> names = config.GetDatabaseIDs();
  const std::vector<std::string> hidden = HiddenDatabases();
  std::copy(hidden.begin(), hidden.end(), std::back_inserter(names));
  if (std::find(names.begin(), names.end(), wanted) == names.end()) {
    config.CheckSupported(wanted);
  }
  return names;
}

// Other settings stand in it that a disk may give again the next time.
void RequireReadable(const fs::path& file, const SettingsFile& settings) {
  if (settings.is_unreadable) {
    throw std::runtime_error(file.string() + ": " + settings.problem + "; nothing was done");
  }
}

void SetScheduledIn(Json::Value& document, const std::string& name, bool scheduled) {
  Json::Value& section = document[name];
  if (!section.isObject()) {
    section = Json::Value(Json::objectValue);
  }
  section["auto_update"] = scheduled;
}

}  // namespace

std::vector<std::string> HiddenDatabases() {
  std::vector<std::string> hidden;
  const std::optional<Json::Value> defaults = ReadSettings(paths::kDatabaseDefaults);
  const std::optional<Json::Value> overrides = ReadSettings(paths::kDatabaseOverrides);
  if (defaults && overrides) {
    const std::vector<std::string> names = defaults->getMemberNames();
    std::copy_if(names.begin(), names.end(), std::back_inserter(hidden),
                 [&](const std::string& name) { return !overrides->isMember(name); });
  }
  return hidden;
}

void SetScheduled(const dataupdate::ServiceConfig& config, const std::string& name,
                  bool scheduled) {
  const dataupdate::FileLock lock = InterruptibleLock(paths::kConfigLock);
  const fs::path file = OverrideFile();
  std::error_code ignored;
  const SettingsFile before = LoadSettings(file);
  RequireReadable(file, before);
  const std::vector<std::string> names = AllDatabases(config, name);
  const bool was_damaged = !before.problem.empty() && fs::file_size(file, ignored) != 0;
  Json::Value document = before.document.value_or(Json::Value(Json::objectValue));
  for (const std::string& each : names) {
    SetScheduledIn(document, each, each == name ? scheduled : ReadScheduled(each));
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

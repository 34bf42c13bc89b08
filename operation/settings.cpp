#include "operation/settings.h"

#include <json/value.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "base/file.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::IOUtils;
using dataupdate::UpdateError;

// Nothing when the file is missing or holds no object.
std::optional<Json::Value> ReadObject(const std::string& path) {
  try {
    Json::Value document = IOUtils().ReadJson(path);
    if (document.isObject()) {
      return document;
    }
  } catch (const UpdateError&) {
    // As good as none.
  }
  return std::nullopt;
}

bool IsDamaged(const std::string& path) {
  std::error_code ignored;
  return fs::exists(fs::symlink_status(path, ignored)) && !ReadObject(path).has_value();
}

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

std::vector<std::string> SettingsProblems::Lines() const {
  std::vector<std::string> lines;
  for (const std::string& file : damaged_files) {
    lines.push_back(file + " cannot be read and does not count");
  }
  for (const std::string& name : hidden_databases) {
    lines.push_back(name + " is hidden: " + paths::kDatabaseOverrides + " does not list it");
  }
  return lines;
}

SettingsProblems ExamineSettings() {
  SettingsProblems problems;
  for (const char* file : {paths::kServiceOverrides, paths::kDatabaseOverrides}) {
    if (IsDamaged(file)) {
      problems.damaged_files.push_back(file);
    }
  }
  const std::optional<Json::Value> defaults = ReadObject(paths::kDatabaseDefaults);
  const std::optional<Json::Value> overrides = ReadObject(paths::kDatabaseOverrides);
  if (defaults.has_value() && overrides.has_value()) {
    for (const std::string& name : defaults->getMemberNames()) {
      if (!overrides->isMember(name)) {
        problems.hidden_databases.push_back(name);
      }
    }
  }
  return problems;
}

void SetScheduled(const dataupdate::ServiceConfig& config, const std::string& name,
                  bool scheduled) {
  const dataupdate::FileLock lock(paths::kConfigLock, rules::kLockWaitSeconds);
  config.CheckSupported(name);
  const fs::path file = OverrideFile();
  const bool was_damaged = IsDamaged(file);
  Json::Value document = ReadObject(file).value_or(Json::Value(Json::objectValue));
  for (const std::string& listed : config.GetDatabaseIDs()) {
    SetScheduledIn(document, listed, listed == name ? scheduled : ReadScheduled(listed));
  }
  base::Replacement replacement(file);
  IOUtils().WriteJson(replacement.staging(), document);
  replacement.TakeOverOwnerAndMode();
  if (was_damaged) {
    fs::copy_file(file, file.string() + ".aside", fs::copy_options::overwrite_existing);
  }
  replacement.PutInPlace();
}

bool IsScheduled(const dataupdate::ServiceConfig& config, const std::string& name) {
  config.CheckSupported(name);
  return ReadScheduled(name);
}

}  // namespace tolm::operation

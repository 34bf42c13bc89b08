#include "operation/overrides.h"

#include <json/value.h>

#include <optional>

#include "base/paths.h"
#include "operation/settings_file.h"

namespace tolm::operation {

std::vector<std::string> OverrideProblems::Lines() const {
  std::vector<std::string> lines;
  for (const std::string& file : damaged_files) {
    lines.push_back(file + " cannot be read and does not count");
  }
  for (const std::string& name : hidden_databases) {
    lines.push_back(name + " is hidden: " + paths::kDatabaseOverrides + " does not list it");
  }
  return lines;
}

OverrideProblems ExamineOverrides() {
  OverrideProblems problems;
  for (const char* file : {paths::kServiceOverrides, paths::kDatabaseOverrides}) {
    if (IsDamagedSettings(file)) {
      problems.damaged_files.push_back(file);
    }
  }
  const std::optional<Json::Value> defaults = ReadSettings(paths::kDatabaseDefaults);
  const std::optional<Json::Value> overrides = ReadSettings(paths::kDatabaseOverrides);
  if (defaults.has_value() && overrides.has_value()) {
    for (const std::string& name : defaults->getMemberNames()) {
      if (!overrides->isMember(name)) {
        problems.hidden_databases.push_back(name);
      }
    }
  }
  return problems;
}

}  // namespace tolm::operation

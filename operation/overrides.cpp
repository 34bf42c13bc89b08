#include "operation/overrides.h"

#include "base/paths.h"
#include "operation/schedule.h"
#include "operation/settings_file.h"

namespace tolm::operation {

std::vector<std::string> OverrideProblems::Lines() const {
  std::vector<std::string> lines;
  for (const std::string& file : damaged_files) {
    lines.push_back(file + " cannot be read and does not count");
  }
  for (const std::string& name : hidden_databases) {
    lines.push_back(name + " is hidden: " + paths::kDatabaseOverrides +
                    " does not list it; do: tolmdbud schedule " + name + " on");
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
  problems.hidden_databases = HiddenDatabases();
  return problems;
}

}  // namespace tolm::operation

#include "operation/settings_check.h"

#include <json/value.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "base/paths.h"
#include "base/utf8.h"
#include "operation/operator_settings.h"
#include "operation/settings_file.h"
#include "operation/sources.h"
#include "package/seal.h"

namespace tolm::operation {
namespace {

using Effect = SettingsProblem::Effect;
using Problems = std::vector<SettingsProblem>;

struct Key {
  const char* name;
  bool (Json::Value::*is_right)() const;
  const char* right;
  /// What comes of a wrong default that nothing overrides, and which value counts then.
  Effect effect;
  const char* otherwise;
};

constexpr std::array<Key, 5> kServiceKeys{{
    {"download_scheme", &Json::Value::isString, "a string", Effect::kNothingIsDone, nullptr},
    {"db_netloc", &Json::Value::isString, "a string", Effect::kNothingIsDone, nullptr},
    {"db_ver", &Json::Value::isString, "a string", Effect::kNothingIsDone, nullptr},
    {"cur_volume", &Json::Value::isString, "a string", Effect::kNothingIsDone, nullptr},
    {"require_signed_description", &Json::Value::isBool, "true or false", Effect::kNothingIsDone,
     nullptr},
}};
constexpr std::array<Key, 4> kDatabaseKeys{{
    {"format_version", &Json::Value::isString, "a string", Effect::kNothingIsDone, nullptr},
    {"install_dest", &Json::Value::isString, "a string", Effect::kOneValue, nullptr},
    {"min_rsv_space_inbytes", &Json::Value::isUInt, "a whole number up to 4294967295",
     Effect::kOneValue, "0"},
    {"auto_update", &Json::Value::isBool, "true or false", Effect::kOneValue, "true"},
}};

// A pair of files, read; an empty object stands for what is missing or unsound.
struct Layers {
  std::string defaults_file;
  std::string overrides_file;
  Json::Value defaults;
  Json::Value overrides;
  bool has_overrides;
};

Json::Value SectionOf(const Json::Value& document, const std::string& section) {
  return document[section].isObject() ? document[section] : Json::Value(Json::objectValue);
}

// The library writes overrides in place, so a full disk or a kill at the wrong moment leaves an
// empty file. That must not end all updates until a person comes.
bool IsEmptyOverride(const char* file) {
  std::error_code ignored;
  return std::filesystem::file_size(file, ignored) == 0;
}

Layers ReadLayers(const char* defaults, const char* overrides, Problems& problems) {
  const Json::Value none(Json::objectValue);
  Layers layers{defaults, overrides, none, none, false};
  for (const char* file : {defaults, overrides}) {
    const SettingsFile read = LoadSettings(file);
    const std::string& problem = read.problem;
    (file == defaults ? layers.defaults : layers.overrides) = read.document.value_or(none);
    layers.has_overrides = read.document.has_value();
    if (file == overrides && !read.is_unreadable && IsEmptyOverride(file)) {
      problems.push_back({file, problem + "; the defaults count", Effect::kOneValue});
    } else if (!problem.empty()) {
      problems.push_back({file, problem, Effect::kNothingIsDone});
    }
    for (const std::string& aside : SetAsideOf(file)) {
      problems.push_back({aside,
                          "was set aside because it could not be used; its settings do not count: "
                          "repair and rename it, or remove it",
                          Effect::kSetAside});
    }
  }
  return layers;
}

bool IsWrong(const Json::Value& value, const Key& key) {
  return !value.isNull() && !(value.*key.is_right)();
}

void CheckKey(const Layers& layers, const std::string& section, const Key& key,
              Problems& problems) {
  const Json::Value value = SectionOf(layers.overrides, section)[key.name];
  const Json::Value by_default = SectionOf(layers.defaults, section)[key.name];
  const std::string what = section + '.' + key.name + " must be " + key.right;
  if (IsWrong(value, key)) {
    problems.push_back({layers.overrides_file, what + "; the default counts", Effect::kOneValue});
  }
  const bool is_overridden = !value.isNull() && !IsWrong(value, key);
  if (!IsWrong(by_default, key) || is_overridden) {
    return;
  }
  const std::string otherwise =
      key.otherwise == nullptr ? "" : std::string("; it counts as ") + key.otherwise;
  problems.push_back({layers.defaults_file, what + otherwise, key.effect});
}

template <std::size_t Count>
void CheckSections(const Layers& layers, const std::vector<std::string>& sections,
                   const std::array<Key, Count>& keys, Problems& problems) {
  for (const std::string& section : sections) {
    if (!layers.overrides[section].isNull() && !layers.overrides[section].isObject()) {
      problems.push_back({layers.overrides_file, section + " must be an object; the defaults count",
                          Effect::kOneValue});
    }
    if (!layers.defaults[section].isNull() && !layers.defaults[section].isObject()) {
      problems.push_back(
          {layers.defaults_file, section + " must be an object", Effect::kNothingIsDone});
    }
    for (const Key& key : keys) {
      CheckKey(layers, section, key, problems);
    }
  }
}

// The library's rule: what the overrides do not list is not there.
std::vector<std::string> ListedDatabases(const Layers& layers) {
  return (layers.has_overrides ? layers.overrides : layers.defaults).getMemberNames();
}

// No package could have such a name, and it would be a part of paths.
std::string NameProblem(const std::string& name) {
  return name == "." || name == ".." ? "a name must not be \".\" or \"..\""
                                     : package::NameProblem(name);
}

void CheckNames(const Layers& layers, Problems& problems) {
  const std::string& file = layers.has_overrides ? layers.overrides_file : layers.defaults_file;
  for (const std::string& name : ListedDatabases(layers)) {
    const std::string problem = NameProblem(name);
    if (!problem.empty()) {
      problems.push_back(
          {file, '"' + base::EscapeControls(name) + "\" cannot be a database's: " + problem,
           Effect::kOneValue});
    }
  }
}

void CheckOperationSettings(Problems& problems) {
  const std::string file = paths::kOperationSettings;
  try {
    RequireSecureMirrors(ReadOperatorSettings());
  } catch (const std::runtime_error& error) {
    const std::string what = error.what();  // It begins with the file.
    problems.push_back({file, what.substr(file.size() + 2), Effect::kNothingIsDone});
  }
}

void CheckVolumePatterns(Problems& problems) {
  const std::string file = paths::kVolumePatterns;
  const std::string problem = ProblemOfFile(file);
  if (!problem.empty()) {
    problems.push_back({file, problem, Effect::kNothingIsDone});
    return;
  }
  std::ifstream in(file);
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    const std::size_t begin = line.find_first_not_of(" \t\r");
    if (begin != std::string::npos && line[begin] != '#' && line[begin] != '/') {
      problems.push_back({file,
                          "line " + std::to_string(number) +
                              ": the pattern matches no volume, since it does not begin with /",
                          Effect::kOneValue});
    }
  }
}

}  // namespace

std::vector<SettingsProblem> CheckSettingsFiles() {
  Problems problems;
  const Layers service = ReadLayers(paths::kServiceDefaults, paths::kServiceOverrides, problems);
  CheckSections(service, {"config"}, kServiceKeys, problems);
  const Layers databases =
      ReadLayers(paths::kDatabaseDefaults, paths::kDatabaseOverrides, problems);
  CheckNames(databases, problems);
  CheckSections(databases, ListedDatabases(databases), kDatabaseKeys, problems);
  CheckOperationSettings(problems);
  CheckVolumePatterns(problems);
  return problems;
}

void RequireSoundSettings() {
  std::string lines;
  for (const SettingsProblem& problem : CheckSettingsFiles()) {
    if (problem.effect == Effect::kNothingIsDone) {
      lines += problem.Line() + "; ";
    }
  }
  if (!lines.empty()) {
    throw DamagedSettings(lines + "nothing was done");
  }
}

}  // namespace tolm::operation

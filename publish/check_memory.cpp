#include "publish/check_memory.h"

#include <charconv>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <system_error>

#include "publish/error.h"
#include "publish/json_object.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

constexpr int kFormat = 1;
// Many times what a repository can have: whatever is larger is not this file.
constexpr std::uintmax_t kMaxBytes = 256 << 20;

int VersionOf(const std::string& text) {
  int version = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), version);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw Error("\"" + text + "\": not a version");
  }
  return version;
}

ProvedStep StepFromJson(const JsonObject& object) {
  ProvedStep step;
  step.delta = object.Text("delta");
  step.before = object.Text("before");
  step.after = object.Text("after");
  step.start = object.Text("start");
  step.result = object.Text("result");
  step.exact = object.Flag("exact");
  return step;
}

ProvedChain ChainFromJson(const JsonObject& object, const std::string& proved_by) {
  ProvedChain chain;
  if (object.Int("format") != kFormat || object.Text("proved_by") != proved_by) {
    return chain;
  }
  object.Object("steps").ForEachMember([&](const std::string& version, const JsonObject& step) {
    chain.steps[VersionOf(version)] = StepFromJson(step);
  });
  object.Object("together").ForEachMember([&](const std::string& version, const JsonObject& whole) {
    chain.together[VersionOf(version)] = whole.Text("packages");
  });
  return chain;
}

Json::Value ToJson(const ProvedStep& step) {
  Json::Value value;
  value["delta"] = step.delta;
  value["before"] = step.before;
  value["after"] = step.after;
  value["start"] = step.start;
  value["result"] = step.result;
  value["exact"] = step.exact;
  return value;
}

}  // namespace

ProvedChain LoadProvedChain(const std::string& path, const std::string& proved_by) {
  try {
    if (fs::is_regular_file(fs::symlink_status(path)) && fs::file_size(path) <= kMaxBytes) {
      const Json::Value value = ReadJsonFile(path);
      return ChainFromJson(JsonObject(value, path), proved_by);
    }
  } catch (const std::exception&) {
    // All is proved anew, and then the file replaced.
  }
  return {};
}

std::string FormatProvedChain(const ProvedChain& chain, const std::string& proved_by) {
  Json::Value value;
  value["format"] = kFormat;
  value["proved_by"] = proved_by;
  value["steps"] = Json::Value(Json::objectValue);
  for (const auto& [version, step] : chain.steps) {
    value["steps"][std::to_string(version)] = ToJson(step);
  }
  value["together"] = Json::Value(Json::objectValue);
  for (const auto& [version, packages] : chain.together) {
    value["together"][std::to_string(version)]["packages"] = packages;
  }
  return FormatJson(value);
}

}  // namespace tolm::publish

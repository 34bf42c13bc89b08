#include "operation/operator_settings.h"

#include <json/value.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "base/paths.h"
#include "base/rules.h"
#include "operation/link_rules.h"
#include "operation/settings_file.h"

namespace tolm::operation {
namespace {

constexpr char kOwnerlessVolumes[] = "ownerless_volumes";
constexpr char kReaderGroup[] = "reader_group";
constexpr char kReaderGroupLocks[] = "reader_group_locks";
constexpr char kRollout[] = "rollout";
constexpr char kMirrors[] = "mirrors";
constexpr char kDownloadRate[] = "download_rate_kib";
constexpr char kDownloadHours[] = "download_hours";
constexpr const char* kMembers[] = {kOwnerlessVolumes, kReaderGroup,  kReaderGroupLocks, kRollout,
                                    kMirrors,          kDownloadRate, kDownloadHours};

[[noreturn]] void ThrowDamaged(const std::string& what) {
  throw std::runtime_error(std::string(paths::kOperationSettings) + ": " + what);
}

void RequireKnownMembers(const Json::Value& document) {
  for (const std::string& member : document.getMemberNames()) {
    if (std::find(std::begin(kMembers), std::end(kMembers), member) == std::end(kMembers)) {
      ThrowDamaged(member + " is no setting");
    }
  }
}

std::string WithoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

std::set<std::string> ReadVolumes(const Json::Value& list) {
  std::set<std::string> volumes;
  if (!list.isNull() && !list.isArray()) {
    ThrowDamaged(std::string(kOwnerlessVolumes) + " must be a list of volumes");
  }
  for (const Json::Value& volume : list) {
    if (!volume.isString() || volume.asString().compare(0, 1, "/") != 0) {
      ThrowDamaged(std::string(kOwnerlessVolumes) + " must be a list of absolute paths");
    }
    volumes.insert(WithoutTrailingSlash(volume.asString()));
  }
  return volumes;
}

std::optional<std::string> ReadGroup(const Json::Value& group) {
  if (group.isNull()) {
    return std::nullopt;
  }
  if (!group.isString() || group.asString().empty()) {
    ThrowDamaged(std::string(kReaderGroup) + " must be the name of a group");
  }
  return group.asString();
}

bool ReadOpensAll(const Json::Value& locks) {
  if (locks.isNull() || locks == "using") {
    return false;
  }
  if (locks != "all") {
    ThrowDamaged(std::string(kReaderGroupLocks) + R"( must be "using" or "all")");
  }
  return true;
}

RolloutSetting ReadRollout(const Json::Value& rollout) {
  if (rollout.isNull()) {
    return RolloutSetting::kNormal;
  }
  for (const RolloutSetting setting : {RolloutSetting::kEarly, RolloutSetting::kNormal,
                                       RolloutSetting::kLate, RolloutSetting::kStable}) {
    if (rollout == SettingText(setting)) {
      return setting;
    }
  }
  ThrowDamaged(std::string(kRollout) + R"( must be "early", "normal", "late" or "stable")");
}

// It may hold a password, so an entry is named by its number.
std::vector<std::string> ReadMirrors(const Json::Value& list) {
  if (!list.isNull() && !list.isArray()) {
    ThrowDamaged(std::string(kMirrors) + " must be a list of addresses");
  }
  std::vector<std::string> mirrors;
  for (const Json::Value& mirror : list) {
    const std::string address = mirror.isString() ? WithoutTrailingSlash(mirror.asString()) : "";
    if (!IsBaseAddress(address)) {
      ThrowDamaged(std::string(kMirrors) + ": number " + std::to_string(mirrors.size() + 1) +
                   " is no base address of http or https");
    }
    mirrors.push_back(address);
  }
  return mirrors;
}

// A lower one would be given up for its slowness.
std::optional<std::int64_t> ReadRate(const Json::Value& rate) {
  if (rate.isNull()) {
    return std::nullopt;
  }
  if (!rate.isInt() || rate.asInt() < rules::kLeastRateKib) {
    ThrowDamaged(std::string(kDownloadRate) + " must be an integer of at least " +
                 std::to_string(rules::kLeastRateKib));
  }
  return rate.asInt();
}

std::optional<DownloadHours> ReadHours(const Json::Value& hours) {
  if (hours.isNull()) {
    return std::nullopt;
  }
  std::optional<DownloadHours> read =
      hours.isString() ? DownloadHours::Parse(hours.asString()) : std::nullopt;
  if (!read) {
    ThrowDamaged(std::string(kDownloadHours) +
                 R"( must be two different times of the day, as in "22:00-06:00")");
  }
  return read;
}

}  // namespace

const char* SettingText(RolloutSetting setting) {
  switch (setting) {
    case RolloutSetting::kEarly:
      return "early";
    case RolloutSetting::kNormal:
      return "normal";
    case RolloutSetting::kLate:
      return "late";
    case RolloutSetting::kStable:
      return "stable";
  }
  return "";
}

OperatorSettings ReadOperatorSettings() {
  const SettingsFile file = LoadSettings(paths::kOperationSettings);
  if (!file.problem.empty()) {
    ThrowDamaged(file.problem);
  }
  const Json::Value document = file.document.value_or(Json::Value(Json::objectValue));
  RequireKnownMembers(document);
  OperatorSettings settings;
  settings.ownerless_volumes = ReadVolumes(document[kOwnerlessVolumes]);
  settings.reader_group = ReadGroup(document[kReaderGroup]);
  settings.group_opens_all_locks = ReadOpensAll(document[kReaderGroupLocks]);
  settings.rollout = ReadRollout(document[kRollout]);
  settings.mirrors = ReadMirrors(document[kMirrors]);
  settings.download_rate_kib = ReadRate(document[kDownloadRate]);
  settings.download_hours = ReadHours(document[kDownloadHours]);
  return settings;
}

}  // namespace tolm::operation

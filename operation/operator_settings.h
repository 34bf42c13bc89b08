#ifndef TOLM_OPERATION_OPERATOR_SETTINGS_H_
#define TOLM_OPERATION_OPERATOR_SETTINGS_H_

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "operation/download_hours.h"

namespace tolm::operation {

/// When a device takes versions that do not reach all devices at once.
enum class RolloutSetting {
  kEarly,   ///< With the first.
  kNormal,  ///< When its own turn comes.
  kLate,    ///< With the last.
  kStable   ///< When they are the stable version.
};

/// As it is called in the settings.
const char* SettingText(RolloutSetting setting);

/// What the operator decides for the operations around the library, in paths::kOperationSettings.
struct OperatorSettings {
  /// Volumes whose file systems keep no owners and which are used all the same.
  std::set<std::string> ownerless_volumes;
  /// Whose members may take the readers' locks; without one everybody may.
  std::optional<std::string> reader_group;
  /// Whether they may open the other locks, too.
  bool group_opens_all_locks = false;
  RolloutSetting rollout = RolloutSetting::kNormal;
  /// Base addresses of further servers, in their order and without a slash at their end; they may
  /// hold user names and passwords (see sources.h).
  std::vector<std::string> mirrors;
  /// How many KiB a second a download may take at most; nothing for as many as there are.
  std::optional<std::int64_t> download_rate_kib{};
  /// When scheduled runs begin to download; nothing for always.
  std::optional<DownloadHours> download_hours{};
};

/// The present settings; a missing file decides nothing. Throws std::runtime_error that names the
/// file, and the member, for whatever it makes nothing of: none of it is passed over.
OperatorSettings ReadOperatorSettings();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_OPERATOR_SETTINGS_H_

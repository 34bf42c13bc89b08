#include "publish/replay/replay_device.h"

#include "dataupdate/strategy.h"
#include "publish/replay/replay_platform.h"
#include "src/error_text.h"

namespace tolm::publish {

std::string UpdateReplayDevice(const ReplayOrder& order) {
  SetReplayPlatform(package::Trust::FromTexts(order.trust), order.now);
  std::map<int, dataupdate::DiffInfo> diffs;
  for (const auto& [version, path] : order.packages) {
    diffs.emplace(version, dataupdate::DiffInfo(ReplayLink(path), 0));
  }
  const int newest =
      order.packages.empty() ? order.installed_version : order.packages.rbegin()->first;
  const dataupdate::DatabaseStatus installed(order.installed_version, 0, {});
  const dataupdate::RemoteInfo remote(newest, 0, false, "");
  try {
    dataupdate::DiffStrategy strategy(order.name, installed, remote, diffs, ".", kReplayInstalled,
                                      ".");
    strategy.PrepareUpdate();
    strategy.ApplyUpdate();
  } catch (const std::exception& error) {
    const std::string detail = LastReplayPlatformFailure();
    return std::string(dataupdate::TextOf(error)) + (detail.empty() ? "" : " (" + detail + ")");
  }
  return "";
}

}  // namespace tolm::publish

#include "publish/replay_device.h"

#include "dataupdate/strategy.h"
#include "publish/replay_platform.h"

namespace tolm::publish {

std::string UpdateReplayDevice(const ReplayDevice& device) {
  SetReplayPlatform(*device.trust, device.now);
  std::map<int, dataupdate::DiffInfo> diffs;
  for (const auto& [version, path] : device.packages) {
    diffs.emplace(version, dataupdate::DiffInfo(ReplayLink(path), 0));
  }
  const int newest =
      device.packages.empty() ? device.installed_version : device.packages.rbegin()->first;
  const dataupdate::DatabaseStatus installed(device.installed_version, 0, {});
  const dataupdate::RemoteInfo remote(newest, 0, false, "");
  try {
    dataupdate::DiffStrategy strategy(device.name, installed, remote, diffs, ".", "installed", ".");
    strategy.PrepareUpdate();
    strategy.ApplyUpdate();
  } catch (const std::exception& error) {
    const std::string detail = LastReplayPlatformFailure();
    return error.what() + (detail.empty() ? "" : " (" + detail + ")");
  }
  return "";
}

}  // namespace tolm::publish

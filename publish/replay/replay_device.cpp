#include "publish/replay/replay_device.h"

#include <boost/format.hpp>
#include <filesystem>
#include <set>

#include "base/paths.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/strategy.h"
#include "publish/replay/replay_platform.h"
#include "src/error_text.h"

namespace tolm::publish {
namespace {

constexpr char kVolume[] = ".";

// Files are patched in the order of their keys, each on a work copy that is made right before.
std::string KeyBeingPatched(const ReplayOrder& order, const std::set<std::string>& done) {
  if (order.packages.size() != 1) {
    return "";
  }
  const int version = order.packages.begin()->first;
  const std::string copies = str(boost::format(paths::kWorkCopies) % kVolume % order.name);
  const std::string delta =
      str(boost::format(paths::kUnpackedDelta) % kVolume % order.name % std::to_string(version));
  try {
    for (const std::string& key :
         dataupdate::IOUtils().ReadJson(delta + "/patch_infos.json").getMemberNames()) {
      if (done.count(key) == 0) {
        const bool begun = std::filesystem::exists(copies + "/" + dataupdate::FlatFileName(key));
        return begun ? key : "";
      }
    }
  } catch (const std::exception&) {
    // There is no description yet or any more: no patch was at hand.
  }
  return "";
}

}  // namespace

ReplayAnswer UpdateReplayDevice(const ReplayOrder& order) {
  SetReplayPlatform(package::Trust::FromTexts(order.trust), order.now);
  std::map<int, dataupdate::DiffInfo> diffs;
  for (const auto& [version, path] : order.packages) {
    diffs.emplace(version, dataupdate::DiffInfo(ReplayLink(path), 0));
  }
  const int newest =
      order.packages.empty() ? order.installed_version : order.packages.rbegin()->first;
  const dataupdate::DatabaseStatus installed(order.installed_version, 0, {});
  const dataupdate::RemoteInfo remote(newest, 0, false, "");
  // Its work copies are there as long as it is.
  dataupdate::DiffStrategy strategy(order.name, installed, remote, diffs, kVolume, kReplayInstalled,
                                    ".");
  try {
    strategy.PrepareUpdate();
    strategy.ApplyUpdate();
  } catch (const std::exception& error) {
    const std::string detail = LastReplayPlatformFailure();
    const std::string problem =
        std::string(dataupdate::TextOf(error)) + (detail.empty() ? "" : " (" + detail + ")");
    return {problem, KeyBeingPatched(order, strategy.GetModifiedFiles()), {}};
  }
  return {"", "", strategy.GetModifiedFiles()};
}

}  // namespace tolm::publish

// The start of the service and the volumes' events.

#include <iostream>

#include "operator/volume_events.h"
#include "tools/tolmdbud_commands.h"

namespace tolm::tool {
namespace {

using operation::Service;
using operation::VolumeChange;

constexpr char kNone[] = "none";

std::string NameOf(const std::string& volume) {
  return volume.empty() ? kNone : volume;
}

// Mount paths are compared as they are written.
std::string WithoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

int ReportChange(const std::function<VolumeChange()>& event) {
  const bool good = Succeeds("", [&event] {
    const VolumeChange change = event();
    std::cout << "volume: " << NameOf(change.after);
    if (change.before != change.after) {
      std::cout << " (was " << NameOf(change.before) << ')';
    }
    std::cout << '\n';
  });
  return good ? kSuccess : kFailure;
}

}  // namespace

int Init(const Service& service) {
  const bool good = Succeeds(
      "", [&service] { std::cout << "volume: " << NameOf(operation::Start(service)) << '\n'; });
  return good ? kSuccess : kFailure;
}

int VolumeShow(const Service& service) {
  const bool good = Succeeds("", [&service] {
    const std::string chosen = service.config->GetCurVolume();
    std::cout << "chosen: " << NameOf(chosen) << '\n';
    for (const operation::VolumeState& volume : operation::ListVolumes(service)) {
      std::cout << volume.path << "  " << (volume.suitable ? "suitable" : "not suitable") << "  "
                << volume.available_bytes << " bytes available\n";
    }
  });
  return good ? kSuccess : kFailure;
}

int VolumeMounted(const Service& service, const std::string& volume) {
  return ReportChange([&] { return operation::Mounted(service, WithoutTrailingSlash(volume)); });
}

int VolumeUnmounting(const Service& service, const std::string& volume) {
  return ReportChange([&] { return operation::Unmounting(service, WithoutTrailingSlash(volume)); });
}

}  // namespace tolm::tool

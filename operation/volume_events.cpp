#include "operation/volume_events.h"

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "operation/directory_types.h"
#include "operation/reader_locks.h"
#include "tolm/volume.h"

namespace tolm::operation {
namespace {

using dataupdate::FileLock;

constexpr long long kNotComputed = -1;

bool HasAnotherVolume(const Service& service, const std::string& volume) {
  try {
    service.volumes->FindSuitableVolume(volume);
    return true;
  } catch (const dataupdate::UpdateError&) {
    return false;
  }
}

// What the library alone would choose.
bool IsSuitableButForTypes(const Service& service, const TOLMMountVolInfo& record) {
  return !ListsTypes(record.mount_path) &&
         dataupdate::VolumeHandler(service.config).IsSuitable(&record, kNotComputed);
}

using VolumeList = std::unique_ptr<TOLMMountVolInfo, void (*)(TOLMMountVolInfo*)>;

VolumeList EnumerateVolumes() {
  return VolumeList(TOLMMountVolAllEnum(0, 1, 0), TOLMMountVolInfoFree);
}

// When there is none, but would be if its listings told more, that is worth a failure.
void RequireTypesOfVolumes(const Service& service, const std::string& chosen) {
  if (!chosen.empty()) {
    RequireTypes(chosen);
    return;
  }
  const VolumeList volumes = EnumerateVolumes();
  for (const TOLMMountVolInfo* record = volumes.get(); record != nullptr; record = record->next) {
    if (IsSuitableButForTypes(service, *record)) {
      RequireTypes(record->mount_path);
    }
  }
}

// None was chosen and this one was mounted: had it been suitable, it would be chosen.
void RequireChosen(const Service& service, const TOLMMountVolInfo& mounted) {
  const std::string volume = mounted.mount_path;
  if (IsSuitableButForTypes(service, mounted)) {
    RequireTypes(volume);
  }
  if (service.volumes->IsSuitable(&mounted, kNotComputed)) {
    throw std::runtime_error(volume + " is suitable and could not be chosen, see the system log");
  }
}

// The event itself does not say whether the move succeeded.
bool StayedBehind(const Service& service, const VolumeChange& change, const std::string& volume) {
  return change.before == volume && change.after != volume &&
         std::filesystem::exists(service.volumes->GetMainDirPath(volume)) &&
         (!change.after.empty() || HasAnotherVolume(service, volume));
}

}  // namespace

std::string Start(const Service& service) {
  MakeReaderLocks(*service.config);
  service.volumes->InitVolume();
  const std::string chosen = service.config->GetCurVolume();
  RequireTypesOfVolumes(service, chosen);
  return chosen;
}

VolumeChange Mounted(const Service& service, const std::string& volume) {
  const std::string before = service.config->GetCurVolume();
  service.volumes->MountVolumeEvent(volume);
  const VolumeChange change{before, service.config->GetCurVolume()};
  TOLMMountVolInfo record;
  if (change.after.empty() && TOLMMountVolInfoGet(volume.c_str(), &record) != -1) {
    RequireChosen(service, record);
  }
  return change;
}

VolumeChange Unmounting(const Service& service, const std::string& volume) {
  const FileLock operator_lock(paths::kOperatorLock, rules::kLockWaitSeconds);
  const FileLock any_lock(paths::kUpdateAnyLock, rules::kLockWaitSeconds);
  const std::string before = service.config->GetCurVolume();
  service.volumes->UnmountVolumeEvent(volume);
  const VolumeChange change{before, service.config->GetCurVolume()};
  if (StayedBehind(service, change, volume)) {
    throw std::runtime_error("databases stayed in " + service.volumes->GetMainDirPath(volume) +
                             ", see the system log");
  }
  return change;
}

std::vector<VolumeState> ListVolumes(const Service& service) {
  const VolumeList list = EnumerateVolumes();
  std::vector<VolumeState> volumes;
  for (const TOLMMountVolInfo* record = list.get(); record != nullptr; record = record->next) {
    volumes.push_back(
        {record->mount_path, record->available, service.volumes->IsSuitable(record, kNotComputed)});
  }
  return volumes;
}

}  // namespace tolm::operation

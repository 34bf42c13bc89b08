#include "operation/volume_events.h"

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
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

bool IsSuitable(const Service& service, const std::string& volume) {
  TOLMMountVolInfo record;
  return TOLMMountVolInfoGet(volume.c_str(), &record) != -1 &&
         service.volumes->IsSuitable(&record, kNotComputed);
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
  dataupdate::InitService();
  return service.config->GetCurVolume();
}

VolumeChange Mounted(const Service& service, const std::string& volume) {
  const std::string before = service.config->GetCurVolume();
  service.volumes->MountVolumeEvent(volume);
  const VolumeChange change{before, service.config->GetCurVolume()};
  if (change.after.empty() && IsSuitable(service, volume)) {
    throw std::runtime_error(volume + " is suitable and could not be chosen, see the system log");
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
  const std::unique_ptr<TOLMMountVolInfo, void (*)(TOLMMountVolInfo*)> list(
      TOLMMountVolAllEnum(0, 1, 0), TOLMMountVolInfoFree);
  std::vector<VolumeState> volumes;
  for (const TOLMMountVolInfo* record = list.get(); record != nullptr; record = record->next) {
    volumes.push_back(
        {record->mount_path, record->available, service.volumes->IsSuitable(record, kNotComputed)});
  }
  return volumes;
}

}  // namespace tolm::operation

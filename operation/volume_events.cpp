#include "operation/volume_events.h"

#include <fcntl.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "base/file.h"
#include "base/human_text.h"
#include "base/log.h"
#include "base/paths.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "operation/directory_types.h"
#include "operation/failure.h"
#include "operation/half_written.h"
#include "operation/interruptible_lock.h"
#include "operation/lock_files.h"
#include "operation/movable_tree.h"
#include "operation/own_ground.h"
#include "operation/partial_downloads.h"
#include "operation/room.h"
#include "operation/settings_check.h"
#include "operation/volume_choice.h"
#include "operation/volume_move.h"
#include "tolm/volume.h"

namespace tolm::operation {
namespace {

using dataupdate::FileLock;

constexpr char kLogSource[] = "volume_events";
constexpr long long kNotComputed = -1;

bool HasAnotherVolume(const Service& service, const std::string& volume) {
  try {
    service.volumes->FindSuitableVolume(volume);
    return true;
  } catch (const dataupdate::UpdateError&) {
    return false;
  }
}

// Without what the operations ask for besides.
bool IsSuitableForTheLibrary(const Service& service, const TOLMMountVolInfo& record) {
  return dataupdate::VolumeHandler(service.config).IsSuitable(&record, kNotComputed);
}

// What the library's own question, which answers yes or no, asks for. In the order in which it is
// worth knowing.
struct Obstacle {
  std::string code;
  std::string text;
};

std::uint64_t RequiredBytes(const Service& service) {
  std::uint64_t sum = 0;
  for (const std::string& name : service.config->GetDatabaseIDs()) {
    sum += service.config->GetDatabaseConfig(name)->GetMinReservedSpaceInbytes();
  }
  return sum;
}

Obstacle ObstacleToTheLibrary(const Service& service, const TOLMMountVolInfo& record) {
  constexpr unsigned int kReadWrite = 1;
  if (record.is_local == 0) {
    return {kNetworkVolume, "it is a network file system"};
  }
  if (record.is_healthy == 0) {
    return {kUnhealthyVolume, "the file system does not answer"};
  }
  if ((record.flags & kReadWrite) == 0) {
    return {kReadOnlyVolume, "it is mounted read-only"};
  }
  if (TOLMVolumeServicePolicy(&record) == 0) {
    return {kServicesRefused, "it holds .no-services, or its root cannot be looked at"};
  }
  const std::uint64_t required = RequiredBytes(service);
  if (required > record.available) {
    return {kTooLittleRoom, "there is too little room: " + base::HumanSize(required) +
                                " needed (min_rsv_space_inbytes of all databases), " +
                                base::HumanSize(record.available) + " available"};
  }
  return {};
}

Obstacle ObstacleOf(const Service& service, const TOLMMountVolInfo& record) {
  const Obstacle obstacle = ObstacleToTheLibrary(service, record);
  if (!obstacle.code.empty()) {
    return obstacle;
  }
  if (!ListsTypes(record.mount_path)) {
    return {kUntypedListings, "its listings do not tell directories from files"};
  }
  try {
    RequireOwnVolume(record.mount_path);
  } catch (const ForeignGround& error) {
    return {kUnsafeVolume, error.reason()};
  } catch (const base::FileError& error) {
    return {kUnsafeVolume, error.what()};
  }
  return {};
}

using VolumeList = std::unique_ptr<TOLMMountVolInfo, void (*)(TOLMMountVolInfo*)>;

VolumeList EnumerateVolumes() {
  return VolumeList(TOLMMountVolAllEnum(0, 1, 0), TOLMMountVolInfoFree);
}

// Readers lock whatever the settings say, but nothing is chosen by a part of them, nor written over
// them.
void MakeLockFilesInAnyCase(const Service& service) {
  try {
    MakeLockFiles(*service.config);
  } catch (const dataupdate::UpdateError&) {
    RequireSoundSettings();
    throw;
  }
  RequireSoundSettings();
}

// None was chosen although this one is mounted: had it been suitable, it would be.
void RequireChosen(const Service& service, const TOLMMountVolInfo& mounted) {
  const std::string volume = mounted.mount_path;
  if (IsSuitableForTheLibrary(service, mounted)) {
    RequireKeepsDatabases(volume);
  }
  if (service.volumes->IsSuitable(&mounted, kNotComputed)) {
    throw std::runtime_error(volume + " is suitable and could not be chosen, see the system log");
  }
}

// When there is none, but would be if the operations asked for less, or if the choice could have
// been stored, that is worth a failure.
void RequireReasonForNone(const Service& service, const std::string& chosen) {
  if (!chosen.empty()) {
    RequireKeepsDatabases(chosen);
    return;
  }
  const VolumeList volumes = EnumerateVolumes();
  for (const TOLMMountVolInfo* record = volumes.get(); record != nullptr; record = record->next) {
    RequireChosen(service, *record);
  }
}

// The library makes what it needs by path: where others could, it is made for it.
void PrepareGround(const Service& service, const std::string& volume) {
  TOLMMountVolInfo record;
  if (TOLMMountVolInfoGet(volume.c_str(), &record) != -1 &&
      service.volumes->IsSuitable(&record, kNotComputed)) {
    MakeOwnMainDirectory(volume);
  }
}

// Returns which volume that is; empty for none, and what is chosen says so.
std::string PrepareSuitableGround(const Service& service, const std::string& excluded) {
  std::string volume;
  try {
    volume = service.volumes->FindSuitableVolume(excluded);
    MakeOwnMainDirectory(volume);
  } catch (const dataupdate::UpdateError&) {
    return "";
  }
  return volume;
}

// The databases do not go along: the other volume begins without any.
void ChooseAnew(const Service& service, const std::string& leaving) {
  service.config->SetCurVolume("");
  std::string volume;
  try {
    volume = service.volumes->FindSuitableVolume(leaving);
  } catch (const dataupdate::UpdateError&) {
    return;
  }
  MakeOwnMainDirectory(volume);
  const std::string main = service.volumes->GetMainDirPath(volume);
  if (!std::filesystem::is_empty(main)) {
    throw std::runtime_error(main + " is not empty, so " + volume + " was not chosen (rm -r " +
                             main + ')');
  }
  service.config->SetCurVolume(volume);
}

[[noreturn]] void LeaveBehind(const Service& service, const std::string& volume,
                              const std::string& why) {
  const std::string what = service.volumes->GetMainDirPath(volume) + " is not moved because " + why;
  syslog(LOG_WARNING, "%s:%d %s", TOLM_LOG_HERE, what.c_str());
  ChooseAnew(service, volume);
  const std::string chosen = service.config->GetCurVolume();
  SyncChoice({volume, chosen});
  throw std::runtime_error(what + (chosen.empty() ? "; no volume is chosen"
                                                  : "; " + chosen +
                                                        " is chosen and the databases "
                                                        "are installed anew"));
}

// The event itself does not say whether the move succeeded, nor whether the choice could be stored.
void RequireGivenUp(const Service& service, const std::string& volume, const std::string& target) {
  const std::string chosen = service.config->GetCurVolume();
  const std::string main = service.volumes->GetMainDirPath(volume);
  if (std::filesystem::exists(main) && (!chosen.empty() || HasAnotherVolume(service, volume))) {
    throw std::runtime_error("databases stayed in " + main + ", see the system log");
  }
  if (chosen != target) {
    throw std::runtime_error(
        (target.empty() ? volume + " could not be given up"
                        : "the databases are on " + target + ", which could not be chosen") +
        ", see the system log; \"tolmdbud init\" tries it again");
  }
}

}  // namespace

std::string Start(const Service& service) {
  MakeLockFilesInAnyCase(service);
  RemoveHalfWritten(*service.config);
  SettleMove(service);
  const std::string before = service.config->GetCurVolume();
  if (before.empty()) {
    PrepareSuitableGround(service, "");
  }
  service.volumes->InitVolume();
  const std::string chosen = service.config->GetCurVolume();
  SyncChoice({before, chosen});
  RequireReasonForNone(service, chosen);
  return chosen;
}

VolumeChange Mounted(const Service& service, const std::string& volume) {
  RequireSoundSettings();
  MakeLockFiles(*service.config);
  const std::string before = service.config->GetCurVolume();
  SettleMove(service);
  if (service.config->GetCurVolume().empty()) {
    PrepareGround(service, volume);
  }
  const std::string why = WhyNoVolume(volume);
  if (!why.empty()) {
    throw ExplainedError(
        why, dataupdate::UpdateError::kGeneral,
        {reasons::kNoVolume, why, "\"tolmdbud volume show\" names those there are"});
  }
  service.volumes->MountVolumeEvent(volume);
  const VolumeChange change{before, service.config->GetCurVolume()};
  SyncChoice(change);
  TOLMMountVolInfo record;
  if (change.after.empty() && TOLMMountVolInfoGet(volume.c_str(), &record) != -1) {
    RequireChosen(service, record);
  }
  return change;
}

VolumeChange Unmounting(const Service& service, const std::string& volume) {
  RequireSoundSettings();
  MakeLockFiles(*service.config);
  const std::string before = service.config->GetCurVolume();
  SettleMove(service);
  const FileLock operator_lock = InterruptibleLock(paths::kOperatorLock);
  const FileLock any_lock = InterruptibleLock(paths::kUpdateAnyLock);
  const std::string settled = service.config->GetCurVolume();
  std::string target;
  bool is_noted = false;
  if (settled == volume) {
    const std::string why = WhyNotMovable(volume);
    if (!why.empty()) {
      LeaveBehind(service, volume, why);
    }
    target = PrepareSuitableGround(service, volume);
    RemovePartialsOf(volume);
    is_noted = !target.empty() && NoteMove(service, volume, target);
  }
  service.volumes->UnmountVolumeEvent(volume);
  const VolumeChange change{settled, service.config->GetCurVolume()};
  SyncChoice(change);
  // Without the choice it has not ended: the next event decides where the databases are.
  if (is_noted && change.after == target) {
    ForgetMove(volume);
  }
  if (settled == volume) {
    RequireGivenUp(service, volume, target);
  }
  return {before, change.after};
}

std::string WhyNoVolume(const std::string& path) {
  TOLMMountVolInfo record;
  if (TOLMMountVolInfoGet(path.c_str(), &record) != -1) {
    return "";
  }
  std::error_code ignored;
  const bool is_mounted =
      std::filesystem::is_directory(path, ignored) && MountPointOf(path) == path;
  return path + (is_mounted ? std::string(" is mounted but no volume: no pattern in ") +
                                  paths::kVolumePatterns + " matches it"
                            : " is no mounted volume");
}

std::vector<VolumeState> ListVolumes(const Service& service) {
  const VolumeList list = EnumerateVolumes();
  std::vector<VolumeState> volumes;
  for (const TOLMMountVolInfo* record = list.get(); record != nullptr; record = record->next) {
    const bool is_suitable = service.volumes->IsSuitable(record, kNotComputed);
    const Obstacle obstacle = is_suitable ? Obstacle{} : ObstacleOf(service, *record);
    volumes.push_back(
        {record->mount_path, record->available, is_suitable, obstacle.code, obstacle.text});
  }
  return volumes;
}

}  // namespace tolm::operation

#include "dataupdate/volume_handler.h"

#include <boost/filesystem.hpp>
#include <boost/format.hpp>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>

#include "base/log.h"
#include "base/paths.h"
#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "error_text.h"
#include "tolm/err.h"
#include "tolm/exec.h"
#include "tolm/volume.h"

namespace tolm::dataupdate {
namespace {

namespace fs = boost::filesystem;

constexpr char kLogSource[] = "volume_handler";
constexpr unsigned int kReadWrite = 1;
constexpr long long kNotComputed = -1;

using VolumeList = std::unique_ptr<TOLMMountVolInfo, void (*)(TOLMMountVolInfo*)>;

VolumeList EnumerateVolumes() {
  VolumeList volumes(TOLMMountVolAllEnum(0, 1, 0), TOLMMountVolInfoFree);
  if (!volumes) {
    throw UpdateError((NoexceptFormat("Failed to enum all volumes: %x") % TLIBCErrGet()).str());
  }
  return volumes;
}

void LogIgnoredEvent(const std::string& volume) {
  syslog(LOG_DEBUG, "%s:%d Ignoring the uninteresting event of '%s'.", TOLM_LOG_HERE,
         volume.c_str());
}

}  // namespace

VolumeHandler::VolumeHandler(std::shared_ptr<ServiceConfig> service_config)
    : service_config_(std::move(service_config)) {}

VolumeHandler::~VolumeHandler() = default;

void VolumeHandler::InitVolume() const {
  try {
    if (!service_config_->GetCurVolume().empty()) {
      return;
    }
    const std::string volume = FindSuitableVolume("");
    CreateDirectories(GetMainDirPath(volume));
    service_config_->SetCurVolume(volume);
    syslog(LOG_WARNING, "%s:%d Autoupdate set the new volume at '%s'.", TOLM_LOG_HERE,
           volume.c_str());
  } catch (const UpdateError& error) {
    syslog(LOG_INFO, "%s:%d Failed to init volume: %s", TOLM_LOG_HERE, error.what());
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d Failed to init volume for the Autoupdate: %s", TOLM_LOG_HERE,
           TextOf(error));
  }
}

void VolumeHandler::UnmountVolumeEvent(const std::string& volume) const {
  try {
    if (service_config_->GetCurVolume() != volume) {
      LogIgnoredEvent(volume);
      return;
    }
    // First of all: there is no volume while the move runs, nor afterwards when it fails.
    service_config_->SetCurVolume("");
    const std::string new_volume = FindSuitableVolume(volume);
    const std::string source = GetMainDirPath(volume);
    const std::string target = GetMainDirPath(new_volume);
    MoveDatabases(source, target);
    service_config_->SetCurVolume(new_volume);
  } catch (const UpdateError& error) {
    syslog(LOG_INFO, "%s:%d Autoupdate for DBs using volume is going to be disabled normally: %s",
           TOLM_LOG_HERE, error.what());
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d Autoupdate failed to handle unmount volume event: %s", TOLM_LOG_HERE,
           TextOf(error));
  }
}

void VolumeHandler::MoveDatabases(const std::string& source, const std::string& target) const {
  syslog(LOG_WARNING, "%s:%d Moving databases from %s to %s", TOLM_LOG_HERE, source.c_str(),
         target.c_str());
  if (fs::exists(target)) {
    fs::remove(target);
  } else {
    CreateDirectories(target.substr(0, target.rfind('/')));
  }
  // The move's own exit status does not count, only whether it could be run.
  if (TLIBCExec(paths::kMove, source.c_str(), target.c_str(), nullptr, nullptr) < 0) {
    throw std::runtime_error("Failed to move databases.");
  }
}

void VolumeHandler::MountVolumeEvent(const std::string& volume) const {
  try {
    if (!service_config_->GetCurVolume().empty()) {
      LogIgnoredEvent(volume);
      return;
    }
    const auto record = std::make_unique<TOLMMountVolInfo>();
    if (TOLMMountVolInfoGet(volume.c_str(), record.get()) == -1) {
      syslog(LOG_ERR, "%s:%d Failed to get volume info for '%s'.", TOLM_LOG_HERE, volume.c_str());
      return;
    }
    record->next = nullptr;
    const std::string main_directory = GetMainDirPath(volume);
    if (IsSuitable(record.get(), kNotComputed)) {
      CreateDirectories(main_directory);
      service_config_->SetCurVolume(volume);
    }
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d Ignoring the mount event of '%s': %s", TOLM_LOG_HERE, volume.c_str(),
           TextOf(error));
  }
}

std::string VolumeHandler::FindSuitableVolume(std::string excluded) const {
  const long long required = RequiredBytes();
  const VolumeList volumes = EnumerateVolumes();
  for (const TOLMMountVolInfo* record = volumes.get(); record != nullptr; record = record->next) {
    if (excluded != record->mount_path && IsSuitable(record, required)) {
      return record->mount_path;
    }
  }
  throw UpdateError("Cannot find suitable volume.");
}

std::string VolumeHandler::GetMainDirPath(const std::string& volume) const {
  return (NoexceptFormat(paths::kVolumeDatabases) % volume).str();
}

void VolumeHandler::CreateDirectories(const std::string& path) const {
  boost::system::error_code error;
  fs::create_directories(path, error);
  if (error) {
    throw UpdateError((NoexceptFormat("Failed to create '%s': %s") % path % error.message()).str());
  }
}

bool VolumeHandler::IsSuitable(const void* volume_record, long long required_bytes) const {
  const auto* record = static_cast<const TOLMMountVolInfo*>(volume_record);
  const long long required = required_bytes < 0 ? RequiredBytes() : required_bytes;
  return (record->flags & kReadWrite) != 0 && TOLMVolumeServicePolicy(record) != 0 &&
         static_cast<std::uint64_t>(required) <= record->available && record->is_local != 0 &&
         record->is_healthy != 0;
}

long long VolumeHandler::RequiredBytes() const {
  std::uint64_t sum = 0;  // Unsigned, because a signed overflow is undefined.
  for (const std::string& id : service_config_->GetDatabaseIDs()) {
    sum += service_config_->GetDatabaseConfig(id)->GetMinReservedSpaceInbytes();
    if (static_cast<std::int64_t>(sum) < 0) {
      throw std::runtime_error("Overflow detection, this may be caused by invalid configurations.");
    }
  }
  return static_cast<long long>(sum);
}

}  // namespace tolm::dataupdate

#ifndef TOLM_DATAUPDATE_VOLUME_HANDLER_H_
#define TOLM_DATAUPDATE_VOLUME_HANDLER_H_

#include <memory>
#include <string>

#include "dataupdate/export.h"

namespace tolm::dataupdate {

class ServiceConfig;

/// Chooses the storage volume that holds the databases, and follows it as volumes come and go. A
/// volume is named by its mount path; the chosen one is the "cur_volume" setting, empty for none.
/// Nothing else is kept. The three events let no std::exception out: they log it and return. They
/// are to be called one at a time, by a process that runs no operation meanwhile.
class TOLM_DATAUPDATE_API VolumeHandler {
 public:
  explicit VolumeHandler(std::shared_ptr<ServiceConfig> service_config);
  virtual ~VolumeHandler();

  /// At start-up: when no volume is chosen, makes the main directory on the first suitable one and
  /// chooses it.
  virtual void InitVolume() const;
  /// The volume is about to go away. When it is the chosen one, moves the databases to another
  /// suitable volume, waiting for the end, and chooses that; there is no volume meanwhile, nor
  /// afterwards when that failed. An empty main directory in the way is replaced, any other is a
  /// failure. Whether the move succeeded is not checked, only that it could be started.
  virtual void UnmountVolumeEvent(const std::string& volume) const;
  /// A volume was mounted. When none is chosen and this one is suitable, makes the main directory
  /// on it and chooses it.
  virtual void MountVolumeEvent(const std::string& volume) const;

  /// The first suitable volume in the platform's order, other than the excluded one. Throws
  /// UpdateError when there is none or the volumes cannot be listed, std::runtime_error when the
  /// configured reserves overflow.
  virtual std::string FindSuitableVolume(std::string excluded) const;
  /// The main directory of a volume, where its databases are.
  virtual std::string GetMainDirPath(const std::string& volume) const;
  /// Makes the directory with all missing parents; an existing one will do. Throws UpdateError.
  virtual void CreateDirectories(const std::string& path) const;
  /// Whether databases may live on the volume that the platform's record (a TOLMMountVolInfo)
  /// describes: mounted read-write, allowed for services, with at least `required_bytes` available,
  /// local and healthy. A negative requirement stands for the sum of all databases' reserves;
  /// std::runtime_error when that overflows.
  virtual bool IsSuitable(const void* volume_record, long long required_bytes) const;

 private:
  long long RequiredBytes() const;
  void MoveDatabases(const std::string& source, const std::string& target) const;

  std::shared_ptr<ServiceConfig> service_config_;
};

}  // namespace tolm::dataupdate

#endif  // TOLM_DATAUPDATE_VOLUME_HANDLER_H_

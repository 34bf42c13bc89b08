#ifndef TOLM_OPERATION_RECOVERY_H_
#define TOLM_OPERATION_RECOVERY_H_

#include <functional>
#include <memory>
#include <string>

#include "operation/service.h"

namespace tolm::operation {

/// Where the recovery mark of a database stands; it is there while an operation may be changing
/// files, and after one that was cut short.
std::string RecoveryMarkPath(const std::string& name);

/// The operations, made safe against having been cut short (a kill, a power failure):
///
/// - what an operation that died left in the volume's temporary directory, and a description of the
///   server's that was cut off, are removed first;
/// - while an operation may be changing files a recovery mark stands beside the database's
///   version.json. One that is found there sets version.json aside (as version.json.aside), so that
///   the database is installed in full. It is removed when an operation has succeeded, with all
///   data on the disk, and when one failed before it changed a file. A forced installation puts
///   files over the installed ones and repairs nothing: a mark that it finds stays;
/// - a version.json whose version is no number is set aside likewise; the library would fail on it
///   for ever.
///
/// A database that is not configured is refused, also by ForceInstall, and so are a volume and a
/// place of installation whose listings do not tell directories from files (std::runtime_error,
/// before anything is changed). What is found and done is
/// reported. All of it happens under a lock of its own, which the operations of other processes
/// wait for (up to 600 s), and the preparation under the library's lock of all operations.
class RecoveringUpdate : public dataupdate::Update {
 public:
  RecoveringUpdate(std::shared_ptr<dataupdate::Updater> updater,
                   std::shared_ptr<RecordingInfoGetter> info,
                   std::shared_ptr<dataupdate::ServiceConfig> config, Report report);

  void UpdateProject(const std::string& name) const override;
  void FixProject(const std::string& name) const override;
  void ForceInstall(const std::string& name, int version) const override;

 private:
  void Operate(const std::string& name, bool repairs, const std::function<void()>& operation) const;

  std::shared_ptr<RecordingInfoGetter> info_;
  std::shared_ptr<dataupdate::ServiceConfig> config_;
  Report report_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_RECOVERY_H_

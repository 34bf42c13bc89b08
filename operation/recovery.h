#ifndef TOLM_OPERATION_RECOVERY_H_
#define TOLM_OPERATION_RECOVERY_H_

#include <functional>
#include <memory>
#include <string>

#include "operation/operation_info.h"

namespace tolm::operation {

struct Installation;

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
///   for ever;
/// - files that are not those that were installed (see Examine) are replaced by the full package
///   of what is offered, whatever version that is; a forced installation does not look;
/// - what is installed and the highest version of it are recorded, and nothing below that version
///   is installed again but by a forced installation.
///
/// Damaged settings (DamagedSettings) and a database that is not configured are refused, also by
/// ForceInstall, and so are a volume and a place of installation whose listings do not tell
/// directories from files or whose ground is not root's alone (std::runtime_error, before anything
/// is changed). What is found and done is reported. All of it happens under a lock of its own,
/// which the operations of other processes wait for (up to 600 s), and the preparation under the
/// library's lock of all operations.
class RecoveringUpdate : public dataupdate::Update {
 public:
  RecoveringUpdate(std::shared_ptr<dataupdate::Updater> updater,
                   std::shared_ptr<OperationInfo> info,
                   std::shared_ptr<dataupdate::ServiceConfig> config, Report report);

  void UpdateProject(const std::string& name) const override;
  void FixProject(const std::string& name) const override;
  void ForceInstall(const std::string& name, int version) const override;

 private:
  void Operate(const std::string& name, const Order& order,
               const std::function<void()>& operation) const;
  void KeepFloor(const std::string& name) const;
  void ExamineFiles(const Installation& installation) const;
  void InstallWhatIsAuthorized(const std::string& name) const;
  void TellOfUncompared(const std::string& name) const;
  void FixOrReplace(const std::string& name) const;
  void Say(const std::string& name, const std::string& what) const;

  std::shared_ptr<OperationInfo> info_;
  std::shared_ptr<dataupdate::ServiceConfig> config_;
  Report report_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_RECOVERY_H_

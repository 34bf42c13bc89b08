#ifndef TOLM_OPERATION_SERVICE_H_
#define TOLM_OPERATION_SERVICE_H_

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "dataupdate/config.h"
#include "dataupdate/update.h"
#include "dataupdate/volume_handler.h"
#include "operation/export.h"

namespace tolm::operation {

/// The installed version of a database that was never installed.
inline constexpr int kNeverInstalled = -1;

/// An InfoGetter that also remembers which installed states were stored through it: the operations
/// return nothing, so this is how a program learns what they did.
class TOLM_OPERATION_API RecordingInfoGetter : public dataupdate::InfoGetter {
 public:
  using InfoGetter::InfoGetter;
  void SetDatabaseStatus(const std::string& name,
                         const dataupdate::DatabaseStatus& status) const override;
  /// Throws std::runtime_error that names the file when the recorded version is no number, in place
  /// of the standard conversion's own words.
  dataupdate::DatabaseStatus GetDatabaseStatus(const std::string& name) const override;

  /// The same for a version that the server offers.
  dataupdate::RemoteInfo GetRemoteInfo(const std::string& name) const override;
  std::map<int, dataupdate::DiffInfo> GetDiffInfos(const std::string& name) const override;

  /// An operation on the database begins: notes which version is installed and forgets what earlier
  /// ones did to it.
  void BeginOperation(const std::string& name);
  /// The version last stored for each database since an operation on it began.
  const std::map<std::string, int>& stored_versions() const { return stored_versions_; }
  /// The version that was installed when it began; -1 for none, or none that can be read.
  int VersionBefore(const std::string& name) const;

 private:
  std::map<std::string, int> versions_before_;
  // The operation that it overrides is const.
  mutable std::map<std::string, int> stored_versions_;
};

/// Told in one line what was found and done beside what was asked for; the system log has it too.
using Report = std::function<void(const std::string&)>;

/// The library's objects, put together over the real files. One thread at a time may work with
/// them; other processes may do what they like, everything that must be alone is under a lock.
struct Service {
  std::shared_ptr<dataupdate::ServiceConfig> config;
  std::shared_ptr<RecordingInfoGetter> info;
  std::shared_ptr<dataupdate::Update> update;
  std::shared_ptr<dataupdate::Checker> checker;
  std::shared_ptr<dataupdate::VolumeHandler> volumes;
};

/// Touches no file yet. The operations are made safe against having been cut short (a kill, a power
/// failure): each first repairs, or leaves for a full installation, what an earlier one has left,
/// and refuses a database that is not configured. Whoever runs them one by one, without a Run, has
/// that and nothing else around them.
///
/// `report` is called in the thread that runs an operation, and may not throw. Throws
/// std::runtime_error when this library does not come before libtolmplatform in the order in which
/// the process looks names up, as it does in a program that is linked with it.
TOLM_OPERATION_API Service BuildService(Report report);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SERVICE_H_

#ifndef TOLM_OPERATION_OPERATION_INFO_H_
#define TOLM_OPERATION_OPERATION_INFO_H_

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "operation/installed_record.h"
#include "operation/offered_package.h"
#include "operation/service.h"

namespace tolm::operation {

enum class OperationKind { kUpdate, kFix, kForceInstall };

struct Order {
  OperationKind kind;
  int version = 0;  ///< That a forced installation was asked for.
};

/// What the library's operations are told of what is offered and installed, and where they store
/// what they have installed. Between Begin and End it knows which operation on which database runs;
/// outside of that it is a RecordingInfoGetter.
class OperationInfo : public RecordingInfoGetter {
 public:
  using RecordingInfoGetter::RecordingInfoGetter;

  /// @p close takes from others what they may write among the installed files.
  void Begin(const std::string& name, const Order& order, const std::string& directory,
             std::function<void()> close);
  void End();

  /// The next operation on the database, which is none yet, installs in full, for that reason.
  void DemandFullInstallation(const std::string& name, const std::string& why) {
    demanded_[name] = why;
  }
  /// Its files were compared with the package just now.
  void NoteCompared(const std::string& name) { compared_.insert(name); }
  bool IsCompared(const std::string& name) const { return compared_.count(name) != 0; }
  /// None that has not begun does so any more, and the comparison was one of earlier.
  void WithdrawDemand(const std::string& name) {
    demanded_.erase(name);
    compared_.erase(name);
  }
  /// Why this operation installs in full from the beginning; empty when it does not.
  const std::string& DemandedBecause() const { return demanded_because_; }

  /// From now on the database counts as never installed, and no deltas are offered: only the full
  /// package is left.
  void InstallInFull() { in_full_ = true; }
  /// The newest version that the operation was told of; nothing when it has not asked yet.
  std::optional<int> OfferedVersion() const { return offered_version_; }
  /// The offered version where it is below the installed one and yet is to take its place (see
  /// trust_state.h); nothing otherwise, nor for unsigned descriptions. Asks the server where the
  /// library would, and throws as it does.
  std::optional<int> LowerVersionFor(const std::string& name) const;
  /// Every package of which a signed description has told the operation so far.
  const OfferedPackages& Packages() const { return packages_; }
  /// What was installed before the operation, read once; nothing without a current record. Not to
  /// be asked after SetDatabaseStatus(), which gives its memory to the next one.
  const std::optional<InstalledRecord>& Record() const;

  dataupdate::RemoteInfo GetRemoteInfo(const std::string& name) const override;
  std::map<int, dataupdate::DiffInfo> GetDiffInfos(const std::string& name) const override;
  /// To a repair the digests of all files that are recorded, not only of those that the last
  /// operation has put in place.
  dataupdate::DatabaseStatus GetDatabaseStatus(const std::string& name) const override;
  /// Records besides what is installed and raises the floor; a forced installation sets it. Throws
  /// base::FileError or std::system_error when that fails.
  void SetDatabaseStatus(const std::string& name,
                         const dataupdate::DatabaseStatus& status) const override;

 private:
  bool Runs(const std::string& name) const { return name_ == name; }
  void NotePackages(const Json::Value& description) const;
  dataupdate::RemoteInfo OfferAskedFor(const Json::Value& description,
                                       const dataupdate::RemoteInfo& offered) const;
  void TellRollout(const Json::Value& description) const;
  void FollowNewerSigner(const std::string& name, int version) const;

  std::optional<std::string> name_;
  OperationKind kind_ = OperationKind::kUpdate;
  int asked_version_ = 0;  // Of a forced installation.
  std::string directory_;
  std::function<void()> close_;
  InstalledTree tree_before_;  // Of a forced installation only.
  bool in_full_ = false;
  std::int64_t signer_before_ = 0;  // As offer::Accepted::epoch.
  std::map<std::string, std::string> demanded_;
  std::set<std::string> compared_;
  std::string demanded_because_;
  // The operations that it overrides are const.
  mutable std::optional<int> offered_version_;
  mutable OfferedPackages packages_;
  mutable bool has_read_record_ = false;
  mutable std::optional<InstalledRecord> record_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_OPERATION_INFO_H_

#include "operation/operation_info.h"

#include <malloc.h>
#include <sys/stat.h>

#include <ctime>
#include <exception>
#include <utility>

#include "base/log.h"
#include "base/paths.h"
#include "operation/description_reader.h"
#include "operation/installed_files.h"
#include "operation/offers.h"
#include "operation/rollout.h"
#include "operation/tell_road.h"
#include "operation/trust_state.h"

namespace tolm::operation {

using dataupdate::DatabaseStatus;
using dataupdate::FileStatus;

namespace {
constexpr char kLogSource[] = "operation";

// What an operation on many files has freed are as many small pieces. The C library joins them when
// it is asked for a large one; until then what is made next takes new memory beside them.
void JoinFreedMemory() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}
}  // namespace

void OperationInfo::Begin(const std::string& name, const Order& order, const std::string& directory,
                          std::function<void()> close) {
  BeginOperation(name);
  signer_before_ = ReadSignedState().accepted.epoch;
  name_ = name;
  kind_ = order.kind;
  asked_version_ = order.version;
  directory_ = directory;
  close_ = std::move(close);
  tree_before_ = kind_ == OperationKind::kForceInstall ? LookAt(directory) : InstalledTree();
  demanded_because_ = std::exchange(demanded_[name], "");
  in_full_ = !demanded_because_.empty();
  offered_version_.reset();
  packages_.clear();
}

void OperationInfo::End() {
  name_.reset();
  has_read_record_ = false;
  record_.reset();
  close_ = nullptr;
  tree_before_ = InstalledTree();
}

const std::optional<InstalledRecord>& OperationInfo::Record() const {
  if (!has_read_record_ && name_) {
    try {
      record_ = ReadRecord(*name_);
    } catch (const std::exception&) {
      // What is put in its place is made of all files.
      if (!in_full_ && kind_ != OperationKind::kForceInstall) {
        throw;
      }
    }
    has_read_record_ = true;
  }
  return record_;
}

// What was named stays named, also when another description comes between two questions.
void OperationInfo::NotePackages(const Json::Value& description) const {
  for (const auto& [tag, package] : SignedPackagesIn(description, *name_)) {
    packages_[tag] = package;
  }
}

void OperationInfo::TellRollout(const Json::Value& description) const {
  if (const std::optional<Rollout> rollout = RolloutIn(description, *name_)) {
    TellRoad(*name_ + ": " + RolloutText(*rollout, std::time(nullptr)));
  }
}

dataupdate::RemoteInfo OperationInfo::GetRemoteInfo(const std::string& name) const {
  const Json::Value description = GetDatabaseInfo();
  const dataupdate::RemoteInfo remote = OfferIn(description, name);
  if (Runs(name)) {
    if (!offered_version_) {
      TellRollout(description);
    }
    offered_version_ = remote.data_version;
    NotePackages(description);
    if (kind_ == OperationKind::kForceInstall) {
      return OfferAskedFor(description, remote);
    }
  }
  return remote;
}

// A link is made from that of the version that is told here. The stable version and the staged one
// may lie in different directories, so who asks for the other one is told that one.
dataupdate::RemoteInfo OperationInfo::OfferAskedFor(const Json::Value& description,
                                                    const dataupdate::RemoteInfo& offered) const {
  const std::optional<dataupdate::RemoteInfo> other = OtherOfferIn(description, *name_);
  return other && other->data_version == asked_version_ ? *other : offered;
}

std::optional<int> OperationInfo::LowerVersionFor(const std::string& name) const {
  if (!ReadSignedState().is_wanted) {
    return std::nullopt;
  }
  const int offered = GetRemoteInfo(name).data_version;  // What is authorized may follow from it.
  const std::optional<int> authorized = LookForAuthorized(name);
  const bool is_lower = authorized && *authorized <= offered && offered < VersionBefore(name);
  return is_lower ? std::make_optional(offered) : std::nullopt;
}

std::map<int, dataupdate::DiffInfo> OperationInfo::GetDiffInfos(const std::string& name) const {
  if (Runs(name) && in_full_) {
    return {};
  }
  const Json::Value description = GetDatabaseInfo();
  if (Runs(name)) {
    NotePackages(description);
  }
  return DeltasIn(description, name);
}

DatabaseStatus OperationInfo::GetDatabaseStatus(const std::string& name) const {
  if (Runs(name) && in_full_) {
    return DatabaseStatus();
  }
  DatabaseStatus status = RecordingInfoGetter::GetDatabaseStatus(name);
  if (!Runs(name) || kind_ != OperationKind::kFix || status.data_version == kNeverInstalled) {
    return status;
  }
  if (Record()) {
    status.file_statuses.clear();
    for (const auto& [file, recorded] : Record()->files) {
      if (S_ISREG(recorded.seen.mode)) {
        status.file_statuses.emplace(file, FileStatus(recorded.sha384));
      }
    }
  }
  return status;
}

void OperationInfo::SetDatabaseStatus(const std::string& name, const DatabaseStatus& status) const {
  if (!Runs(name)) {
    RecordingInfoGetter::SetDatabaseStatus(name, status);
    return;
  }
  JoinFreedMemory();
  // Before the version.json that it belongs to is replaced.
  Record();
  has_read_record_ = false;  // It is moved on: two of a hundred thousand files take much memory.
  std::optional<InstalledRecord> before = std::exchange(record_, std::nullopt);
  RecordingInfoGetter::SetDatabaseStatus(name, status);
  InstalledTree tree = LookAt(directory_);
  if (tree.is_open) {
    close_();
    tree = LookAt(directory_);
  }
  if (kind_ == OperationKind::kForceInstall) {
    RecordForcedInstallation(name, directory_, status.data_version, tree, tree_before_,
                             std::move(before));
    NoteInstalled(name, status.data_version, true);
  } else {
    RecordInstallation(name, status.data_version, tree, status.file_statuses, std::move(before));
    NoteInstalled(name, status.data_version, false);
    FollowNewerSigner(name, status.data_version);
  }
}

// Another process may have heard of one since the operation was told what is offered.
void OperationInfo::FollowNewerSigner(const std::string& name, int version) const {
  if (ReadSignedState().accepted.epoch <= signer_before_) {
    return;
  }
  try {
    const Json::Value description = DescriptionReader().ReadJson(paths::kDatabaseInfo);
    const int offered = OfferIn(description, name).data_version;
    if (offered < version) {
      NoteSuperseded(name, {offered, version});
    }
  } catch (const std::exception& error) {
    syslog(LOG_WARNING, "%s:%d %s: what a newer signer offers is not known: %s", TOLM_LOG_HERE,
           name.c_str(), error.what());
  }
}

}  // namespace tolm::operation

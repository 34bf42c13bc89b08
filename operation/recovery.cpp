#include "operation/recovery.h"

#include <fcntl.h>

#include <boost/format.hpp>
#include <cstdint>
#include <filesystem>
#include <system_error>

#include "base/file.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "operation/directory_types.h"
#include "operation/interruptible_lock.h"
#include "operation/platform_calls.h"
#include "operation/tree_fingerprint.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::DatabaseStatus;
using dataupdate::FileLock;
using dataupdate::IOUtils;
using dataupdate::NoexceptFormat;
using dataupdate::UpdateError;

constexpr char kLogSource[] = "recovery";

std::string VersionFile(const std::string& name) {
  return (NoexceptFormat(paths::kVersionFile) % name).str();
}

// The names in the directory are on the disk, and the directory's own name.
void SyncDirectory(const fs::path& directory) {
  base::SyncDirectory(directory);
  base::SyncDirectory(directory.parent_path());
}

// Without one it has not begun: a mark that is not safely on the disk goes again, or the next
// operation would repair what nothing has damaged.
void WriteMark(const std::string& mark) {
  IOUtils().TolmMkdir(fs::path(mark).parent_path());
  std::error_code ignored;
  const bool was_there = fs::exists(mark, ignored);
  try {
    base::File(mark, O_WRONLY | O_CREAT | O_TRUNC).Sync();
    SyncDirectory(fs::path(mark).parent_path());
  } catch (...) {
    if (!was_there) {
      fs::remove(mark, ignored);
    }
    throw;
  }
}

void RemoveMark(const std::string& mark) {
  fs::remove(mark);
  SyncDirectory(fs::path(mark).parent_path());
}

void SetAside(const std::string& file) {
  if (fs::exists(fs::symlink_status(file))) {
    fs::rename(file, file + ".aside");
    SyncDirectory(fs::path(file).parent_path());
  }
}

// Damage that the library itself takes for "never installed" is none of this.
bool HoldsUnreadableVersion(const std::string& version_file) {
  try {
    DatabaseStatus::FromJson(IOUtils().ReadJson(version_file));
  } catch (const UpdateError&) {
    return false;
  } catch (const std::exception&) {
    return true;
  }
  return false;
}

bool IsReadable(const std::string& json_file) {
  try {
    IOUtils().ReadJson(json_file);
  } catch (const UpdateError& error) {
    return error.code() == UpdateError::kFileNotExist;
  }
  return true;
}

// What one database's operation works on.
struct Installation {
  std::string name;
  std::string volume;
  std::string directory;
};

// Everything before the operation. Returns whether an earlier one was cut short.
class Preparation {
 public:
  Preparation(const Installation& installation, const Report& report)
      : installation_(installation),
        report_(report),
        any_lock_(paths::kUpdateAnyLock, rules::kLockWaitSeconds) {}

  void RemoveLeftOvers() const {
    if (installation_.volume.empty()) {
      return;
    }
    const std::string left = (NoexceptFormat(paths::kTemporaryRoot) % installation_.volume).str();
    if (fs::exists(fs::symlink_status(left))) {
      IOUtils().RmRf(left);
      Say("removed what an earlier operation left in " + left);
    }
  }

  void RemoveUnreadableDescription() const {
    const FileLock lock(paths::kFreshInfoLock, rules::kLockWaitSeconds);
    if (!IsReadable(paths::kDatabaseInfo)) {
      IOUtils().RmRf(paths::kDatabaseInfo);
      Say("removed the unreadable " + std::string(paths::kDatabaseInfo));
    }
  }

  void SetUnreadableVersionAside() const {
    const std::string version_file = VersionFile(installation_.name);
    if (HoldsUnreadableVersion(version_file)) {
      SetAside(version_file);
      Say("the version in " + version_file + " is no number; kept as version.json.aside");
    }
  }

  bool FindMark() const { return fs::exists(RecoveryMarkPath(installation_.name)); }

  void SetCutShortAside() const {
    SetAside(VersionFile(installation_.name));
    Say("an earlier operation was cut short; version.json is set aside, for a full installation");
  }

  void LeaveCutShort() const {
    Say("an earlier operation was cut short; a forced installation does not repair that");
  }

 private:
  void Say(const std::string& what) const {
    syslog(LOG_WARNING, "%s:%d %s: %s", TOLM_LOG_HERE, installation_.name.c_str(), what.c_str());
    report_(installation_.name + ": " + what);
  }

  const Installation& installation_;
  const Report& report_;
  FileLock any_lock_;
};

// Returns whether an earlier operation was cut short. Leaves a recovery mark.
bool Prepare(const Installation& installation, bool repairs, const Report& report) {
  const Preparation preparation(installation, report);
  preparation.RemoveLeftOvers();
  preparation.RemoveUnreadableDescription();
  preparation.SetUnreadableVersionAside();
  if (!preparation.FindMark()) {
    WriteMark(RecoveryMarkPath(installation.name));
    return false;
  }
  if (repairs) {
    preparation.SetCutShortAside();
  } else {
    preparation.LeaveCutShort();
  }
  return true;
}

// An entry that cannot be looked at counts as changed.
bool IsUnchanged(const std::string& directory, std::uint64_t before) {
  try {
    return TreeFingerprint(directory) == before;
  } catch (const std::exception&) {
    return false;
  }
}

// Files and record are on the disk before the mark goes: a power failure loses none of them.
void SyncInstallation(const Installation& installation) {
  base::File(installation.directory, O_RDONLY | O_DIRECTORY).SyncFileSystem();
  base::File(VersionFile(installation.name), O_RDONLY).Sync();
}

}  // namespace

std::string RecoveryMarkPath(const std::string& name) {
  return (NoexceptFormat(paths::kRecoveryMark) % name).str();
}

RecoveringUpdate::RecoveringUpdate(std::shared_ptr<dataupdate::Updater> updater,
                                   std::shared_ptr<RecordingInfoGetter> info,
                                   std::shared_ptr<dataupdate::ServiceConfig> config, Report report)
    : Update(std::move(updater), info, config),
      info_(std::move(info)),
      config_(std::move(config)),
      report_(std::move(report)) {}

void RecoveringUpdate::UpdateProject(const std::string& name) const {
  Operate(name, true, [&] { Update::UpdateProject(name); });
}

void RecoveringUpdate::FixProject(const std::string& name) const {
  Operate(name, true, [&] { Update::FixProject(name); });
}

void RecoveringUpdate::ForceInstall(const std::string& name, int version) const {
  Operate(name, false, [&] { Update::ForceInstall(name, version); });
}

void RecoveringUpdate::Operate(const std::string& name, bool repairs,
                               const std::function<void()>& operation) const {
  config_->CheckSupported(name);
  const FileLock lock =
      InterruptibleLock(paths::kOperatorLock, [] { TellBegan({StepKind::kWait}); });
  const Installation installation{name, config_->GetCurVolume(),
                                  config_->GetDatabaseConfig(name)->GetInstallPrefix()};
  RequireTypes(installation.volume);
  RequireTypes(installation.directory);
  info_->BeginOperation(name);
  const bool was_cut_short = Prepare(installation, repairs, report_);
  const std::uint64_t before = TreeFingerprint(installation.directory);
  try {
    operation();
  } catch (...) {
    if (!was_cut_short && IsUnchanged(installation.directory, before)) {
      RemoveMark(RecoveryMarkPath(name));
    }
    throw;
  }
  const bool stored = info_->stored_versions().count(name) != 0;
  if (stored) {
    SyncInstallation(installation);
  }
  if (!was_cut_short || (repairs && stored)) {
    RemoveMark(RecoveryMarkPath(name));
  }
}

}  // namespace tolm::operation

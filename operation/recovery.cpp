#include "operation/recovery.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/format.hpp>
#include <cstdint>
#include <filesystem>
#include <system_error>

#include "base/file.h"
#include "base/log.h"
#include "base/messages.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "operation/belief.h"
#include "operation/demands.h"
#include "operation/description_reader.h"
#include "operation/directory_types.h"
#include "operation/failure.h"
#include "operation/installed_files.h"
#include "operation/installed_record.h"
#include "operation/interrupt.h"
#include "operation/interruptible_lock.h"
#include "operation/lock_files.h"
#include "operation/own_ground.h"
#include "operation/partial_downloads.h"
#include "operation/platform_calls.h"
#include "operation/settings_check.h"
#include "operation/trust_state.h"
#include "operation/write_rights.h"

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

// Damage that the library itself takes for "never installed" is none of this. What a record was
// made for has been read.
bool HoldsUnreadableVersion(const std::string& name) {
  try {
    if (ReadRecordHead(name).state == RecordState::kCurrent) {
      return false;
    }
    DatabaseStatus::FromJson(DescriptionReader().ReadJson(VersionFile(name)));
  } catch (const UpdateError&) {
    return false;
  } catch (const std::exception&) {
    return true;
  }
  return false;
}

bool IsReadable(const std::string& json_file) {
  try {
    DescriptionReader().ReadJson(json_file);
  } catch (const Disbelieved&) {
    return true;  // Whoever asks the server says what is amiss with it.
  } catch (const UpdateError& error) {
    return error.code() == UpdateError::kFileNotExist;
  }
  return true;
}

// Everything before the operation. Returns whether an earlier one was cut short.
class Preparation {
 public:
  Preparation(const Installation& installation, OwnGround& ground, const Report& say)
      : installation_(installation),
        ground_(ground),
        say_(say),
        any_lock_(paths::kUpdateAnyLock, rules::kLockWaitSeconds) {}

  void RemoveLeftOvers() const {
    if (!installation_.volume.empty() && ground_.RemoveLeftOvers()) {
      say_("removed what an earlier operation left in " + ground_.temporary());
    }
  }

  void RemoveUnreadableDescription() const {
    const FileLock lock(paths::kFreshInfoLock, rules::kLockWaitSeconds);
    if (!IsReadable(paths::kDatabaseInfo)) {
      IOUtils().RmRf(paths::kDatabaseInfo);
      say_("removed the unreadable " + std::string(paths::kDatabaseInfo));
    }
  }

  void SetUnreadableVersionAside() const {
    const std::string version_file = VersionFile(installation_.name);
    if (fs::is_fifo(version_file)) {  // Whoever writes it would wait, too.
      SetAside(version_file);
      say_(version_file + " is no regular file; kept as version.json.aside");
    } else if (HoldsUnreadableVersion(installation_.name)) {
      SetAside(version_file);
      say_("the version in " + version_file + " is no number; kept as version.json.aside");
    }
  }

  bool FindMark() const { return fs::exists(RecoveryMarkPath(installation_.name)); }

  void SetCutShortAside() const {
    if (NothingIsThere()) {
      return;
    }
    SetAside(VersionFile(installation_.name));
    say_("an earlier operation was cut short; version.json is set aside, for a full installation");
  }

  void LeaveCutShort() const {
    say_("an earlier operation was cut short; a forced installation does not repair that");
  }

 private:
  // A first installation was ended before it put a file in its place: nothing is half replaced.
  bool NothingIsThere() const {
    std::error_code error;
    const auto no_file = [&error](const fs::path& path) {
      return fs::symlink_status(path, error).type() == fs::file_type::not_found;
    };
    const bool is_empty =
        no_file(installation_.directory) || fs::is_empty(installation_.directory, error);
    return is_empty && no_file(VersionFile(installation_.name));
  }

  const Installation& installation_;
  OwnGround& ground_;
  const Report& say_;
  FileLock any_lock_;
};

// Returns whether an earlier operation was cut short. Leaves a recovery mark.
bool Prepare(const Installation& installation, OwnGround& ground, bool repairs, int version_before,
             const Report& say) {
  const Preparation preparation(installation, ground, say);
  preparation.RemoveLeftOvers();
  preparation.RemoveUnreadableDescription();
  TidyPartials();
  if (version_before == kNeverInstalled) {
    preparation.SetUnreadableVersionAside();
  }
  if (!preparation.FindMark()) {
    WriteMark(RecoveryMarkPath(installation.name));
    return false;
  }
  if (repairs) {
    if (FloorOf(installation.name) == kNeverInstalled) {
      RaiseFloor(installation.name, version_before);  // It is not known any more afterwards.
    }
    preparation.SetCutShortAside();
  } else {
    preparation.LeaveCutShort();
  }
  return true;
}

// An entry that cannot be looked at counts as changed.
bool IsUnchanged(const std::string& directory, std::uint64_t before) {
  try {
    return GlanceAtTree(directory).fingerprint == before;
  } catch (const std::exception&) {
    return false;
  }
}

// What is made is for everybody to read and for root to write, whoever has started this.
class UsualMask {
 public:
  UsualMask() : before_(umask(022)) {}
  ~UsualMask() { umask(before_); }
  UsualMask(const UsualMask&) = delete;
  UsualMask& operator=(const UsualMask&) = delete;

 private:
  const mode_t before_;
};

// For which operation the information is asked, as long as this lives.
class OperationScope {
 public:
  OperationScope(OperationInfo& info, const Installation& installation, const Order& order,
                 const OwnGround& ground)
      : info_(info) {
    // A plug-in may have opened what it was given.
    info.Begin(installation.name, order, installation.directory,
               [&ground] { ground.CloseInstallation(); });
  }
  ~OperationScope() { info_.End(); }
  OperationScope(const OperationScope&) = delete;
  OperationScope& operator=(const OperationScope&) = delete;

 private:
  OperationInfo& info_;
};

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
                                   std::shared_ptr<OperationInfo> info,
                                   std::shared_ptr<dataupdate::ServiceConfig> config, Report report)
    : Update(std::move(updater), info, config),
      info_(std::move(info)),
      config_(std::move(config)),
      report_(std::move(report)) {}

void RecoveringUpdate::UpdateProject(const std::string& name) const {
  Operate(name, {OperationKind::kUpdate}, [&] {
    InstallWhatIsAuthorized(name);
    Update::UpdateProject(name);
  });
}

void RecoveringUpdate::FixProject(const std::string& name) const {
  Operate(name, {OperationKind::kFix}, [&] { FixOrReplace(name); });
}

void RecoveringUpdate::ForceInstall(const std::string& name, int version) const {
  Operate(name, {OperationKind::kForceInstall, version},
          [&] { Update::ForceInstall(name, version); });
}

// The library ends where a disk does not give an installed file, before it has changed anything.
void RecoveringUpdate::FixOrReplace(const std::string& name) const {
  try {
    Update::FixProject(name);
  } catch (const UpdateError& error) {
    if (std::string(error.what()) != messages::kNotReadForDigest) {
      throw;
    }
    Say(name, "an installed file cannot be read; the database is installed in full");
    info_->InstallInFull();
    Update::FixProject(name);
  }
}

void RecoveringUpdate::Say(const std::string& name, const std::string& what) const {
  syslog(LOG_WARNING, "%s:%d %s: %s", TOLM_LOG_HERE, name.c_str(), what.c_str());
  report_(name + ": " + what);
}

// What was never installed, or was set aside, is not examined.
void RecoveringUpdate::ExamineFiles(const Installation& installation) const {
  if (!fs::exists(VersionFile(installation.name))) {
    return;
  }
  const RecordState state = ReadRecordHead(installation.name).state;
  const bool is_unknown = state == RecordState::kMissing || state == RecordState::kOutdated;
  const auto installed = [&] { return info_->GetDatabaseStatus(installation.name); };
  const std::string problem =
      Examine(installation.name, installation.directory, installed, EndWhenInterrupted);
  if (!problem.empty()) {
    Say(installation.name, problem + "; the database is installed in full");
    info_->InstallInFull();
  } else if (is_unknown && !info_->IsCompared(installation.name)) {
    TellOfUncompared(installation.name);
  }
}

// The library takes what is lower for nothing new.
void RecoveringUpdate::InstallWhatIsAuthorized(const std::string& name) const {
  const int installed = info_->VersionBefore(name);
  const std::optional<int> lower = info_->LowerVersionFor(name);
  if (lower) {
    Say(name, "version " + std::to_string(*lower) + " takes the place of " +
                  std::to_string(installed) + ", as a newer signer of descriptions has it");
    info_->InstallInFull();
  }
}

// What version.json does not list is recorded as it is found.
void RecoveringUpdate::TellOfUncompared(const std::string& name) const {
  const std::size_t listed = info_->GetDatabaseStatus(name).file_statuses.size();
  const std::optional<InstalledRecord> record = ReadRecord(name);
  if (record && record->files.size() > listed) {
    Say(name,
        std::to_string(record->files.size() - listed) + " of " +
            std::to_string(record->files.size()) +
            " files are recorded as they are, since nothing was known of them; \"tolmdbud fix "
            "--package " +
            name + "\" compares them with the package");
  }
}

// What another program or an earlier release has installed counts as far as it is offered: a number
// that was damaged must not keep everything out.
void RecoveringUpdate::KeepFloor(const std::string& name) const {
  if (info_->OfferedVersion()) {
    RaiseFloor(name, std::min(info_->VersionBefore(name), *info_->OfferedVersion()));
  }
}

void RecoveringUpdate::Operate(const std::string& name, const Order& order,
                               const std::function<void()>& operation) const {
  RequireSoundSettings();
  config_->CheckSupported(name);
  const UsualMask mask;
  MakeLockFiles(*config_);
  const FileLock lock =
      InterruptibleLock(paths::kOperatorLock, [] { TellBegan({StepKind::kWait}); });
  const Installation installation{name, config_->GetCurVolume(),
                                  config_->GetDatabaseConfig(name)->GetInstallPrefix()};
  SecureStateDirectories(name);
  OwnGround ground(installation.volume, installation.directory);
  RequireTypes(installation.volume);
  RequireTypes(installation.directory);
  // First of all: whatever is looked at below is nobody else's to change any more.
  Glance before = GlanceAt(name, installation.directory);
  if (before.is_open) {
    ground.CloseInstallation();
    before = GlanceAt(name, installation.directory);
  }
  const OperationScope scope(*info_, installation, order, ground);
  const Report say = [&](const std::string& what) { Say(name, what); };
  const bool repairs = order.kind != OperationKind::kForceInstall;
  const bool was_cut_short =
      Prepare(installation, ground, repairs, info_->VersionBefore(name), say);
  Demands demands(installation, order.kind, order.version, *info_, say);
  try {
    if (!info_->DemandedBecause().empty()) {
      Say(name, info_->DemandedBecause() + "; the database is installed in full");
    } else if (repairs && !before.is_as_recorded) {
      ExamineFiles(installation);
    }
    const DemandedCalls demanded(demands);
    ground.Explaining(operation);
  } catch (...) {
    if (!was_cut_short && IsUnchanged(installation.directory, before.fingerprint)) {
      RemoveMark(RecoveryMarkPath(name));
    }
    if (!demands.Refusal().empty()) {
      throw ExplainedError(demands.Refusal(), UpdateError::kGeneral,
                           {reasons::kOlderVersion, demands.Refusal()});
    }
    throw;
  }
  const bool stored = info_->stored_versions().count(name) != 0;
  if (stored) {
    ground.RequireInstallation();
    SyncInstallation(installation);
  }
  if (!was_cut_short || (repairs && stored)) {
    RemoveMark(RecoveryMarkPath(name));
  }
  if (!stored) {
    KeepFloor(name);
  }
}

}  // namespace tolm::operation

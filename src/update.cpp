#include "dataupdate/update.h"

#include <boost/format.hpp>
#include <cstdint>
#include <limits>
#include <set>
#include <utility>

#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/strategy.h"
#include "dataupdate/updater.h"

namespace tolm::dataupdate {
namespace {

constexpr char kLogSource[] = "update";

// Both update locks, taken in the order that every operation keeps and released in reverse.
class UpdateLocks {
 public:
  explicit UpdateLocks(const std::string& name)
      : any_(paths::kUpdateAnyLock, rules::kLockWaitSeconds),
        project_((NoexceptFormat(paths::kUpdateLock) % name).str(), rules::kLockWaitSeconds) {}

 private:
  FileLock any_;
  FileLock project_;
};

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

int TargetVersion(int offered, int wanted) {
  const std::int64_t target = wanted > 0 ? wanted : std::int64_t{offered} + wanted;
  if (target < std::numeric_limits<int>::min()) {
    throw UpdateError("No such version: " + std::to_string(target));
  }
  return static_cast<int>(target);
}

}  // namespace

Update::Update(std::shared_ptr<Updater> updater, std::shared_ptr<InfoGetter> info_getter,
               std::shared_ptr<ServiceConfig> service_config)
    : updater_(std::move(updater)),
      info_getter_(std::move(info_getter)),
      service_config_(std::move(service_config)) {}

Update::~Update() = default;

void Update::OperateAllProjects(const std::function<void(const std::string&)>& operation) const {
  for (const std::string& id : service_config_->GetDatabaseIDs()) {
    try {
      const bool scheduled = service_config_->GetDatabaseConfig(id)->GetScheduled();
      const std::string volume = service_config_->GetCurVolume();
      if (!scheduled) {
        continue;
      }
      if (volume.empty()) {
        syslog(LOG_WARNING, "%s:%d There is no volume, stopping operation.", TOLM_LOG_HERE);
        return;
      }
      operation(id);
    } catch (const UpdateError& error) {
      throw UpdateError("Fail on project '" + id + "': " + error.what());
    }
  }
}

void Update::UpdateAllProjects() const {
  OperateAllProjects([this](const std::string& name) { UpdateProject(name); });
}

void Update::FixAllProjects() const {
  OperateAllProjects([this](const std::string& name) { FixProject(name); });
}

void Update::UpdateProject(const std::string& name) const {
  try {
    service_config_->CheckSupported(name);
    const UpdateLocks locks(name);
    DatabaseStatus installed = info_getter_->GetDatabaseStatus(name);
    const RemoteInfo remote = info_getter_->GetRemoteInfo(name);
    const std::map<int, DiffInfo> diffs = info_getter_->GetDiffInfos(name);
    const std::shared_ptr<DatabaseConfig> config = service_config_->GetDatabaseConfig(name);
    if (installed.data_version >= remote.data_version) {
      syslog(LOG_INFO, "%s:%d '%s' has been up to date", TOLM_LOG_HERE, name.c_str());
      return;
    }
    syslog(LOG_WARNING, "%s:%d Update %s", TOLM_LOG_HERE, name.c_str());
    const std::string volume = service_config_->GetCurVolume();
    if (volume.empty()) {
      syslog(LOG_WARNING, "%s:%d There is no volume, stopping updating.", TOLM_LOG_HERE);
      return;
    }
    const std::string install_prefix = config->GetInstallPrefix();
    const std::string root_directory = config->GetRootDirectory();
    const DatabaseStatus updated =
        updater_->Update(name, installed, remote, diffs, volume, install_prefix, root_directory);
    installed = DatabaseStatus();  // Of a hundred thousand files it takes much memory.
    info_getter_->SetDatabaseStatus(name, updated);
    syslog(LOG_WARNING, "%s:%d Update %s completed and succeed", TOLM_LOG_HERE, name.c_str());
  } catch (const UpdateError& error) {
    syslog(LOG_INFO, "%s:%d Update %s fail: %s", TOLM_LOG_HERE, name.c_str(), error.what());
    throw UpdateError(error);
  }
}

void Update::FixProject(const std::string& name) const {
  try {
    service_config_->CheckSupported(name);
    const UpdateLocks locks(name);
    const DatabaseStatus installed = info_getter_->GetDatabaseStatus(name);
    const RemoteInfo remote = info_getter_->GetRemoteInfo(name);
    const std::shared_ptr<DatabaseConfig> config = service_config_->GetDatabaseConfig(name);
    const std::string volume = service_config_->GetCurVolume();
    const std::string install_prefix = config->GetInstallPrefix();
    const std::string root_directory = config->GetRootDirectory();
    const Fixer fixer(name, remote, volume, install_prefix, root_directory);
    if (!fixer.IsFixNeeded(installed)) {
      return;
    }
    info_getter_->SetDatabaseStatus(name, fixer.Fix());
    syslog(LOG_WARNING, "%s:%d Fix %s completed and succeed", TOLM_LOG_HERE, name.c_str());
  } catch (const UpdateError& error) {
    syslog(LOG_INFO, "%s:%d Fix %s fail: %s", TOLM_LOG_HERE, name.c_str(), error.what());
    throw UpdateError(error);
  }
}

void Update::ForceInstall(const std::string& name, int version) const {
  const UpdateLocks locks(name);
  const RemoteInfo remote = info_getter_->GetRemoteInfo(name);
  const int target = TargetVersion(remote.data_version, version);
  const std::string link =
      ReplaceAll(remote.download_link, std::to_string(remote.data_version), std::to_string(target));
  const std::shared_ptr<DatabaseConfig> config = service_config_->GetDatabaseConfig(name);
  const std::string volume = service_config_->GetCurVolume();
  const std::string install_prefix = config->GetInstallPrefix();
  ForceInstallByLink strategy(name, link, volume, install_prefix, "/");
  strategy.PrepareUpdate();
  strategy.ApplyUpdate();
  const std::set<std::string> modified = strategy.GetModifiedFiles();
  const DatabaseStatus status(target, remote.last_fetch_time,
                              CalculateStatus(modified, install_prefix));
  info_getter_->SetDatabaseStatus(name, status);
}

}  // namespace tolm::dataupdate

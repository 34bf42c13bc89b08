#include "dataupdate/update.h"

#include <algorithm>
#include <boost/format.hpp>
#include <cstdint>
#include <limits>
#include <set>
#include <utility>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/strategy.h"
#include "dataupdate/updater.h"
#include "dataupdate/volume_handler.h"
#include "tolm/fs.h"
#include "tolm/hwid.h"

namespace tolm::dataupdate {
namespace {

constexpr char kLogSource[] = "update";
constexpr char kInvalidOffer[] = "Invalid json object for RemoteInfo";
constexpr int kCacheSeconds = 3600;
constexpr int kHardwareIdLength = 16;

std::string VersionFile(const std::string& name) {
  return (NoexceptFormat(paths::kVersionFile) % name).str();
}

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

std::string HardwareId() {
  std::string id;
  tolmcrypto_hwid* context = tolmcrypto_hwid_init();
  if (context != nullptr && tolmcrypto_hwid_str(context, kHardwareIdLength) != 0) {
    id = context->text;
  } else {
    syslog(LOG_ERR, "Failed to init hwid context");
  }
  if (context != nullptr) {
    tolmcrypto_hwid_free(context);
  }
  return id;
}

// A missing member reads as null; what should hold members and is no object makes the offer
// invalid.
const Json::Value& Member(const Json::Value& value, const std::string& name) {
  if (value.isNull()) {
    return Json::Value::nullSingleton();
  }
  if (!value.isObject()) {
    throw UpdateError(kInvalidOffer);
  }
  return value[name];
}

bool IsTrue(const Json::Value& flag) {
  if (!flag.isNull() && !flag.isConvertibleTo(Json::booleanValue)) {
    throw UpdateError(kInvalidOffer);
  }
  return flag.asBool();
}

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

bool IsHeld(const std::string& lock_path) {
  try {
    const FileLock probe(lock_path, 0);
    return false;
  } catch (const UpdateError&) {
    return true;
  }
}

}  // namespace

void InitService() {
  const auto io_utils = std::make_shared<IOUtils>();
  const auto config = std::make_shared<Config>(io_utils);
  const auto service_config = std::make_shared<ServiceConfig>(config);
  const VolumeHandler volume_handler(service_config);
  volume_handler.InitVolume();
}

InfoGetter::InfoGetter(std::shared_ptr<IOUtils> io_utils,
                       std::shared_ptr<ServiceConfig> service_config)
    : io_utils_(std::move(io_utils)), service_config_(std::move(service_config)) {}

InfoGetter::~InfoGetter() = default;

RemoteInfo InfoGetter::GetRemoteInfo(const std::string& name) const {
  const Json::Value document = GetDatabaseInfo();
  Json::Value entry = Member(Member(document, "db_list"), name);
  const Json::Value& service_wide = Member(document, "deprecated");
  if (!entry.isNull() && !entry.isObject()) {
    throw UpdateError(kInvalidOffer);
  }
  if (IsTrue(service_wide) || !entry.isMember("deprecated")) {
    entry["deprecated"] = service_wide;
  }
  return RemoteInfo::FromJson(entry);
}

std::map<int, DiffInfo> InfoGetter::GetDiffInfos(const std::string& name) const {
  const Json::Value document = GetDatabaseInfo();
  return DiffInfo::BatchFromJson(Member(Member(Member(document, "db_list"), name), "diff_files"));
}

DatabaseStatus InfoGetter::GetDatabaseStatus(const std::string& name) const {
  try {
    return DatabaseStatus::FromJson(io_utils_->ReadJson(VersionFile(name)));
  } catch (const UpdateError& error) {
    if (error.code() == UpdateError::kFileNotExist) {
      syslog(LOG_INFO, "%s:%d %s", TOLM_LOG_HERE, error.what());
    } else {
      syslog(LOG_WARNING, "%s:%d %s", TOLM_LOG_HERE, error.what());
      syslog(LOG_WARNING, "%s:%d %s version file gone or corrupted or in the first updating",
             TOLM_LOG_HERE, name.c_str());
    }
    return DatabaseStatus();
  }
}

void InfoGetter::SetDatabaseStatus(const std::string& name, const DatabaseStatus& status) const {
  io_utils_->WriteJson(VersionFile(name), DatabaseStatus::ToJson(status));
}

Json::Value InfoGetter::GetDatabaseInfo() const {
  try {
    io_utils_->TolmMkdir(paths::kCacheDirectory);
    const FileLock lock(paths::kFreshInfoLock, rules::kLockWaitSeconds);
    if (TLIBCFileExist(paths::kDatabaseInfo) == 0 ||
        io_utils_->FileCreateOver(paths::kDatabaseInfo, kCacheSeconds)) {
      io_utils_->Download(paths::kDatabaseInfo, GetDatabaseUrl());
    }
    return io_utils_->ReadJson(paths::kDatabaseInfo);
  } catch (const UpdateError& error) {
    syslog(LOG_INFO, "%s:%d Fail during fresh database info", TOLM_LOG_HERE);
    syslog(LOG_INFO, "%s:%d Error message: %s", TOLM_LOG_HERE, error.what());
    throw;
  }
}

std::string InfoGetter::GetDatabaseUrl() const {
  boost::format url("%s://%s/database_info/%s%s");
  url % service_config_->GetDownloadScheme();
  url % service_config_->GetDBInfoDomainName();
  url % service_config_->GetDBInfoVersion();
  url % GetQueryString();
  return url.str();
}

std::string InfoGetter::GetQueryString() const {
  std::string query = "?os=tmo&dlid=" + HardwareId();
  std::vector<std::string> names = service_config_->GetDatabaseIDs();
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string format_version = service_config_->GetDatabaseConfig(name)->GetFormatVersion();
    query += (boost::format("&db_list[%s]=%s") % name % format_version).str();
  }
  return query;
}

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
    const DatabaseStatus installed = info_getter_->GetDatabaseStatus(name);
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
    info_getter_->SetDatabaseStatus(name, updater_->Update(name, installed, remote, diffs, volume,
                                                           install_prefix, root_directory));
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

Checker::Checker(std::shared_ptr<ServiceConfig> service_config)
    : service_config_(std::move(service_config)) {}

Checker::~Checker() = default;

bool Checker::IsUpdating(const std::string& name) const {
  service_config_->CheckSupported(name);
  return IsHeld((NoexceptFormat(paths::kUpdateLock) % name).str());
}

bool Checker::IsAnyUpdating() const {
  return IsHeld(paths::kUpdateAnyLock);
}

}  // namespace tolm::dataupdate

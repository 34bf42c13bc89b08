#include <json/value.h>
#include <syslog.h>

#include <algorithm>
#include <boost/format.hpp>
#include <utility>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/update.h"
#include "tolm/fs.h"
#include "tolm/hwid.h"

namespace tolm::dataupdate {
namespace {

constexpr char kLogSource[] = "update";
constexpr char kInvalidOffer[] = "Invalid json object for RemoteInfo";

std::string VersionFile(const std::string& name) {
  return (NoexceptFormat(paths::kVersionFile) % name).str();
}

std::string HardwareId() {
  std::string id;
  tolmcrypto_hwid* context = tolmcrypto_hwid_init();
  if (context != nullptr && tolmcrypto_hwid_str(context, rules::kHardwareIdLength) != 0) {
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

}  // namespace

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
        io_utils_->FileCreateOver(paths::kDatabaseInfo, rules::kCacheSeconds)) {
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

}  // namespace tolm::dataupdate

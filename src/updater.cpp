#include "dataupdate/updater.h"

#include <boost/filesystem.hpp>
#include <memory>
#include <optional>
#include <utility>

#include "base/log.h"
#include "dataupdate/error.h"
#include "dataupdate/hook.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/strategy.h"
#include "digest_stream.h"
#include "file_system.h"

namespace tolm::dataupdate {
namespace {

constexpr char kLogSource[] = "updater";

// Of what is at the path; none when nothing is. What was opened need not be looked for.
std::optional<std::string> DigestOf(const std::string& path) {
  DigestStream in(path);
  if (in.fail() && !boost::filesystem::exists(path)) {
    return std::nullopt;
  }
  return GetSha384(in);
}

DatabaseStatus StatusAfter(const RemoteInfo& remote, std::set<std::string> modified,
                           const std::string& install_prefix) {
  DatabaseStatus status(remote.data_version, remote.last_fetch_time, {});
  status.file_statuses = CalculateStatus(std::move(modified), install_prefix);
  return status;
}

}  // namespace

bool CheckStatus(const std::map<std::string, FileStatus>& expected, const std::string& dir) {
  for (const auto& [name, status] : expected) {
    const std::string path = JoinPath(dir, name);
    const std::optional<std::string> digest = DigestOf(path);
    if (!digest) {
      syslog(LOG_ERR, "%s:%d File %s is gone", TOLM_LOG_HERE, path.c_str());
      return false;
    }
    if (*digest != status.sha384_digest) {
      syslog(LOG_ERR, "%s:%d File %s digest check fail", TOLM_LOG_HERE, path.c_str());
      return false;
    }
  }
  return true;
}

std::map<std::string, FileStatus> CalculateStatus(std::set<std::string> files,
                                                  const std::string& dir) {
  std::map<std::string, FileStatus> statuses;
  for (const std::string& name : files) {
    const std::optional<std::string> digest = DigestOf(JoinPath(dir, name));
    if (digest) {
      statuses.emplace_hint(statuses.end(), name, FileStatus(*digest));
    }
  }
  return statuses;
}

Fixer::Fixer(const std::string& name, const RemoteInfo& remote, const std::string& cur_volume,
             const std::string& install_prefix, const std::string& root_directory)
    : name_(name),
      remote_(remote),
      cur_volume_(cur_volume),
      install_prefix_(install_prefix),
      root_directory_(root_directory) {}

bool Fixer::IsFixNeeded(const DatabaseStatus& installed) const {
  if (installed.data_version == -1) {
    syslog(LOG_ERR, "%s:%d %s not been updated yet. Need Fix", TOLM_LOG_HERE, name_.c_str());
    return true;
  }
  if (CheckStatus(installed.file_statuses, install_prefix_)) {
    return false;
  }
  syslog(LOG_INFO, "%s:%d %s file check fail, Need Fix", TOLM_LOG_HERE, name_.c_str());
  return true;
}

DatabaseStatus Fixer::Fix() const {
  syslog(LOG_WARNING, "%s:%d Try to fix database %s", TOLM_LOG_HERE, name_.c_str());
  FullStrategy strategy(name_, remote_, cur_volume_, install_prefix_, root_directory_);
  strategy.PrepareUpdate();
  std::set<std::string> modified = strategy.GetModifiedFiles();
  UpdateHook hook(name_, modified);
  hook.ExecPre();
  strategy.ApplyUpdate();
  hook.ExecPost();
  return StatusAfter(remote_, modified, install_prefix_);
}

Updater::~Updater() = default;

DatabaseStatus Updater::Update(const std::string& name, const DatabaseStatus& installed,
                               const RemoteInfo& remote, const std::map<int, DiffInfo>& diffs,
                               const std::string& cur_volume, const std::string& install_prefix,
                               const std::string& root_directory) const {
  syslog(LOG_NOTICE, "%s:%d Prepare diff update: %s", TOLM_LOG_HERE, name.c_str());
  std::shared_ptr<BaseStrategy> strategy;
  try {
    strategy = std::make_shared<DiffStrategy>(name, installed, remote, diffs, cur_volume,
                                              install_prefix, root_directory);
    strategy->PrepareUpdate();
  } catch (const UpdateError& error) {
    // The assignment destroys the delta strategy, which removes its temporary data before the full
    // package needs the space (and before it could remove the full package's).
    strategy =
        std::make_shared<FullStrategy>(name, remote, cur_volume, install_prefix, root_directory);
    syslog(LOG_WARNING, "%s:%d Diff update fail, try full update: %s", TOLM_LOG_HERE, error.what());
    syslog(LOG_NOTICE, "%s:%d Prepare full update: %s", TOLM_LOG_HERE, name.c_str());
    strategy->PrepareUpdate();
  }
  std::set<std::string> modified = strategy->GetModifiedFiles();
  UpdateHook hook(name, modified);
  hook.ExecPre();
  syslog(LOG_NOTICE, "%s:%d Apply update: %s", TOLM_LOG_HERE, name.c_str());
  strategy->ApplyUpdate();
  hook.ExecPost();
  return StatusAfter(remote, std::move(modified), install_prefix);
}

}  // namespace tolm::dataupdate

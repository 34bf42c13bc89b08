#include "strategy_support.h"

#include <boost/filesystem.hpp>
#include <boost/format.hpp>

#include "base/messages.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "file_system.h"
#include "root.h"

namespace tolm::dataupdate {

namespace fs = boost::filesystem;

std::string TemporaryRoot(const std::string& volume) {
  return (NoexceptFormat(paths::kTemporaryRoot) % volume).str();
}

std::string PackageFile(const std::string& volume, const std::string& name,
                        const std::string& tag) {
  return (NoexceptFormat(paths::kPackageFile) % volume % name % tag).str();
}

FileLock LockOutReaders(const std::string& name) {
  return FileLock(kRoot + (NoexceptFormat(paths::kUsingLock) % name).str(),
                  rules::kLockWaitSeconds);
}

void ParentDirectories::Create(const std::string& path) {
  const std::string directory = path.substr(0, path.rfind('/') + 1);
  if (directory != last_) {
    fs::create_directories(fs::path(path).parent_path());
    last_ = directory;
  }
}

std::set<std::string> Keys(const std::map<std::string, ModifyInfo>& plan) {
  std::set<std::string> keys;
  for (const auto& entry : plan) {
    keys.insert(keys.end(), entry.first);
  }
  return keys;
}

void RequireIn(const std::string& root, const std::string& resolved) {
  if (!LiesIn(root, resolved)) {
    throw UpdateError("path not in base");
  }
}

bool IsSpaceEnough(const std::string& path, long long delta) {
  const auto [available, capacity] = IOUtils().GetFsSize(path);
  syslog(LOG_DEBUG, "%s:%d capacity: %ju", TOLM_LOG_HERE, std::uintmax_t{capacity});
  syslog(LOG_DEBUG, "%s:%d available: %jd", TOLM_LOG_HERE, std::intmax_t{available});
  syslog(LOG_DEBUG, "%s:%d delta: %jd", TOLM_LOG_HERE, static_cast<std::intmax_t>(delta));
  return static_cast<double>(delta + available) / static_cast<double>(capacity) > rules::kFreeShare;
}

void FinishPreparation(const BaseStrategy& strategy, const std::string& install_prefix,
                       const std::string& root_directory) {
  IOUtils().TolmMkdir(install_prefix);
  const long long delta = strategy.GetDeltaSize();
  if (!IsSpaceEnough(root_directory, delta)) {
    throw UpdateError(messages::kDiskSpaceTooLow);
  }
}

void CleanTarball(const std::string& path) {
  if (path.empty()) {
    return;
  }
  try {
    fs::remove(path);
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d Failed to clean tarball '%s': %s", TOLM_LOG_HERE, path.c_str(),
           TextOf(error));
  }
}

}  // namespace tolm::dataupdate

#include "operation/half_written.h"

#include <boost/format.hpp>
#include <exception>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "base/file.h"
#include "base/log.h"
#include "base/paths.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"

namespace tolm::operation {
namespace {

using dataupdate::FileLock;
using dataupdate::NoexceptFormat;

constexpr char kLogSource[] = "half_written";
constexpr std::uint32_t kNoWait = 0;

std::vector<std::string> ReplacedFiles(const dataupdate::ServiceConfig& config) {
  std::vector<std::string> files = {paths::kDatabaseOverrides,  paths::kTrustState,
                                    paths::kLearnedRevocations, paths::kHistory,
                                    paths::kCoolDowns,          paths::kMoveMark};
  for (const std::string& name : config.GetDatabaseIDs()) {
    for (const char* file : {paths::kInstalledRecord, paths::kVerified}) {
      files.push_back((NoexceptFormat(file) % name).str());
    }
  }
  return files;
}

void Remove(const std::string& file) {
  std::error_code error;
  if (std::filesystem::remove(file, error)) {
    syslog(LOG_WARNING, "%s:%d removed the half-written %s", TOLM_LOG_HERE, file.c_str());
  }
}

}  // namespace

void RemoveHalfWritten(const dataupdate::ServiceConfig& config) noexcept {
  try {
    const std::vector<std::string> files = ReplacedFiles(config);
    const FileLock operator_lock(paths::kOperatorLock, kNoWait);
    const FileLock description_lock(paths::kFreshInfoLock, kNoWait);
    const FileLock settings_lock(paths::kConfigLock, kNoWait);
    const FileLock notes_lock(paths::kNotesLock, kNoWait);
    for (const std::string& file : files) {
      Remove(base::StagingPath(file));
    }
  } catch (const std::exception&) {
    // Somebody is at work, or there are no settings to tell what there could be.
  }
}

}  // namespace tolm::operation

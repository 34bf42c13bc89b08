#ifndef TOLM_SRC_STRATEGY_SUPPORT_H_
#define TOLM_SRC_STRATEGY_SUPPORT_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "base/log.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/strategy.h"
#include "error_text.h"

/// What the strategies share.
namespace tolm::dataupdate {

/// All of them log under one name.
inline constexpr char kLogSource[] = "strategy";

/// The values of ModifyInfo::operation.
enum Operation : std::int32_t { kOverride = 1, kDelete = 2 };

/// The volume's temporary directory, and a database's package in it.
std::string TemporaryRoot(const std::string& volume);
std::string PackageFile(const std::string& volume, const std::string& name, const std::string& tag);

/// Waits until nobody reads the database; nobody begins to while this is held.
FileLock LockOutReaders(const std::string& name);

/// The directories above files that are installed one after the other.
class ParentDirectories {
 public:
  /// Makes what is missing above the path. Files of one directory that follow each other ask for it
  /// once. Throws boost::filesystem::filesystem_error.
  void Create(const std::string& path);

 private:
  std::string last_;
};

std::set<std::string> Keys(const std::map<std::string, ModifyInfo>& plan);

/// Throws UpdateError unless the second of two resolved paths is the first or lies below it.
void RequireIn(const std::string& root, const std::string& resolved);

/// The space rule: see BaseStrategy::_IsSpaceEnough.
bool IsSpaceEnough(const std::string& path, long long delta);

/// The end of every preparation: there is an install directory, and room for what the strategy
/// would install. Throws UpdateError.
void FinishPreparation(const BaseStrategy& strategy, const std::string& install_prefix,
                       const std::string& root_directory);

/// For destructors: what cannot be removed is said and stays.
void CleanTarball(const std::string& path);

/// The same for temporary data. The path is made here because that may fail too.
template <typename MakePath>
void RemoveTemporaryData(const char* verb, MakePath make_path) {
  try {
    IOUtils().RmRf(make_path());
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d Failed to %s tmp data: %s", TOLM_LOG_HERE, verb, TextOf(error));
  }
}

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_STRATEGY_SUPPORT_H_

#include "operation/lock_files.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/format.hpp>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "base/descriptor.h"
#include "base/file.h"
#include "base/paths.h"
#include "dataupdate/io_utils.h"
#include "operation/lock_holder.h"
#include "operation/operator_settings.h"
#include "operation/settings_check.h"
#include "operation/write_rights.h"

namespace tolm::operation {
namespace {

using dataupdate::NoexceptFormat;

constexpr mode_t kDirectoryMode = 0755;

struct Rights {
  gid_t group;
  mode_t mode;
};

gid_t GroupOf(const std::string& name) {
  std::vector<char> text(1 << 16);
  group entry{};
  group* found = nullptr;
  if (getgrnam_r(name.c_str(), &entry, text.data(), text.size(), &found) != 0 || found == nullptr) {
    throw std::runtime_error(std::string(paths::kOperationSettings) +
                             ": reader_group: there is no group " + name);
  }
  return found->gr_gid;
}

// Who may open the lock files.
class Policy {
 public:
  Policy() {
    const OperatorSettings settings = ReadOperatorSettings();
    if (settings.reader_group) {
      const Rights of_group{GroupOf(*settings.reader_group), 0640};
      readers_ = of_group;
      others_ = settings.group_opens_all_locks ? of_group : others_;
    }
  }

  const Rights& Readers() const { return readers_; }
  const Rights& Others() const { return others_; }

 private:
  Rights readers_{0, 0644};
  Rights others_{0, 0600};
};

bool HasRights(const struct stat& status, const Rights& rights) {
  return S_ISREG(status.st_mode) && status.st_uid == 0 && status.st_gid == rights.group &&
         (status.st_mode & 07777) == rights.mode;
}

// Root may lack the right: systemd takes it from units that do not need it.
[[noreturn]] void ThrowNotGiven(int errno_value, gid_t group, const std::string& path) {
  if (errno_value != EPERM) {
    throw base::FileError(errno_value, "set the group of", path);
  }
  throw std::system_error(errno_value, std::generic_category(),
                          "Fail to give " + path + " to group " + std::to_string(group) +
                              " (reader_group in " + paths::kOperationSettings +
                              "), for which CAP_CHOWN is needed, and @chown in a systemd unit");
}

void SetRights(int fd, const Rights& rights, const std::string& path) {
  struct stat status;
  if (fstat(fd, &status) != 0) {
    throw base::FileError(errno, "look at", path);
  }
  // Root need not have the capability where it is not needed.
  const bool is_owned = status.st_uid == 0 && status.st_gid == rights.group;
  if (!is_owned && fchown(fd, 0, rights.group) != 0) {
    ThrowNotGiven(errno, rights.group, path);
  }
  if (fchmod(fd, rights.mode) != 0) {
    throw base::FileError(errno, "set the mode of", path);
  }
}

// A lock file with its rights from the first moment, under a name of its own until it is in place.
class FreshFile {
 public:
  // What follows the delegation may throw: the destructor is run for it.
  FreshFile(const std::string& path, const Rights& rights) : FreshFile(path) {
    std::remove(staging_.c_str());
    const base::Descriptor file(
        open(staging_.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file.IsOpen()) {
      throw base::FileError(errno, "make", path);
    }
    SetRights(file.Get(), rights, path);
  }
  ~FreshFile() { std::remove(staging_.c_str()); }
  FreshFile(const FreshFile&) = delete;
  FreshFile& operator=(const FreshFile&) = delete;

  // Another process may have made one meanwhile.
  void PutWhereThereIsNone() const {
    if (link(staging_.c_str(), path_.c_str()) != 0 && errno != EEXIST) {
      throw base::FileError(errno, "make", path_);
    }
  }
  void PutInPlace() const {
    if (std::rename(staging_.c_str(), path_.c_str()) != 0) {
      throw base::FileError(errno, "replace", path_);
    }
  }

 private:
  explicit FreshFile(const std::string& path)
      : path_(path), staging_(path + ".new-" + std::to_string(getpid()) + '-' + Count()) {}
  static std::string Count() {
    static std::atomic<unsigned int> counter{0};
    return std::to_string(counter++);
  }

  std::string path_;
  std::string staging_;
};

bool IsHeldByRoot(const std::string& path) {
  const std::vector<LockHolder> holders = HoldersOf(path);
  return holders.empty() || std::any_of(holders.begin(), holders.end(),
                                        [](const LockHolder& held) { return held.is_roots; });
}

// What stands there has other rights.
void Replace(const std::string& path, const struct stat& status, const Rights& rights,
             bool is_readers) {
  const FreshFile fresh(path, rights);
  if (!S_ISREG(status.st_mode)) {
    fresh.PutInPlace();
    return;
  }
  const base::File old(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  if (flock(old.Get(), LOCK_EX | LOCK_NB) == 0) {
    fresh.PutInPlace();  // While it is held: nobody has it for theirs.
  } else if (is_readers) {
    SetRights(old.Get(), rights, path);
  } else if (!IsHeldByRoot(path)) {
    fresh.PutInPlace();
  }
}

void Make(const std::string& path, const Rights& rights, bool is_readers) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) {
    FreshFile(path, rights).PutWhereThereIsNone();
  } else if (!HasRights(status, rights)) {
    Replace(path, status, rights, is_readers);
  }
}

bool IsRoot() {
  return geteuid() == 0;
}

void MakeDirectory() {
  if (mkdir(paths::kLockDirectory, kDirectoryMode) == 0 &&
      chmod(paths::kLockDirectory, kDirectoryMode) != 0) {
    throw base::FileError(errno, "set the mode of", paths::kLockDirectory);
  }
  SecureStateDirectory(paths::kLockDirectory, false);
}

// Readers lock whatever a disk gives of the settings; their file must not wait for that.
std::vector<std::string> DatabasesToLock(const dataupdate::ServiceConfig& config) {
  try {
    return config.GetDatabaseIDs();
  } catch (const DamagedSettings&) {
    const auto as_the_library_reads =
        std::make_shared<dataupdate::Config>(std::make_shared<dataupdate::IOUtils>());
    return dataupdate::ServiceConfig(as_the_library_reads).GetDatabaseIDs();
  }
}

}  // namespace

void MakeLockFiles(const dataupdate::ServiceConfig& config) {
  if (!IsRoot()) {
    return;
  }
  const Policy policy;
  MakeDirectory();
  for (const char* const lock : {paths::kOperatorLock, paths::kUpdateAnyLock, paths::kFreshInfoLock,
                                 paths::kConfigLock, paths::kNotesLock}) {
    Make(lock, policy.Others(), false);
  }
  for (const std::string& name : DatabasesToLock(config)) {
    Make((NoexceptFormat(paths::kUpdateLock) % name).str(), policy.Others(), false);
    Make((NoexceptFormat(paths::kUsingLock) % name).str(), policy.Readers(), true);
  }
}

void MakeLockFile(const std::string& path) {
  if (IsRoot()) {
    const Policy policy;
    MakeDirectory();
    Make(path, policy.Others(), false);
  }
}

bool MayLock(const std::string& path) {
  return IsRoot() || access(path.c_str(), R_OK) == 0;
}

}  // namespace tolm::operation

#include "operation/write_rights.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <boost/format.hpp>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <system_error>

#include "base/descriptor.h"
#include "base/file.h"
#include "base/log.h"
#include "base/paths.h"
#include "dataupdate/io_utils.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::NoexceptFormat;

constexpr char kLogSource[] = "write_rights";
constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
// Nothing that was open to others runs with its owner's rights.
constexpr mode_t kKeptBits = S_ISVTX | 0777;
constexpr char kDefaultAcl[] = "system.posix_acl_default";

void RequireRoots(const struct stat& status, const std::string& path) {
  if (status.st_uid != 0) {
    throw ForeignGround(path + " belongs to user " + std::to_string(status.st_uid), "rm " + path);
  }
}

// What is made in the directory takes its rights from this list, whatever the umask.
void RemoveDefaultList(int directory, const std::string& path) {
  if (fgetxattr(directory, kDefaultAcl, nullptr, 0) > 0 &&
      fremovexattr(directory, kDefaultAcl) != 0) {
    throw base::FileError(errno, "remove the default rights of", path);
  }
}

void TakeWriteFromOthers(int fd, const struct stat& status, const std::string& path) {
  if ((status.st_mode & kOthersWrite) == 0) {
    return;
  }
  if (fchmod(fd, status.st_mode & kKeptBits & ~kOthersWrite) != 0) {
    throw base::FileError(errno, "set the mode of", path);
  }
  syslog(LOG_WARNING, "%s:%d %s could be written by others; it no longer can", TOLM_LOG_HERE,
         path.c_str());
}

void SecureFile(int directory, const std::string& name, const std::string& path) {
  struct stat status;
  if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return;  // Gone meanwhile.
  }
  RequireRoots(status, path);
  if (!S_ISREG(status.st_mode)) {
    return;
  }
  const base::Descriptor file(
      openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.IsOpen() && fstat(file.Get(), &status) == 0) {
    RequireRoots(status, path);
    TakeWriteFromOthers(file.Get(), status, path);
  }
}

// The directory of that name, not through a link; none for whatever else stands there.
base::Descriptor OpenDirectory(int parent, const std::string& name) {
  return base::Descriptor(
      openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

// Null at the end.
const dirent* NextEntry(DIR* listing, const std::string& path) {
  errno = 0;
  const dirent* const entry = readdir(listing);
  if (entry == nullptr && errno != 0) {
    throw base::FileError(errno, "list", path);
  }
  return entry;
}

using Visit = std::function<void(const base::Descriptor&, const std::string& path)>;

// Calls it with each file and directory below, a directory before what is in it.
void VisitBelow(const base::Descriptor& directory, const std::string& path, const Visit& visit) {
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(
      fdopendir(openat(directory.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), closedir);
  if (!listing) {
    throw base::FileError(errno, "list", path);
  }
  while (const dirent* const entry = NextEntry(listing.get(), path)) {
    const std::string name = entry->d_name;
    struct stat status;
    if (name == "." || name == ".." ||
        fstatat(directory.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    if (S_ISDIR(status.st_mode)) {
      const base::Descriptor opened = OpenDirectory(directory.Get(), name);
      if (opened.IsOpen()) {
        visit(opened, path + '/' + name);
        VisitBelow(opened, path + '/' + name, visit);
      }
    } else if (S_ISREG(status.st_mode) && (status.st_mode & kOthersWrite) != 0) {
      const base::Descriptor opened(
          openat(directory.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
      if (opened.IsOpen()) {
        visit(opened, path + '/' + name);
      }
    }
  }
}

struct stat StatusOf(const base::Descriptor& file, const std::string& path) {
  struct stat status;
  if (fstat(file.Get(), &status) != 0) {
    throw base::FileError(errno, "look at", path);
  }
  return status;
}

void Close(const base::Descriptor& file, const std::string& path) {
  const struct stat status = StatusOf(file, path);
  if (S_ISDIR(status.st_mode)) {
    RemoveDefaultList(file.Get(), path);
  }
  TakeWriteFromOthers(file.Get(), status, path);
}

}  // namespace

void TakeWriteFromOthersBelow(const std::string& directory) {
  const base::Descriptor top = OpenDirectory(AT_FDCWD, directory);
  if (!top.IsOpen()) {
    return;
  }
  VisitBelow(top, directory, [](const base::Descriptor& file, const std::string& path) {
    const struct stat status = StatusOf(file, path);
    if (S_ISDIR(status.st_mode) && status.st_uid != 0) {
      throw ForeignGround(path + " belongs to user " + std::to_string(status.st_uid),
                          "rm -r " + path + ", or chown root " + path);
    }
  });
  Close(top, directory);
  VisitBelow(top, directory, Close);
}

void SecureStateDirectory(const std::string& directory, bool with_files, bool may_be_link) {
  if (geteuid() != 0) {
    return;
  }
  const base::Descriptor opened(
      open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (may_be_link ? 0 : O_NOFOLLOW)));
  if (!opened.IsOpen() && errno == ENOENT) {
    return;
  }
  if (!opened.IsOpen() && !may_be_link && fs::is_symlink(fs::symlink_status(directory))) {
    throw ForeignGround(directory + " is a link", "rm " + directory);
  }
  struct stat status;
  if (!opened.IsOpen() || fstat(opened.Get(), &status) != 0) {
    throw base::FileError(errno, "open", directory);
  }
  if (status.st_uid != 0) {
    throw ForeignGround(directory + " belongs to user " + std::to_string(status.st_uid),
                        "rm -r " + directory + ", or chown root " + directory);
  }
  // First the directory: nobody puts anything there any more.
  TakeWriteFromOthers(opened.Get(), status, directory);
  if (!with_files) {
    return;
  }
  std::error_code error;
  fs::directory_iterator entry(directory, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    if (!fs::is_directory(entry->symlink_status())) {
      SecureFile(opened.Get(), entry->path().filename(), entry->path());
    }
  }
  if (error) {
    throw base::FileError(error.value(), "read", directory);
  }
}

void SecureStateDirectories(const std::string& name) {
  const fs::path version_file = (NoexceptFormat(paths::kVersionFile) % name).str();
  SecureStateDirectory(paths::kStateDirectory, true);
  SecureStateDirectory(version_file.parent_path(), true, false);
  SecureStateDirectory(paths::kCacheDirectory, true);
}

}  // namespace tolm::operation

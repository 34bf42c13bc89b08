#include "base/trusted_directory.h"

#include <fcntl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <filesystem>
#include <utility>

#include "base/file.h"
#include "base/paths.h"

namespace tolm::base {
namespace {

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;

std::string Join(const std::string& directory, const std::string& name) {
  return directory == "/" ? directory + name : directory + '/' + name;
}

[[noreturn]] void Fail(const char* action, const std::string& path) {
  throw FileError(errno, action, path);
}

struct stat StatusOf(int fd, const std::string& path) {
  struct stat status;
  if (fstat(fd, &status) != 0) {
    Fail("look at", path);
  }
  return status;
}

[[noreturn]] void ThrowWritable(const struct stat& status, const std::string& path) {
  const bool by_all = (status.st_mode & S_IWOTH) != 0;
  throw ForeignGround(path + (by_all ? " can be written by everybody"
                                     : " can be written by group " + std::to_string(status.st_gid)),
                      "chmod go-w " + path);
}

[[noreturn]] void ThrowOwnerless(const std::string& path) {
  throw ForeignGround(path + ": its file system keeps no owners",
                      std::string("ownerless_volumes in ") + paths::kOperationSettings +
                          " accepts a volume by its name");
}

// Why a name could not be opened as a directory.
[[noreturn]] void ThrowNoDirectory(int parent, const std::string& name, const std::string& path) {
  const int reason = errno;
  struct stat status;
  if (fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    if (S_ISLNK(status.st_mode)) {
      throw ForeignGround(path + " is a link", "rm " + path);
    }
    if (!S_ISDIR(status.st_mode)) {
      throw ForeignGround(path + " is no directory", "rm " + path);
    }
  }
  throw FileError(reason, "open", path);
}

std::filesystem::path ReadLink(int parent, const std::string& name, const std::string& directory) {
  char target[PATH_MAX];
  const ssize_t size = readlinkat(parent, name.c_str(), target, sizeof target);
  if (size < 0) {
    Fail("follow", Join(directory, name));
  }
  return std::string(target, static_cast<std::size_t>(size));
}

bool IsRootsLink(int parent, const std::string& name) {
  struct stat status;
  return fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISLNK(status.st_mode) && status.st_uid == 0;
}

// Whether whoever made the file system gave it no owners.
bool IsOwnerless(int fd) {
  // Of the kernel's long, which may have 64 bits, the lower 32 count.
  constexpr std::uint32_t kMagics[] = {
      0x4d44,      // FAT
      0x2011bab0,  // exFAT
      0x5346544e,  // NTFS, and its newer driver's
      0x7366746e,
      0x65735546,  // FUSE: whose program decides, mostly for such file systems
      0xff534d42,  // CIFS, both
      0xfe534d42};
  struct statfs status;
  if (fstatfs(fd, &status) != 0) {
    return false;  // What is made there tells.
  }
  return std::any_of(std::begin(kMagics), std::end(kMagics), [&](std::uint32_t magic) {
    return magic == static_cast<std::uint32_t>(status.f_type);
  });
}

// The last component of a program's path, behind all its links; the way to it is entered.
std::string EnterWayTo(TrustedDirectory& at, std::filesystem::path way, int links_left) {
  if (way.is_absolute()) {
    at = TrustedDirectory("/", Owners::kTrusted);
  }
  for (const std::filesystem::path& step : way.parent_path().relative_path()) {
    if (!at.EnterFollowing(step)) {
      throw FileError(ENOENT, "find", way);
    }
  }
  const std::string name = way.filename();
  if (!IsRootsLink(at.Get(), name)) {
    return name;
  }
  if (links_left == 0) {
    throw FileError(ELOOP, "follow", way);
  }
  return EnterWayTo(at, ReadLink(at.Get(), name, at.path()), links_left - 1);
}

}  // namespace

Ground Judge(const struct stat& status, const std::string& path, bool may_go) {
  if (!S_ISDIR(status.st_mode)) {
    throw ForeignGround(path + " is no directory", "rm " + path);
  }
  if (status.st_uid != 0) {
    throw ForeignGround(path + " belongs to user " + std::to_string(status.st_uid),
                        (may_go ? "rm -r " + path + ", or " : "") + "chown root " + path);
  }
  if ((status.st_mode & kOthersWrite) == 0) {
    return Ground::kOwn;
  }
  if ((status.st_mode & S_ISVTX) == 0) {
    ThrowWritable(status, path);
  }
  return Ground::kShared;
}

TrustedDirectory::TrustedDirectory(const std::string& start, Owners owners) : owners_(owners) {
  Descriptor opened(open(start.c_str(), kOpenDirectory));
  if (!opened.IsOpen()) {
    ThrowNoDirectory(AT_FDCWD, start, start);
  }
  Accept(std::move(opened), start);
}

void TrustedDirectory::RequireKeepsOwners(int fd, const std::string& path) const {
  if (owners_ == Owners::kRequired && IsOwnerless(fd)) {
    ThrowOwnerless(path);
  }
}

void TrustedDirectory::Accept(Descriptor descriptor, const std::string& path, bool last) {
  RequireKeepsOwners(descriptor.Get(), path);
  Ground ground = Ground::kOwn;
  if (owners_ != Owners::kIgnored) {
    const struct stat status = StatusOf(descriptor.Get(), path);
    ground = Judge(status, path, IsOpen());
    if (ground == Ground::kShared && (last || ground_ == Ground::kShared)) {
      ThrowWritable(status, path);
    }
  }
  ground_ = ground;
  descriptor_ = std::move(descriptor);
  path_ = path;
}

bool TrustedDirectory::Enter(const std::string& name) {
  const std::string path = Join(path_, name);
  Descriptor opened(openat(Get(), name.c_str(), kOpenDirectory));
  if (!opened.IsOpen() && errno == ENOENT) {
    return false;
  }
  if (!opened.IsOpen()) {
    ThrowNoDirectory(Get(), name, path);
  }
  Accept(std::move(opened), path);
  return true;
}

bool TrustedDirectory::EnterFollowing(const std::string& name, int links_left) {
  if (name.empty() || name == "." || name == "/") {
    return true;
  }
  if (name == "..") {
    // Up is where the directory lies and not where its name stood: said by the new way down.
    const std::filesystem::path up = std::filesystem::path(path_).parent_path();
    *this = TrustedDirectory("/", owners_);
    bool found = true;
    for (const std::filesystem::path& step : up.relative_path()) {
      found = found && Enter(step);
    }
    return found;
  }
  return IsRootsLink(Get(), name) ? FollowLink(name, links_left) : Enter(name);
}

bool TrustedDirectory::FollowLink(const std::string& name, int links_left) {
  if (links_left == 0) {
    throw FileError(ELOOP, "follow", Join(path_, name));
  }
  const std::filesystem::path way = ReadLink(Get(), name, path_);
  if (way.is_absolute()) {
    *this = TrustedDirectory("/", owners_);
  }
  for (const std::filesystem::path& step : way.relative_path()) {
    if (!EnterFollowing(step, links_left - 1)) {
      return false;
    }
  }
  return true;
}

bool TrustedDirectory::Make(const std::string& name, mode_t mode, bool last) {
  const bool is_made = mkdirat(Get(), name.c_str(), 0700) == 0;
  const std::string path = Join(path_, name);
  if (!is_made && errno != EEXIST) {
    Fail("make", path);
  }
  Descriptor opened(openat(Get(), name.c_str(), kOpenDirectory));
  if (!opened.IsOpen()) {
    ThrowNoDirectory(Get(), name, path);
  }
  if (is_made && owners_ != Owners::kIgnored) {
    const bool is_set = fchmod(opened.Get(), mode) == 0;
    const struct stat status = StatusOf(opened.Get(), path);
    if (!is_set || status.st_uid != 0 || (status.st_mode & 0777) != mode) {
      unlinkat(Get(), name.c_str(), AT_REMOVEDIR);
      ThrowOwnerless(path);
    }
  }
  Accept(std::move(opened), path, last);
  return is_made;
}

void TrustedDirectory::RequireOwn() const {
  if (IsShared()) {
    ThrowWritable(StatusOf(Get(), path_), path_);
  }
}

void RequireTrustedProgram(const std::string& path) {
  TrustedDirectory at("/", Owners::kTrusted);
  constexpr int kMostLinks = 40;
  const std::string name = EnterWayTo(at, path, kMostLinks);
  const std::string found = Join(at.path(), name);
  struct stat status;
  if (fstatat(at.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    Fail("look at", found);
  }
  if (status.st_uid != 0) {
    throw ForeignGround(found + " belongs to user " + std::to_string(status.st_uid),
                        "chown root " + found);
  }
  if (!S_ISLNK(status.st_mode) && (status.st_mode & kOthersWrite) != 0) {
    ThrowWritable(status, found);
  }
}

}  // namespace tolm::base

#include "operation/installed_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <system_error>
#include <utility>

#include "base/descriptor.h"

namespace tolm::operation {
namespace {

constexpr char kDefaultAcl[] = "system.posix_acl_default";

using Listing = std::unique_ptr<DIR, int (*)(DIR*)>;

bool OthersMayWrite(mode_t mode) {
  return (mode & (S_IWGRP | S_IWOTH)) != 0;
}

std::int64_t Nanoseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

// FNV-1a, of 64 bits: the same wherever it is computed.
class Hash {
 public:
  void Add(const void* data, std::size_t size) {
    constexpr std::uint64_t kPrime = 0x100000001b3;
    const auto* const bytes = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
      value_ = (value_ ^ bytes[i]) * kPrime;
    }
  }
  std::uint64_t Value() const { return value_; }

 private:
  std::uint64_t value_ = 0xcbf29ce484222325;
};

// Without the device: a file system may have another number after the next start.
std::uint64_t EntryFingerprint(const std::string& name, const struct stat& status) {
  Hash hash;
  hash.Add(name.data(), name.size() + 1);  // with its NUL
  for (const std::int64_t number :
       {static_cast<std::int64_t>(status.st_ino), static_cast<std::int64_t>(status.st_mode),
        static_cast<std::int64_t>(status.st_uid), static_cast<std::int64_t>(status.st_gid),
        static_cast<std::int64_t>(status.st_size), Nanoseconds(status.st_mtim),
        Nanoseconds(status.st_ctim)}) {
    hash.Add(&number, sizeof number);
  }
  return hash.Value();
}

class Walk {
 public:
  Walk(std::string directory, bool with_files)
      : directory_(std::move(directory)), with_files_(with_files) {}

  InstalledTree Do() {
    tree_.fingerprint = Hash().Value();  // An empty tree has one as well.
    Enter(AT_FDCWD, directory_.c_str(), 0, "");
    std::sort(tree_.files.begin(), tree_.files.end(),
              [](const TreeFile& a, const TreeFile& b) { return a.name < b.name; });
    return std::move(tree_);
  }

 private:
  // The prefix ends with "/" where it is not empty.
  void Enter(int parent, const char* name, int flags, const std::string& prefix) {
    const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
    if (fd < 0 && errno == ENOENT && prefix.empty()) {
      return;
    }
    const Listing listing(fd < 0 ? nullptr : fdopendir(fd), closedir);
    if (!listing) {
      Fail(prefix);
    }
    LookAtDirectory(fd, prefix);
    errno = 0;
    while (const dirent* const entry = readdir(listing.get())) {
      if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
        Look(dirfd(listing.get()), entry->d_name, prefix);
      }
      errno = 0;
    }
    if (errno != 0) {
      Fail(prefix);
    }
  }

  void LookAtDirectory(int fd, const std::string& prefix) {
    struct stat status;
    if (fstat(fd, &status) != 0) {
      Fail(prefix);
    }
    tree_.is_open = tree_.is_open || status.st_uid != 0 || OthersMayWrite(status.st_mode) ||
                    fgetxattr(fd, kDefaultAcl, nullptr, 0) > 0;
  }

  void Look(int parent, const char* entry, const std::string& prefix) {
    const std::string name = prefix + entry;
    struct stat status;
    if (fstatat(parent, entry, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      Fail(name);
    }
    tree_.fingerprint += EntryFingerprint(name, status);  // a sum: the order says nothing
    if (S_ISDIR(status.st_mode)) {
      Enter(parent, entry, O_NOFOLLOW, name + '/');
      return;
    }
    tree_.is_open = tree_.is_open || (S_ISREG(status.st_mode) && OthersMayWrite(status.st_mode));
    if (with_files_) {
      tree_.files.push_back({name, status.st_mode, static_cast<std::uint64_t>(status.st_size),
                             Nanoseconds(status.st_mtim), Nanoseconds(status.st_ctim),
                             status.st_uid});
    }
  }

  [[noreturn]] void Fail(const std::string& name) const {
    throw std::system_error(errno, std::generic_category(), directory_ + '/' + name);
  }

  const std::string directory_;
  const bool with_files_;
  InstalledTree tree_;
};

}  // namespace

InstalledTree GlanceAtTree(const std::string& directory) {
  return Walk(directory, false).Do();
}

InstalledTree LookAt(const std::string& directory) {
  return Walk(directory, true).Do();
}

const TreeFile* Find(const InstalledTree& tree, const std::string& name) {
  const auto found = std::lower_bound(
      tree.files.begin(), tree.files.end(), name,
      [](const TreeFile& file, const std::string& wanted) { return file.name < wanted; });
  return found != tree.files.end() && found->name == name ? &*found : nullptr;
}

}  // namespace tolm::operation

#include "package/destination.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "package/error.h"
#include "package/file_io.h"

namespace tolm::package {
namespace {

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// What a package asks for beyond this it does not get: nobody but the owner writes what it brings.
constexpr mode_t kMostMode = 0755;

std::string Shown(const std::string& name) {
  return "member " + name;
}

// No two calls of this machine use one name at a time; what a dead process left is overwritten.
std::string TemporaryName() {
  static std::atomic<unsigned int> counter{0};
  return ".tolmpkg-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
}

bool IsSymbolicLink(int parent, const std::string& name) {
  struct stat status {};
  return ::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISLNK(status.st_mode);
}

// Opens a directory by its name in `parent`; `shown` is the member being put, `missing` what it
// means when nothing is there.
base::Descriptor OpenStep(int parent, const std::string& name, const std::string& shown,
                          Code missing = Code::kWrite) {
  base::Descriptor opened(::openat(parent, name.c_str(), kOpenDirectory));
  if (opened.IsOpen()) {
    return opened;
  }
  const int reason = errno;
  if (IsSymbolicLink(parent, name)) {
    throw Error(Code::kThroughLink, shown + ": " + name + " on its way is a symbolic link");
  }
  if (reason == ENOTDIR) {
    throw SystemError(Code::kInTheWay, shown + ": " + name, reason);
  }
  if (reason == ENOENT) {
    throw SystemError(missing, shown + ": " + name, reason);
  }
  throw WriteError(shown + ": " + name, reason);
}

// A name in a directory that is being prepared; removed again unless it was renamed into place.
class Temporary {
 public:
  Temporary(int parent, const std::string& member_name)
      : parent_(parent), shown_(Shown(member_name)) {
    ::unlinkat(parent_, name_.c_str(), 0);
  }
  ~Temporary() { ::unlinkat(parent_, name_.c_str(), 0); }
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;

  const char* name() const { return name_.c_str(); }

  // Renaming one hard link over another of the same file succeeds and leaves both: the destructor
  // is not told that the name is gone.
  void RenameTo(const std::string& name) const {
    if (::renameat(parent_, name_.c_str(), parent_, name.c_str()) == 0) {
      return;
    }
    const int reason = errno;
    if (reason == EISDIR || reason == EEXIST || reason == ENOTEMPTY) {
      throw SystemError(Code::kInTheWay, shown_, reason);
    }
    throw WriteError(shown_, reason);
  }

 private:
  int parent_;
  std::string name_ = TemporaryName();
  std::string shown_;
};

void WriteContent(int fd, const Member& member, PayloadReader& reader) {
  for (Block block; reader.NextBlock(block);) {
    if (block.offset > member.size_bytes || block.size > member.size_bytes - block.offset) {
      throw Error(Code::kPayload, Shown(member.name) + ": longer than its size");
    }
    if (::lseek(fd, static_cast<off_t>(block.offset), SEEK_SET) < 0) {
      throw WriteError(Shown(member.name), errno);
    }
    WriteAll(fd, block.data, block.size, Shown(member.name));
  }
  // A sparse file may end in a hole.
  if (::ftruncate(fd, static_cast<off_t>(member.size_bytes)) != 0) {
    throw WriteError(Shown(member.name), errno);
  }
}

}  // namespace

void Destination::Put(const Member& member, PayloadReader& reader) const {
  const base::Descriptor parent = OpenParent(member.path, true);
  switch (member.type) {
    case MemberType::kFile:
      return PutFile(parent.Get(), member, reader);
    case MemberType::kDirectory:
      return PutDirectory(parent.Get(), member);
    case MemberType::kSymbolicLink:
      return PutSymbolicLink(parent.Get(), member);
    case MemberType::kHardLink:
      return PutHardLink(parent.Get(), member);
  }
}

base::Descriptor Destination::OpenParent(const MemberPath& path, bool create) const {
  const std::string shown = Shown(JoinMemberPath(path));
  base::Descriptor current(::fcntl(fd_, F_DUPFD_CLOEXEC, 0));
  if (!current.IsOpen()) {
    throw WriteError(shown, errno);
  }
  for (std::size_t i = 0; i + 1 < path.size(); ++i) {
    if (create && ::mkdirat(current.Get(), path[i].c_str(), 0755) != 0 && errno != EEXIST) {
      throw WriteError(shown, errno);
    }
    current = OpenStep(current.Get(), path[i], shown, create ? Code::kWrite : Code::kHardLink);
  }
  return current;
}

void Destination::PutFile(int parent, const Member& member, PayloadReader& reader) const {
  const Temporary temporary(parent, member.name);
  base::Descriptor file(::openat(parent, temporary.name(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file.IsOpen()) {
    throw WriteError(Shown(member.name), errno);
  }
  WriteContent(file.Get(), member, reader);
  if (::fchmod(file.Get(), static_cast<mode_t>(member.mode) & kMostMode) != 0) {
    throw WriteError(Shown(member.name), errno);
  }
  if (const int reason = file.Close(); reason != 0) {
    throw WriteError(Shown(member.name), reason);
  }
  temporary.RenameTo(member.path.back());
}

void Destination::PutDirectory(int parent, const Member& member) const {
  const std::string& name = member.path.back();
  const bool created = ::mkdirat(parent, name.c_str(), 0700) == 0;
  if (!created && errno != EEXIST) {
    throw WriteError(Shown(member.name), errno);
  }
  const base::Descriptor directory = OpenStep(parent, name, Shown(member.name));
  if (created &&
      ::fchmod(directory.Get(), (static_cast<mode_t>(member.mode) & kMostMode) | 0700) != 0) {
    throw WriteError(Shown(member.name), errno);
  }
}

void Destination::PutSymbolicLink(int parent, const Member& member) const {
  const Temporary temporary(parent, member.name);
  if (::symlinkat(member.target.c_str(), parent, temporary.name()) != 0) {
    throw WriteError(Shown(member.name), errno);
  }
  temporary.RenameTo(member.path.back());
}

void Destination::PutHardLink(int parent, const Member& member) const {
  const base::Descriptor target_parent = OpenParent(member.linked_to, false);
  const std::string& target = member.linked_to.back();
  struct stat status {};
  if (::fstatat(target_parent.Get(), target.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    throw SystemError(Code::kHardLink, Shown(member.name) + ": " + target, errno);
  }
  if (!S_ISREG(status.st_mode)) {
    throw Error(Code::kHardLink, Shown(member.name) + ": hard link to what is not a file");
  }
  const Temporary temporary(parent, member.name);
  if (::linkat(target_parent.Get(), target.c_str(), parent, temporary.name(), 0) != 0) {
    throw WriteError(Shown(member.name), errno);
  }
  temporary.RenameTo(member.path.back());
}

}  // namespace tolm::package

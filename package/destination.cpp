#include "package/destination.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <utility>

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
      : parent_(parent), shown_(Shown(member_name)) {}
  ~Temporary() {
    if (is_made_) {
      ::unlinkat(parent_, name_.c_str(), 0);
    }
  }
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;

  // Returns the result of `make`, a call of the system's that makes something new of this name.
  // What a dead process left there goes.
  template <typename Make>
  int Create(Make make) {
    int result = make(name_.c_str());
    if (result < 0 && errno == EEXIST && ::unlinkat(parent_, name_.c_str(), 0) == 0) {
      result = make(name_.c_str());
    }
    if (result < 0) {
      throw WriteError(shown_, errno);
    }
    is_made_ = true;
    return result;
  }

  void RenameTo(const std::string& name) {
    RenameLinkTo(name);
    is_made_ = false;
  }

  // Renaming one hard link over another of the same file succeeds and leaves both, so this name is
  // removed in any case.
  void RenameLinkTo(const std::string& name) {
    if (::renameat(parent_, name_.c_str(), parent_, name.c_str()) == 0) {
      return;
    }
    const int reason = errno;
    if (reason == EISDIR) {
      throw SystemError(Code::kInTheWay, shown_, reason);
    }
    throw WriteError(shown_, reason);
  }

 private:
  int parent_;
  std::string name_ = TemporaryName();
  std::string shown_;
  bool is_made_ = false;
};

void WriteContent(int fd, const Member& member, PayloadReader& reader) {
  std::uint64_t position = 0;
  for (Block block; reader.NextBlock(block);) {
    if (block.offset > member.size_bytes || block.size > member.size_bytes - block.offset) {
      throw Error(Code::kPayload, Shown(member.name) + ": longer than its size");
    }
    if (block.offset != position && ::lseek(fd, static_cast<off_t>(block.offset), SEEK_SET) < 0) {
      throw WriteError(Shown(member.name), errno);
    }
    WriteAll(fd, block.data, block.size, Shown(member.name));
    position = block.offset + block.size;
  }
  // A sparse file may end in a hole.
  if (position != member.size_bytes &&
      ::ftruncate(fd, static_cast<off_t>(member.size_bytes)) != 0) {
    throw WriteError(Shown(member.name), errno);
  }
}

int MakeFile(int parent, const char* name) {
  return ::openat(parent, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

void Fill(base::Descriptor& file, const Member& member, PayloadReader& reader) {
  WriteContent(file.Get(), member, reader);
  if (::fchmod(file.Get(), static_cast<mode_t>(member.mode) & kMostMode) != 0) {
    throw WriteError(Shown(member.name), errno);
  }
  if (const int reason = file.Close(); reason != 0) {
    throw WriteError(Shown(member.name), reason);
  }
}

void PutFileAtOnce(int parent, const Member& member, PayloadReader& reader) {
  Temporary temporary(parent, member.name);
  base::Descriptor file(
      temporary.Create([parent](const char* name) { return MakeFile(parent, name); }));
  Fill(file, member, reader);
  temporary.RenameTo(member.path.back());
}

void PutDirectory(int parent, const Member& member) {
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

void PutSymbolicLink(int parent, const Member& member) {
  Temporary temporary(parent, member.name);
  temporary.Create(
      [&](const char* name) { return ::symlinkat(member.target.c_str(), parent, name); });
  temporary.RenameTo(member.path.back());
}

// A way of more steps must not take all descriptors that a process may have.
constexpr std::size_t kMostOpenSteps = 16;

}  // namespace

int MemberWay::To(const MemberPath& path) {
  int at = GoOpenSteps(path);
  for (std::size_t i = steps_.size(); i + 1 < path.size(); ++i) {
    base::Descriptor entered = Enter(at, path, i);
    at = entered.Get();
    struct stat status {};
    if (i == steps_.size() && i < kMostOpenSteps && ::fstat(at, &status) == 0) {
      steps_.push_back({path[i], std::move(entered), status.st_dev, status.st_ino});
    } else {
      deeper_ = std::move(entered);
    }
  }
  return at;
}

// As far as the last way leads there still. Closes the rest of it.
int MemberWay::GoOpenSteps(const MemberPath& path) {
  int at = root_;
  auto step = steps_.begin();
  for (std::size_t i = 0; step != steps_.end() && i + 1 < path.size(); ++step, ++i) {
    struct stat status {};
    if (step->name != path[i] ||
        ::fstatat(at, path[i].c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        status.st_dev != step->device || status.st_ino != step->inode) {
      break;
    }
    at = step->directory.Get();
  }
  steps_.erase(step, steps_.end());
  return at;
}

base::Descriptor MemberWay::Enter(int parent, const MemberPath& path, std::size_t step) const {
  const std::string shown = Shown(JoinMemberPath(path));
  const char* const name = path[step].c_str();
  if (creates_ && ::mkdirat(parent, name, 0755) != 0 && errno != EEXIST) {
    throw WriteError(shown, errno);
  }
  return OpenStep(parent, path[step], shown, creates_ ? Code::kWrite : Code::kHardLink);
}

void Destination::Put(const Member& member, PayloadReader& reader) {
  const int parent = way_.To(member.path);
  switch (member.type) {
    case MemberType::kFile:
      return PutFile(parent, member, reader);
    case MemberType::kDirectory:
      return PutDirectory(parent, member);
    case MemberType::kSymbolicLink:
      return PutSymbolicLink(parent, member);
    case MemberType::kHardLink:
      return PutHardLink(parent, member);
  }
}

// What has the name already, which a package may do twice, is replaced at once in any case.
void Destination::PutFile(int parent, const Member& member, PayloadReader& reader) {
  base::Descriptor file(
      audience_ == Audience::kNobody ? MakeFile(parent, member.path.back().c_str()) : -1);
  if (file.IsOpen()) {
    Fill(file, member, reader);
  } else {
    PutFileAtOnce(parent, member, reader);
  }
}

void Destination::PutHardLink(int parent, const Member& member) {
  const int target_parent = link_way_.To(member.linked_to);
  const std::string& target = member.linked_to.back();
  struct stat status {};
  if (::fstatat(target_parent, target.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    throw SystemError(Code::kHardLink, Shown(member.name) + ": " + target, errno);
  }
  if (!S_ISREG(status.st_mode)) {
    throw Error(Code::kHardLink, Shown(member.name) + ": hard link to what is not a file");
  }
  Temporary temporary(parent, member.name);
  temporary.Create(
      [&](const char* name) { return ::linkat(target_parent, target.c_str(), parent, name, 0); });
  temporary.RenameLinkTo(member.path.back());
}

}  // namespace tolm::package

#include "package/staging_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "package/error.h"
#include "package/file_io.h"

namespace tolm::package {
namespace {

constexpr char kNameBegin[] = ".tolmpkg-";
constexpr char kNameEnd[] = "-staging";
constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::vector<std::string> NamesIn(int directory) {
  std::vector<std::string> names;
  if (!ListNames(directory, names)) {
    throw WriteError("destination", errno);
  }
  return names;
}

// By the descriptor: the directory may bear another name by now. What stays is removed by the next
// one that unpacks there.
void RemoveBelow(int directory, const std::string& name, const StagingDirectory::Notice& notice) {
  std::error_code error;
  std::filesystem::remove_all("/proc/self/fd/" + std::to_string(directory) + '/' + name, error);
  if (error && notice) {
    notice(name + " cannot be removed: " + error.message());
  }
}

[[noreturn]] void ThrowNotMoved(const std::string& name, int reason) {
  if (reason == EISDIR || reason == ENOTDIR || reason == EEXIST || reason == ENOTEMPTY) {
    throw SystemError(Code::kInTheWay, "member " + name, reason);
  }
  throw WriteError("member " + name, reason);
}

}  // namespace

bool StagingDirectory::IsName(const std::string& name) {
  const std::string begin = kNameBegin;
  const std::string end = kNameEnd;
  return name.size() > begin.size() + end.size() && name.compare(0, begin.size(), begin) == 0 &&
         name.compare(name.size() - end.size(), end.size(), end) == 0;
}

void StagingDirectory::RemoveLeftOvers(int directory, const Notice& notice) {
  for (const std::string& name : NamesIn(directory)) {
    if (!IsName(name)) {
      continue;
    }
    const base::Descriptor found(::openat(directory, name.c_str(), kOpenDirectory));
    if (found.IsOpen() && ::flock(found.Get(), LOCK_EX | LOCK_NB) == 0) {
      RemoveBelow(directory, name, notice);
    }
  }
}

bool StagingDirectory::IsEmpty(int directory) {
  return NamesIn(directory).empty();
}

StagingDirectory::StagingDirectory(int directory, Notice notice)
    : directory_(directory),
      name_(kNameBegin + std::to_string(::getpid()) + kNameEnd),
      notice_(std::move(notice)) {
  if (::mkdirat(directory_, name_.c_str(), 0700) != 0) {
    throw WriteError("destination", errno);
  }
  staging_ = base::Descriptor(::openat(directory_, name_.c_str(), kOpenDirectory));
  if (!staging_.IsOpen()) {
    const int reason = errno;
    ::unlinkat(directory_, name_.c_str(), AT_REMOVEDIR);
    throw WriteError("destination", reason);
  }
  ::flock(staging_.Get(), LOCK_EX | LOCK_NB);
}

StagingDirectory::~StagingDirectory() {
  if (::unlinkat(directory_, name_.c_str(), AT_REMOVEDIR) != 0) {
    RemoveBelow(directory_, name_, notice_);
  }
}

void StagingDirectory::PutInPlace() const {
  const std::vector<std::string> names = NamesIn(Get());
  for (auto name = names.begin(); name != names.end(); ++name) {
    if (::renameat(Get(), name->c_str(), directory_, name->c_str()) == 0) {
      continue;
    }
    const int reason = errno;
    for (auto moved = names.begin(); moved != name; ++moved) {
      ::renameat(directory_, moved->c_str(), Get(), moved->c_str());
    }
    ThrowNotMoved(*name, reason);
  }
}

}  // namespace tolm::package

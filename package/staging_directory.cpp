#include "package/staging_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "package/error.h"

namespace tolm::package {
namespace {

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::vector<std::string> NamesIn(int directory) {
  const int opened = ::openat(directory, ".", kOpenDirectory);
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(opened < 0 ? nullptr : ::fdopendir(opened),
                                                    ::closedir);
  if (!listing) {
    throw WriteError("destination", errno);
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* const entry = ::readdir(listing.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
    errno = 0;
  }
  if (errno != 0) {
    throw WriteError("destination", errno);
  }
  return names;
}

}  // namespace

bool StagingDirectory::IsEmpty(int directory) {
  return NamesIn(directory).empty();
}

StagingDirectory::StagingDirectory(int directory)
    : directory_(directory), name_(".tolmpkg-" + std::to_string(::getpid()) + "-staging") {
  if (::mkdirat(directory_, name_.c_str(), 0700) != 0) {
    throw WriteError("destination", errno);
  }
  staging_ = base::Descriptor(::openat(directory_, name_.c_str(), kOpenDirectory));
  if (!staging_.IsOpen()) {
    const int reason = errno;
    ::unlinkat(directory_, name_.c_str(), AT_REMOVEDIR);
    throw WriteError("destination", reason);
  }
}

// By the descriptor: the directory may bear another name by now.
StagingDirectory::~StagingDirectory() {
  if (::unlinkat(directory_, name_.c_str(), AT_REMOVEDIR) != 0) {
    std::error_code ignored;
    std::filesystem::remove_all("/proc/self/fd/" + std::to_string(directory_) + '/' + name_,
                                ignored);
  }
}

void StagingDirectory::PutInPlace() const {
  for (const std::string& name : NamesIn(Get())) {
    if (::renameat(Get(), name.c_str(), directory_, name.c_str()) == 0) {
      continue;
    }
    const int reason = errno;
    if (reason == EISDIR || reason == ENOTDIR || reason == EEXIST || reason == ENOTEMPTY) {
      throw SystemError(Code::kInTheWay, "member " + name, reason);
    }
    throw WriteError("member " + name, reason);
  }
}

}  // namespace tolm::package

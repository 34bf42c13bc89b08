#include "package/file_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "base/descriptor.h"
#include "base/read_text.h"

namespace tolm::package {
namespace {

std::string Shown(const char* part, int fd) {
  const std::string file = NameOf(fd);
  return file.empty() ? part : part + (" of " + file);
}

}  // namespace

void WriteAll(int fd, const void* data, std::size_t size, const std::string& what) {
  if (const int reason = base::WriteAll(fd, data, size); reason != 0) {
    throw WriteError(what, reason);
  }
}

std::string ReadSmallFile(const std::string& path, std::size_t max_bytes, Code code) {
  const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!file.IsOpen()) {
    throw SystemError(code, path, errno);
  }
  std::optional<std::string> content = base::ReadTextAt(file.Get(), max_bytes + 1, 0);
  if (!content) {
    throw SystemError(code, path, errno);
  }
  if (content->size() > max_bytes) {
    throw Error(code, path + ": larger than " + std::to_string(max_bytes) + " bytes");
  }
  return *std::move(content);
}

std::string NameOf(int fd) {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ignored).string();
}

Error UnreadPart(const char* part, int fd, int errno_value) {
  return SystemError(Code::kRead, errno_value == ECANCELED ? part : Shown(part, fd), errno_value);
}

Error UnwrittenPart(const char* part, int fd, int errno_value) {
  return WriteError(Shown(part, fd), errno_value);
}

bool ListNames(int directory, std::vector<std::string>& names) {
  const int opened = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(opened < 0 ? nullptr : ::fdopendir(opened),
                                                    ::closedir);
  if (!listing) {
    return false;
  }
  errno = 0;
  while (const dirent* const entry = ::readdir(listing.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
    errno = 0;
  }
  return errno == 0;
}

}  // namespace tolm::package

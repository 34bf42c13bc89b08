#include "publish/file_copy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/file_io.h"

namespace tolm::publish {
namespace {

using base::Descriptor;
using package::Code;

constexpr std::size_t kBufferBytes = 1024 * 1024;

void CopyContent(int in, int out, const std::string& from, const std::string& to) {
  if (::ioctl(out, FICLONE, in) == 0) {
    return;
  }
  std::vector<char> buffer(kBufferBytes);
  std::uint64_t offset = 0;
  for (;;) {
    const std::int64_t count = base::ReadAt(in, buffer.data(), buffer.size(), offset);
    if (count < 0) {
      throw package::SystemError(Code::kRead, from, errno);
    }
    if (count == 0) {
      return;
    }
    package::WriteAll(out, buffer.data(), static_cast<std::size_t>(count), to);
    offset += static_cast<std::uint64_t>(count);
  }
}

}  // namespace

void CopyFile(const std::string& from, const std::string& to) {
  const Descriptor in(::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat status {};
  if (!in.IsOpen() || ::fstat(in.Get(), &status) != 0) {
    throw package::SystemError(Code::kRead, from, errno);
  }
  if (!S_ISREG(status.st_mode)) {
    throw package::Error(Code::kRead, from + ": not a regular file");
  }
  Descriptor out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!out.IsOpen()) {
    throw package::WriteError(to, errno);
  }
  CopyContent(in.Get(), out.Get(), from, to);
  if (::fchmod(out.Get(), status.st_mode & 0777) != 0) {
    throw package::WriteError(to, errno);
  }
  if (const int reason = out.Close(); reason != 0) {
    throw package::WriteError(to, reason);
  }
}

void LinkOrCopyFile(const std::string& from, const std::string& to) {
  if (::linkat(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), AT_SYMLINK_FOLLOW) != 0) {
    CopyFile(from, to);
  }
}

void WriteNewFile(const std::string& path, const std::string& content) {
  Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!file.IsOpen()) {
    throw package::WriteError(path, errno);
  }
  package::WriteAll(file.Get(), content.data(), content.size(), path);
  if (const int reason = file.Close(); reason != 0) {
    throw package::WriteError(path, reason);
  }
}

}  // namespace tolm::publish

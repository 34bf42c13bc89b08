#include "file_system.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <system_error>

#include "base/descriptor.h"

namespace tolm::dataupdate {
namespace {

namespace fs = boost::filesystem;

// Less than the kernel's own limit for one call, and fits ssize_t everywhere.
constexpr std::size_t kCopyChunk = std::size_t{1} << 30;

[[noreturn]] void ThrowErrno(const std::string& from, const std::string& to) {
  throw fs::filesystem_error("copy_file", from, to,
                             boost::system::error_code(errno, boost::system::system_category()));
}

// Up to so many bytes are read and written, which takes less time than having blocks shared.
constexpr std::size_t kMostToReadAndWrite = 16 * 1024;

// Whether a small file was copied, with the reason in errno if not; none for what has another size
// by now, or is not small.
std::optional<bool> CopySmallContents(int in, int out, off_t size) {
  std::array<char, kMostToReadAndWrite> buffer;
  if (size == 0 || size > static_cast<off_t>(buffer.size()) ||
      base::ReadAt(in, buffer.data(), static_cast<std::size_t>(size), 0) != size) {
    return std::nullopt;
  }
  errno = base::WriteAll(out, buffer.data(), static_cast<std::size_t>(size));
  return errno == 0;
}

// Moves everything from the files' present positions on. copy_file_range shares blocks, but some
// file systems refuse it and some end early, so where it has not moved all that was there at first,
// sendfile, which works everywhere, has the last word.
bool CopyContents(int in, int out, off_t size) {
  if (const std::optional<bool> copied = CopySmallContents(in, out, size)) {
    return *copied;
  }
  off_t rest = size;
  ssize_t moved;
  do {
    moved = copy_file_range(in, nullptr, out, nullptr, kCopyChunk, 0);
    rest -= std::max<ssize_t>(moved, 0);
  } while ((moved > 0 && rest > 0) || (moved < 0 && errno == EINTR));
  if (moved > 0) {
    return true;
  }
  if (moved < 0 && (errno == ENOSPC || errno == EDQUOT || errno == EIO || errno == EFBIG)) {
    return false;
  }
  do {
    moved = sendfile(out, in, nullptr, kCopyChunk);
  } while (moved > 0 || (moved < 0 && errno == EINTR));
  return moved == 0;
}

}  // namespace

std::string JoinPath(const std::string& prefix, const std::string& name) {
  const bool separated =
      prefix.empty() || name.empty() || prefix.back() == '/' || name.front() == '/';
  return prefix + (separated ? "" : "/") + name;
}

std::string NormalPath(const std::string& relative) {
  std::string normal;
  for (std::size_t begin = 0; begin < relative.size();) {
    const std::size_t end = std::min(relative.find('/', begin), relative.size());
    const std::string component = relative.substr(begin, end - begin);
    if (!component.empty() && component != ".") {
      normal += "/" + component;
    }
    begin = end + 1;
  }
  return normal;
}

bool StaysBelow(const std::string& relative) {
  if (relative.find('\0') != std::string::npos) {
    return false;  // The system would end the name there.
  }
  const std::string normal = NormalPath(relative) + "/";
  return normal != "/" && normal.find("/../") == std::string::npos;
}

bool LiesIn(const std::string& directory, const std::string& resolved) {
  return resolved == directory || resolved.rfind(directory == "/" ? "/" : directory + "/", 0) == 0;
}

void CopyRegularFile(const std::string& from, const std::string& to) {
  const base::Descriptor in(open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info;
  if (in.Get() < 0 || fstat(in.Get(), &info) != 0) {
    ThrowErrno(from, to);
  }
  if (!S_ISREG(info.st_mode)) {
    errno = S_ISDIR(info.st_mode) ? EISDIR : ENOTSUP;
    ThrowErrno(from, to);
  }
  base::Descriptor out(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (out.Get() < 0) {
    ThrowErrno(from, to);
  }
  const bool copied = CopyContents(in.Get(), out.Get(), info.st_size) &&
                      fchmod(out.Get(), info.st_mode & 07777) == 0;
  const int reason = copied ? out.Close() : errno;
  if (reason != 0) {
    unlink(to.c_str());
    errno = reason;
    ThrowErrno(from, to);
  }
}

// The standard's goes from one open directory to the next and looks at no file of which the listing
// tells the type, which is twice as fast where there are many. The other one has what is said of a
// failure.
void RemoveAll(const std::string& path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  if (error) {
    fs::remove_all(path);
  }
}

void CopyEntry(const std::string& from, const std::string& to) {
  const fs::file_status status = fs::symlink_status(from);
  if (fs::is_symlink(status)) {
    fs::copy_symlink(from, to);
  } else if (fs::is_directory(status)) {
    fs::create_directory(to, from);
  } else {
    CopyRegularFile(from, to);
  }
}

}  // namespace tolm::dataupdate

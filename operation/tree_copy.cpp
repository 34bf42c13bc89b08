#include "operation/tree_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/log.h"
#include "operation/interrupt.h"
#include "operation/room.h"

namespace tolm::operation {
namespace {

constexpr char kLogSource[] = "tree_copy";
constexpr int kNotRun = -1;
constexpr int kBeyondLimit = 128 + SIGXFSZ;  // As of a program that the limit has ended.
constexpr std::size_t kPieceBytes = std::size_t{1} << 18;
constexpr char kIsCopyWhole[] =
    "is the copy whole? It holds all of the publisher's public directory";
constexpr char kIsItThere[] = "is it still there? Nothing installed was changed";

// The result of a copy that has failed.
DownloadResult Failed(const char* reason, const std::string& text, const std::string& remedy) {
  syslog(LOG_NOTICE, "%s:%d %s", TOLM_LOG_HERE, text.c_str());
  return {kNotRun, text, {reason, text, remedy}};
}

std::string ErrnoText(int error) {
  return std::strerror(error);
}

DownloadResult CannotRead(const std::string& what, int error) {
  const bool is_missing = error == ENOENT || error == ENOTDIR;
  return Failed(reasons::kDownloadFailed,
                what + (is_missing ? " is not there" : " cannot be read: " + ErrnoText(error)),
                is_missing ? kIsCopyWhole : kIsItThere);
}

DownloadResult NoFile(const std::string& what, const std::string& why) {
  return Failed(reasons::kLinkRefused, what + ' ' + why, "");
}

// Opens one component after the other, none through a link.
class Way {
 public:
  explicit Way(const std::string& tree)
      : shown_(tree), at_(open(tree.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    error_ = at_.IsOpen() ? 0 : errno;
  }

  void Go(const std::string& part, bool is_last) {
    shown_ += '/' + part;
    // Nobody waits for a pipe's other end, and nothing becomes a terminal of this process.
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    struct stat before {};
    if (fstatat(at_.Get(), part.c_str(), &before, AT_SYMLINK_NOFOLLOW) != 0) {
      error_ = errno;
    } else if (S_ISLNK(before.st_mode)) {
      refusal_ = "is a link, and none is followed there";
    } else if (is_last && !S_ISREG(before.st_mode)) {
      refusal_ = "is no regular file";  // Opening a device may do something.
    } else {
      base::Descriptor next(openat(at_.Get(), part.c_str(), is_last ? flags : flags | O_DIRECTORY));
      error_ = next.IsOpen() ? 0 : errno;
      at_ = std::move(next);
    }
  }

  bool IsOpen() const { return error_ == 0 && refusal_.empty(); }
  DownloadResult Refusal() const {
    return refusal_.empty() ? CannotRead(shown_, error_) : NoFile(shown_, refusal_);
  }
  const std::string& shown() const { return shown_; }
  int Get() const { return at_.Get(); }

 private:
  std::string shown_;
  base::Descriptor at_;
  int error_ = 0;
  std::string refusal_;
};

std::vector<std::string> Parts(const std::string& path) {
  std::vector<std::string> parts;
  for (std::size_t at = 0; at <= path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    parts.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return parts;
}

bool IsName(const std::string& part) {
  return !part.empty() && part != "." && part != ".." && part.find('\0') == std::string::npos;
}

DownloadResult CannotWrite(const std::string& file, int error) {
  if (error == EFBIG) {
    return {kBeyondLimit, "", {reasons::kTooLarge, file + " would be larger than it may be"}};
  }
  const std::string directory = file.substr(0, file.rfind('/'));
  if (error == ENOSPC || error == EDQUOT) {
    const Failure failure = NoRoom(directory, RoomIn(directory).value_or(0));
    return {kNotRun, failure.text, failure};
  }
  return Failed(reasons::kDownloadFailed, file + " cannot be written: " + ErrnoText(error), "");
}

DownloadResult CopyContent(const Way& from, const std::string& file) {
  unlink(file.c_str());
  base::Descriptor to(
      open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!to.IsOpen()) {
    return CannotWrite(file, errno);
  }
  std::vector<char> piece(kPieceBytes);
  for (std::uint64_t at = 0;;) {
    if (const int signal = Interrupt::Received(); signal != 0) {
      return {128 + signal, "interrupted", FailureOf(Interrupted())};
    }
    const std::int64_t read = base::ReadAt(from.Get(), piece.data(), piece.size(), at);
    if (read < 0) {
      return CannotRead(from.shown(), errno);
    }
    if (read == 0) {
      const int error = to.Close();
      return error == 0 ? DownloadResult{0, "", {}} : CannotWrite(file, error);
    }
    if (const int error = base::WriteAll(to.Get(), piece.data(), static_cast<std::size_t>(read))) {
      return CannotWrite(file, error);
    }
    at += static_cast<std::uint64_t>(read);
  }
}

}  // namespace

DownloadResult CopyFromTree(const std::string& tree, const std::string& path,
                            const std::string& file) {
  const std::vector<std::string> parts = Parts(path);
  Way way(tree);
  for (std::size_t i = 0; i < parts.size() && way.IsOpen(); ++i) {
    if (!IsName(parts[i])) {
      return NoFile(tree + '/' + path, "leads out of the copy");
    }
    way.Go(parts[i], i + 1 == parts.size());
  }
  struct stat status {};
  if (way.IsOpen() && fstat(way.Get(), &status) == 0 && !S_ISREG(status.st_mode)) {
    return NoFile(way.shown(), "is no regular file");
  }
  return way.IsOpen() ? CopyContent(way, file) : way.Refusal();
}

}  // namespace tolm::operation

#include "tolm/fs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/error.h"
#include "platform/guard.h"

namespace tolm::platform {
namespace {

constexpr int kKeep = -1;
constexpr int kModeBits = 07777;

struct Attributes {
  int uid;
  int gid;
  int mode;
};

bool IsDirectory(const char* path, bool* exists) {
  struct stat info;
  *exists = stat(path, &info) == 0;
  return *exists && S_ISDIR(info.st_mode);
}

// Gives a directory that this process has just made what was asked for. The mode comes first: once
// the directory is another user's, that user could put a link in its place.
int Dress(const char* path, const Attributes& attributes) {
  if (attributes.mode != kKeep && chmod(path, static_cast<mode_t>(attributes.mode)) != 0)
    return errno;
  if (attributes.uid == kKeep && attributes.gid == kKeep)
    return 0;
  // -1 means "as it is" to the system call as well.
  const int changed =
      lchown(path, static_cast<uid_t>(attributes.uid), static_cast<gid_t>(attributes.gid));
  return changed == 0 ? 0 : errno;
}

// Returns 0 or an errno value. Makes the directory first and looks afterwards, so that another
// process which makes the same one at this moment does no harm.
int MakeOne(const char* path, const Attributes& attributes) {
  const auto mode = static_cast<mode_t>(attributes.mode == kKeep ? 0777 : attributes.mode);
  if (mkdir(path, mode) == 0)
    return Dress(path, attributes);
  const int error = errno;
  bool exists = false;
  if (IsDirectory(path, &exists))
    return 0;
  return exists && error == EEXIST ? ENOTDIR : error;
}

int MakeChain(const std::string& path, const Attributes& attributes) {
  std::size_t end = path.find_first_not_of('/');
  if (end == std::string::npos)
    return path.empty() ? ENOENT : 0;
  while (end != std::string::npos) {
    end = path.find('/', end);
    const int error = MakeOne(path.substr(0, end).c_str(), attributes);
    if (error != 0)
      return error;
    end = path.find_first_not_of('/', end);
  }
  return 0;
}

}  // namespace
}  // namespace tolm::platform

int TLIBCFileExist(const char* path) {
  using tolm::platform::SetLastError;
  if (path == nullptr) {
    SetLastError(EINVAL);
    return 0;
  }
  struct stat info;
  if (stat(path, &info) == 0)
    return 1;
  // Absence is an answer; anything else kept the call from finding out.
  if (errno != ENOENT && errno != ENOTDIR)
    SetLastError(errno);
  return 0;
}

int TOLMFSMkdirP(const char* path, [[maybe_unused]] int reserved1, [[maybe_unused]] int reserved2,
                 int uid, int gid, int mode) {
  using namespace tolm::platform;
  return Guarded(-1, [&] {
    const bool valid = path != nullptr && uid >= kKeep && gid >= kKeep &&
                       (mode == kKeep || (mode & ~kModeBits) == 0);
    const int error = valid ? MakeChain(path, {uid, gid, mode}) : EINVAL;
    if (error == 0)
      return 0;
    SetLastError(error);
    return -1;
  });
}

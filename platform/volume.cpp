#include "tolm/volume.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <libmount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "base/paths.h"
#include "platform/error.h"
#include "platform/guard.h"

namespace tolm::platform {
namespace {

constexpr char kMountTable[] = "/proc/self/mountinfo";
constexpr char kDefaultPattern[] = "/volume[0-9]*";
constexpr char kNoServices[] = "/.no-services";
constexpr char kBlanks[] = " \t\r\n\v\f";
constexpr unsigned int kReadWrite = 1;

using Patterns = std::vector<std::string>;
using Table = std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)>;
using Iterator = std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)>;
using File = std::unique_ptr<std::FILE, decltype(&std::fclose)>;
using List = std::unique_ptr<TOLMMountVolInfo, decltype(&TOLMMountVolInfoFree)>;

// ---- Which mount points are volumes ----

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos)
    return "";
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

struct Line {
  ~Line() { std::free(text); }
  char* text = nullptr;
  std::size_t capacity = 0;
};

// Returns 0 or an errno value.
int ReadPatterns(Patterns* patterns) {
  const File file(std::fopen(tolm::paths::kVolumePatterns, "re"), std::fclose);
  if (!file && errno != ENOENT)
    return errno;
  if (!file) {
    *patterns = {kDefaultPattern};
    return 0;
  }
  Line line;
  while (getline(&line.text, &line.capacity, file.get()) >= 0) {
    std::string pattern = Trimmed(line.text);
    if (!pattern.empty() && pattern.front() != '#')
      patterns->push_back(std::move(pattern));
  }
  return std::feof(file.get()) != 0 ? 0 : errno;
}

bool Matches(const char* path, const Patterns& patterns) {
  return std::any_of(patterns.begin(), patterns.end(), [path](const std::string& pattern) {
    return fnmatch(pattern.c_str(), path, FNM_PATHNAME | FNM_PERIOD) == 0;
  });
}

// ---- The mount table ----

// Null with errno set on failure.
Table ReadMountTable() {
  errno = 0;
  Table table(mnt_new_table_from_file(kMountTable), mnt_unref_table);
  if (!table && errno == 0)
    errno = ENOMEM;
  return table;
}

// Those that libmount does not know as such.
bool IsOtherNetworkType(const char* type) {
  static constexpr const char* kTypes[] = {
      "beegfs",         "ceph",      "coda",   "davfs",       "fuse.ceph",
      "fuse.glusterfs", "fuse.s3fs", "lustre", "fuse.rclone", "orangefs",
  };
  return std::any_of(std::begin(kTypes), std::end(kTypes),
                     [type](const char* known) { return std::strcmp(type, known) == 0; });
}

bool IsLocal(libmnt_fs* mount) {
  const char* const type = mnt_fs_get_fstype(mount);
  return mnt_fs_is_netfs(mount) == 0 && (type == nullptr || !IsOtherNetworkType(type));
}

bool HasOption(const char* options, const char* name) {
  return options != nullptr && mnt_optstr_get_option(options, name, nullptr, nullptr) == 0;
}

// A mount point can be read-only on a file system that is not, and the other way round.
bool IsReadWrite(libmnt_fs* mount) {
  return !HasOption(mnt_fs_get_vfs_options(mount), "ro") &&
         !HasOption(mnt_fs_get_fs_options(mount), "ro");
}

// ---- One volume ----

std::uint64_t AvailableBytes(const struct statvfs& answer) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  const std::uint64_t block = answer.f_frsize;
  if (block != 0 && answer.f_bavail > kMost / block)
    return kMost;
  return answer.f_bavail * block;
}

// Whether the path leads to this mount. Kernels before 5.8 do not say; the table's last entry of a
// path is what they are believed to show.
bool LeadsTo(libmnt_fs* mount, const base::Descriptor& root) {
  struct statx answer;
  if (statx(root.Get(), "", AT_EMPTY_PATH, STATX_MNT_ID, &answer) != 0 ||
      (answer.stx_mask & STATX_MNT_ID) == 0)
    return true;
  return answer.stx_mnt_id == static_cast<std::uint64_t>(mnt_fs_get_id(mount));
}

// Describes a mount whose path fits. Returns false when another one hides it.
bool Describe(libmnt_fs* mount, TOLMMountVolInfo* info) {
  *info = TOLMMountVolInfo{};
  std::strcpy(info->mount_path, mnt_fs_get_target(mount));
  info->flags = IsReadWrite(mount) ? kReadWrite : 0;
  info->is_local = IsLocal(mount) ? 1 : 0;
  if (info->is_local == 0)
    return true;
  const base::Descriptor root(open(info->mount_path, O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root.IsOpen())
    return errno != ENOENT && errno != ENOTDIR;
  if (!LeadsTo(mount, root))
    return false;
  struct statvfs answer;
  if (fstatvfs(root.Get(), &answer) == 0) {
    info->is_healthy = 1;
    info->available = AvailableBytes(answer);
  }
  return true;
}

// Of several mounts on one place the last one counts. The path must fit into a record: a shortened
// one would name another place.
bool IsVolume(libmnt_table* table, libmnt_fs* mount, const Patterns& patterns) {
  const char* const path = mnt_fs_get_target(mount);
  return path != nullptr && std::strlen(path) < sizeof TOLMMountVolInfo::mount_path &&
         Matches(path, patterns) && mnt_table_find_target(table, path, MNT_ITER_BACKWARD) == mount;
}

// Calls use(record) for each volume in the table's order, or for the one mounted at `only`, which
// may be null. Returns 0 or an errno value.
template <typename Use>
int ForEachVolume(const char* only, Use use) {
  Patterns patterns;
  if (const int error = ReadPatterns(&patterns); error != 0)
    return error;
  const Table table = ReadMountTable();
  if (!table)
    return errno;
  const Iterator position(mnt_new_iter(MNT_ITER_FORWARD), mnt_free_iter);
  if (!position)
    return ENOMEM;
  const auto record = std::make_unique<TOLMMountVolInfo>();
  libmnt_fs* mount = nullptr;
  while (mnt_table_next_fs(table.get(), position.get(), &mount) == 0) {
    if (IsVolume(table.get(), mount, patterns) &&
        (only == nullptr || std::strcmp(mnt_fs_get_target(mount), only) == 0) &&
        Describe(mount, record.get()))
      use(*record);
  }
  return 0;
}

}  // namespace
}  // namespace tolm::platform

TOLMMountVolInfo* TOLMMountVolAllEnum([[maybe_unused]] int reserved1,
                                      [[maybe_unused]] int reserved2,
                                      [[maybe_unused]] int reserved3) {
  using namespace tolm::platform;
  return Guarded<TOLMMountVolInfo*>(nullptr, [] {
    List list(nullptr, TOLMMountVolInfoFree);
    TOLMMountVolInfo* last = nullptr;
    const int error = ForEachVolume(nullptr, [&](const TOLMMountVolInfo& volume) {
      auto* const record = new TOLMMountVolInfo(volume);
      if (last == nullptr)
        list.reset(record);
      else
        last->next = record;
      last = record;
    });
    if (!list)
      SetLastError(error != 0 ? error : ENODEV);
    return list.release();
  });
}

int TOLMMountVolInfoGet(const char* path, TOLMMountVolInfo* info) {
  using namespace tolm::platform;
  return Guarded(-1, [&] {
    if (path == nullptr || info == nullptr) {
      SetLastError(EINVAL);
      return -1;
    }
    bool found = false;
    const int error = ForEachVolume(path, [&](const TOLMMountVolInfo& volume) {
      *info = volume;
      found = true;
    });
    if (found)
      return 0;
    SetLastError(error != 0 ? error : ENODEV);
    return -1;
  });
}

void TOLMMountVolInfoFree(TOLMMountVolInfo* list) {
  while (list != nullptr) {
    TOLMMountVolInfo* const next = list->next;
    delete list;
    list = next;
  }
}

int TOLMVolumeServicePolicy(const TOLMMountVolInfo* info) {
  using namespace tolm::platform;
  return Guarded(0, [&] {
    if (info == nullptr) {
      SetLastError(EINVAL);
      return 0;
    }
    if (info->is_local == 0 || info->is_healthy == 0)
      return 0;
    struct stat mark;
    if (lstat((std::string(info->mount_path) + kNoServices).c_str(), &mark) == 0)
      return 0;
    if (errno == ENOENT)
      return 1;
    SetLastError(errno);
    return 0;
  });
}

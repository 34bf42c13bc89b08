#ifndef TOLM_TESTS_OPERATION_TOLD_VOLUMES_H_
#define TOLM_TESTS_OPERATION_TOLD_VOLUMES_H_

// For one source of a test program: the platform's volumes as a test wants them to look, and which
// files and file systems were brought to the disk.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tolm/volume.h"

namespace tolm::testing {

/// Changes what is told of the volume that is mounted there.
inline std::map<std::string, std::function<void(TOLMMountVolInfo&)>> told_volumes;
/// Services may keep nothing there, whatever else is told of them.
inline std::string refused_volume;
/// "syncfs <path>" and "fsync <path>", in their order.
inline std::vector<std::string> synced;

inline void ChangeTold(TOLMMountVolInfo& record) {
  const auto change = told_volumes.find(record.mount_path);
  if (change != told_volumes.end()) {
    change->second(record);
  }
}

inline int NoteSync(const char* call, long number, int fd) {
  char path[PATH_MAX];
  const ssize_t length =
      readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
  synced.push_back(std::string(call) + ' ' +
                   std::string(path, length < 0 ? 0 : static_cast<std::size_t>(length)));
  return static_cast<int>(syscall(number, fd));
}

}  // namespace tolm::testing

int TOLMMountVolInfoGet(const char* path, TOLMMountVolInfo* info) {
  const auto real =
      reinterpret_cast<decltype(&TOLMMountVolInfoGet)>(dlsym(RTLD_NEXT, "TOLMMountVolInfoGet"));
  const int result = real(path, info);
  if (result == 0) {
    tolm::testing::ChangeTold(*info);
  } else {
    // The best of all volumes, for whoever looks at what was not told.
    *info = {nullptr, "", 1, 1, 1, UINT64_MAX};
    std::string(path).copy(info->mount_path, sizeof info->mount_path - 1);
  }
  return result;
}

TOLMMountVolInfo* TOLMMountVolAllEnum(int first, int second, int third) {
  const auto real =
      reinterpret_cast<decltype(&TOLMMountVolAllEnum)>(dlsym(RTLD_NEXT, "TOLMMountVolAllEnum"));
  TOLMMountVolInfo* const list = real(first, second, third);
  for (TOLMMountVolInfo* record = list; record != nullptr; record = record->next) {
    tolm::testing::ChangeTold(*record);
  }
  return list;
}

int TOLMVolumeServicePolicy(const TOLMMountVolInfo* info) {
  return info->mount_path == tolm::testing::refused_volume ? 0 : 1;
}

int syncfs(int fd) noexcept {
  return tolm::testing::NoteSync("syncfs", SYS_syncfs, fd);
}

int fsync(int fd) {
  return tolm::testing::NoteSync("fsync", SYS_fsync, fd);
}

#endif  // TOLM_TESTS_OPERATION_TOLD_VOLUMES_H_

#include "operation/room.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <filesystem>

#include "base/human_text.h"
#include "base/rules.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

// What is to be made is not there yet.
fs::path NearestExisting(fs::path path) {
  std::error_code ignored;
  while (path.has_relative_path() && !fs::exists(path, ignored)) {
    path = path.parent_path();
  }
  return path;
}

std::optional<dev_t> DeviceOf(const fs::path& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? std::make_optional(status.st_dev) : std::nullopt;
}

}  // namespace

std::optional<std::uint64_t> RoomIn(const std::string& directory) {
  struct statvfs space;
  if (statvfs(directory.c_str(), &space) != 0) {
    return std::nullopt;
  }
  const std::uint64_t available = std::uint64_t{space.f_bavail} * space.f_frsize;
  const std::uint64_t kept = std::uint64_t{space.f_blocks} * space.f_frsize / rules::kFreePart;
  return available > kept ? available - kept : 0;
}

std::string MountPointOf(const std::string& directory) {
  fs::path path = NearestExisting(directory);
  const std::optional<dev_t> device = DeviceOf(path);
  while (device && path.has_relative_path() && DeviceOf(path.parent_path()) == device) {
    path = path.parent_path();
  }
  return path.empty() ? directory : path.string();
}

Failure NoRoom(const std::string& directory, std::uint64_t free_bytes,
               std::optional<std::uint64_t> needed_bytes) {
  const std::string free = base::HumanSize(free_bytes) + " free beyond the " + rules::kReserveText;
  return {reasons::kNoRoom,
          "no room on " + MountPointOf(directory) + ": " +
              (needed_bytes ? base::HumanSize(*needed_bytes) + " needed, " + free
                            : "more is needed than the " + free),
          "make room there"};
}

}  // namespace tolm::operation

#include "operation/directory_types.h"

#include <dirent.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "base/file.h"
#include "operation/own_ground.h"
#include "tolm/volume.h"

namespace tolm::operation {
namespace {

std::filesystem::path NearestExisting(std::filesystem::path path) {
  std::error_code ignored;
  while (path.has_relative_path() && !std::filesystem::exists(path, ignored)) {
    path = path.parent_path();
  }
  return path;
}

}  // namespace

bool ListsTypes(const std::string& directory) {
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(directory.c_str()), closedir);
  if (!listing) {
    return true;
  }
  // "." is an entry, too, so that an empty directory tells as much as a full one.
  while (const dirent* const entry = readdir(listing.get())) {
    if (entry->d_type == DT_UNKNOWN) {
      return false;
    }
  }
  return true;
}

void RequireTypes(const std::string& directory) {
  const std::string looked_at = NearestExisting(directory);
  if (!ListsTypes(looked_at)) {
    throw std::runtime_error(looked_at +
                             ": the file system does not tell directories from files when it lists "
                             "them; no database can be kept there");
  }
}

void RequireKeepsDatabases(const std::string& volume) {
  RequireTypes(volume);
  try {
    RequireOwnVolume(volume);
  } catch (const ForeignGround& error) {
    throw std::runtime_error(error.reason());
  }
}

bool TypedVolumes::IsSuitable(const void* volume_record, long long required_bytes) const {
  const std::string volume = static_cast<const TOLMMountVolInfo*>(volume_record)->mount_path;
  if (!VolumeHandler::IsSuitable(volume_record, required_bytes) || !ListsTypes(volume)) {
    return false;
  }
  try {
    RequireOwnVolume(volume);
    return true;
  } catch (const ForeignGround&) {
    return false;
  } catch (const base::FileError&) {
    return false;
  }
}

}  // namespace tolm::operation

#include "operation/volume_choice.h"

#include <fcntl.h>

#include <filesystem>

#include "base/file.h"
#include "base/paths.h"

namespace tolm::operation {

void SyncChoice(const VolumeChange& change) {
  if (change.after == change.before) {
    return;
  }
  if (!change.after.empty()) {
    base::File(change.after, O_RDONLY | O_DIRECTORY).SyncFileSystem();
  }
  base::File(paths::kServiceOverrides, O_RDONLY).Sync();
  base::SyncDirectory(std::filesystem::path(paths::kServiceOverrides).parent_path());
}

}  // namespace tolm::operation

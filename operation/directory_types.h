#ifndef TOLM_OPERATION_DIRECTORY_TYPES_H_
#define TOLM_OPERATION_DIRECTORY_TYPES_H_

#include <string>

#include "dataupdate/volume_handler.h"

namespace tolm::operation {

/// Whether a listing of the directory tells directories from files. Some file systems leave that to
/// whoever looks at each entry (DT_UNKNOWN: XFS made without ftype, some FUSE); the library then
/// does not enter sub-directories and takes "." for a file. One that cannot be listed has nothing
/// against it: whoever needs it says better what is amiss.
bool ListsTypes(const std::string& directory);

/// Throws std::runtime_error that names the directory, or the nearest one above that is there, when
/// listings there do not tell directories from files.
void RequireTypes(const std::string& directory);

/// Throws std::runtime_error that says what keeps the databases from the volume, of what the
/// operations ask for besides the library: that, or a ground that is not root's alone.
void RequireKeepsDatabases(const std::string& volume);

/// Volumes are suitable only where listings of their root tell directories from files and their
/// ground is root's alone.
class TypedVolumes : public dataupdate::VolumeHandler {
 public:
  using VolumeHandler::VolumeHandler;
  bool IsSuitable(const void* volume_record, long long required_bytes) const override;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_DIRECTORY_TYPES_H_

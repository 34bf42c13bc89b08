#ifndef TOLM_PUBLISH_UNPACK_H_
#define TOLM_PUBLISH_UNPACK_H_

#include <cstdint>
#include <string>

#include "package/seal.h"
#include "package/trust.h"
#include "publish/tree.h"

namespace tolm::publish {

/// Verifies a package as a device does, unpacks it into @p directory, which is made, and reads what
/// came out, up to @p jobs files at a time. Throws package::Error.
Tree UnpackRelease(const std::string& package_path, const package::Trust& trust, std::int64_t now,
                   const std::string& directory, int jobs = 1);

/// The same of a package that is known by its digest; who has signed it is no matter.
Tree UnpackKnown(const std::string& package_path, const std::string& sha384,
                 const std::string& directory);

struct UnpackRequest {
  std::string package_path;
  std::string directory;         ///< missing or empty
  std::string keyring_path;      ///< whom it must be signed by
  std::string revocations_path;  ///< may be empty
};

struct UnpackReport {
  package::Seal seal;
  std::uint64_t files = 0;
};

/// Verifies a package as a device with this keyring does, its name included, and unpacks it:
/// complete, or not at all. Throws Error for a directory that is not empty, package::Error.
UnpackReport UnpackPackage(const UnpackRequest& request, std::int64_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_UNPACK_H_

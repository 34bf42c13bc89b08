#ifndef TOLM_PUBLISH_UNPACK_H_
#define TOLM_PUBLISH_UNPACK_H_

#include <ctime>
#include <string>

#include "package/trust.h"
#include "publish/tree.h"

namespace tolm::publish {

/// Verifies a package as a device does, unpacks it into @p directory, which is made, and reads what
/// came out. Throws package::Error.
Tree UnpackRelease(const std::string& package_path, const package::Trust& trust, std::time_t now,
                   const std::string& directory);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_UNPACK_H_

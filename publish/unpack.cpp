#include "publish/unpack.h"

#include <fcntl.h>

#include <cerrno>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/package.h"
#include "publish/files.h"

namespace tolm::publish {

Tree UnpackRelease(const std::string& package_path, const package::Trust& trust, std::time_t now,
                   const std::string& directory) {
  try {
    const package::Package package(package_path);
    package.Verify(trust, now);
    package.CheckName();
    EmptyDirectory(directory);
    const base::Descriptor target(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!target.IsOpen()) {
      throw package::WriteError(directory, errno);
    }
    package.Extract(target.Get(), nullptr);
  } catch (const package::Error& error) {
    throw package::Error(error.code(), package_path + ": " + error.what(), error.errno_value());
  }
  return ScanTree(directory);
}

}  // namespace tolm::publish

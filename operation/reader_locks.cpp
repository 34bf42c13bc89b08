#include "operation/reader_locks.h"

#include <fcntl.h>

#include <boost/format.hpp>

#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "operation/descriptor.h"
#include "src/paths.h"

namespace tolm::operation {

void MakeReaderLocks(const dataupdate::ServiceConfig& config) {
  for (const std::string& name : config.GetDatabaseIDs()) {
    const std::string path =
        (dataupdate::NoexceptFormat(dataupdate::paths::kUsingLock) % name).str();
    dataupdate::FileLock::MakeDir(path);
    const Descriptor made(path, O_RDONLY | O_CREAT);
  }
}

}  // namespace tolm::operation

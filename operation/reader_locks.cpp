#include "operation/reader_locks.h"

#include <fcntl.h>

#include <boost/format.hpp>

#include "base/file.h"
#include "base/paths.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"

namespace tolm::operation {

void MakeReaderLocks(const dataupdate::ServiceConfig& config) {
  for (const std::string& name : config.GetDatabaseIDs()) {
    const std::string path = (dataupdate::NoexceptFormat(paths::kUsingLock) % name).str();
    dataupdate::FileLock::MakeDir(path);
    const base::File made(path, O_RDONLY | O_CREAT);
  }
}

}  // namespace tolm::operation

#ifndef TOLM_OPERATION_NOTES_LOCK_H_
#define TOLM_OPERATION_NOTES_LOCK_H_

#include <cstdint>

#include "dataupdate/file_lock.h"

namespace tolm::operation {

/// The lock for the moment in which the history, the cool-downs or trust.json are read and written.
/// No other lock is taken while it is held. The lock file and the state directory are made safe
/// first (see lock_files.h, write_rights.h).
class NotesLock {
 public:
  /// Throws UpdateError when it is not had in time, and as MakeLockFile() and
  /// SecureStateDirectory() do.
  explicit NotesLock(std::uint32_t wait_seconds);

 private:
  const dataupdate::FileLock lock_;
};

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_NOTES_LOCK_H_

#ifndef TOLM_DATAUPDATE_FILE_LOCK_H_
#define TOLM_DATAUPDATE_FILE_LOCK_H_

#include <cstdint>
#include <string>

#include "dataupdate/export.h"

namespace tolm::dataupdate {

/// An exclusive advisory lock (flock) on a lock file, held as long as the object lives and ended
/// with the process at the latest. The file is created when missing and never removed. Locks belong
/// to the object, not to the process: a second one on the same file waits for the first, also
/// within one process.
///
/// The descriptor is not close-on-exec. What the library runs through the platform does not inherit
/// it; a child that the loading program itself forks or starts meanwhile does, and keeps the lock
/// when this process ends before it. Destroying the object ends the lock whoever has inherited it.
class TOLM_DATAUPDATE_API FileLock {
 public:
  /// Waits up to `timeout_seconds`, trying every 100 ms; 0 is a single attempt. Missing parent
  /// directories are created. Throws UpdateError when the file cannot be opened or the lock is not
  /// had in time.
  FileLock(const std::string& path, std::uint32_t timeout_seconds);
  ~FileLock();

  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  /// Creates every missing directory above the path.
  static void MakeDir(const std::string& path);

 private:
  std::string path_;
  int fd_;
};

/// Whether the wait for that lock file must end now.
using LockWaitQuestion = bool (*)(const std::string& path);

/// What every FileLock of this process that waits asks between two attempts, by the waiting thread:
/// true ends the wait as if its time were over. Nothing is asked with null, and in the beginning.
/// Any thread may call it, at any time; the question must not throw.
TOLM_DATAUPDATE_API void SetLockWaitQuestion(LockWaitQuestion question) noexcept;

}  // namespace tolm::dataupdate

#endif  // TOLM_DATAUPDATE_FILE_LOCK_H_

#ifndef TOLM_OPERATION_LOCK_HOLDER_H_
#define TOLM_OPERATION_LOCK_HOLDER_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace tolm::operation {

/// A process that holds a lock.
struct LockHolder {
  pid_t pid;
  std::string program;  ///< Its name; empty when it has ended and left the lock to another one.
  bool is_roots;        ///< By every one of its user ids.
};

/// Who holds the lock on that file, as the system lists it, each process once, in the order of
/// their numbers, without opening the file: it need not be the caller's to open. Nobody for a
/// missing file, and for a lock held where this process can see no one (another namespace). Waits
/// for nothing; any thread may call it.
std::vector<LockHolder> HoldersOf(const std::string& lock_file);

/// "process 4711, backup"
std::string TextOf(const LockHolder& holder);

/// Whether somebody holds the lock: asked of the lock itself by whoever may open the file, of the
/// system's list by others.
bool IsHeld(const std::string& lock_file);

/// The library's message about a lock that was not had ("... Fail to lock /run/x.lock") with who
/// holds it now behind it in parentheses. Any other message as it is.
std::string WithLockHolder(const std::string& message);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_LOCK_HOLDER_H_

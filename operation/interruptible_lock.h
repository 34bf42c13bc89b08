#ifndef TOLM_OPERATION_INTERRUPTIBLE_LOCK_H_
#define TOLM_OPERATION_INTERRUPTIBLE_LOCK_H_

#include <functional>
#include <string>

#include "dataupdate/file_lock.h"

namespace tolm::operation {

/// Throws Interrupted once Interrupt has received a signal. For what takes long, again and again.
void EndWhenInterrupted();

/// Waits so long, or until Interrupt has received a signal.
void PauseUnlessInterrupted(int seconds);

/// The lock on that file, waited for like the library waits (600 s), but a signal that Interrupt
/// has received ends the wait with Interrupted. @p on_wait is called once when there is something
/// to wait for. The file is made first, see lock_files.h. Throws UpdateError when it is not had,
/// with who holds it.
dataupdate::FileLock InterruptibleLock(const std::string& path,
                                       const std::function<void()>& on_wait = {});

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_INTERRUPTIBLE_LOCK_H_

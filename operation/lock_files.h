#ifndef TOLM_OPERATION_LOCK_FILES_H_
#define TOLM_OPERATION_LOCK_FILES_H_

#include <string>

#include "dataupdate/config.h"

namespace tolm::operation {

/// Whoever may open a lock file may hold the lock, for ever. So the lock files are made before the
/// library would make them, by root for root (0600); the readers' one of each database for all
/// (0644), or for the operator's group of readers (0640, see OperatorSettings).
///
/// One that was made otherwise is replaced while it is held, so that a descriptor on it that
/// another account has kept is of no use, unless a process of root's holds it: the next time then.
/// A readers' one that is held gets its mode and stays.
///
/// Whoever is not root makes none. They throw std::runtime_error for damaged operator's settings
/// and an unknown group, ForeignGround for a lock directory of somebody else's, and UpdateError or
/// std::system_error when one cannot be made, which names the setting where what is missing is the
/// right to give it to the group. Any thread of any process may call them at any time.
/// They wait for nothing.

/// Those of the system and of every configured database.
void MakeLockFiles(const dataupdate::ServiceConfig& config);

/// One that is not a readers' one.
void MakeLockFile(const std::string& path);

/// Whether this process may open that lock file, or make it.
bool MayLock(const std::string& path);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_LOCK_FILES_H_

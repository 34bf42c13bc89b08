#ifndef TOLM_FS_H_
#define TOLM_FS_H_

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Non-zero when something exists at `path` (symbolic links are followed), 0 otherwise. When that
 * could not be found out, TLIBCErrGet() tells why. May be called from any thread.
 */
TOLM_PLATFORM_API int TLIBCFileExist(const char* path);

/*
 * Creates the directory `path` with all missing parents. The two values after the path belong to
 * the appliance and are ignored here. `uid`, `gid` and `mode` (at most 07777, whatever the umask)
 * apply to every directory that the call creates; -1 keeps the process's own owner, group and
 * umask. An existing directory, also one that another process makes at the same moment, is success
 * and is left as it is.
 *
 * Returns 0 on success, -1 on failure; TLIBCErrGet() then tells why (ENOTDIR when something else
 * than a directory is in the way, EEXIST when that is a link to nowhere), and the directories made
 * so far stay. May be called from any thread.
 */
TOLM_PLATFORM_API int TOLMFSMkdirP(const char* path, int reserved1, int reserved2, int uid, int gid,
                                   int mode);

#ifdef __cplusplus
}
#endif

#endif /* TOLM_FS_H_ */

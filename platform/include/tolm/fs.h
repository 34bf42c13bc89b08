#ifndef TOLM_FS_H_
#define TOLM_FS_H_

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero when something exists at `path` (symbolic links are followed), 0 otherwise. */
TOLM_PLATFORM_API int TLIBCFileExist(const char *path);

/*
 * Creates the directory `path` with all missing parents. The two values after the path belong to the
 * appliance and are ignored here. `uid`, `gid` and `mode` apply to the directories that the call creates;
 * -1 keeps the process's own owner, group and umask. An existing directory is success and is left as it is.
 * Returns 0 on success, -1 on failure; TLIBCErrGet() then tells why.
 */
TOLM_PLATFORM_API int TOLMFSMkdirP(const char *path, int reserved1, int reserved2, int uid, int gid,
                                   int mode);

#ifdef __cplusplus
}
#endif

#endif  /* TOLM_FS_H_ */

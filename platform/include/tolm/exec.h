#ifndef TOLM_EXEC_H_
#define TOLM_EXEC_H_

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Runs the program at the absolute path `path` and waits for it. The arguments that follow `options` become
 * the program's argv[1], argv[2], ... and end with a null pointer; argv[0] is `path`. `options` is the
 * appliance's own set of bits and has no effect on ordinary Linux.
 *
 * The child reads /dev/null, inherits no descriptor above 2 (so it can never keep a lock of its parent),
 * has a process group of its own, default signal dispositions and an empty signal mask. When it fails, its
 * exit status and the last lines of its standard error go to the system log at notice level.
 *
 * Returns the exit status (0 to 255), 128 + the signal's number when a signal ended it, and a negative value
 * when the program could not be run or running programs is cancelled; TLIBCErrGet() then tells why.
 * May be called from any thread.
 */
TOLM_PLATFORM_API int TLIBCExecl(const char *path, int options, ...);

/* The same for a program with up to four arguments; the first null pointer ends the list. */
TOLM_PLATFORM_API int TLIBCExec(const char *program, const char *a1, const char *a2, const char *a3,
                                const char *a4);

/*
 * While `cancelled` is non-zero, the child that a TLIBCExecl or TLIBCExec call waits for is ended (its whole
 * process group, SIGTERM and then SIGKILL) and no other is started: those calls return a negative value or
 * 128 + signal and the caller's own error path runs. 0 allows programs again. May be called from any thread,
 * not from a signal handler. Does not wait.
 */
TOLM_PLATFORM_API void TLIBCExecCancel(int cancelled);

#ifdef __cplusplus
}
#endif

#endif  /* TOLM_EXEC_H_ */

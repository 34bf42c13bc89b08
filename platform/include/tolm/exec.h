#ifndef TOLM_EXEC_H_
#define TOLM_EXEC_H_

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Runs the program at the absolute path `path` and waits for it. The arguments that follow
 * `options` become the program's argv[1], argv[2], ... and end with a null pointer; argv[0] is
 * `path`. `options` is the appliance's own set of bits and has no effect on ordinary Linux.
 *
 * The child has this process's environment and working directory, reads /dev/null, inherits no
 * descriptor above 2 (so it can never keep a lock of its parent), has a process group of its own,
 * default signal dispositions and an empty signal mask. Its standard output is discarded. Of its
 * standard error the end is kept: when it fails, its exit status and the last lines (at most 20, 4
 * KiB) go to the system log at notice level. There is no time limit. Processes that the program
 * leaves in the background are not waited for; when they write to its standard error later, they
 * get SIGPIPE.
 *
 * Returns the exit status (0 to 255), 128 + the signal's number when a signal ended it, and a
 * negative value when the program could not be run or was cancelled; TLIBCErrGet() then tells why
 * (ECANCELED when it was cancelled). A process must not ignore SIGCHLD, nor collect children that
 * it did not start itself: the exit status is lost then, and the result is negative with ECHILD,
 * although the program has run.
 *
 * May be called from any thread, also from several at once.
 */
TOLM_PLATFORM_API int TLIBCExecl(const char* path, int options, ...);

/* The same for a program with up to four arguments; the first null pointer ends the list. */
TOLM_PLATFORM_API int TLIBCExec(const char* program, const char* a1, const char* a2, const char* a3,
                                const char* a4);

/*
 * While `cancelled` is non-zero, the children that TLIBCExecl and TLIBCExec calls wait for are
 * ended (the whole process group of each: SIGTERM, SIGKILL three seconds later, and SIGKILL for
 * what outlives the program itself) and no other is started: those calls return a negative value or
 * 128 + signal and the caller's own error path runs. 0 allows programs again; what was running is
 * ended all the same. Plug-ins are not touched.
 *
 * May be called from any thread, not from a signal handler. Waits for no program, at most for a
 * start that is under way at this moment.
 */
TOLM_PLATFORM_API void TLIBCExecCancel(int cancelled);

#ifdef __cplusplus
}
#endif

#endif /* TOLM_EXEC_H_ */

#ifndef TOLM_DATAUPDATE_PROJECT_LOCK_H_
#define TOLM_DATAUPDATE_PROJECT_LOCK_H_

/*
 * For programs that read a database, in C (C99) or C++: while one holds this lock, no update
 * changes the database's files. The functions are exported under these plain names, so they can
 * also be looked up in libtolmdbud.so.1 with dlsym(). They may be called from any thread.
 */

#include <stddef.h>
#include <stdint.h>

#include "dataupdate/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Takes a shared lock on the database `name`, which must not be null. Any number of readers hold it
 * at once; while an update is replacing the files, waits up to `timeout_seconds` (trying every 100
 * ms; 0 is a single attempt).
 *
 * Returns a descriptor, 0 or greater, that holds the lock and belongs to the caller, who hands it
 * to TOLMDBUDReleaseFileLock. -1: not obtained in time. -2: the database is not configured, or its
 * lock file cannot be opened or does not exist (the service makes it; a reader never does). The
 * system log has the reason.
 *
 * The lock ends with the process. The descriptor is not close-on-exec: a program that is started
 * meanwhile and inherits it keeps the lock as well.
 *
 * Readers that take turns without a gap keep updates out: pause between two locks at least as long
 * as all readers together hold it in one turn (some 200 ms when reading takes milliseconds).
 */
TOLM_DATAUPDATE_API int TOLMDBUDGetFileLock(const char* name, uint32_t timeout_seconds);

/* Releases the lock and closes the descriptor. A negative value, a failed call's result, is
 * ignored. */
TOLM_DATAUPDATE_API void TOLMDBUDReleaseFileLock(int fd);

/*
 * Where the database `name`, which must not be null, is installed: puts the directory's absolute
 * path with a terminating null byte into the `size` bytes at `path`, which belong to the caller;
 * 4096 are enough for any. To be asked while the lock is held, each time anew: databases move when
 * another volume is chosen. Looks at the settings only and waits for nothing; the directory need
 * not be there, before the first installation or while its volume is not mounted.
 *
 * Returns 0. -1: the database is kept on a volume and none is chosen. -2: it is not configured, or
 * its settings cannot be read; the system log has the reason. -3: `size` is too small. `path` is
 * changed by success only.
 */
TOLM_DATAUPDATE_API int TOLMDBUDGetDirectory(const char* name, char* path, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* TOLM_DATAUPDATE_PROJECT_LOCK_H_ */

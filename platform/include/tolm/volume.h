#ifndef TOLM_VOLUME_H_
#define TOLM_VOLUME_H_

#include <stdint.h>

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A volume is a mounted file system whose mount point matches one of the shell patterns in
 * /usr/tolm/etc/volumes.conf:
 *
 *     # where the disks are mounted
 *     /volume[0-9]*
 *     /mnt/data disk
 *
 * One pattern a line. Lines that are empty or begin with "#" do not count, nor do blanks at both
 * ends of a line. A pattern must match the whole mount point, by the shell's rules: "*" and "?"
 * match neither a "/" nor a "." that begins a name, and a backslash takes its meaning from the
 * character after it. Without the file, "/volume[0-9]*" is the one pattern. A file without a
 * pattern means that there is no volume; a file that cannot be read makes the calls fail.
 *
 * Nothing is kept between calls: each reads the file and the kernel's mount table anew. All
 * functions may be called from any thread. After a failure TLIBCErrGet() tells why.
 */

/* One mounted volume. */
typedef struct TOLMMountVolInfo {
  struct TOLMMountVolInfo* next; /* the next record of an enumeration, null at its end */
  char mount_path[4096];
  unsigned int flags; /* lowest bit: mounted read-write; the others are 0 */
  int is_local;       /* non-zero: not a network file system */
  int is_healthy;     /* non-zero: the file system answers */
  uint64_t available; /* bytes that an unprivileged writer may still use */
} TOLMMountVolInfo;

/*
 * The mounted volumes in the kernel's order, as a list that the caller releases with
 * TOLMMountVolInfoFree. Never an empty list: null with ENODEV from TLIBCErrGet() when there is no
 * volume, null with another error when the volumes could not be found out. The three values belong
 * to the appliance and have no effect here.
 *
 * Of several file systems mounted at one place, the visible one is listed; one that is hidden below
 * another mount point is not. A mount point too long for a record is left out. Network file systems
 * are never asked anything, because a server that is gone would keep the caller waiting: they count
 * as not healthy, with 0 bytes available. So does a local file system that answers with an error.
 */
TOLM_PLATFORM_API TOLMMountVolInfo* TOLMMountVolAllEnum(int reserved1, int reserved2,
                                                        int reserved3);

/*
 * Describes the volume whose mount point is exactly `path`: no other spelling of it (a "/" at the
 * end, a link) and no directory on it. Returns 0 with the record filled and its `next` null, or -1
 * with the record untouched, ENODEV from TLIBCErrGet() meaning that no volume is mounted there.
 */
TOLM_PLATFORM_API int TOLMMountVolInfoGet(const char* path, TOLMMountVolInfo* info);

/* Releases a list; null is ignored. Not for a record that TOLMMountVolInfoGet has filled. */
TOLM_PLATFORM_API void TOLMMountVolInfoFree(TOLMMountVolInfo* list);

/*
 * Non-zero when services may keep data on the volume, 0 when not: when its root directory holds
 * something named ".no-services" or that could not be found out. Volumes that are not local or not
 * healthy are refused without a look at them.
 */
TOLM_PLATFORM_API int TOLMVolumeServicePolicy(const TOLMMountVolInfo* info);

#ifdef __cplusplus
}
#endif

#endif /* TOLM_VOLUME_H_ */

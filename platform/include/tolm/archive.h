#ifndef TOLM_ARCHIVE_H_
#define TOLM_ARCHIVE_H_

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A signed package being read. Its third 32-bit word is the last error code, unsigned. */
typedef struct tolmarchive tolmarchive;

/*
 * A handle that extracts into the existing directory `destination`. Null when the directory cannot be opened
 * or memory is exhausted. The caller frees it.
 */
TOLM_PLATFORM_API tolmarchive *tolmarchive_init(const char *destination);

/*
 * Opens `package` and verifies it whole against the certificates trusted for `key_type`; nothing of it is
 * parsed before. Returns non-zero on success, 0 on failure with the handle's error code set. Once per handle.
 */
TOLM_PLATFORM_API int tolmarchive_open_with_keytype(tolmarchive *handle, const char *package,
                                                    int key_type);

/*
 * Extracts the members named in the null-terminated list, or every member when the list is null. `flags`
 * belongs to the appliance and has no effect here. Returns non-zero on success, 0 on failure with the
 * handle's error code set; members extracted before the failure stay.
 */
TOLM_PLATFORM_API int tolmarchive_extract_multiple(tolmarchive *handle, const char *const *members,
                                                   int flags);

/* Releases the handle and everything it holds; null is ignored. */
TOLM_PLATFORM_API void tolmarchive_free(tolmarchive *handle);

#ifdef __cplusplus
}
#endif

#endif  /* TOLM_ARCHIVE_H_ */

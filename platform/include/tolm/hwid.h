#ifndef TOLM_HWID_H_
#define TOLM_HWID_H_

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The device's identifier: up to 64 lower-case hexadecimal characters and a NUL. */
typedef struct {
  char text[65];
} tolmcrypto_hwid;

/* A new context with an empty text, or null when memory is exhausted. The caller frees it. */
TOLM_PLATFORM_API tolmcrypto_hwid* tolmcrypto_hwid_init(void);

/*
 * Puts the first `length` characters (1 to 64) of this device's identifier into the context's text.
 * Returns non-zero on success; 0 when the context is null, the length is out of range or the
 * machine has no identity (no valid machine id: TLIBCErrGet() gives ENODATA, or why it could not be
 * read), and the text is then empty. The identifier is the same on every call and every start of
 * this machine, and the machine id cannot be computed from it. Contexts may be used from any
 * thread, each by one at a time.
 */
TOLM_PLATFORM_API int tolmcrypto_hwid_str(tolmcrypto_hwid* context, int length);

/* Releases a context; null is ignored. */
TOLM_PLATFORM_API void tolmcrypto_hwid_free(tolmcrypto_hwid* context);

#ifdef __cplusplus
}
#endif

#endif /* TOLM_HWID_H_ */

#ifndef TOLM_INFO_H_
#define TOLM_INFO_H_

#include <stddef.h>

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Writes the user-agent string for `product` into `buffer` as NUL-terminated text: product, project
 * version, operating system and architecture, never the host name. Returns the text's length
 * without the NUL, or a negative value when a pointer is null or `size` bytes are too few (EINVAL
 * and ERANGE from TLIBCErrGet()); the buffer then holds the empty string (when it can hold
 * anything). For example: "database/1.0.0 (Linux; x86_64)". May be called from any thread.
 */
TOLM_PLATFORM_API int TLIBTminfoUserAgentGet(const char* product, char* buffer, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* TOLM_INFO_H_ */

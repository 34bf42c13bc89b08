#ifndef TOLM_ERR_H_
#define TOLM_ERR_H_

#include "tolm/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The calling thread's last platform error as an errno value, 0 when no platform call has failed in
 * this thread. A platform call that succeeds leaves it as it is.
 */
TOLM_PLATFORM_API int TLIBCErrGet(void);

#ifdef __cplusplus
}
#endif

#endif /* TOLM_ERR_H_ */

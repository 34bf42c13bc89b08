#ifndef TOLM_OPERATION_ENVIRONMENT_H_
#define TOLM_OPERATION_ENVIRONMENT_H_

#include "operation/export.h"

namespace tolm::operation {

/// Makes the process independent of who started it; to be called before the first thread.
/// Points wget at the system's own settings unless the operator has set others: SYSTEM_WGETRC at
/// the shipped file and WGETRC at an empty one. Lets children be waited for also when the parent
/// ignored its own: an ignored SIGCHLD is inherited. What is made from now on can be read by
/// everybody and written by its owner alone (umask 022). Neither waits nor throws.
TOLM_OPERATION_API void PrepareProcess();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_ENVIRONMENT_H_

#ifndef TOLM_OPERATOR_ENVIRONMENT_H_
#define TOLM_OPERATOR_ENVIRONMENT_H_

namespace tolm::operation {

/// Points wget at the system's own settings unless the operator has set others: SYSTEM_WGETRC at
/// the shipped file and WGETRC at an empty one. Changes the process's environment, so call it
/// before the first thread.
void SetWgetDefaults();

}  // namespace tolm::operation

#endif  // TOLM_OPERATOR_ENVIRONMENT_H_

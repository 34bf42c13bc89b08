#ifndef TOLM_OPERATION_RUNNING_PROGRAM_H_
#define TOLM_OPERATION_RUNNING_PROGRAM_H_

#include <string>
#include <vector>

namespace tolm::operation {

/// Whether a process of this machine was started with exactly these arguments, the program's name
/// first, and runs. A process that this one may not look at is none.
bool IsRunning(const std::vector<std::string>& arguments);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_RUNNING_PROGRAM_H_

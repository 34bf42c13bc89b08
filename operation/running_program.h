#ifndef TOLM_OPERATION_RUNNING_PROGRAM_H_
#define TOLM_OPERATION_RUNNING_PROGRAM_H_

#include <string>
#include <vector>

namespace tolm::operation {

/// Whether a process of this machine was started with exactly these arguments, the program's name
/// first, and runs, by the account that this one is of, and sees the same directories at
/// @p places: one of another account, or of a container with volumes of its own, may be called
/// anything. A directory that neither of the two sees counts as the same. A process that this one
/// may not look at is none.
bool IsRunning(const std::vector<std::string>& arguments,
               const std::vector<std::string>& places = {});

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_RUNNING_PROGRAM_H_

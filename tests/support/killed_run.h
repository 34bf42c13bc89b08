#ifndef TOLM_SUPPORT_KILLED_RUN_H_
#define TOLM_SUPPORT_KILLED_RUN_H_

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace tolm::testing {

/// Runs tolmdbud, which must succeed, and returns the calls that it makes in order to change files
/// (or to lock them, to sync them, to start a program), each as its name and what it is about:
/// "rename /a". Starting a program gives two lines, one for when it runs. Throws std::runtime_error
/// when the command fails.
std::vector<std::string> TraceFileChanges(const std::vector<std::string>& command);

/// Runs tolmdbud and ends it by SIGKILL right before the call of this number, counted from 1. What
/// it has started lives on. One that makes fewer calls is not ended.
CommandResult RunUntilFileChange(const std::vector<std::string>& command, std::size_t number);

/// From now on, processes that are left without a parent become this one's children, for
/// WaitForOrphans(). Throws std::system_error.
void AdoptOrphans();

/// Waits for the end of every child that this process has. None may be waited for elsewhere.
void WaitForOrphans();

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_KILLED_RUN_H_

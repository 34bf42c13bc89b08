#ifndef TOLM_OPERATION_BOUNDED_DOWNLOADS_H_
#define TOLM_OPERATION_BOUNDED_DOWNLOADS_H_

#include <functional>

#include "operation/export.h"

namespace tolm::operation {

/// Runs something that downloads without being an operation: with bounds, ended by a signal that
/// Interrupt has received, and with the reasons of failures. Throws what it throws: UpdateError
/// with the reason added, Interrupted in place of any failure after a signal. Works in the caller's
/// thread, one at a time in a process; while there is a Run, in the Run's thread. Throws
/// std::runtime_error as BuildService does.
TOLM_OPERATION_API void WithBoundedDownloads(const std::function<void()>& action);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_BOUNDED_DOWNLOADS_H_

#ifndef TOLM_OPERATION_LIBRARY_FAILURE_H_
#define TOLM_OPERATION_LIBRARY_FAILURE_H_

#include <optional>
#include <string>

#include "operation/failure.h"

namespace tolm::operation {

/// What the text of one of the library's errors tells, where nothing else does: the one place where
/// the library's texts are read. Nothing for a text that tells no more than it says. Looks at the
/// settings, the disk and the list of locks for what belongs to it.
std::optional<Failure> FailureIn(const std::string& message);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_LIBRARY_FAILURE_H_

#ifndef TOLM_OPERATION_HALF_WRITTEN_H_
#define TOLM_OPERATION_HALF_WRITTEN_H_

#include "dataupdate/config.h"

namespace tolm::operation {

/// Removes what a killed program, or a power failure, has left beside files of state and settings:
/// the new file ("X.new") that was to take X's place. Does nothing while anybody holds one of the
/// locks under which they are written, and waits for none; nobody is hurt by what stays, and who
/// writes the file next writes over it. The lock files must be there. Throws nothing.
void RemoveHalfWritten(const dataupdate::ServiceConfig& config) noexcept;

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_HALF_WRITTEN_H_

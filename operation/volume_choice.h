#ifndef TOLM_OPERATION_VOLUME_CHOICE_H_
#define TOLM_OPERATION_VOLUME_CHOICE_H_

#include "operation/volume_events.h"

namespace tolm::operation {

/// The library leaves it to the kernel when the choice, and what was moved, come to the disk: a
/// power failure could take back both, after the files have gone from where they were. When this
/// returns they are there. Throws base::FileError.
void SyncChoice(const VolumeChange& change);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_VOLUME_CHOICE_H_

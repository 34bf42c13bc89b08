#ifndef TOLM_PUBLISH_REPLAY_REPLAY_DEVICE_H_
#define TOLM_PUBLISH_REPLAY_REPLAY_DEVICE_H_

#include "publish/replay/order.h"

namespace tolm::publish {

/// Applies the packages as one update of a device of the size of one directory, which is the
/// current one: what is installed lies in kReplayInstalled, and everything that an update needs
/// besides is made there too; it can be done again with the next packages. Returns what the
/// library's own code has touched, or why it failed. Uses variables of the process and paths
/// relative to the current directory: for a process that does nothing else. Throws
/// package::Error(kKeyring).
ReplayAnswer UpdateReplayDevice(const ReplayOrder& order);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REPLAY_REPLAY_DEVICE_H_

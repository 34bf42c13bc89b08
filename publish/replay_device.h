#ifndef TOLM_PUBLISH_REPLAY_DEVICE_H_
#define TOLM_PUBLISH_REPLAY_DEVICE_H_

#include <map>
#include <string>

#include "package/trust.h"

namespace tolm::publish {

/// A device of the size of one directory, the current one: what is installed lies in "installed",
/// and everything that an update needs besides is made there too.
struct ReplayDevice {
  std::string name;  ///< of the database
  int installed_version = 0;
  std::map<int, std::string> packages;  ///< by the version that they produce; absolute paths
  const package::Trust* trust = nullptr;
  std::time_t now = 0;
};

/// Applies the packages as one update of the device, by the library's own code. Returns why that
/// failed, in the words that a device would log; empty when it is done. Uses variables of the
/// process and paths relative to the current directory: for a process that does nothing else.
std::string UpdateReplayDevice(const ReplayDevice& device);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REPLAY_DEVICE_H_

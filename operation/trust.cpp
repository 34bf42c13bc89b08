#include "operation/trust.h"

#include <ctime>

#include "base/paths.h"
#include "operation/history.h"
#include "operation/interruptible_lock.h"
#include "operation/trust_state.h"

namespace tolm::operation {
namespace {

void RequireLower(int version, int floor) {
  if (version < 0) {
    throw NotLower("a version is not negative");
  }
  if (version >= floor) {
    throw NotLower(floor == kNeverInstalled
                       ? "nothing was ever installed, so there is no floor"
                       : "the floor is " + std::to_string(floor) + ", which is not above " +
                             std::to_string(version));
  }
}

}  // namespace

int FloorOf(const Service& service, const std::string& name) {
  service.config->CheckSupported(name);
  return FloorOf(name);
}

void LowerFloor(const Service& service, const std::string& name, int version) {
  service.config->CheckSupported(name);
  const dataupdate::FileLock lock = InterruptibleLock(paths::kOperatorLock);
  HistoryEntry entry;
  entry.operation = "trust-lower";
  entry.database = name;
  entry.from = FloorOf(name);
  RequireLower(version, entry.from);
  SetFloor(name, version);
  entry.to = version;
  entry.outcome = kLowered;
  entry.time = TimeText(static_cast<std::int64_t>(std::time(nullptr)));
  AppendToHistory(entry);
}

}  // namespace tolm::operation

#include "operation/trust.h"

#include <ctime>

#include "base/paths.h"
#include "dataupdate/io_utils.h"
#include "operation/belief.h"
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

DescriptionTrust TrustInDescriptions() {
  const SignedState state = ReadSignedState();
  const offer::Accepted& accepted = state.accepted;
  DescriptionTrust trust;
  trust.is_signed_wanted = state.is_wanted;
  trust.is_signed_required = IsSignedRequired();
  if (!accepted.repository.empty()) {
    trust.accepted = AcceptedDescription{accepted.repository, accepted.epoch, accepted.counter,
                                         accepted.issued, accepted.expires};
  }
  return trust;
}

void ForgetDescriptions() {
  const dataupdate::FileLock lock = InterruptibleLock(paths::kOperatorLock);
  {
    // First the cached one, by which what is forgotten would be remembered again.
    const dataupdate::FileLock description_lock = InterruptibleLock(paths::kFreshInfoLock);
    dataupdate::IOUtils().RmRf(paths::kDatabaseInfo);
    ForgetSignedDescriptions();
  }
  HistoryEntry entry;
  entry.operation = "trust-reset";
  entry.outcome = kReset;
  entry.time = TimeText(static_cast<std::int64_t>(std::time(nullptr)));
  AppendToHistory(entry);
}

}  // namespace tolm::operation

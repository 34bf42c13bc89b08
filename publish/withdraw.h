#ifndef TOLM_PUBLISH_WITHDRAW_H_
#define TOLM_PUBLISH_WITHDRAW_H_

#include <cstdint>
#include <optional>
#include <string>

#include "publish/release.h"

namespace tolm::publish {

struct WithdrawRequest {
  std::string repository;
  std::string name;
  int version = 0;
  bool dry_run = false;            ///< everything but the change
  int jobs = base::DefaultJobs();  ///< how many things are done at a time; the result is the same
};

struct WithdrawReport {
  int newest = 0;                  ///< that devices are offered from now on
  bool has_ended_rollout = false;  ///< it is the stable version
  std::optional<int>
      restored;           ///< whose files are released again; none: the version is only marked
  ReleaseReport release;  ///< when some are
};

/// Takes a bad version back. Devices never step back: when it is the newest one, the files of the
/// newest good version before it are released again as the version after it. Good is what was not
/// withdrawn and has other files than everything that was. An older version is only marked.
///
/// While a rollout is open, the newest version is a staged one: the files of the stable one are
/// released again, all devices are offered that, and the rollout is over. The stable version cannot
/// be withdrawn then, nor one whose files it has.
///
/// The deltas of all steps from the good version on are offered, also those that were too large
/// before or offered no longer, and those that led to the good version, as long as TrimChain() lets
/// them; where one is missing it is made from the two full packages. Every chain that is offered
/// anew is proved from its beginning before. Of a damaged or missing full package only that of the
/// good version is indispensable; no delta leads to another one or on from it.
///
/// Neither what has shrunk nor the publisher's own test has a say. Throws Error, package::Error;
/// then the repository serves what it did before.
WithdrawReport WithdrawRelease(const WithdrawRequest& request, std::int64_t now, const Notes& notes,
                               const Steps& steps);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_WITHDRAW_H_

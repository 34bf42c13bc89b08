#ifndef TOLM_PUBLISH_PUSH_H_
#define TOLM_PUBLISH_PUSH_H_

#include <cstdint>
#include <string>
#include <vector>

#include "publish/repository.h"
#include "publish/workshop.h"

namespace tolm::publish {

struct PushRequest {
  std::string repository;
  std::string remote;    ///< what rclone understands
  int grace_days = 1;    ///< what no pushed description needs any more stays there so long
  bool dry_run = false;  ///< the remote is looked at, and nothing is changed there
  bool again = false;    ///< packages that were proved there before are proved again
  /// Another repository's description is replaced, and another push's mark not waited for.
  bool insist = false;
};

/// What was done, or, of a dry run, would be.
struct PushReport {
  std::string remote;                 ///< for people
  std::vector<std::string> uploaded;  ///< packages
  std::uint64_t uploaded_bytes = 0;
  std::uint64_t proved = 0;    ///< packages whose content was compared, uploaded or not
  std::uint64_t packages = 0;  ///< that are there now
  bool is_new_description = false;
  std::vector<std::string> removed;
  std::vector<std::string> waiting;  ///< the repository has them no more, and not for long enough
};

/// Brings what a repository serves to a store: packages that are not there, or differ, and proves
/// them; then the description as it was when this began, as a whole; then removes packages of this
/// repository's kind that it has no more, after the grace period. Ended at any moment, the next
/// push completes it, and the store never offers what it does not have.
///
/// The repository's lock is held for a moment only; what it loses meanwhile is kept in
/// state/pushed/. Pushes to one remote are kept apart: from one repository by a lock, from several
/// machines by a mark at the remote (PushMark). A newer description is not replaced
/// (RequireMayFollow). Waits as long as rclone does. Throws Error, package::Error.
PushReport Push(const PushRequest& request, std::int64_t now, const Notes& notes,
                const Steps& steps);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PUSH_H_

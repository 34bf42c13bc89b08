#ifndef TOLM_PUBLISH_CHECK_H_
#define TOLM_PUBLISH_CHECK_H_

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "publish/release.h"

namespace tolm::publish {

struct CheckRequest {
  std::string repository;
  std::optional<int> min_days;   ///< by default Settings::min_certificate_days
  std::string revocations_path;  ///< may be empty
};

struct CheckReport {
  std::vector<std::string> wrong;  ///< a sentence each; empty: the repository is in order
  std::vector<std::string>
      remarks;  ///< what an interrupted command has left to do, and what may become wrong
  std::uint64_t packages = 0;
  std::uint64_t chains = 0;  ///< that were replayed
  /// A certificate that is needed has fewer days left than it should, or cannot be read. It is
  /// among the remarks.
  bool certificates_need_care = false;
};

/// Proves what is served: every link of the description is there with the stated size and digest,
/// every package of a release is signed below the root, under its own name, and can be read to its
/// end, and from every version that is still there the offered deltas, applied as devices do, lead
/// to the newest one. And that it is what the catalog says: the description, and nothing besides.
///
/// Where descriptions are signed, what is served is judged as a device judges that knows nothing of
/// this repository but its root and the settings' revocations; its counter is not below the
/// catalog's, and it does not end within DescriptionCareSeconds().
///
/// With revocations, which must be the repository's (LoadRevocations), also that no revoked
/// certificate has signed what is offered.
///
/// An interrupted command leaves things that only the next command removes or completes; they are
/// remarks, and what is served is proved all the same. Changes nothing but the work directory;
/// takes the lock. Throws Error, package::Error when the check itself cannot be made.
CheckReport CheckRepository(const CheckRequest& request, std::time_t now, const Steps& steps);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_CHECK_H_

#ifndef TOLM_PUBLISH_CHECK_H_
#define TOLM_PUBLISH_CHECK_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "publish/release.h"

namespace tolm::publish {

struct CheckRequest {
  std::string repository;
  std::optional<int> min_days;   ///< by default Settings::min_certificate_days
  std::string revocations_path;  ///< may be empty
  /// No package is read to its end and no delta applied.
  bool quick = false;
  /// Only releases of the last so many days are proved; of other packages it is looked that they
  /// are there with their size. By default all.
  std::optional<int> since_days;
  bool again = false;  ///< what was proved before is proved again
  int jobs = 1;        ///< how many packages and databases are worked on at a time
};

struct CheckReport {
  std::vector<std::string> wrong;  ///< a sentence each; empty: the repository is in order
  /// How many of these each part of the check has found, also of those that found none:
  /// "description", "signature", "revocations", "files", "packages", "offers".
  std::map<std::string, std::size_t> problems;
  std::vector<std::string>
      remarks;  ///< what an interrupted command has left to do, and what may become wrong
  std::uint64_t packages = 0;                       ///< whose digests were compared
  std::map<std::string, std::size_t> compressions;  ///< how these are compressed, and how many so
  std::uint64_t older_packages = 0;  ///< CheckRequest::since_days: of which only the size was
  std::uint64_t replayed = 0;        ///< deltas that were applied
  std::uint64_t remembered = 0;      ///< deltas that had been before, with the same packages
  std::uint64_t together = 0;        ///< chains that were applied in one update besides
  /// Deltas that could not be applied: the full package of the version before is not there.
  std::uint64_t without_start = 0;
  /// A certificate that is needed has fewer days left than it should, or cannot be read. It is
  /// among the remarks.
  bool certificates_need_care = false;
};

/// Proves what is served: every link of the description is there with the stated size and digest,
/// every package of a release is signed below the root, under its own name, and can be read to its
/// end, and from every version that is still there the offered deltas, applied as devices do, lead
/// to the newest one, step by step, and to the stable one while a rollout is open (ProveChain). And
/// that it is what the catalog says: the description, and nothing besides.
///
/// Where descriptions are signed, what is served is judged as a device judges that knows nothing of
/// this repository but its root and the settings' revocations; its counter is not below the
/// catalog's, and it does not end within DescriptionCareSeconds().
///
/// With revocations, which must be the repository's (LoadRevocations), also that no revoked
/// certificate has signed what is offered.
///
/// Deltas that were applied before are not applied again when nothing has changed that the result
/// hangs on; the packages themselves are read every time. An interrupted command leaves things that
/// only the next command removes or completes; they are remarks, and what is served is proved all
/// the same. Changes nothing but the work directory and what it remembers (RepositoryPaths); that
/// it cannot write the latter is a remark. Takes the lock. The report is the same however many jobs
/// there are. @p steps is called from one thread at a time, which may be another than the caller's.
/// Throws Error, package::Error when the check itself cannot be made.
CheckReport CheckRepository(const CheckRequest& request, std::int64_t now, const Steps& steps);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_CHECK_H_

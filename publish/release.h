#ifndef TOLM_PUBLISH_RELEASE_H_
#define TOLM_PUBLISH_RELEASE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/parallel.h"
#include "publish/delta.h"
#include "publish/error.h"
#include "publish/rollout.h"
#include "publish/tree_changes.h"
#include "publish/workshop.h"

namespace tolm::publish {

/// The first version of a database unless another is asked for.
inline constexpr int kFirstVersion = 1000001;

struct ReleaseRequest {
  std::string repository;
  std::string name;
  std::string directory;
  std::optional<int> version;  ///< by default the one after the newest
  bool follow_links = false;
  bool dry_run = false;            ///< everything but the change
  bool allow_shrink = false;       ///< what has shrunk is noted, and released all the same
  bool allow_withdrawn = false;    ///< so are the files of a release that was withdrawn
  int jobs = base::DefaultJobs();  ///< how many things are done at a time; the result is the same
  /// By which it reaches the devices, which begin when it is committed; none: all at once.
  std::vector<offer::RolloutStep> stages = {};
};

/// What a device with this version loads to come to the newest one.
struct Load {
  int version = 0;
  bool withdrawn = false;  ///< the version that it has
  std::uint64_t deltas = 0;
  std::uint64_t bytes = 0;
};

/// What was released, or would be.
struct ReleaseReport {
  int version = 0;
  bool unchanged = false;  ///< the newest release has this content already; nothing was done
  std::uint64_t files = 0;
  std::uint64_t full_bytes = 0;
  std::vector<FileChange> changes;           ///< since the newest release; of the first one none
  std::vector<FileDelta> file_deltas;        ///< of the delta, when there is one
  std::optional<std::uint64_t> delta_bytes;  ///< of its package
  std::string no_delta_reason;
  std::size_t offered_deltas = 0;  ///< that lead to this version, together with
  std::uint64_t offered_bytes = 0;
  std::vector<Load> loads;            ///< of those that come by deltas, the newest first
  std::vector<std::string> findings;  ///< of a dry run: why a release would be refused, a line each
  std::string refusal;  ///< what they are, and how to insist; empty when there are none
  std::optional<OpenRollout> rollout;  ///< of a staged release
};

/// The release was not made because of its files. what() says how to insist.
class Refused : public Error {
 public:
  Refused(const std::string& what, std::vector<std::string> findings)
      : Error(what), findings_(std::move(findings)) {}
  /// A line each.
  const std::vector<std::string>& findings() const noexcept { return findings_; }

 private:
  std::vector<std::string> findings_;
};

/// Releases the directory's content as the next version of a database: a full package, a delta from
/// the version before that was proved by applying it as devices do, and the description, last. When
/// the newest release has this content already (and no other version is asked for), does nothing:
/// that is how an interrupted release is completed by doing it again.
///
/// With stages it is the next version, and what is stable stays so; an open rollout is followed by
/// its own. One that has reached all devices is finished first in any case. Throws Error without
/// stages beside another one, and with stages for a first release or without a signed description.
///
/// Published is what the directory held when it was packed; it may change afterwards. What has
/// shrunk is judged by, and the publisher's own test sees, the files that came out of the signed
/// package: no others can be published. The test has a copy of its own, which is removed after it;
/// a test that changes one of its files is a failed one. With several jobs and without a test,
/// patches are made while the package is: to the files as they were read in the directory, and used
/// for the same content from the package alone.
///
/// Throws Refused, Error, package::Error, Interrupted; then the repository serves what it did
/// before. A dry run reports in place of Refused, leaves all files of the repository as they were,
/// and throws all else that the release would.
ReleaseReport MakeRelease(const ReleaseRequest& request, std::int64_t now, const Notes& notes,
                          const Steps& steps);

/// What devices load that come to the newest version by the offered deltas, the newest first.
std::vector<Load> LoadsOf(const Database& database);
/// The same of another version.
std::vector<Load> LoadsTo(const Database& database, int version);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_RELEASE_H_

#ifndef TOLM_PUBLISH_CHECK_CHAIN_H_
#define TOLM_PUBLISH_CHECK_CHAIN_H_

#include <climits>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "package/trust.h"
#include "publish/check_memory.h"

namespace tolm::publish {

struct ChainPackage {
  std::string path;  ///< absolute
  std::string sha384;
};

struct ChainRelease {
  ChainPackage full;
  std::string content;  ///< as TreeDigest() makes it, as it was recorded
};

struct ChainDelta {
  int version = 0;  ///< that it leads to
  /// Without a path when it cannot be used; that is said of the package itself, too.
  ChainPackage package;
  std::set<std::string> keys;  ///< what it names, as it was recorded
};

/// A chain of deltas that is to be proved.
struct ChainOrder {
  std::string name;                      ///< of the database
  std::map<int, ChainRelease> releases;  ///< whose full packages are there and sound, by version
  /// One for each version, ascending, without a gap but for one after the stable version.
  std::vector<ChainDelta> deltas;
  /// A version that devices are led to besides the last one.
  std::optional<int> stable = {};
  /// Deltas to older versions are not proved. They, and full packages from before the first one
  /// that is, need not have been compared with their digests: where one is used after all, it is.
  int since = INT_MIN;
  std::string work_directory;  ///< empty or missing
  /// Where what the whole chain gave is kept for the next time, as far as it has other bytes than
  /// the newest release; replaced as a whole.
  std::string carried_directory;
  package::TrustTexts trust;
  std::int64_t now = 0;
  int jobs = 1;
  std::function<void()> progress;  ///< called for each delta, before it is looked at
};

struct ChainReport {
  std::vector<std::string> wrong;  ///< a part of a sentence each: "by the delta from ...: ..."
  std::vector<std::string> remarks;
  std::uint64_t replayed = 0;    ///< deltas that were applied
  std::uint64_t remembered = 0;  ///< deltas that were not, because that was done before
  std::uint64_t together = 0;    ///< chains that were applied in one update besides
  /// Deltas that could not be applied: the full package of the version before is not there.
  std::uint64_t without_start = 0;
};

/// Proves that from every version on whose full package is there the deltas lead to the newest
/// release, and to the stable one where that is another, in time that grows with the number of
/// deltas; docs/formats/repository.md says why that is enough. Each delta is applied to what the
/// deltas before it, from the oldest version on, have given, and, where that has other bytes in a
/// file that the delta names, to the release itself. Each result is compared with its release.
/// After one that is wrong it goes on from the release. A full package that cannot be unpacked is
/// told, and then as if it were not there.
///
/// What @p proved says of the same packages is not done again; it holds what is known now
/// afterwards. Throws package::Error when the proof cannot be made.
ChainReport ProveChain(const ChainOrder& order, ProvedChain& proved);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_CHECK_CHAIN_H_

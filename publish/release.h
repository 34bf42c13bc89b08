#ifndef TOLM_PUBLISH_RELEASE_H_
#define TOLM_PUBLISH_RELEASE_H_

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "publish/delta.h"
#include "publish/repository.h"

namespace tolm::publish {

/// The first version of a database unless another is asked for.
inline constexpr int kFirstVersion = 1000001;

/// Told what is being done now, for a progress line: "packing", 12 MiB; "delta", file 3 of 20.
struct Step {
  const char* what;
  std::uint64_t done;
  std::uint64_t total;  ///< 0: not known, and @ref done is in bytes
};
using Steps = std::function<void(const Step&)>;

struct ReleaseRequest {
  std::string repository;
  std::string name;
  std::string directory;
  std::optional<int> version;  ///< by default the one after the newest
  bool follow_links = false;
};

/// What was released.
struct ReleaseReport {
  int version = 0;
  bool unchanged = false;  ///< the newest release has this content already; nothing was done
  std::uint64_t files = 0;
  std::uint64_t full_bytes = 0;
  std::vector<FileDelta> file_deltas;        ///< of the delta, when there is one
  std::optional<std::uint64_t> delta_bytes;  ///< of its package
  std::string no_delta_reason;
  std::size_t offered_deltas = 0;  ///< that lead to this version, together with
  std::uint64_t offered_bytes = 0;
};

/// Releases the directory's content as the next version of a database: a full package, a delta from
/// the version before that was proved by applying it as devices do, and the description, last. When
/// the newest release has this content already (and no other version is asked for), does nothing:
/// that is how an interrupted release is completed by doing it again.
///
/// Published is what the directory held when it was packed; it may change afterwards. Throws Error,
/// package::Error; then the repository serves what it did before.
ReleaseReport MakeRelease(const ReleaseRequest& request, std::time_t now, const Notes& notes,
                          const Steps& steps);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_RELEASE_H_

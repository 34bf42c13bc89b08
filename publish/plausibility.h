#ifndef TOLM_PUBLISH_PLAUSIBILITY_H_
#define TOLM_PUBLISH_PLAUSIBILITY_H_

#include <string>
#include <vector>

#include "publish/tree.h"

namespace tolm::publish {

/// A loss of fewer rows, files or bytes than these is none, unless a table has nothing left: what
/// is small may lose a third between two versions.
inline constexpr std::uint64_t kFewRows = 10;
inline constexpr std::uint64_t kFewFiles = 10;
inline constexpr std::uint64_t kFewBytes = 4096;

struct Shrinkage {
  std::vector<std::string> findings;  ///< a sentence each; empty: nothing has shrunk too much
  std::vector<std::string> notes;     ///< about what could not be counted
};

/// What has shrunk by more than @p limit_percent from one release to the next: the bytes of all
/// files, their number, and the rows of each table of each SQLite file; the bytes of SQLite files
/// whose rows were compared are no matter. A table that is gone has
/// lost everything, and so has a file of kFewBytes or more that is empty. A file that was renamed
/// is followed by its content; an SQLite file that is gone is compared with the new one that has
/// most of its tables. Unchanged files are not read; memory does not grow with the others. Throws
/// package::Error (kRead) that names an SQLite file of the new release that is damaged; one of the
/// old release is noted.
Shrinkage FindShrinkage(const Tree& before, const Tree& after, int limit_percent);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PLAUSIBILITY_H_

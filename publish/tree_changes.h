#ifndef TOLM_PUBLISH_TREE_CHANGES_H_
#define TOLM_PUBLISH_TREE_CHANGES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "publish/tree.h"

namespace tolm::publish {

enum class FileChangeKind { kNew, kChanged, kGone, kRenamed };

/// "new", "changed", "gone" or "renamed".
const char* FileChangeKindText(FileChangeKind kind);

/// What became of one file from one release to the next.
struct FileChange {
  std::string key;
  FileChangeKind kind = FileChangeKind::kChanged;
  std::uint64_t bytes = 0;   ///< of the new file
  std::string renamed_from;  ///< the key of a file that is gone and had the same content
};

/// In the order of keys; unchanged files, and those that were renamed under their old name, are not
/// named. Content tells a renamed file: of several with the same, each is taken once.
std::vector<FileChange> ChangesOf(const Tree& before, const Tree& after);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_TREE_CHANGES_H_

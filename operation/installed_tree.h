#ifndef TOLM_OPERATION_INSTALLED_TREE_H_
#define TOLM_OPERATION_INSTALLED_TREE_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tolm::operation {

/// What the file system says of one entry that is no directory.
struct TreeFile {
  std::string name;  ///< Below the directory, without a "/" in front.
  mode_t mode = 0;   ///< With the type.
  std::uint64_t size = 0;
  std::int64_t modified_ns = 0;  ///< Since 1970.
  std::int64_t changed_ns = 0;   ///< Of the inode: nobody can set it.
  uid_t owner = 0;
};

/// Everything below a directory as it was at one moment.
struct InstalledTree {
  std::vector<TreeFile> files;  ///< Sorted by name.
  /// Stays the same while nothing below the directory is written, replaced, added or removed, also
  /// from one start of the machine to the next. Made of what the file system says of each entry,
  /// directories included, never of contents.
  std::uint64_t fingerprint = 0;
  /// Whether there is something, the directory itself included, that others may write or that makes
  /// what is made in it writable for others (a default access control list), or a directory that is
  /// not root's.
  bool is_open = false;
};

/// The same without the files: takes no memory for each of them. As LookAt().
InstalledTree GlanceAtTree(const std::string& directory);

/// Looks at the directory; a link in its place is followed, and none below it. A missing one counts
/// as empty. Throws std::system_error when an entry cannot be looked at.
InstalledTree LookAt(const std::string& directory);

/// The file of that name; null for none. Lives as long as the tree.
const TreeFile* Find(const InstalledTree& tree, const std::string& name);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_INSTALLED_TREE_H_

#ifndef TOLM_OPERATION_TREE_FINGERPRINT_H_
#define TOLM_OPERATION_TREE_FINGERPRINT_H_

#include <cstdint>
#include <string>

namespace tolm::operation {

/// A number that stays the same while nothing below the directory is written, replaced, added or
/// removed. Made of what the file system says of each entry (inode, size, time of change), never of
/// contents, so it is quick; two calls in the life of one process may be compared, nothing else. A
/// missing directory counts as an empty one. Throws std::filesystem::filesystem_error or
/// std::system_error when an entry cannot be looked at.
std::uint64_t TreeFingerprint(const std::string& directory);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_TREE_FINGERPRINT_H_

#ifndef TOLM_OPERATION_MOVABLE_TREE_H_
#define TOLM_OPERATION_MOVABLE_TREE_H_

#include <string>

namespace tolm::operation {

/// Whether the volume's databases may be moved to another volume as they are. Empty when they may,
/// and when there are none; otherwise why not, in words that name the file: something on the way to
/// them, or of them, that is not root's alone, that runs with another one's rights, that leads out
/// of its database's directory, or that is neither file, directory nor link. Throws base::FileError
/// and std::runtime_error when that cannot be found out.
std::string WhyNotMovable(const std::string& volume);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_MOVABLE_TREE_H_

#ifndef TOLM_PUBLISH_NEW_TREE_H_
#define TOLM_PUBLISH_NEW_TREE_H_

#include <sys/types.h>

#include <string>

namespace tolm::publish {

/// A directory that is made beside its place and moved there when it is complete; what is not moved
/// is removed with this object.
class NewTree {
 public:
  /// Makes it; the directory that holds @p target is there. Throws Error when the target is there
  /// and is not an empty directory itself, package::Error.
  explicit NewTree(const std::string& target);
  ~NewTree();
  NewTree(const NewTree&) = delete;
  NewTree& operator=(const NewTree&) = delete;

  const std::string& path() const { return path_; }

  /// Replaces an empty directory at the target and takes over its mode, which is otherwise 0755;
  /// for anything else throws as the constructor.
  void PutInPlace();

 private:
  std::string target_;
  std::string path_;
  mode_t mode_ = 0755;
};

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_NEW_TREE_H_

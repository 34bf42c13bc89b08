#ifndef TOLM_PUBLISH_DELTA_H_
#define TOLM_PUBLISH_DELTA_H_

#include <cstddef>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "publish/patches.h"
#include "publish/tree.h"

namespace tolm::publish {

struct DeltaRequest {
  Tree old_tree;
  Tree new_tree;
  std::string target_directory;  ///< empty or missing; made when missing
  /// Keys that the other deltas of the chain touch: those a device may apply in one go with this.
  std::set<std::string> keys_touched_earlier;
  /// Keys that are to be sent complete when they changed, because a replay found their patch wrong.
  std::set<std::string> keys_to_send_whole;
  /// Directories ("/a", "/a/b") of the releases since the last one that had no delta: devices may
  /// still have them, emptied. See DirectoriesOf.
  std::set<std::string> directories_left_behind;
};

/// No device could apply this delta: the release is right, but can be offered in full only. what()
/// is the reason as a sentence that names the keys.
class NotInChain : public std::runtime_error {
 public:
  NotInChain(const std::string& reason, std::vector<std::string> keys)
      : std::runtime_error(reason), keys_(std::move(keys)) {}
  const std::vector<std::string>& keys() const noexcept { return keys_; }

 private:
  std::vector<std::string> keys_;
};

/// Fills the target directory with what a delta package holds: patch_infos.json and the input
/// files, numbered in the order of keys. The same trees and options give the same bytes. Returns
/// what is done with each file that differs, in the order of keys; unchanged files are not named.
///
/// Changed files come by what @p patches has for them or makes, several at a time. Throws
/// NotInChain, and package::Error: what Patches::Get() throws, and kChanged. What a failure leaves
/// in the target directory is of no use.
std::vector<FileDelta> MakeDelta(const DeltaRequest& request, Patches& patches, int jobs,
                                 const DeltaProgress& progress = {});

/// The same with patches of its own, which lie beside the target directory meanwhile.
std::vector<FileDelta> MakeDelta(const DeltaRequest& request, const DeltaOptions& options = {},
                                 const DeltaProgress& progress = {});

/// The directories that the files of @p tree lie in, without the top.
std::set<std::string> DirectoriesOf(const Tree& tree);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_DELTA_H_

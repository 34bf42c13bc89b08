#ifndef TOLM_PUBLISH_REPLAY_H_
#define TOLM_PUBLISH_REPLAY_H_

#include <ctime>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "package/trust.h"
#include "publish/tree.h"

namespace tolm::publish {

struct ReplayPackage {
  int version = 0;   ///< the version that the delta produces
  std::string path;  ///< the signed package; the file's name must be <name>_d<version>
};

struct ReplayRequest {
  std::string name;           ///< of the database
  Tree old_tree;              ///< what is installed before
  int installed_version = 0;  ///< of old_tree
  /// One for each version after installed_version, ascending, without a gap.
  std::vector<ReplayPackage> packages;
  /// Empty or missing; made when missing. Lies best on the file system of the old tree: files are
  /// hard-linked then instead of copied. Stays when the replay fails.
  std::string work_directory;
  const package::Trust* trust = nullptr;  ///< whom the packages must be signed by
  std::time_t now = 0;                    ///< when the signatures are judged
};

/// A device would have failed here too; what() is its own error text.
class ReplayError : public std::runtime_error {
 public:
  explicit ReplayError(const std::string& text, std::string key = "")
      : std::runtime_error(text), key_(std::move(key)) {}
  /// Of the file that was being patched; empty when none was, when the attempt ended in a crash,
  /// and for several packages.
  const std::string& key() const noexcept { return key_; }

 private:
  std::string key_;
};

/// Applies the packages with the code that devices run, in one update, to a copy of the old tree,
/// and returns the directory with the result, which lies in the work directory. Runs without
/// privileges in an installed program of its own and waits for it; writes nowhere but in the work
/// directory, takes no lock of an installed system and writes nothing to the system log. The
/// program ends with the calling thread, also when this process is killed.
///
/// Like a device it insists on a share of free space (rules::kFreeShare), here of the work
/// directory's file system. Throws ReplayError when the packages cannot be applied, also when the
/// attempt ends in a crash; package::Error when the work directory cannot be prepared, or the
/// program is not there or cannot do its work.
std::string ReplayChain(const ReplayRequest& request);

/// The keys at which the directory @p result is not what @p expected says, sorted: files that are
/// missing, that should not be there, and that differ. Ordinary files are compared by their bytes,
/// SQLite files by their complete logical content and schema. Throws package::Error.
std::vector<std::string> CompareTrees(const std::string& result, const Tree& expected);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REPLAY_H_

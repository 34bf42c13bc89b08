#ifndef TOLM_PUBLISH_REPLAY_H_
#define TOLM_PUBLISH_REPLAY_H_

#include <cstdint>
#include <set>
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
  std::int64_t now = 0;                   ///< when the signatures are judged
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

/// A device of one database, in a directory: what becomes of it by one update after another, each
/// by the code that devices run. That runs without privileges in an installed program of its own,
/// which is waited for; it writes nowhere but in the directory, takes no lock of an installed
/// system and writes nothing to the system log. It ends with the calling thread, also when this
/// process is killed. Not for use by two threads at once.
class ReplayedDevice {
 public:
  /// @p directory lies best on the file system of what is installed: files are hard-linked then
  /// instead of copied. It stays. Packages must be signed by whom @p trust names, judged at @p now.
  ReplayedDevice(std::string name, const std::string& directory, package::TrustTexts trust,
                 std::int64_t now);

  /// Gives it a copy of this tree. The directory is empty or missing. Throws package::Error when it
  /// cannot be prepared.
  void Install(const Tree& tree, int version);

  /// Applies the packages in one update: one for each version after the installed one, ascending,
  /// without a gap. Returns the keys that they name. Like a device it insists on a share of free
  /// space (rules::kFreeShare), here of the directory's file system. Throws ReplayError when they
  /// cannot be applied, also when the attempt ends in a crash; what is in the directory is of no
  /// use then. Throws package::Error when the program is not there or cannot do its work.
  std::set<std::string> Update(const std::vector<ReplayPackage>& packages);

  /// The directory with what is installed now.
  std::string Installed() const;

 private:
  const std::string name_;
  const std::string directory_;
  const package::TrustTexts trust_;
  const std::int64_t now_;
  int version_ = 0;
};

/// Applies the packages to a copy of the old tree, in one update of a ReplayedDevice in the work
/// directory, and returns the directory with the result, which lies in the work directory. Throws
/// as that does.
std::string ReplayChain(const ReplayRequest& request);

/// The keys at which the directory @p result is not what @p expected says, sorted: files that are
/// missing, that should not be there, and that differ. Ordinary files are compared by their bytes,
/// SQLite files by their complete logical content and schema. Throws package::Error.
std::vector<std::string> CompareTrees(const std::string& result, const Tree& expected);

/// The same of a result that was read before.
std::vector<std::string> CompareTrees(const Tree& result, const Tree& expected);

/// A digest of the program that applies deltas: another one may apply them otherwise. Throws
/// package::Error when it is not there or cannot be read.
std::string ReplayProgramDigest();

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REPLAY_H_

#ifndef TOLM_PUBLISH_DELTA_H_
#define TOLM_PUBLISH_DELTA_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "package/packing.h"
#include "publish/tree.h"

namespace tolm::publish {

struct DeltaOptions {
  /// How much of the old file the VCDIFF encoder looks at at once, rounded down to a power of two;
  /// 2 GiB at most. Content that moved farther than this is sent again. The encoder's process needs
  /// three times as much memory, and 64 MiB; this process, when that has ended, up to 12 times
  /// the packing's window, and a few dozen MiB, whatever the files' sizes.
  std::uint64_t memory_limit_bytes = std::uint64_t{512} * 1024 * 1024;
  /// The oldest SQLite that scripts must run on, as SQLITE_VERSION_NUMBER counts.
  int oldest_sqlite_version = 3033000;
  package::Packing packing = {};  ///< how the delta will be packed, which decides what is smaller
};

enum class FileDeltaKind {
  kCreated,  ///< the complete new file
  kWhole,    ///< the complete file in place of an old one
  kVcdiff,
  kSql,
  kDeleted,
};

/// "created", "whole", "vcdiff", "sql" or "deleted".
const char* FileDeltaKindText(FileDeltaKind kind);

/// What a delta does with one file.
struct FileDelta {
  std::string key;
  FileDeltaKind kind = FileDeltaKind::kWhole;
  std::uint64_t file_bytes = 0;  ///< of the new file
  std::uint64_t bytes = 0;       ///< of the input file in the package, uncompressed
  /// The input file compressed by itself as packages are; empty where there was no choice and so
  /// nothing was measured.
  std::optional<std::uint64_t> packed_bytes;
  std::string note;  ///< for people, may be empty: why a smaller kind was not taken
};

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

/// Called before each file that takes part, and once at the end with an empty key.
using DeltaProgress =
    std::function<void(const std::string& key, std::size_t done, std::size_t total)>;

/// Fills the target directory with what a delta package holds: patch_infos.json and the input
/// files, numbered in the order of keys. The same trees and options give the same bytes. Returns
/// what is done with each file that differs, in the order of keys; unchanged files are not named.
///
/// For each changed file the smallest is taken of the complete file, a VCDIFF delta and, for SQLite
/// files, a script, each compressed as packages are. What is an SQLite file before or after is
/// never patched by VCDIFF: devices that came by another road have other bytes with the same
/// content.
///
/// Runs xdelta3, one process at a time, and waits for it. Throws NotInChain, and package::Error:
/// kInternal when xdelta3 is not there or fails, kRead, kChanged, kNoSpace, kWrite.
/// What a failure leaves in the target directory is of no use.
std::vector<FileDelta> MakeDelta(const DeltaRequest& request, const DeltaOptions& options = {},
                                 const DeltaProgress& progress = {});

/// The directories that the files of @p tree lie in, without the top.
std::set<std::string> DirectoriesOf(const Tree& tree);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_DELTA_H_

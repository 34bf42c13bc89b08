#ifndef TOLM_PUBLISH_PATCHES_H_
#define TOLM_PUBLISH_PATCHES_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "package/packing.h"
#include "publish/packed_size.h"
#include "publish/tree.h"
#include "publish/work_budget.h"

namespace tolm::publish {

struct DeltaOptions {
  /// How much of the old file the VCDIFF encoder looks at at once, rounded down to a power of two;
  /// 2 GiB at most. Content that moved farther than this is sent again. The encoder's process needs
  /// three times as much memory, and 64 MiB; when that has ended, this process needs up to 12 times
  /// the packing's window to measure what came of it. Jobs that work side by side need no more
  /// together: a large file is worked on alone.
  std::uint64_t memory_limit_bytes = std::uint64_t{512} * 1024 * 1024;
  /// The oldest SQLite that scripts must run on, as SQLITE_VERSION_NUMBER counts.
  int oldest_sqlite_version = 3033000;
  int jobs = 1;                   ///< how many files are worked on at a time
  package::Packing packing = {};  ///< how the delta will be packed, which decides what is smaller
};

/// The memory that encoders may take together.
std::uint64_t EncoderMemoryBytes(std::uint64_t memory_limit_bytes);

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

/// Whether it is patched rather than sent whole.
bool IsPatch(const FileDelta& file);

/// How a changed file comes to devices.
struct Patch {
  FileDelta delta;   ///< kVcdiff or kSql; kWhole, with a note, where no patch is smaller
  std::string path;  ///< of the patch; empty for kWhole
};

/// Makes the patches of changed files and keeps them: a pair of files is worked on once. Several
/// threads may use it.
class Patches {
 public:
  /// They lie in @p directory, which is made with the first one. The budget must outlive
  /// this.
  Patches(std::string directory, const DeltaOptions& options, WorkBudget& budget);
  Patches(const Patches&) = delete;
  Patches& operator=(const Patches&) = delete;

  /// The patch from one file to the other, which have one key and are both there. Makes it when
  /// that has not been done. The same files and options give the same bytes.
  ///
  /// The smallest is taken of the complete file, a VCDIFF delta and, for SQLite files, a script,
  /// each compressed as packages are. What is an SQLite file before or after is never patched by
  /// VCDIFF: devices that came by another road have other bytes with the same content. Where
  /// samples say that two large files have nothing in common, no encoder is asked.
  ///
  /// May run xdelta3 and wait for it; not for small files. Throws package::Error: kInternal when
  /// xdelta3 is not there or fails, kRead, kNoSpace, kWrite.
  Patch Get(const TreeFile& before, const TreeFile& after);

  /// Whether Get() has the patch already.
  bool Has(const TreeFile& before, const TreeFile& after) const;
  /// Removes the one of this key, so that Get() makes it anew.
  void Forget(const std::string& key);
  /// Removes all, with the directory.
  void Clear();

 private:
  using Pair = std::pair<std::string, std::string>;  // the digests

  std::string NewPath(const char* extension);
  Patch Make(const TreeFile& before, const TreeFile& after);
  void TrySql(const TreeFile& before, const TreeFile& after, Patch& patch);
  void TryVcdiff(const TreeFile& before, const TreeFile& after, Patch& patch);
  std::uint64_t MeterBytes(const TreeFile& after) const;
  bool IsHopeless(const TreeFile& before, const TreeFile& after);
  void TakeIfSmaller(FileDeltaKind kind, const std::string& path, const TreeFile& after,
                     Patch& patch);

  const std::string directory_;
  const DeltaOptions options_;
  WorkBudget& budget_;
  mutable std::mutex mutex_;
  // By key: whether a file can be patched is also a matter of its name.
  std::map<std::string, std::pair<Pair, Patch>> made_;
  std::size_t number_ = 0;  // of patches begun
};

/// Called before each file that is worked on, with the number of those that are done, and once at
/// the end with an empty key; from several threads, but never from two at a time.
using DeltaProgress =
    std::function<void(const std::string& key, std::size_t done, std::size_t total)>;

/// Makes the patches of all files that differ between two trees but of these keys, up to @p jobs at
/// a time: the largest first, so that no job is left alone with it in the end. Throws what
/// Patches::Get() throws, and what @p progress does: nothing is begun after that.
void MakePatches(const Tree& before, const Tree& after, const std::set<std::string>& but,
                 Patches& patches, int jobs, const DeltaProgress& progress);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PATCHES_H_

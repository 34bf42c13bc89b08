#ifndef TOLM_PUBLISH_TREE_H_
#define TOLM_PUBLISH_TREE_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tolm::publish {

/// One file of a release.
struct TreeFile {
  std::string key;   ///< its path below the release's directory, as devices name it: "/a/b"
  std::string path;  ///< where it can be opened; with followed links not always directory + key
  std::uint64_t size_bytes = 0;
  std::string sha384;  ///< 96 lower-case hexadecimal characters
};

/// What a directory holds as a release. Directories themselves are no content: devices make those
/// that files need and never an empty one, whichever way they update. Modes are no content either:
/// a complete package carries them, but a file that a device patches gets the mode of its patcher.
struct Tree {
  std::map<std::string, TreeFile> files;  ///< by key
  std::vector<std::string> warnings;      ///< sentences for people, in the order of keys
};

struct ScanOptions {
  /// Take what symbolic links lead to for what stands there, files and directories alike, instead
  /// of refusing them.
  bool follow_links = false;
  int jobs = 1;  ///< how many files are read at a time
};

/// Reads every file below @p directory. Warns of names with ":", on which hooks that split lists of
/// names go wrong.
///
/// Throws package::Error: kMemberType for a symbolic link (unless followed) and for special files,
/// because neither survives a full update; kMemberPath for names that no package takes (not UTF-8,
/// control characters, too long, the reserved ".tolmpkg"); kRead for what cannot be read, a link
/// that leads nowhere, and links that run in a circle; kChanged for a file that changes while it is
/// read.
Tree ScanTree(const std::string& directory, const ScanOptions& options = {});

/// One SHA-384 (96 lower-case hexadecimal characters) over all keys, sizes and digests: two trees
/// with the same one have the same content.
std::string TreeDigest(const Tree& tree);

/// Puts the files of @p tree below @p directory, which is made when missing, with the parents and
/// permission bits that they need; shares the blocks where the file system can. Nothing may stand
/// where a file belongs. Nothing is synced. Throws package::Error (kRead, kNoSpace, kWrite).
void CopyTree(const Tree& tree, const std::string& directory);

/// The same with hard links, where the file system allows them: for trees whose files nobody writes
/// to in place.
void LinkTree(const Tree& tree, const std::string& directory);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_TREE_H_

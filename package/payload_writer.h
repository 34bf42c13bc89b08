#ifndef TOLM_PACKAGE_PAYLOAD_WRITER_H_
#define TOLM_PACKAGE_PAYLOAD_WRITER_H_

#include <cstdint>
#include <string>

#include "package/packing.h"
#include "package/seal.h"
#include "package/tar_writer.h"

namespace tolm::package {

/// Where a payload goes.
struct PayloadTarget {
  int fd = -1;  ///< a file that can be read, too; written from its position
  /// For a nameless file as large as the payload; needed where there are two to choose from.
  std::string spare_directory;
};

/// The memory that WritePayload() takes at most, about: with CompressionChoice::kAuto that of both
/// encoders.
std::uint64_t PackingMemoryBytes(const Packing& packing);

/// Writes the payload for the tree below @p source_directory: the seal, then everything in the
/// order of names, each directory before what it holds, compressed. The same tree and packing give
/// the same bytes: no owners, times or inode numbers are kept, and hard-linked files are written
/// once for each name. Returns the bytes written; behind them the file is as it was, or ends.
///
/// With CompressionChoice::kAuto it is compressed by xz and zstd at the same time, and the smaller
/// payload taken (see XzPays and Packing::trial_bytes). Each runs in a thread of its own. Memory
/// does not grow with the tree: PackingMemoryBytes().
///
/// Throws Error: kMemberType for anything but files, directories and symbolic links; kMemberPath
/// for a top-level ".tolmpkg" and for a name that is not UTF-8 or holds control characters;
/// kNoMembers for an empty tree; kRead, kChanged for a file that cannot be read or changes
/// meanwhile; kNoSpace, kWrite.
std::uint64_t WritePayload(const std::string& source_directory, const Seal& seal,
                           const Packing& packing, const PayloadTarget& target,
                           const Progress& progress);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_PAYLOAD_WRITER_H_

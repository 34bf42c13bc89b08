#ifndef TOLM_PACKAGE_PAYLOAD_WRITER_H_
#define TOLM_PACKAGE_PAYLOAD_WRITER_H_

#include <cstdint>
#include <functional>
#include <string>

#include "package/seal.h"

namespace tolm::package {

/// Called now and then with the bytes of file content packed so far.
using Progress = std::function<void(std::uint64_t packed_bytes)>;

/// The level at which zstd compresses a payload with so many bytes of content. What every device
/// fetches again and again, a delta, gets the time that makes it smallest, unless it would be
/// minutes.
constexpr int CompressionLevel(Kind kind, std::uint64_t content_bytes) {
  constexpr std::uint64_t kMostBytesForTheBest = std::uint64_t{32} << 20;
  // Beyond 12 data files get hardly smaller and packing takes several times as long.
  return kind == Kind::kDelta && content_bytes <= kMostBytesForTheBest ? 17 : 12;
}

/// Writes the payload for the tree below @p source_directory to @p fd, from its position: the seal,
/// then everything in the order of names, each directory before what it holds. The same tree gives
/// the same bytes: no owners, times or inode numbers are kept, and hard-linked files are written
/// once for each name. Returns the bytes written.
///
/// Throws Error: kMemberType for anything but files, directories and symbolic links; kMemberPath
/// for a top-level ".tolmpkg" and for a name that is not UTF-8 or holds control characters;
/// kNoMembers for an empty tree; kRead, kChanged for a file that cannot be read or changes
/// meanwhile; kNoSpace, kWrite.
std::uint64_t WritePayload(const std::string& source_directory, const Seal& seal, int fd,
                           const Progress& progress);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_PAYLOAD_WRITER_H_

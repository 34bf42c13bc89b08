#ifndef TOLM_PACKAGE_PAYLOAD_READER_H_
#define TOLM_PACKAGE_PAYLOAD_READER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "package/member_path.h"
#include "package/seal.h"

struct archive;
struct archive_entry;

namespace tolm::package {

enum class MemberType { kFile, kDirectory, kSymbolicLink, kHardLink };

/// One member of a package: of a permitted type, under a name that stays below the destination.
struct Member {
  MemberType type = MemberType::kFile;
  MemberPath path;
  std::string name;  ///< the path as text
  std::uint64_t size_bytes = 0;
  unsigned int mode = 0;  ///< permission bits only
  std::string target;     ///< of a symbolic link, as it is
  MemberPath linked_to;   ///< of a hard link: another member
};

/// A piece of a file; bytes that no piece covers are zero. Valid until the next call.
struct Block {
  const void* data = nullptr;
  std::size_t size = 0;
  std::uint64_t offset = 0;
};

/// Reads the members of a payload in their order: tar, plain or compressed with gzip, xz or zstd.
/// Anything in the archive that is not wholly in order is an error, a mere warning of the archive
/// library included. Every call throws Error (kRead, kPayload and what is named at the call).
class PayloadReader {
 public:
  /// Reads the seal. The descriptor must outlive the reader; its position is neither used nor
  /// moved. What unpacks to more than @p most_unpacked_bytes, as its index says, is refused as soon
  /// as it does. Throws Error also with kNoSeal, kBadSeal.
  PayloadReader(int fd, std::uint64_t payload_bytes,
                std::uint64_t most_unpacked_bytes = UINT64_MAX);
  ~PayloadReader();
  PayloadReader(const PayloadReader&) = delete;
  PayloadReader& operator=(const PayloadReader&) = delete;

  const Seal& seal() const noexcept { return seal_; }

  /// Steps to the next member behind the seal, skipping what was not read of this one; false at the
  /// end. Then the compressed stream was read to its own end, so all its checksums and sizes were
  /// right; what follows the archive's end mark there has no meaning. An entry for the destination
  /// itself is passed over. Throws Error also with kMemberType, kMemberPath, kHardLink.
  bool Next(Member& member);

  /// Reads on in the current regular file; false at its end.
  bool NextBlock(Block& block);

 private:
  struct Source;
  struct Unpacked;
  struct ArchiveDelete {
    void operator()(archive* handle) const noexcept;
  };

  using ArchivePtr = std::unique_ptr<archive, ArchiveDelete>;

  static ArchivePtr NewArchive();
  void OpenStream();
  void OpenArchive();
  void ReadSeal();
  archive_entry* NextEntry();
  void ReadToTheStreamsEnd();
  [[noreturn]] void ThrowArchiveError() const;

  // Each reads from the one before.
  std::unique_ptr<Source> source_;
  ArchivePtr stream_;
  std::unique_ptr<Unpacked> unpacked_;
  ArchivePtr archive_;
  Seal seal_;
};

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_PAYLOAD_READER_H_

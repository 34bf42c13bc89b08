#ifndef TOLM_PACKAGE_TAR_WRITER_H_
#define TOLM_PACKAGE_TAR_WRITER_H_

#include <sys/types.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "package/seal.h"

struct archive;
struct archive_entry;

namespace tolm::package {

/// Called now and then with the bytes of file content packed so far.
using Progress = std::function<void(std::uint64_t packed_bytes)>;

/// What a tree will need.
struct TreeSize {
  std::uint64_t content_bytes = 0;  ///< of its files, a hard-linked one once for each name
  std::uint64_t tar_bytes = 0;      ///< of its tar stream with a seal, or somewhat more
  bool has_only_ascii = true;       ///< whether names, and what links lead to, are of ASCII alone
};

/// Only for choosing how to pack: what cannot be read counts for nothing, and is reported when it
/// is packed.
TreeSize MeasureTree(const std::string& directory);

/// Writes a seal and a tree as a tar stream, everything in the order of names, each directory
/// before what it holds. The same tree gives the same bytes in the same pieces. The errors are
/// those of WritePayload().
class TarWriter {
 public:
  /// Takes a piece; what it throws ends the writing.
  using Sink = std::function<void(std::string piece)>;

  /// Pieces, but for the last one, have so many bytes.
  static constexpr int kPieceBytes = 256 * 1024;

  /// Of a tree that has other names than ASCII each member needs a header more, which says that
  /// names are bytes. Only with @p has_only_ascii it is left out: another name that turns up then
  /// is refused (kInternal) by a process in the locale "C", as those of this system are.
  TarWriter(Sink sink, Progress progress, bool has_only_ascii);
  /// What is left half-written is of no use: nothing more is handed out.
  ~TarWriter() { is_given_up_ = true; }
  TarWriter(const TarWriter&) = delete;
  TarWriter& operator=(const TarWriter&) = delete;

  void AddSeal(const Seal& seal);
  /// Throws Error; what cannot be read (kRead) is named with the directory.
  void AddTree(const base::Descriptor& directory);
  /// Hands out the rest.
  void Finish();

 private:
  struct ArchiveDelete {
    void operator()(archive* handle) const noexcept;
  };

  static ssize_t Write(archive* handle, void* context, const void* data, std::size_t size);
  void Check(int result) const;
  void AddTree(const base::Descriptor& directory, const std::string& prefix);
  void AddMember(int parent, const std::string& name, const std::string& shown);
  void AddDirectory(int parent, const std::string& name, const std::string& shown,
                    unsigned int mode);
  void AddSymbolicLink(const std::string& shown, const std::string& target);
  void AddFile(int parent, const std::string& name, const std::string& shown);
  std::uint64_t CopyContent(int file, std::uint64_t announced, const std::string& shown);
  void WriteHeader(archive_entry* entry);
  void WriteData(const char* data, std::size_t size);

  const Sink sink_;
  const Progress progress_;
  std::exception_ptr failure_;
  bool is_given_up_ = false;
  std::uint64_t packed_bytes_ = 0;
  std::size_t members_ = 0;
  std::vector<char> buffer_;
  // Last: ending it still calls Write.
  std::unique_ptr<archive, ArchiveDelete> archive_;
};

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_TAR_WRITER_H_

#ifndef TOLM_BASE_FILE_H_
#define TOLM_BASE_FILE_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <system_error>

#include "base/descriptor.h"

namespace tolm::base {

/// A system call on a file failed; what() names the call and the file.
class FileError : public std::system_error {
 public:
  FileError(int errno_value, const std::string& action, const std::string& path);
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

/// An open file that knows its name. Every failure is a FileError.
class File {
 public:
  /// Flags as open(2) has them, close-on-exec always; a new file gets the mode less the umask.
  File(const std::string& path, int flags, mode_t mode = 0644);

  int Get() const noexcept { return descriptor_.Get(); }

  /// Wait until the file, or everything on its file system, is on the disk.
  void Sync() const;
  void SyncFileSystem() const;
  /// To this mode, whatever the umask.
  void SetMode(mode_t mode) const;

  std::uint64_t Size() const;
  /// The bytes from `offset` on; fewer than `size` at the end of the file.
  std::string Read(std::uint64_t offset, std::size_t size) const;
  /// All of the text, in one call of the system's where it takes all.
  void Write(const std::string& text) const;
  /// The last chance to hear of a failed write.
  void Close();

 private:
  void Check(long result, const char* action) const;

  std::string path_;
  Descriptor descriptor_;
};

/// The names in the directory are on the disk. Throws FileError.
void SyncDirectory(const std::string& path);

/// Where a Replacement of the file stands until it is put there, unless it is told another place.
std::string StagingPath(const std::string& path);

/// A new file that is to stand in another one's place: whatever happens, the old or the new one is
/// there, whole, after a power failure too. Until it is put there it stands at `staging`, on the
/// same file system, where a left-over file is overwritten; what is there is removed when it never
/// gets in place. Not for two at once with one staging path.
class Replacement {
 public:
  explicit Replacement(std::string path) : Replacement(path, StagingPath(path)) {}
  Replacement(std::string path, std::string staging);
  ~Replacement();
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  const std::string& staging() const noexcept { return staging_; }
  /// Whatever the umask.
  void Write(const std::string& text, mode_t mode) const;
  /// Gives the new file the owner and the mode of the old one, where there is one.
  void TakeOverOwnerAndMode() const;
  /// Syncs the new file, also what others wrote into it, and puts it in place, and the directories
  /// on the disk. Throws FileError, as the others do.
  void PutInPlace();

 private:
  std::string path_;
  std::string staging_;
  bool is_in_place_ = false;
};

/// Replaces the file, or makes it, with 0644 less the umask; missing parent directories are made.
/// Throws FileError, and std::filesystem::filesystem_error for a directory that cannot be made.
void ReplaceFile(const std::string& path, const std::string& text);

}  // namespace tolm::base

#endif  // TOLM_BASE_FILE_H_

#ifndef TOLM_PUBLISH_REMOTE_H_
#define TOLM_PUBLISH_REMOTE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "publish/rclone.h"

namespace tolm::publish {

/// How a store puts a whole file into the place of another one.
enum class Replacement {
  kAtOnce,   ///< whoever reads sees the one or the other
  kWithGap,  ///< for a moment there is none: it was removed, then the new one renamed
};

/// What a file is to those who ask a web server or a cache for it.
enum class Served { kPackage, kDescription, kMark };

/// Told how many bytes have been transferred so far.
using Transferred = std::function<void(std::uint64_t bytes)>;

/// A store that rclone reaches, below one path of it. Every call starts rclone, waits for it, and
/// throws Error that names the remote and tells rclone's own last lines, without secrets.
class Remote {
 public:
  /// Asks rclone what the store can do. @p text is what rclone understands; a slash at its end
  /// counts for nothing. Throws Error, package::Error when rclone is not installed.
  explicit Remote(const std::string& text);

  /// For messages; without what may be secret.
  const std::string& Name() const { return text_.shown; }
  /// The same for the same remote: 32 hexadecimal digits.
  std::string Key() const;
  /// Whether it tells digests of what it holds, of a kind that can be compared with local files.
  bool HasDigests() const { return has_digests_; }
  bool IsFolder() const { return is_folder_; }

  /// An open lock that rclone keeps open as long as it runs; the caller's. None when negative.
  void KeepOpen(int lock) { lock_ = lock; }
  /// Where lists of names are put for rclone; a directory that is the caller's own.
  void UseWork(const std::string& directory) { work_ = directory; }

  /// Sizes of descriptions, packages and what push leaves there, by path; nothing else is listed.
  /// Empty when the remote is not there yet.
  std::map<std::string, std::uint64_t> List() const;
  /// The file, or as much of it as @p most_bytes; nothing when it is not there.
  std::optional<std::string> Read(const std::string& path, std::uint64_t most_bytes) const;
  /// Writes the file to the open descriptor.
  void ReadInto(const std::string& path, int output) const;

  /// Copies the files (paths below both) as they are, whatever is there.
  void Upload(const std::string& directory, const std::vector<std::string>& paths,
              const Transferred& transferred) const;
  /// Those whose content at the remote is not that below the directory, or is not there: by the
  /// store's digests, and by reading them back where it has none.
  std::vector<std::string> Differing(const std::string& directory,
                                     const std::vector<std::string>& paths,
                                     const Transferred& transferred) const;
  /// Puts this text there as a whole, in place of what is there: at first under the path @p aside
  /// in the same directory, unless the store replaces whole objects by itself.
  Replacement Replace(const std::string& path, const std::string& aside, const std::string& text,
                      Served served) const;
  void Remove(const std::vector<std::string>& paths) const;
  /// What was uploaded is on the disk, not only in its cache; for a folder, and only there.
  void Sync() const;

 private:
  RcloneEnd Run(std::vector<std::string> arguments, int output = -1,
                const Transferred& transferred = nullptr) const;
  void MustRun(const std::string& task, const std::vector<std::string>& arguments,
               const Transferred& transferred = nullptr) const;
  [[noreturn]] void Fail(const std::string& task, const RcloneEnd& end) const;
  std::string Path(const std::string& relative) const;
  std::string ListFile(const std::vector<std::string>& paths) const;
  std::string Compare(const std::vector<std::string>& arguments, bool by_reading,
                      const Transferred& transferred, RcloneEnd& end) const;
  Replacement MoveOver(const std::string& aside, const std::string& path) const;

  std::string remote_;
  RemoteText text_;
  std::string root_;  // of a folder: where it is
  bool is_folder_ = false;
  bool replaces_objects_ = false;
  bool has_digests_ = false;
  bool can_move_ = false;
  int lock_ = -1;
  std::string work_;
};

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_REMOTE_H_

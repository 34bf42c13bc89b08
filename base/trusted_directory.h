#ifndef TOLM_BASE_TRUSTED_DIRECTORY_H_
#define TOLM_BASE_TRUSTED_DIRECTORY_H_

#include <sys/stat.h>

#include <stdexcept>
#include <string>

#include "base/descriptor.h"

namespace tolm::base {

/// Something on which root works is not root's alone.
class ForeignGround : public std::runtime_error {
 public:
  ForeignGround(const std::string& what, const std::string& remedy)
      : runtime_error(what + "; nothing was done (" + remedy + ')'),
        reason_(what + " (" + remedy + ')') {}

  /// The same for where something was done.
  const std::string& reason() const noexcept { return reason_; }

 private:
  std::string reason_;
};

/// What other accounts can do in a directory.
enum class Ground {
  kOwn,    ///< It is root's, and nobody else can write it.
  kShared  ///< It is root's and sticky: others add to it and change nothing that is not theirs.
};

/// Throws ForeignGround that names @p path when others can do more, or when it is no directory.
/// @p may_go: whether its removal is a remedy.
Ground Judge(const struct stat& status, const std::string& path, bool may_go = true);

/// Whether a file system's owners say who may write.
enum class Owners {
  kRequired,  ///< They do; one that keeps none (FAT and its like) is refused.
  kTrusted,   ///< They do, whatever the file system.
  kIgnored    ///< They do not.
};

/// Directories opened one by one, each by its name in the one before and never through a link of
/// somebody else's. Every one must be root's and no one else's to write; a shared one is accepted
/// only directly above one that is not. Where owners are ignored, only links are refused. Failures
/// are ForeignGround or base::FileError.
class TrustedDirectory {
 public:
  /// @p start must be there.
  TrustedDirectory(const std::string& start, Owners owners);

  int Get() const noexcept { return descriptor_.Get(); }
  const std::string& path() const noexcept { return path_; }
  bool IsShared() const noexcept { return ground_ == Ground::kShared; }

  /// Goes to that directory in this one; returns false, and stays, when there is none.
  bool Enter(const std::string& name);
  /// The same, but a link that root has made is followed, which may lead anywhere.
  bool EnterFollowing(const std::string& name) { return EnterFollowing(name, kMostLinks); }
  /// Goes to that directory in this one, which is made where it is missing, with this mode whatever
  /// the umask. Returns whether it was made. @p last: it may not be shared.
  bool Make(const std::string& name, mode_t mode, bool last = false);
  /// Throws when this one is shared: it was to be the last.
  void RequireOwn() const;

 private:
  static constexpr int kMostLinks = 40;

  // Whether one was entered already: the first is no one's to remove.
  bool IsOpen() const noexcept { return descriptor_.IsOpen(); }
  bool EnterFollowing(const std::string& name, int links_left);
  bool FollowLink(const std::string& name, int links_left);
  void Accept(base::Descriptor descriptor, const std::string& path, bool last = false);
  void RequireKeepsOwners(int fd, const std::string& path) const;

  Owners owners_;
  std::string path_;
  base::Descriptor descriptor_;
  Ground ground_ = Ground::kOwn;
};

/// Throws like that unless the program that stands at this absolute path, and every directory and
/// link on the way to it, is root's alone.
void RequireTrustedProgram(const std::string& path);

}  // namespace tolm::base

#endif  // TOLM_BASE_TRUSTED_DIRECTORY_H_

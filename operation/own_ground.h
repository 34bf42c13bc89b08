#ifndef TOLM_OPERATION_OWN_GROUND_H_
#define TOLM_OPERATION_OWN_GROUND_H_

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/trusted_directory.h"
#include "operation/failure.h"

namespace tolm::operation {

using base::ForeignGround;

/// Directories that were made for what is about to happen; what is still empty goes again with this
/// object.
class MadeDirectories {
 public:
  MadeDirectories() = default;
  ~MadeDirectories();
  MadeDirectories(const MadeDirectories&) = delete;
  MadeDirectories& operator=(const MadeDirectories&) = delete;

  /// @p directory has just been made.
  void Add(const base::TrustedDirectory& directory);
  bool Holds(const std::string& path) const;

 private:
  struct Made {
    std::string path;
    dev_t device;
    ino_t inode;
  };
  std::vector<Made> made_;
};

/// The two places where an operation works by path, the volume's temporary directory and a
/// database's install directory, kept root's alone. No other account can put anything in their way
/// from this object's making to its end, in a directory that everybody may write (sticky) neither:
/// there the missing components are made at once.
///
/// While there is one, the library's directories below both are made through it (see
/// platform_calls). One at a time in a process; it works in the thread that runs the operation.
class OwnGround {
 public:
  /// Throws ForeignGround that names the component when there is one that is not root's alone, and
  /// std::runtime_error for damaged operator's settings, and ExplainedError (kNoVolume) when no
  /// volume is mounted there any more. Without a volume the directories are those
  /// that the library uses then.
  OwnGround(const std::string& volume, const std::string& install_directory);
  ~OwnGround();
  OwnGround(const OwnGround&) = delete;
  OwnGround& operator=(const OwnGround&) = delete;

  /// The one there is; null for none.
  static OwnGround* InForce() noexcept;

  const std::string& volume() const noexcept { return volume_; }
  const std::string& temporary() const noexcept { return temporary_; }
  /// Removes what an earlier operation has left in the temporary directory. Returns whether there
  /// was something. Throws UpdateError when it stays, and ForeignGround.
  bool RemoveLeftOvers();

  /// Takes the right to write from others wherever they have it below the install directory. Throws
  /// ForeignGround, with nothing changed, for a directory in there that is somebody else's.
  void CloseInstallation() const;

  /// Throws ExplainedError (kNoVolume) unless the volume is still the one with which the operation
  /// began: what is made by path would otherwise be made on the file system below its mount point.
  void RequireVolume() const;
  /// The same for a database that is installed on the volume.
  void RequireInstallation() const;

  /// Runs it, and adds to an UpdateError why Make() has refused something meanwhile.
  void Explaining(const std::function<void()>& action) const;

  bool IsTemporary(const std::string& path) const;
  bool IsInstallation(const std::string& path) const;
  /// Makes the directory, which is one of these, with those above it. Returns false when a
  /// component is not root's alone; if that is the temporary directory, another one that is stands
  /// in its place then, since the library removes what stands there.
  bool Make(const std::string& path) noexcept;

 private:
  void SecureTemporary(bool takes_over);
  void SecureInstallation();
  bool IsInstalledOnVolume() const;
  void MakeTemporary(const std::string& path);
  void MakeInstallation(const std::string& path);

  std::string volume_;
  std::string temporary_;
  std::string installation_;
  base::Owners owners_;
  dev_t device_ = 0;  ///< Of the volume's root, when this was made.
  ino_t inode_ = 0;
  MadeDirectories made_;
  std::string refusal_;
  Failure failure_;  ///< The same for people and programs.
};

/// Whether databases could be kept on the volume: throws ForeignGround when its root, or what is
/// there of the directories that stand directly in it, is not root's alone. Makes nothing.
void RequireOwnVolume(const std::string& volume);

/// The directory in which the volume's databases stand, made where it is missing. Throws
/// ForeignGround or base::FileError.
void MakeOwnMainDirectory(const std::string& volume);

/// The volume's directory of what was received of packages (partial_downloads.h).
struct PartialsDirectory {
  base::TrustedDirectory directory;
  bool keeps_owners;  ///< Owners and modes of what is in it say who may write.
};

/// That directory, which nobody but root enters; nothing where it is missing, unless it @p is_made
/// then. Throws ForeignGround or base::FileError.
std::optional<PartialsDirectory> EnterPartials(const std::string& volume, bool is_made);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_OWN_GROUND_H_

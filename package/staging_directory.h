#ifndef TOLM_PACKAGE_STAGING_DIRECTORY_H_
#define TOLM_PACKAGE_STAGING_DIRECTORY_H_

#include <functional>
#include <string>

#include "base/descriptor.h"

namespace tolm::package {

/// A directory in an empty one, in which its content is prepared. It goes with this object, and
/// what was not put in place with it; only one of a process that was killed stays. It is locked as
/// long as its process lives. All throw Error (kInTheWay, kNoSpace, kWrite).
class StagingDirectory {
 public:
  /// Whether it may be called so; no member of a package is.
  static bool IsName(const std::string& name);
  /// Is told, in words for people, of each such directory that could not be removed. Throws
  /// nothing.
  using Notice = std::function<void(const std::string&)>;

  /// Removes from @p directory what killed processes have left there, or what could not be removed
  /// then.
  static void RemoveLeftOvers(int directory, const Notice& notice = nullptr);
  /// Whether nothing is in @p directory.
  static bool IsEmpty(int directory);

  /// @p directory stays the caller's and must outlive this object. @p notice is called at its end,
  /// if at all.
  explicit StagingDirectory(int directory, Notice notice = nullptr);
  ~StagingDirectory();
  StagingDirectory(const StagingDirectory&) = delete;
  StagingDirectory& operator=(const StagingDirectory&) = delete;

  int Get() const noexcept { return staging_.Get(); }

  /// Moves everything up by one directory, or, when that fails, nothing.
  void PutInPlace() const;

 private:
  int directory_;
  std::string name_;
  Notice notice_;
  base::Descriptor staging_;
};

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_STAGING_DIRECTORY_H_

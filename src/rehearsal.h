#ifndef TOLM_SRC_REHEARSAL_H_
#define TOLM_SRC_REHEARSAL_H_

#include <map>
#include <optional>
#include <string>

namespace tolm::dataupdate {

/// What the installation of a delta will do to the installed files, found out without touching one.
/// Takes the same steps in the same order: every file of the plan is removed, then the new ones are
/// installed. The first that would fail throws UpdateError "Cannot install <key>: <reason>". What
/// depends on the moment (a full disk, what other programs do) is not foreseen.
class Rehearsal {
 public:
  explicit Rehearsal(const std::string& install_prefix);

  void Remove(const std::string& key);
  void Install(const std::string& key);

 private:
  enum class Kind { kNothing, kDirectory, kLink, kOther };

  Kind KindOf(const std::string& path) const;
  /// The directory that is at the path or behind the link there.
  std::optional<std::string> DirectoryAt(const std::string& path) const;
  std::string MakeDirectory(const std::string& path);
  void RequireEmpty(const std::string& directory) const;

  const std::string root_;
  std::map<std::string, Kind> changed_;  ///< By resolved path: what is different by now.
};

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_REHEARSAL_H_

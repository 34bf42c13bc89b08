#ifndef TOLM_SRC_WALK_H_
#define TOLM_SRC_WALK_H_

#include <functional>
#include <string>

namespace tolm::dataupdate {

/// What a walk has come to. Lives as long as the call that it is handed to.
struct WalkEntry {
  const std::string& prefix;  ///< The way to its directory, with a "/" at the end.
  const char* name;
  int directory;       ///< The open directory that it lies in.
  unsigned char type;  ///< As readdir(3) says it: DT_UNKNOWN where the file system does not tell.

  std::string Path() const { return prefix + name; }
};

/// Calls @p visit with each entry of the directory in the order of its listing. Where the file
/// system does not tell types, "." and ".." are among them. Throws UpdateError ("failed to read
/// file stat: ", "not a directory: ", or the system's text), and what @p visit throws.
void Walk(const std::string& directory, const std::function<void(const WalkEntry&)>& visit);

/// The same with what its directories hold, which comes before each of them. Links are not entered,
/// nor what is of unknown type.
void WalkTree(const std::string& directory, const std::function<void(const WalkEntry&)>& visit);

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_WALK_H_

#ifndef TOLM_SUPPORT_PRIVATE_ROOT_H_
#define TOLM_SUPPORT_PRIVATE_ROOT_H_

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace tolm::testing {

/// The machine or container does not grant the namespaces or the mounts that a private root needs.
class PrivateRootUnavailable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct BindMount {
  std::filesystem::path path;  ///< Directory or file; appears at its own absolute path.
  bool writable = false;       ///< Otherwise read-only, with everything that is mounted below it.
};

struct PrivateRootOptions {
  std::filesystem::path stage;   ///< Its "usr" is laid over the host's /usr; empty for none.
  std::vector<BindMount> binds;  ///< In any order: a path inside another one is bound after it.
  unsigned volumes = 2;          ///< /volume1, /volume2, ...: so many file systems of their own.
  std::string tmpfs_size;        ///< Limit of each tmpfs, such as "64m"; empty: the kernel's.
};

/// Moves the calling process, for good, into a mount namespace with a root of its own:
///
/// - /usr is the host's with the stage above it; it can be written to, and nobody else sees that
/// - /etc (read-only) and /proc are the host's
/// - /dev has null, zero, full, random, urandom and tty of the host and can be written to; it
///   has no /dev/log
/// - /run, /var, /tmp, /root and the volumes are new and empty
/// - the binds stand at their own paths
///
/// Nothing else of the host can be reached by a path, and nothing is made on the host: all of it
/// vanishes with the last process inside. An ordinary user becomes root in a user namespace that
/// knows this one user only (other owners appear as nobody; giving files to others fails). It
/// can write to /usr, to the directories directly in it and to those of the stage, but not to
/// deeper directories that only the host has.
///
/// The working directory stays when its path exists inside, otherwise it becomes "/". HOME becomes
/// /root and TMPDIR is removed.
///
/// Call it while the process has one thread. Throws PrivateRootUnavailable, or std::system_error or
/// std::runtime_error for anything else; after a failure the process is half-way in and should end.
void EnterPrivateRoot(const PrivateRootOptions& options);

/// Copies the stage over the machine's own root directory, replacing what is there. For machines
/// and containers that are thrown away afterwards. Throws std::filesystem::filesystem_error.
void InstallStageInPlace(const std::filesystem::path& stage);

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_PRIVATE_ROOT_H_

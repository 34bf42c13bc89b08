#ifndef TOLM_OPERATION_VERIFICATION_H_
#define TOLM_OPERATION_VERIFICATION_H_

#include <cstdint>
#include <string>
#include <vector>

#include "operation/export.h"
#include "operation/service.h"

namespace tolm::operation {

/// A file that is not what it should be.
struct DamagedFile {
  std::string file;  ///< Below the install directory.
  /// In words: "missing", "content differs", what is amiss with its type or mode, or what the
  /// system says.
  std::string problem;
};

/// What is known of a database's installed files after a look at them.
struct Verification {
  int version;  ///< Installed; -1 for none, nothing is looked at then.
  /// An operation ended while it may have been changing files.
  bool cut_short;
  std::uint64_t checked_files;    ///< Compared by content.
  std::uint64_t installed_files;  ///< The missing ones included.
  std::vector<DamagedFile> damaged;
  /// Installed, but not part of the package; only known of a comparison with it.
  std::vector<std::string> foreign;
  /// Of the installed files those that nothing is known of, because an earlier release or another
  /// program has installed them.
  std::uint64_t not_compared = 0;

  bool IsIntact() const { return damaged.empty() && !cut_short; }
};

/// Both hold the locks of an operation on the database (each waited for up to 600 s) and change
/// nothing that is installed. Whoever may not open the locks compares with the record without them:
/// after a wait of up to 600 s for the operation that runs, and with std::runtime_error when one
/// has begun meanwhile. They throw UpdateError or std::exception when the question cannot be
/// answered, among them DamagedSettings, NoVolume where the database's volume is not there, and
/// std::runtime_error where listings do not tell directories from files. All work is done in the
/// caller's thread.

/// Compares all files with what is recorded of their installation: contents, types and modes. Where
/// another program, or an earlier release, has installed last, the files that version.json lists
/// are compared with their digests there.
TOLM_OPERATION_API Verification VerifyRecorded(const Service& service, const std::string& name);

/// Compares all installed files with the full package of the installed version: the link of the
/// offered one with the version's text replaced, as a forced installation has it. The package is
/// downloaded, verified and unpacked in the volume's temporary directory, where nothing is left in
/// any case. A volume must be chosen, and its ground root's alone (std::runtime_error otherwise). A
/// signal that Interrupt has received ends it with Interrupted.
TOLM_OPERATION_API Verification VerifyAgainstPackage(const Service& service,
                                                     const std::string& name);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_VERIFICATION_H_

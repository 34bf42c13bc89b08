#ifndef TOLM_OPERATION_INSTALLED_FILES_H_
#define TOLM_OPERATION_INSTALLED_FILES_H_

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "dataupdate/records.h"
#include "operation/installed_record.h"

namespace tolm::operation {

/// What can be said at once of what is below a database's directory.
struct Glance {
  std::uint64_t fingerprint;
  bool is_open;         ///< See InstalledTree.
  bool is_as_recorded;  ///< Nothing was touched since it was recorded.
};
Glance GlanceAt(const std::string& name, const std::string& directory);

/// Why what is below the directory is not what was installed; empty when it is. Compares it with
/// the record: names, types, owners and sizes, what runs with its owner's rights, and the contents
/// of those files whose times are others. A record whose files are in order is brought up to date;
/// where there is none, or another program has installed since, one is made of what is there,
/// compared with what version.json knows of it, Another mode alone is somebody's choice. A link is
/// never followed.
///
/// `installed` gives what stands in version.json, and is only asked when that is needed. `step` is
/// called again and again while long files are read, and may throw. Throws std::system_error,
/// NotARegularFile or std::runtime_error when something cannot be looked at, and base::FileError
/// when the record cannot be written.
std::string Examine(const std::string& name, const std::string& directory,
                    const std::function<dataupdate::DatabaseStatus()>& installed,
                    const std::function<void()>& step);

/// Whether a recorded file's content is still that of then, whatever its times are.
bool HasContentOf(const RecordedFile& file, const std::string& directory,
                  const std::function<void()>& step);

/// Records what is installed after an operation, which is what @p tree is. `digests` are those of
/// the files that the operation has put in place, as version.json has them; of other files the
/// earlier record tells, so that what was altered meanwhile stays noticeable. Moved here, that
/// takes no memory twice.
void RecordInstallation(const std::string& name, int version, const InstalledTree& tree,
                        const std::map<std::string, dataupdate::FileStatus>& digests,
                        std::optional<InstalledRecord> before);

/// The same after an operation that says nothing of what it has put in place: what is not as it was
/// in @p tree_before is digested anew.
void RecordForcedInstallation(const std::string& name, const std::string& directory, int version,
                              const InstalledTree& tree, const InstalledTree& tree_before,
                              std::optional<InstalledRecord> before);

/// What is wrong with a file's owner and mode; empty for nothing.
std::string ProblemOfRights(const TreeFile& then, const TreeFile& now);

/// The bits that chmod sets, in octal: "644".
std::string ModeText(mode_t mode);

/// A name below the directory without what does not change its meaning: deltas put a "/" in front.
std::string PlainName(const std::string& name);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_INSTALLED_FILES_H_

#ifndef TOLM_OPERATION_SCHEDULE_H_
#define TOLM_OPERATION_SCHEDULE_H_

#include <string>
#include <vector>

#include "dataupdate/config.h"
#include "operation/export.h"

namespace tolm::operation {

/// Whether runs over all databases include this one. Writes the present setting of every listed
/// database along with it, since a database that the overrides do not list is hidden by the first
/// override of another. All of it is written at once: whoever is killed or finds the disk full
/// leaves the settings as they were. A damaged override file is kept, as <file>.aside.
///
/// Waits up to 600 s for others that write settings. Throws UpdateError for a database that is not
/// listed, UpdateError or std::exception when the settings cannot be written.
TOLM_OPERATION_API void SetScheduled(const dataupdate::ServiceConfig& config,
                                     const std::string& name, bool scheduled);

/// The databases that runs over all of them include, sorted by name: the order in which the library
/// takes them. Throws UpdateError when the settings cannot be read.
TOLM_OPERATION_API std::vector<std::string> ScheduledDatabases(
    const dataupdate::ServiceConfig& config);

/// The present setting. Throws UpdateError for a database that is not listed.
TOLM_OPERATION_API bool IsScheduled(const dataupdate::ServiceConfig& config,
                                    const std::string& name);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SCHEDULE_H_

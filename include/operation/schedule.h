#ifndef TOLM_OPERATION_SCHEDULE_H_
#define TOLM_OPERATION_SCHEDULE_H_

#include <string>
#include <vector>

#include "dataupdate/config.h"
#include "operation/export.h"

namespace tolm::operation {

/// The databases that the defaults list and that no operation sees, because the override file lists
/// others: it hides every database that it does not list. None where one of the two files cannot be
/// read. Takes no lock; any thread may call it.
TOLM_OPERATION_API std::vector<std::string> HiddenDatabases();

/// Whether runs over all databases include this one. Writes the present setting of every database
/// along with it, of the hidden ones too, so that the override file hides none afterwards. All of
/// it is written at once: whoever is killed or finds the disk full leaves the settings as they
/// were. A damaged override file is kept, as <file>.aside.
///
/// Waits up to 600 s for others that write settings. Throws UpdateError for a database that is
/// neither listed nor hidden, UpdateError or std::exception when the settings cannot be written.
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

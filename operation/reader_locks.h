#ifndef TOLM_OPERATION_READER_LOCKS_H_
#define TOLM_OPERATION_READER_LOCKS_H_

#include "dataupdate/config.h"

namespace tolm::operation {

/// Makes the lock file of every configured database that its readers share. A reader never makes
/// one, and after a start of the machine there are none. Existing ones, held or not, are left
/// alone. Throws UpdateError or std::system_error.
void MakeReaderLocks(const dataupdate::ServiceConfig& config);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_READER_LOCKS_H_

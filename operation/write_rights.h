#ifndef TOLM_OPERATION_WRITE_RIGHTS_H_
#define TOLM_OPERATION_WRITE_RIGHTS_H_

#include <string>

#include "base/trusted_directory.h"

namespace tolm::operation {

using base::ForeignGround;

/// What root owns and others could write, as umasks and packages of earlier times have left it, is
/// closed to them. No link is followed below the directories that are named. All throw
/// base::FileError when that fails.

/// The state directories of the system and of the database, with the files directly in them: where
/// root owns them, nobody else can write them afterwards. Throws ForeignGround for one of somebody
/// else's.
void SecureStateDirectories(const std::string& name);

/// The same for one directory, which may be missing, and for what is in it where @p with_files.
/// Whoever is not root closes nothing. ForeignGround also for a link, unless the machine's
/// administrator may have put the directory elsewhere.
void SecureStateDirectory(const std::string& directory, bool with_files, bool may_be_link = true);

/// The directory, which is root's and may be missing, and everything below it; default access
/// control lists are removed. Throws ForeignGround,
/// before anything is closed, for a directory of somebody else's: it cannot be removed safely while
/// its owner changes it.
void TakeWriteFromOthersBelow(const std::string& directory);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_WRITE_RIGHTS_H_

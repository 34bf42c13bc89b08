#include "operation/notes_lock.h"

#include "base/paths.h"
#include "operation/lock_files.h"
#include "operation/write_rights.h"

namespace tolm::operation {
namespace {

const char* LockFile() {
  SecureStateDirectory(paths::kStateDirectory, true);
  MakeLockFile(paths::kNotesLock);
  return paths::kNotesLock;
}

}  // namespace

NotesLock::NotesLock(std::uint32_t wait_seconds) : lock_(LockFile(), wait_seconds) {}

}  // namespace tolm::operation

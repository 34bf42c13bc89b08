#ifndef TOLM_OPERATION_PATCH_BOUNDS_H_
#define TOLM_OPERATION_PATCH_BOUNDS_H_

#include <functional>
#include <string>

namespace tolm::operation {

/// Runs the decoder of a binary delta by @p run, which returns its exit status, with bounds: it may
/// write as much as leaves five per cent of the file system free, and is ended after
/// rules::kPatchSeconds.
int RunDecoder(const std::string& output, const std::function<int()>& run);

/// From now on, or no longer, the connections that this thread opens to SQLite files are bounded: a
/// statement ends with SQLITE_INTERRUPT when a signal has been received or the connection has been
/// open for rules::kPatchSeconds, and until it is closed no file of this process grows by more than
/// leaves five per cent of the file system free (SQLITE_IOERR_WRITE; call IgnoreFileSizeSignal()
/// first; a statement that the journal takes too much of it for ends with SQLITE_INTERRUPT). This
/// is how scripts of deltas are bounded, which the library runs by itself. And a script of which
/// the disk has given a part only is not committed (SQLITE_AUTH).
void BoundScripts(bool wanted);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_PATCH_BOUNDS_H_

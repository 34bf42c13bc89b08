#ifndef TOLM_OPERATION_VOLUME_MOVE_H_
#define TOLM_OPERATION_VOLUME_MOVE_H_

#include <string>

#include "operation/service.h"

namespace tolm::operation {

/// A move of the databases from one volume to another copies all of them and removes them then. One
/// that is cut short (a kill, a power failure) leaves them on both, in part on either, with none
/// chosen, or the first one still. So a mark on the disk names both volumes while it runs.
///
/// All of these throw base::FileError.

/// A move from one volume to the other is about to begin, and nothing stands where it goes to but
/// perhaps an empty directory; otherwise there is no mark, since there will be no move. Returns
/// whether there is one.
bool NoteMove(const Service& service, const std::string& from, const std::string& to);
/// A move from that volume has ended, with or without success. What it has removed there is gone
/// from the disk before the mark is.
void ForgetMove(const std::string& from);

/// Brings what a move that was cut short has left to one volume. The first one is chosen again as
/// long as all that was copied is there, and the other one when the removing had begun; what was
/// chosen since then stays chosen. What lies on the volume that is not chosen is removed, at the
/// next call where it is not mounted now. Does nothing where no move was cut short.
///
/// Takes the locks of all operations, and waits up to 600 s for them and for a /bin/mv that still
/// runs. Throws UpdateError when that does not end, and Interrupted. What cannot be removed is told
/// in the system log and tried again at the next call.
void SettleMove(const Service& service);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_VOLUME_MOVE_H_

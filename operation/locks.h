#ifndef TOLM_OPERATION_LOCKS_H_
#define TOLM_OPERATION_LOCKS_H_

namespace tolm::operation {

/// Held around a whole operation or volume event, with what is done before and after it; taken
/// before any lock of the library's.
inline constexpr char kOperatorLock[] = "/run/data_update/operator.lock";

/// Held for the moment in which the history or the cool-downs are read and written; no other lock
/// is taken meanwhile.
inline constexpr char kNotesLock[] = "/run/data_update/notes.lock";

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_LOCKS_H_

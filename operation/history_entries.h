#ifndef TOLM_OPERATION_HISTORY_ENTRIES_H_
#define TOLM_OPERATION_HISTORY_ENTRIES_H_

#include <functional>

#include "operation/history.h"

namespace tolm::operation {

/// Calls @p take with each entry of the history, the oldest first; lines that are damaged are
/// passed over, and a history that cannot be read has none. Takes no lock and waits for nothing.
void ForEachEntry(const std::function<void(const HistoryEntry&)>& take);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_HISTORY_ENTRIES_H_

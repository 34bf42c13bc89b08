#ifndef TOLM_OPERATION_EVENTS_H_
#define TOLM_OPERATION_EVENTS_H_

#include <string>

#include "operation/history.h"
#include "operation/verification.h"

namespace tolm::operation {

/// What is told to programs that follow systemd's journal: docs/monitoring.md has the identifiers
/// and the fields. Nothing happens where there is no journal. @p server, "host:port", is empty
/// where it is not known. Any thread may call them.

/// An operation on a database begins; of the entry operation, database, scheduled and from count.
void TellBegun(const HistoryEntry& entry, const std::string& server) noexcept;

/// It has ended, or a scheduled run was held back.
void TellEnded(const HistoryEntry& entry, const std::string& server) noexcept;

/// Installed files are not what they should be; nothing for intact ones.
void TellDamage(const std::string& name, const Verification& verification) noexcept;

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_EVENTS_H_

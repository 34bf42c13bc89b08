#ifndef TOLM_OPERATION_JOURNAL_H_
#define TOLM_OPERATION_JOURNAL_H_

#include <string>
#include <utility>
#include <vector>

namespace tolm::operation {

/// The names and the values of an entry in systemd's journal. Names are capital letters, digits and
/// "_", and begin with a letter. Values may be any bytes.
using JournalFields = std::vector<std::pair<std::string, std::string>>;

/// Of longer values the beginning is sent, up to the end of a character. journalctl leaves a field
/// out of its JSON that has, with its name, 4096 bytes or more.
inline constexpr std::size_t kMostJournalBytes = 4000;

/// Sends an entry to systemd's journal, where one runs, by its documented protocol: one datagram.
/// Nothing happens where there is none, or where it takes nothing at this moment: nobody waits for
/// it. Any thread may call it.
void SendToJournal(const JournalFields& fields) noexcept;

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_JOURNAL_H_

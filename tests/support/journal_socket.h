#ifndef TOLM_SUPPORT_JOURNAL_SOCKET_H_
#define TOLM_SUPPORT_JOURNAL_SOCKET_H_

#include <map>
#include <string>
#include <vector>

#include "tests/support/unique_descriptor.h"

namespace tolm::testing {

/// The fields of an entry, by their names.
using JournalEntry = std::map<std::string, std::string>;

/// Stands where systemd's journal listens, from its making to its end.
class JournalSocket {
 public:
  JournalSocket();
  ~JournalSocket();
  JournalSocket(const JournalSocket&) = delete;
  JournalSocket& operator=(const JournalSocket&) = delete;

  /// What has been sent since the last call, in its order. Waits for nothing. Throws
  /// std::runtime_error for a datagram that is not as the journal's protocol has it.
  std::vector<JournalEntry> Entries() const;

 private:
  UniqueDescriptor socket_;
};

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_JOURNAL_SOCKET_H_

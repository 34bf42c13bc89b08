#ifndef TOLM_OPERATION_LAST_VERIFICATION_H_
#define TOLM_OPERATION_LAST_VERIFICATION_H_

#include <cstdint>
#include <optional>
#include <string>

#include "operation/verification.h"

namespace tolm::operation {

/// What the last look at all installed files of a database has found: verified.json.
struct LastVerification {
  std::int64_t at = 0;  ///< Of its end, in seconds since 1970.
  std::uint64_t checked_files = 0;
  std::uint64_t damaged_files = 0;
};

/// Writes it down where something is installed. Under the locks of an operation on the database, so
/// that what was looked at is what version.json tells of. A failure is a warning in the system log
/// and nothing else.
void RememberVerification(const std::string& name, const Verification& verification) noexcept;

/// Nothing where nothing has been looked at, the file is damaged, or something was installed since:
/// what was found then says nothing about the files that are there now. Takes no lock.
std::optional<LastVerification> LookForVerification(const std::string& name) noexcept;

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_LAST_VERIFICATION_H_

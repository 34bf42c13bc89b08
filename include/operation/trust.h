#ifndef TOLM_OPERATION_TRUST_H_
#define TOLM_OPERATION_TRUST_H_

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "operation/export.h"
#include "operation/service.h"

namespace tolm::operation {

/// The database's floor: no version below it is installed by an update, a repair or a recovery. It
/// is the highest version that was ever installed, unless a forced installation or LowerFloor() has
/// set it since; kNeverInstalled when there is none. Needs root's rights. Throws UpdateError when
/// the database is not configured, std::exception when the state cannot be read.
TOLM_OPERATION_API int FloorOf(const Service& service, const std::string& name);

/// The floor cannot be put there.
class TOLM_OPERATION_API NotLower : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// Puts the floor to an older version, at a person's word: what is offered from that one on is
/// installed again where it is needed. Nothing is installed by it. Stands in the history. Waits up
/// to 600 s for operations; a signal that Interrupt has received ends the wait with Interrupted.
/// Throws NotLower when the version is negative or not below the floor, UpdateError when the
/// database is not configured or the lock is not had, std::exception when it cannot be written.
TOLM_OPERATION_API void LowerFloor(const Service& service, const std::string& name, int version);

/// What is remembered of the newest signed description that was accepted.
struct AcceptedDescription {
  std::string repository;         ///< The repository's identity.
  std::int64_t signer_since = 0;  ///< Its signer's notBefore, seconds since 1970, as all below.
  std::uint64_t counter = 0;
  std::int64_t issued = 0;
  std::int64_t expires = 0;
};

/// Which descriptions are believed.
struct DescriptionTrust {
  std::optional<AcceptedDescription> accepted;
  bool is_signed_wanted = false;    ///< A signed one was accepted, and unsigned ones are not since.
  bool is_signed_required = false;  ///< The settings want signed ones, whatever was accepted.
};

/// Needs root's rights. Throws std::exception when the state cannot be read.
TOLM_OPERATION_API DescriptionTrust TrustInDescriptions();

/// Forgets, at a person's word, which signed descriptions were accepted and that they were, with
/// the cached one: the next answer of the server is believed if it is signed by anyone whom the
/// keyring trusts with that, and an unsigned one unless the settings want signed ones. Floors stay.
/// Stands in the history. Waits and throws as LowerFloor() does.
TOLM_OPERATION_API void ForgetDescriptions();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_TRUST_H_

#ifndef TOLM_OPERATION_TRUST_STATE_H_
#define TOLM_OPERATION_TRUST_STATE_H_

#include <optional>
#include <string>

namespace tolm::operation {

/// A database's floor: the highest version that was ever installed, or the one that a person has
/// put in its place. What is offered below it is not installed. Returns kNeverInstalled when there
/// is none. A file that is damaged or cannot be read is set aside and told in the system log.
/// Throws std::filesystem::filesystem_error when that fails.
int FloorOf(const std::string& name);

/// The same without setting anything aside: nothing when the file is damaged or cannot be read.
std::optional<int> LookForFloor(const std::string& name) noexcept;

/// Writes it, at once and synced, for root's eyes only. To be called under the operator lock.
/// Throws base::FileError, and as FloorOf does.
void SetFloor(const std::string& name, int version);

/// The same where the version is higher than the floor.
void RaiseFloor(const std::string& name, int version);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_TRUST_STATE_H_

#ifndef TOLM_OPERATION_TRUST_STATE_H_
#define TOLM_OPERATION_TRUST_STATE_H_

#include <map>
#include <optional>
#include <string>

#include "offer/acceptance.h"

namespace tolm::operation {

/// What the device does not go back behind: trust.json. Every change of it is read and written
/// under the notes lock, whatever other locks its caller has, so that none is lost. A file that is
/// damaged is set aside and told in the system log; one that a disk does not give stays, and with
/// it what it says. What is written is on the disk at once, for root's eyes only. All but those
/// that look throw base::FileError and std::filesystem::filesystem_error when that fails,
/// std::runtime_error that names the file and why it cannot be read, and UpdateError when the lock
/// is not had.

/// A database's floor: the highest version that was ever installed, or the one that a person, or a
/// newer signer of descriptions, has put in its place. What is offered below it is not installed.
/// Returns kNeverInstalled when there is none.
int FloorOf(const std::string& name);

/// The same without setting anything aside: nothing when the file is damaged or cannot be read.
std::optional<int> LookForFloor(const std::string& name) noexcept;

void SetFloor(const std::string& name, int version);

/// The same where the version is higher than the floor.
void RaiseFloor(const std::string& name, int version);

/// The version was installed: the floor is raised to it, or set where a person has forced it, and
/// nothing lower than what is installed is authorized any more.
void NoteInstalled(const std::string& name, int version, bool is_forced);

/// What is remembered of signed descriptions.
struct SignedState {
  offer::Accepted accepted;  ///< Without a repository when none was accepted.
  bool is_wanted = false;    ///< One was accepted, and unsigned ones are not any more.
};
SignedState ReadSignedState();
/// The same without setting anything aside: nothing when the file is damaged or cannot be read.
std::optional<SignedState> LookForSignedState() noexcept;
/// The same for who judges a description by it: an empty one when the file is damaged, or for an
/// account that has no right to read it. Throws as ReadSignedState() does: where a disk does not
/// give the file, an older description would be taken for a new one.
SignedState SignedStateToJudgeBy();

/// A database of a description that was accepted.
struct OfferedVersion {
  int offered = 0;
  int installed = 0;  ///< kNeverInstalled for none.
};

/// Remembers an accepted description, in one write with what follows from it. Where a newer signer
/// has taken the older one's place, the floor of each of the databases becomes the version that is
/// offered where it was higher, and where the installed one is higher, what is offered from that
/// version on is authorized to take its place.
void RememberAccepted(const offer::Acceptance& acceptance,
                      const std::map<std::string, OfferedVersion>& databases);

/// The same of one database, whose installed version the older signer had offered.
void NoteSuperseded(const std::string& name, const OfferedVersion& version);

/// From which version on what is offered may take the place of a higher one that is installed;
/// nothing when none may, or when the file is damaged or cannot be read.
std::optional<int> LookForAuthorized(const std::string& name) noexcept;

/// Forgets which signed descriptions were accepted, that they were, and what they authorize. Floors
/// stay.
void ForgetSignedDescriptions();

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_TRUST_STATE_H_

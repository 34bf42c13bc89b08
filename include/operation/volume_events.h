#ifndef TOLM_OPERATION_VOLUME_EVENTS_H_
#define TOLM_OPERATION_VOLUME_EVENTS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "operation/export.h"
#include "operation/service.h"

namespace tolm::operation {

/// All work here is done in the caller's thread, and no operation may run in this process
/// meanwhile.

/// The chosen volume before and after an event; empty for none.
struct VolumeChange {
  std::string before;
  std::string after;
};

/// All three throw DamagedSettings and write nothing over settings that cannot be used; the start
/// makes the lock files all the same.
///
/// Before anything else they bring what a move that was cut short has left on two volumes to one;
/// only then the start takes the locks of all operations, too, and waits up to 600 s for them. The
/// start also removes what was half-written beside files of state and settings, unless somebody is
/// at work.

/// The start of the service: the lock files are made, and a volume is chosen when there is
/// none. Returns the chosen one, empty for none: the system log says why. Throws UpdateError or
/// std::system_error when a lock file cannot be made or the settings cannot be read, and
/// std::runtime_error when the chosen volume, or the only ones that would do, will not do: listings
/// there do not tell directories from files, or others than root can write there; and when one is
/// suitable and the choice could not be stored.
TOLM_OPERATION_API std::string Start(const Service& service);

/// A volume was mounted. Throws UpdateError when the settings cannot be read and when none is
/// mounted there, and std::runtime_error when none is chosen and this one could not be chosen
/// although it is suitable, or would be but for its listings or for those who can write there.
TOLM_OPERATION_API VolumeChange Mounted(const Service& service, const std::string& volume);

/// A volume is about to go away: the databases are moved when they are on it. No operation runs
/// meanwhile; waits up to 600 s for one. Throws UpdateError when it does not end in time,
/// Interrupted when a signal that Interrupt has received ends the wait, and std::runtime_error when
/// what was chosen could not be stored, or databases stayed behind although there is another volume
/// for them: where others than root could have changed them, that one is chosen all the same, and
/// they are installed anew.
TOLM_OPERATION_API VolumeChange Unmounting(const Service& service, const std::string& volume);

/// One mounted volume.
struct VolumeState {
  std::string path;
  std::uint64_t available_bytes;
  bool suitable;  ///< For all the databases.
  /// Why not: one of the texts below, and in words; both empty when it is.
  std::string obstacle;
  std::string problem;
};

/// What is written in VolumeState::obstacle.
inline constexpr char kNetworkVolume[] = "network";
inline constexpr char kUnhealthyVolume[] = "unhealthy";
inline constexpr char kReadOnlyVolume[] = "read-only";
inline constexpr char kServicesRefused[] = "no-services";
inline constexpr char kTooLittleRoom[] = "too-little-room";
inline constexpr char kUntypedListings[] = "untyped-listings";
inline constexpr char kUnsafeVolume[] = "unsafe-directory";

/// Why no volume is mounted there, in words; empty when one is. Of what is mounted, a volume is
/// what the patterns of volumes.conf match.
TOLM_OPERATION_API std::string WhyNoVolume(const std::string& path);

/// The mounted volumes in the order in which one is chosen. Throws UpdateError.
TOLM_OPERATION_API std::vector<VolumeState> ListVolumes(const Service& service);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_VOLUME_EVENTS_H_

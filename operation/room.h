#ifndef TOLM_OPERATION_ROOM_H_
#define TOLM_OPERATION_ROOM_H_

#include <cstdint>
#include <optional>
#include <string>

#include "operation/failure.h"

namespace tolm::operation {

/// How much may still be written on the directory's file system while the reserve of
/// rules::kFreePart stays free; nothing when it cannot be looked at.
std::optional<std::uint64_t> RoomIn(const std::string& directory);

/// Where the directory's file system is mounted; the directory itself when that is not known.
std::string MountPointOf(const std::string& directory);

/// The failure "no room on /volume1: 3.0 MB needed, 0 B free beyond the 5 % reserve", and without
/// @p needed_bytes, where it is only known that they are too many, "more is needed than the ...".
Failure NoRoom(const std::string& directory, std::uint64_t free_bytes,
               std::optional<std::uint64_t> needed_bytes = std::nullopt);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_ROOM_H_

#ifndef TOLM_PACKAGE_EXTRACT_H_
#define TOLM_PACKAGE_EXTRACT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "package/staging_directory.h"

namespace tolm::package {

/// Unpacks a payload into the directory open as @p destination: every member, or, when @p members
/// is given, exactly those names. Throws Error.
///
/// The whole payload is read twice. The first pass writes nothing: it refuses members that may not
/// be unpacked, a payload without members, a missing name, and files that need more room than the
/// destination's file system has. What only the destination can tell (a symbolic link on the way,
/// something in the way, a full disk) is met in the second pass; where there was something before,
/// members unpacked until then stay.
///
/// Everything goes into an empty directory by a StagingDirectory, from which it comes into place
/// when the archive's end was met: of what is refused nothing stays. An xz payload that says at its
/// end that there is room is read once then, since unpacking that is what takes long. Of a process
/// that was killed the staging directory stays; whoever unpacks everything there next removes it.
/// @p notice is told when such a directory could not be removed, which is no failure.
///
/// Elsewhere a file is written beside its place and renamed, so whoever has an old file open keeps
/// it whole and no half-written file ever bears a member's name. Symbolic links are created
/// whatever they point to, and never followed. Permission bits are restored (directories keep at
/// least rwx for their owner); owners, set-id bits, times, extended attributes, ACLs and flags are
/// not. Directories that exist keep their mode. Nothing is synced.
void ExtractPayload(int package, std::uint64_t payload_bytes, int destination,
                    const std::vector<std::string>* members,
                    const StagingDirectory::Notice& notice = nullptr);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_EXTRACT_H_

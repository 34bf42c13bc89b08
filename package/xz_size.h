#ifndef TOLM_PACKAGE_XZ_SIZE_H_
#define TOLM_PACKAGE_XZ_SIZE_H_

#include <cstdint>
#include <optional>

namespace tolm::package {

/// How many bytes the first @p payload_bytes bytes of @p fd unpack to, as the index at the end of
/// an xz file says; nothing is unpacked. None where that is no xz file of one stream, or one whose
/// index is damaged or takes much memory, or it cannot be read. Whoever unpacks is told of all
/// these. The file's position is neither used nor moved.
std::optional<std::uint64_t> XzUnpackedBytes(int fd, std::uint64_t payload_bytes);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_XZ_SIZE_H_

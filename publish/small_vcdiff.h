#ifndef TOLM_PUBLISH_SMALL_VCDIFF_H_
#define TOLM_PUBLISH_SMALL_VCDIFF_H_

#include <cstddef>
#include <string>

namespace tolm::publish {

/// Of the old and of the new file, which EncodeSmallVcdiff() holds in memory. What it looks through
/// for each place of the new file grows with the old one: for larger files xdelta3 is as fast.
inline constexpr std::size_t kMostSmallVcdiffBytes = std::size_t{64} * 1024;

/// The VCDIFF delta from one content to another, neither empty nor larger than that, as xdelta3
/// writes it for EncodeVcdiff(): one window with its checksum, the default code table, nothing
/// compressed. To start a process for a small file costs a hundred times what its delta does. The
/// same contents give the same bytes.
std::string EncodeSmallVcdiff(const std::string& source, const std::string& target);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_SMALL_VCDIFF_H_

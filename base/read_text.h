#ifndef TOLM_BASE_READ_TEXT_H_
#define TOLM_BASE_READ_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tolm::base {

/// Reads as ReadAt() does (base/descriptor.h), into a text that takes no more memory than twice
/// what was read, or a little, however large @p most is. Returns nothing with errno set.
std::optional<std::string> ReadTextAt(int fd, std::size_t most, std::uint64_t offset);

}  // namespace tolm::base

#endif  // TOLM_BASE_READ_TEXT_H_

#include "base/read_text.h"

#include <algorithm>

#include "base/descriptor.h"

namespace tolm::base {

std::optional<std::string> ReadTextAt(int fd, std::size_t most, std::uint64_t offset) {
  constexpr std::size_t kLeastPieceBytes = 65536;
  std::string text;
  while (text.size() < most) {
    const std::size_t begin = text.size();
    const std::size_t piece = std::min(most - begin, std::max(begin, kLeastPieceBytes));
    text.resize(begin + piece);
    const std::int64_t count = ReadAt(fd, text.data() + begin, piece, offset + begin);
    if (count < 0) {
      return std::nullopt;
    }
    text.resize(begin + static_cast<std::size_t>(count));
    if (static_cast<std::size_t>(count) < piece) {
      break;
    }
  }
  return text;
}

}  // namespace tolm::base

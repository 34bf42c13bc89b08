#include "platform/output_tail.h"

#include <algorithm>
#include <cstring>

namespace tolm::platform {
namespace {

bool IsLineEnd(char c) {
  return c == '\n' || c == '\r';
}

char Printable(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f ? '?' : c;
}

}  // namespace

void OutputTail::Append(const char* data, std::size_t size) {
  if (size > kMaxBytes) {
    data += size - kMaxBytes;
    size = kMaxBytes;
    cut_ = true;
  }
  const std::size_t kept = std::min(size_, kMaxBytes - size);
  if (kept < size_) {
    std::memmove(bytes_.data(), bytes_.data() + (size_ - kept), kept);
    cut_ = true;
  }
  std::copy_n(data, size, bytes_.begin() + static_cast<std::ptrdiff_t>(kept));
  size_ = kept + size;
}

std::vector<std::string> OutputTail::Lines() const {
  const auto end = bytes_.begin() + static_cast<std::ptrdiff_t>(size_);
  std::vector<std::string> lines;
  for (auto begin = bytes_.begin(); begin != end;) {
    const auto line_end = std::find_if(begin, end, IsLineEnd);
    lines.emplace_back(begin, line_end);
    begin = line_end == end ? end : line_end + 1;
  }
  if (cut_ && lines.size() > 1)
    lines.erase(lines.begin());
  lines.erase(std::remove(lines.begin(), lines.end(), std::string()), lines.end());
  if (lines.size() > kMaxLines)
    lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(kMaxLines));
  for (std::string& line : lines)
    std::transform(line.begin(), line.end(), line.begin(), Printable);
  return lines;
}

}  // namespace tolm::platform

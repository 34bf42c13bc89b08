#include "base/utc_time.h"

#include <cstddef>
#include <ctime>

namespace tolm::base {

std::optional<std::int64_t> ParseUtcTime(const std::string& text) {
  constexpr std::size_t kLength = 20;  // strptime() takes blanks and missing zeros.
  std::tm parts{};
  const char* const end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (end == nullptr || *end != '\0' || text.size() != kLength || text.find(' ') != text.npos) {
    return std::nullopt;
  }
  return timegm(&parts);
}

}  // namespace tolm::base
